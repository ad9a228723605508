"""Uses the library through its C interface, loaded into Python."""

import ctypes
import json
import os
import sys
import tempfile
import unittest

import collector

COLLECTOR, LIBRARY = sys.argv[1:3]
del sys.argv[1:3]

OK, NONE, ARGUMENT, REFUSED, BUFFER, KEYCHAIN, FORKED = 0, 1, -1, -2, -3, -5, -6
SERIAL, NEW_LEVEL_1, NET_MEASUREMENT = 0, 1, 15
BUNDLE_IDENTIFIER, SHORT_VERSION, AUTHORIZATION_SERVER, LIBRARY_DIRECTORY = 0, 2, 3, 4

COUNTS = ("accepted", "sent", "refused", "answered_with_another_status", "given_up", "pushed_out",
          "discarded_at_start", "discarded_at_network_return", "pending",
          "additions_waiting_high_water")


class Statistics(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in COUNTS] + [("last_success", ctypes.c_double)]


LogSink = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32, ctypes.c_char_p, ctypes.c_size_t,
                           ctypes.c_double)
AdvertisingIdentifier = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_void_p,
                                         ctypes.POINTER(ctypes.c_char), ctypes.c_size_t)

orbiq = ctypes.CDLL(LIBRARY)
orbiq.orbiq_host_new.restype = ctypes.c_void_p
orbiq.orbiq_version.restype = orbiq.orbiq_status_text.restype = ctypes.c_char_p
orbiq.orbiq_host_set_main_screen.argtypes = [ctypes.c_void_p] + 4 * [ctypes.c_double]


def text_of(function, *arguments, capacity=200):
    """The status, the text in the buffer, and the length that was told."""
    buffer = ctypes.create_string_buffer(b"?" * capacity, capacity + 1)
    length = ctypes.c_size_t(12345)
    status = function(*arguments, buffer, ctypes.c_size_t(capacity), ctypes.byref(length))
    return status, buffer.value, length.value


