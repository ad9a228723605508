"""Runs the examples that send one hit against the real collector."""

import json
import os
import subprocess
import sys
import tempfile
import unittest

from prometheus_client import parser

import collector

COLLECTOR, FIRST_HIT_C, PROMETHEUS = sys.argv[1:4]
del sys.argv[1:4]


def run(server, *command):
    with tempfile.TemporaryDirectory() as directory:
        return subprocess.run(
            command, capture_output=True, text=True, timeout=60,
            env={**os.environ, "ORBIQ_LIBRARY_DIRECTORY": directory,
                 "ORBIQ_AUTHORIZATION_SERVER": f"http://127.0.0.1:{server.port}/auth/"})


class ExamplesTest(unittest.TestCase):
    def test_the_first_hit_from_c(self):
        with collector.Collector(COLLECTOR) as server:
            ended = run(server, FIRST_HIT_C)
            self.assertEqual((ended.returncode, ended.stderr), (0, ""))
            self.assertEqual(json.loads(ended.stdout)["sent"], 1)
            self.assertEqual(server.counts()["hits"], {"ABC": 1})

    def test_the_statistics_as_prometheus_reads_them(self):
        with collector.Collector(COLLECTOR) as server, tempfile.TemporaryDirectory() as directory:
            printed = run(server, PROMETHEUS)
            self.assertEqual((printed.returncode, printed.stderr), (0, ""))
            path = os.path.join(directory, "orbiq.prom")
            self.assertEqual(run(server, PROMETHEUS, path).returncode, 0)
            self.assertEqual(os.listdir(directory), ["orbiq.prom"])
            with open(path, encoding="utf-8") as file:
                texts = [printed.stdout, file.read()]
            self.assertNotEqual(run(server, PROMETHEUS, directory + "/none/file").returncode, 0)
        for text in texts:
            families = {family.name: family
                        for family in parser.text_string_to_metric_families(text)}
            outcomes = {sample.labels["outcome"]: sample.value
                        for sample in families["orbiq_hits"].samples}
            self.assertEqual(outcomes["sent"], 1)
            self.assertEqual(sum(outcomes.values()),
                             families["orbiq_hits_accepted"].samples[0].value)
            self.assertEqual(families["orbiq_hits_pending"].samples[0].value, 0)
            self.assertGreater(
                families["orbiq_last_success_timestamp_seconds"].samples[0].value, 1.6e9)


if __name__ == "__main__":
    unittest.main()
