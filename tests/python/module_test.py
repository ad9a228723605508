"""Uses the Python module against the collector."""

import logging
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import collector

COLLECTOR = sys.argv.pop(1)

import orbiq  # noqa: E402


class ModuleTest(unittest.TestCase):
    """One process has one agent, so there is one case for each process."""

    def test_a_hit_arrives_and_is_told_of(self):
        server = self.enterContext(collector.Collector(COLLECTOR))
        directory = self.enterContext(tempfile.TemporaryDirectory())
        url = f"http://127.0.0.1:{server.port}/auth/"
        identifiers = iter(["AD-ID", None, "x" * 10_000])
        asked = []

        def identifier():
            asked.append(next(identifiers))
            return asked[-1]

        description = {"bundle_identifier": "tv.example.python", "short_version": "4.2",
                       "library_directory": directory, "main_screen": (320, 568, 2, 0),
                       "user_interface_idiom": 1, "advertising_identifier": identifier}
        with self.assertRaisesRegex(orbiq.DescriptionRefused, "elsewhere.example.* must be https"):
            orbiq.describe(**description, authorization_server="http://elsewhere.example/")
        orbiq.describe(**description, authorization_server=url)
        with self.assertRaisesRegex(orbiq.Error, "argument") as refused:
            orbiq.Tagger("")
        self.assertEqual(refused.exception.status, -1)

        tagger = orbiq.Tagger("ABC")
        tagger.set_logging_level(logging.INFO)
        server.behave(authStatus=200, hitStatus=200)
        with self.assertLogs("orbiq", logging.INFO) as logged:
            for _ in range(3):
                tagger.send_hit()
            self.assertTrue(orbiq.flush(60))
        self.assertEqual((asked, server.counts()["hits"]), (["AD-ID", None, "x" * 10_000],
                                                            {"ABC": 3}))
        texts = [record.getMessage() for record in logged.records]
        self.assertEqual(sum(text.endswith(" handling done") for text in texts), 3)
        self.assertTrue(any("did = AD-ID;" in text for text in texts))
        tagger.set_logging_level(logging.CRITICAL)
        tagger.use_idfa = False
        self.assertFalse(orbiq.Tagger("ABC").use_idfa)
        counts = orbiq.statistics()
        self.assertEqual((counts.accepted, counts.sent, counts.pending, counts.last_failure),
                         (3, 3, 0, None))
        self.assertGreater(counts.last_success, 1.6e9)

        server.behave(hitStatus=500)
        tagger.send_hit()
        orbiq.flush()
        self.assertRegex(orbiq.statistics().last_failure, "answered with status 500")
        made = orbiq.device_identifier()
        self.assertRegex(made, "^[0-9A-F-]{36}$")
        orbiq.reset_device_identifier()
        self.assertNotEqual(orbiq.device_identifier(), made)
        orbiq.will_enter_foreground()
        self.assertRegex(orbiq.version(), r"^\d+\.\d+\.\d+$")
        child = os.fork()
        if child == 0:
            try:
                orbiq.flush()
            except orbiq.Error as error:
                os._exit(-error.status)
            os._exit(0)
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), 6)

    def test_a_process_ends_well_while_the_library_logs(self):
        program = """if True:
            import logging, sys, orbiq
            orbiq.describe(bundle_identifier="tv.example.end", authorization_server=sys.argv[1],
                           library_directory=sys.argv[2])
            tagger = orbiq.Tagger("END")
            tagger.set_logging_level(logging.INFO)
            for _ in range(100):
                tagger.send_hit()"""
        server = self.enterContext(collector.Collector(COLLECTOR))
        directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for _ in range(5):
            ended = subprocess.run(
                [sys.executable, "-c", program, f"http://127.0.0.1:{server.port}/auth/", directory],
                stderr=subprocess.DEVNULL, timeout=60, check=False)
            self.assertEqual(ended.returncode, 0)


if __name__ == "__main__":
    unittest.main()