class CInterfaceTest(unittest.TestCase):
    """One process has one agent, so all cases share it."""

    @classmethod
    def setUpClass(cls):
        cls.server = cls.enterClassContext(collector.Collector(COLLECTOR))
        cls.directory = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.lines = []

        @LogSink
        def sink(_, mode, text, length, seconds):
            cls.lines.append((mode, text, length, seconds))

        @AdvertisingIdentifier
        def identifier(context, buffer, capacity):
            ctypes.memmove(buffer, b"AD-ID\0", 6)
            return context == 7 and capacity > 6

        cls.kept = sink, identifier
        host = ctypes.c_void_p(orbiq.orbiq_host_new())
        orbiq.orbiq_host_set_text(host, AUTHORIZATION_SERVER, b"http://elsewhere.example/")
        status, cls.refusal, _ = text_of(lambda buffer, capacity, _: orbiq.orbiq_host_describe(
            host, buffer, capacity))
        assert status == REFUSED
        for which, text in ((BUNDLE_IDENTIFIER, b"tv.example.c"), (SHORT_VERSION, b"4.2"),
                            (AUTHORIZATION_SERVER,
                             f"http://127.0.0.1:{cls.server.port}/auth/".encode()),
                            (LIBRARY_DIRECTORY, cls.directory.encode())):
            assert orbiq.orbiq_host_set_text(host, which, text) == OK
        assert orbiq.orbiq_host_set_main_screen(host, 320, 568, 2, 0) == OK
        assert orbiq.orbiq_host_set_log_sink(host, sink, None) == OK
        assert orbiq.orbiq_host_set_advertising_identifier(
            host, identifier, ctypes.c_void_p(7)) == OK
        assert orbiq.orbiq_host_describe(host, None, ctypes.c_size_t(0)) == OK
        orbiq.orbiq_host_free(host)

        cls.tagger = ctypes.c_void_p()
        assert orbiq.orbiq_tagger_with_serial(b"ABC", ctypes.byref(cls.tagger)) == OK

    def test_a_hit_is_logged_sent_and_counted(self):
        orbiq.orbiq_tagger_set_logging_mode(self.tagger, 0)
        self.assertEqual(orbiq.orbiq_tagger_send_hit(self.tagger), OK)
        self.assertEqual(orbiq.orbiq_post_will_enter_foreground(), OK)
        self.assertEqual(orbiq.orbiq_flush(ctypes.c_double(60)), OK)
        statistics = Statistics()
        self.assertEqual(orbiq.orbiq_get_statistics(
            ctypes.byref(statistics), ctypes.c_size_t(ctypes.sizeof(statistics))), OK)
        orbiq.orbiq_tagger_set_logging_mode(self.tagger, 2)
        self.assertEqual((statistics.accepted, statistics.sent), (1, 1))
        self.assertEqual(self.server.counts()["hits"], {"ABC": 1})
        status, text, length = text_of(orbiq.orbiq_statistics_json, capacity=1000)
        counts = json.loads(text)
        self.assertEqual((status, length, counts["sent"], counts["lastFailure"]),
                         (OK, len(text), 1, None))
        self.assertAlmostEqual(counts["lastSuccessMilliseconds"] / 1000, statistics.last_success,
                               delta=0.001)
        self.assertEqual(text_of(orbiq.orbiq_last_failure), (NONE, b"", 0))

        older = (ctypes.c_uint64 * 4)(*4 * [99])  # a caller that knows two fields
        self.assertEqual(orbiq.orbiq_get_statistics(older, ctypes.c_size_t(16)), OK)
        self.assertEqual(list(older), [1, 1, 99, 99])
        newer = (ctypes.c_uint64 * 13)(*13 * [99])  # one that knows a field more
        self.assertEqual(orbiq.orbiq_get_statistics(newer, ctypes.c_size_t(12 * 8)), OK)
        self.assertEqual(list(newer)[11:], [0, 99])

        self.assertTrue(any(b"AD-ID" in text for _, text, _, _ in self.lines))
        names = {0: b"(INFO) : ", 2: b"(ERROR) : "}
        for mode, text, length, seconds in self.lines:
            self.assertTrue(text.startswith(names[mode]), text)
            self.assertEqual((length, seconds > 1.6e9), (len(text), True))

    def test_texts_of_a_tagger_stand_each_for_itself_and_are_cut_between_characters(self):
        def get(which, **more):
            return text_of(orbiq.orbiq_tagger_get_text, self.tagger, which, **more)

        texts = {which: b"text %d" % which for which in range(NEW_LEVEL_1, NET_MEASUREMENT + 1)}
        for which, text in texts.items():
            self.assertEqual(get(which), (NONE, b"", 0))
            self.assertEqual(orbiq.orbiq_tagger_set_text(self.tagger, which, text), OK)
        for which, text in texts.items():
            self.assertEqual(get(which), (OK, text, len(text)))
        self.assertEqual(get(SERIAL), (OK, b"ABC", 3))

        text = "aé€😀".encode()  # 1 + 2 + 3 + 4 bytes
        orbiq.orbiq_tagger_set_text(self.tagger, NEW_LEVEL_1, text)
        for capacity, expected in ((1, 0), (2, 1), (3, 1), (4, 3), (6, 3), (7, 6), (10, 6)):
            self.assertEqual(get(NEW_LEVEL_1, capacity=capacity),
                             (BUFFER, text[:expected], len(text)))
        self.assertEqual(get(NEW_LEVEL_1, capacity=11), (OK, text, len(text)))
        length = ctypes.c_size_t()
        self.assertEqual(orbiq.orbiq_tagger_get_text(
            self.tagger, NEW_LEVEL_1, None, ctypes.c_size_t(0), ctypes.byref(length)), OK)
        self.assertEqual(length.value, len(text))

    def test_bad_arguments_are_refused(self):
        some = ctypes.c_size_t(1)
        host = ctypes.c_void_p(orbiq.orbiq_host_new())
        other = ctypes.c_void_p(1)
        for status in (
                orbiq.orbiq_host_set_text(None, 0, b""), orbiq.orbiq_host_set_text(host, 6, b""),
                orbiq.orbiq_host_set_text(host, -1, b""),
                orbiq.orbiq_host_set_main_screen(host, float("nan"), 1, 1, 1),
                orbiq.orbiq_host_describe(None, None, some),
                orbiq.orbiq_host_describe(host, None, some),
                orbiq.orbiq_tagger_with_serial(b"A", None),
                orbiq.orbiq_tagger_with_serial(b"", ctypes.byref(other)),
                orbiq.orbiq_tagger_with_serial(None, ctypes.byref(other)),
                orbiq.orbiq_tagger_send_hit(None),
                orbiq.orbiq_tagger_set_text(self.tagger, SERIAL, b"other"),
                orbiq.orbiq_tagger_set_text(self.tagger, NET_MEASUREMENT + 1, b""),
                orbiq.orbiq_device_identifier(None, some, None),
                orbiq.orbiq_get_statistics(None, some), orbiq.orbiq_main_loop_adopt(None)):
            self.assertEqual(status, ARGUMENT)
        self.assertIsNone(other.value)
        self.assertIn(b"http://elsewhere.example/", self.refusal)
        status, reason, _ = text_of(
            lambda buffer, capacity, _: orbiq.orbiq_host_describe(host, buffer, capacity),
            capacity=12)
        self.assertEqual((status, reason), (REFUSED, b"the library"))  # is in use already
        orbiq.orbiq_host_free(host)
        texts = {orbiq.orbiq_status_text(status) for status in range(-8, 3)}
        self.assertEqual(len(texts), 11)

    def test_the_device_identifier_is_kept_reset_and_missed(self):
        self.assertEqual(text_of(orbiq.orbiq_device_identifier_replace), (KEYCHAIN, b"", 0))
        made = text_of(orbiq.orbiq_device_identifier)
        replaced = text_of(orbiq.orbiq_device_identifier_replace)
        first = text_of(orbiq.orbiq_device_identifier)
        self.assertEqual(first, replaced)
        self.assertNotEqual(first[1], made[1])
        self.assertEqual((first[0], first[2]), (OK, 36))
        self.assertEqual(orbiq.orbiq_device_identifier_reset(), OK)
        self.assertNotEqual(text_of(orbiq.orbiq_device_identifier)[1], first[1])
        keychain = os.path.join(self.directory, "orbiqKeychain")
        os.rename(keychain, keychain + ".away")
        with open(keychain, "w", encoding="utf-8"):
            pass  # a file in the directory's place
        self.assertEqual(orbiq.orbiq_device_identifier_reset(), KEYCHAIN)
        self.assertEqual(text_of(orbiq.orbiq_device_identifier), (KEYCHAIN, b"", 0))

    def test_a_forked_child_is_told_so(self):
        child = os.fork()
        if child == 0:
            nothing = (None, ctypes.c_size_t(0), None)
            statuses = {orbiq.orbiq_tagger_send_hit(self.tagger),
                        orbiq.orbiq_flush(ctypes.c_double(60)),
                        orbiq.orbiq_tagger_with_serial(b"ABC", ctypes.byref(ctypes.c_void_p())),
                        orbiq.orbiq_post_will_enter_foreground(),
                        orbiq.orbiq_device_identifier(*nothing),
                        orbiq.orbiq_device_identifier_replace(*nothing),
                        orbiq.orbiq_device_identifier_reset()}
            os._exit(0 if statuses == {FORKED} else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)

    def test_the_loop_can_be_adopted(self):
        descriptor = ctypes.c_int(-1)
        self.assertEqual(orbiq.orbiq_main_loop_adopt(ctypes.byref(descriptor)), OK)
        os.fstat(descriptor.value)
        self.assertEqual(orbiq.orbiq_main_loop_run_pending(), OK)


if __name__ == "__main__":
    unittest.main()
