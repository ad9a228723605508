"""Uses the Python module against the collector."""

import logging
import os
import subprocess
import sys
import tempfile
import unittest
import unittest.mock

import collector

COLLECTOR = sys.argv.pop(1)

import orbiq  # noqa: E402


class ModuleTest(unittest.TestCase):
    """One process has one agent, so there is one case for each process."""

    def setUp(self):
        self.server = self.enterContext(collector.Collector(COLLECTOR))
        self.directory = self.enterContext(tempfile.TemporaryDirectory())

    def test_a_hit_arrives_and_is_told_of(self):
        identifiers = iter(["AD-ID", None, "x" * 10_000, "CUT\0"])
        description = {"bundle_identifier": "tv.example.python", "bundle_name": "Player",
                       "short_version": "4.2",
                       "library_directory": self.directory, "main_screen": (320, 568, 2, 0),
                       "user_interface_idiom": 1, "logging_level": logging.INFO,
                       "advertising_identifier": lambda: next(identifiers)}
        with self.assertRaisesRegex(orbiq.DescriptionRefused, "elsewhere.example.* must be https"):
            orbiq.describe(**description, authorization_server="http://elsewhere.example/")
        orbiq.describe(**description, authorization_server=f"{self.server.url}auth/")
        with self.assertRaisesRegex(orbiq.Error, "argument") as refused:
            orbiq.Tagger("")
        self.assertEqual(refused.exception.status, -1)

        os.mkdir(f"{self.directory}/orbiqCache")
        with open(f"{self.directory}/orbiqCache/requests.ser", "wb") as file:
            file.truncate(65 << 20)  # too large to be read at the start
        with self.assertLogs("orbiq", logging.INFO) as logged, \
                unittest.mock.patch.object(sys, "unraisablehook") as unraisable:
            tagger = orbiq.Tagger("ABC")
            for _ in range(4):
                tagger.send_hit()
            self.assertTrue(orbiq.flush(60))
        self.assertIn("has a zero", str(unraisable.call_args[0][0].exc_value))
        self.assertEqual(list(identifiers), [])
        texts = [record.getMessage() for record in logged.records]
        self.assertEqual(sum(text.endswith(" handling done") for text in texts), 4)
        for said in "did = AD-ID;", "requests can't be read: File too large":
            self.assertTrue(any(said in text for text in texts), said)
        self.assertFalse(any("CUT" in text for text in texts))
        tagger.set_logging_level(logging.CRITICAL)
        tagger.use_idfa = False
        self.assertFalse(orbiq.Tagger("ABC").use_idfa)
        self.server.behave(hitStatus=500)
        tagger.send_hit()
        orbiq.flush()
        counts = orbiq.statistics()
        self.assertEqual((counts.accepted, counts.sent, counts.answered_with_another_status,
                          counts.pending, self.server.counts()["hits"]), (5, 4, 1, 0, {"ABC": 4}))
        self.assertRegex(self.server.seen()["exchanges"][-1]["userAgent"], "^Player/4.2 .* ipad$")
        self.assertRegex(counts.last_failure, "answered with status 500")
        self.assertGreater(counts.last_success, 1.6e9)

        made = orbiq.device_identifier()
        self.assertRegex(made, "^[0-9A-F-]{36}$")
        orbiq.reset_device_identifier()
        self.assertNotEqual(orbiq.device_identifier(), made)
        orbiq.will_enter_foreground()
        self.assertRegex(orbiq.version(), r"^\d+\.\d+\.\d+$")

    def test_a_text_that_c_does_not_have_is_refused(self):
        calls = {name: lambda text, name=name: orbiq.describe(**{name: text})
                 for name in ("bundle_identifier", "bundle_name", "short_version",
                              "authorization_server", "library_directory", "ca_bundle")}
        for name, call in {**calls, "serial": orbiq.Tagger}.items():
            for text in "ABC\0DEF", "ABC\ud800", "\udfffABC":
                with self.subTest(name=name, text=text):
                    with self.assertRaisesRegex(orbiq.Error, "ABC.* has a zero") as refused:
                        call(text)
                    self.assertEqual(refused.exception.status, -1)

    def test_a_process_ends_well_while_the_library_logs(self):
        program = """if True:
            import logging, orbiq
            orbiq.describe(bundle_identifier="tv.example.end")
            tagger = orbiq.Tagger("END")
            tagger.set_logging_level(logging.INFO)
            for _ in range(100):
                tagger.send_hit()"""
        environment = {**os.environ, **self.server.environment(self.directory)}
        for _ in range(5):
            subprocess.run([sys.executable, "-c", program], stderr=subprocess.DEVNULL, timeout=60,
                           check=True, env=environment)


if __name__ == "__main__":
    unittest.main()
