"""Calls the C interface from Python, for what the module makes no use of."""

import ctypes
import json
import os
import sys
import tempfile
import unittest

import collector

COLLECTOR, LIBRARY = sys.argv[1:3]
del sys.argv[1:3]

import orbiq  # noqa: E402

OK, NONE, ARGUMENT, REFUSED, BUFFER, KEYCHAIN, FORKED = 0, 1, -1, -2, -3, -5, -6
SERIAL, NEW_LEVEL_1, NET_MEASUREMENT = 0, 1, 15

c = ctypes.CDLL(LIBRARY)
c.orbiq_host_new.restype = ctypes.c_void_p
c.orbiq_status_text.restype = ctypes.c_char_p


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
        server = cls.enterClassContext(collector.Collector(COLLECTOR))
        cls.directory = cls.enterClassContext(tempfile.TemporaryDirectory())
        orbiq.describe(authorization_server=f"http://127.0.0.1:{server.port}/auth/",
                       library_directory=cls.directory)
        cls.tagger = ctypes.c_void_p()
        assert c.orbiq_tagger_with_serial(b"ABC", ctypes.byref(cls.tagger)) == OK

    def test_statistics_of_callers_of_other_versions(self):
        unusable = ctypes.c_void_p()  # makes no URL: such a hit is given up
        self.assertEqual(c.orbiq_tagger_with_serial(b"A B", ctypes.byref(unusable)), OK)
        for tagger in self.tagger, unusable, self.tagger:
            self.assertEqual(c.orbiq_tagger_send_hit(tagger), OK)
        self.assertEqual(c.orbiq_flush(ctypes.c_double(60)), OK)
        status, text, length = text_of(c.orbiq_statistics_json, capacity=1000)
        counts = json.loads(text)
        self.assertEqual((status, length, counts["sent"], counts["givenUp"]),
                         (OK, len(text), 2, 1))
        self.assertAlmostEqual(counts["lastSuccessMilliseconds"] / 1000,
                               orbiq.statistics().last_success, delta=0.001)
        self.assertEqual(c.orbiq_statistics_json(None, ctypes.c_size_t(0), None), OK)
        older = (ctypes.c_uint64 * 4)(*4 * [99])  # one that knows two fields
        self.assertEqual(c.orbiq_get_statistics(older, ctypes.c_size_t(16)), OK)
        self.assertEqual(list(older), [3, 2, 99, 99])
        newer = (ctypes.c_uint64 * 13)(*13 * [99])  # one that knows a field more
        self.assertEqual(c.orbiq_get_statistics(newer, ctypes.c_size_t(12 * 8)), OK)
        self.assertEqual(list(newer)[:6] + list(newer)[11:], [3, 2, 0, 0, 1, 0, 0, 99])

    def test_texts_of_a_tagger_stand_each_for_itself_and_are_cut_between_characters(self):
        def get(which, **more):
            return text_of(c.orbiq_tagger_get_text, self.tagger, which, **more)

        texts = {which: b"text %d" % which for which in range(NEW_LEVEL_1, NET_MEASUREMENT + 1)}
        for which, text in texts.items():
            self.assertEqual(get(which), (NONE, b"", 0))
            self.assertEqual(c.orbiq_tagger_set_text(self.tagger, which, text), OK)
        for which, text in texts.items():
            self.assertEqual(get(which), (OK, text, len(text)))
        self.assertEqual(get(SERIAL), (OK, b"ABC", 3))

        text = "aé€😀".encode()  # 1 + 2 + 3 + 4 bytes
        c.orbiq_tagger_set_text(self.tagger, NEW_LEVEL_1, text)
        for capacity, expected in ((1, 0), (2, 1), (3, 1), (4, 3), (6, 3), (7, 6), (10, 6)):
            self.assertEqual(get(NEW_LEVEL_1, capacity=capacity),
                             (BUFFER, text[:expected], len(text)))
        self.assertEqual(get(NEW_LEVEL_1, capacity=11), (OK, text, len(text)))

    def test_bad_arguments_are_refused(self):
        some = ctypes.c_size_t(1)
        host = ctypes.c_void_p(c.orbiq_host_new())
        other = ctypes.c_void_p(1)
        for status in (
                c.orbiq_host_set_text(None, 0, b""), c.orbiq_host_set_text(host, 6, b""),
                c.orbiq_host_set_text(host, -1, b""), c.orbiq_host_describe(host, None, some),
                c.orbiq_tagger_send_hit(None), c.orbiq_tagger_with_serial(b"A", None),
                c.orbiq_tagger_with_serial(None, ctypes.byref(other)),
                c.orbiq_tagger_set_text(self.tagger, SERIAL, b"other"),
                c.orbiq_set_logging_mode(-1),
                c.orbiq_get_statistics(None, some), c.orbiq_main_loop_adopt(None)):
            self.assertEqual(status, ARGUMENT)
        self.assertIsNone(other.value)
        status, reason, _ = text_of(
            lambda buffer, capacity, _: c.orbiq_host_describe(host, buffer, capacity), capacity=12)
        self.assertEqual((status, reason), (REFUSED, b"the library"))  # is in use already
        c.orbiq_host_free(host)

    def test_the_device_identifier_is_replaced_and_missed(self):
        self.assertEqual(text_of(c.orbiq_device_identifier_replace), (KEYCHAIN, b"", 0))
        made = text_of(c.orbiq_device_identifier)
        replaced = text_of(c.orbiq_device_identifier_replace)
        self.assertNotEqual(replaced[1], made[1])
        self.assertEqual(text_of(c.orbiq_device_identifier), replaced)
        keychain = os.path.join(self.directory, "orbiqKeychain")
        os.rename(keychain, keychain + ".away")
        with open(keychain, "w", encoding="utf-8"):
            pass  # a file in the directory's place
        self.assertEqual(c.orbiq_device_identifier_reset(), KEYCHAIN)
        self.assertEqual(text_of(c.orbiq_device_identifier), (KEYCHAIN, b"", 0))

    def test_a_forked_child_is_told_so(self):
        child = os.fork()
        if child == 0:
            nothing = (None, ctypes.c_size_t(0), None)
            statuses = {c.orbiq_tagger_send_hit(self.tagger), c.orbiq_post_will_enter_foreground(),
                        c.orbiq_device_identifier(*nothing), c.orbiq_device_identifier_reset(),
                        c.orbiq_device_identifier_replace(*nothing)}
            os._exit(0 if statuses == {FORKED} else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)

    def test_the_loop_can_be_adopted(self):
        descriptor = ctypes.c_int(-1)
        self.assertEqual(c.orbiq_main_loop_adopt(ctypes.byref(descriptor)), OK)
        os.fstat(descriptor.value)
        self.assertEqual(c.orbiq_main_loop_run_pending(), OK)


if __name__ == "__main__":
    unittest.main()
