"""Runs the examples that send one hit against the real collector."""

import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

from prometheus_client import parser

import collector

COLLECTOR, FIRST_HIT_C, PROMETHEUS, PLAYER = sys.argv[1:5]
# To be linked by other compilers; left out where these could not.
LIBRARY = pathlib.Path(sys.argv[5]) if len(sys.argv) > 5 else None
SOURCE = pathlib.Path(__file__).resolve().parents[2]
DEBIAN = "/usr/bin:" + os.environ["PATH"]
del sys.argv[1:]


class ExamplesTest(unittest.TestCase):
    def setUp(self):
        self.scratch = self.enterContext(tempfile.TemporaryDirectory())

    def run_example(self, hits, *command, code=0, **more):
        """What it prints; the collector gets these hits."""
        with collector.Collector(COLLECTOR) as server, \
                tempfile.TemporaryDirectory() as directory:
            ended = subprocess.run(command, capture_output=True, text=True, timeout=60, env={
                **os.environ, **more, **server.environment(directory)})
            self.assertEqual((ended.returncode, server.counts()["hits"]), (code, hits),
                             ended.stderr)
        return ended.stdout

    def test_the_first_hit_from_c(self):
        self.assertEqual(json.loads(self.run_example({"ABC": 1}, FIRST_HIT_C))["sent"], 1)

    @unittest.skipUnless(LIBRARY, "the library is built with what other compilers do not have")
    def test_the_first_hit_from_other_languages(self):
        pathlib.Path(self.scratch, "orbiq.pc").write_text(
            f"Name: orbiq\nVersion: 1\nDescription: not installed\nCflags: -I{SOURCE}\n"
            f"Libs: -L{LIBRARY.parent} -lorbiq\n")
        environment = {**os.environ, "PATH": DEBIAN, "PKG_CONFIG_PATH": self.scratch,
                       "GOCACHE": f"{LIBRARY.parent}/go-cache", "LD_LIBRARY_PATH": str(LIBRARY.parent)}
        environment.pop("GOFLAGS", None)
        for name, command in {
                "rust": ["rustc", "--edition", "2021", "-D", "warnings", "-L", LIBRARY.parent],
                "go": ["go", "build"]}.items():
            with self.subTest(language=name):
                if not shutil.which(command[0], path=DEBIAN):
                    self.skipTest(f"there is no {command[0]}")
                source = next((SOURCE / f"examples/first-hit-{name}").iterdir())
                program = f"{self.scratch}/{name}-program"
                subprocess.run([shutil.which(command[0], path=DEBIAN), *command[1:], "-o", program,
                                source], env=environment, check=True, timeout=300)
                self.run_example({"ABC": 1}, program, **environment)

    @unittest.skipIf(PLAYER == "none", "there is no GStreamer that a sanitizer could look into")
    def test_the_player_counts_each_start(self):
        heard, missing = f"file://{self.scratch}/a.ogg", f"file://{self.scratch}/none.ogg"
        subprocess.run(["gst-launch-1.0", "-q", "audiotestsrc", "num-buffers=20", "!", "vorbisenc",
                        "!", "oggmux", "!", "filesink", f"location={self.scratch}/a.ogg"],
                       check=True)
        for media, code, hits in ((3 * [heard], 0, 3), ([heard, missing, heard], 1, 1)):
            self.run_example({"PLAYER": hits}, PLAYER, "--silent", *media, code=code,
                             GST_REGISTRY=f"{self.scratch}/registry")

    def test_the_statistics_as_prometheus_reads_them(self):
        path = pathlib.Path(self.scratch, "orbiq.prom")
        printed = self.run_example({"ABC": 1}, PROMETHEUS)
        self.run_example({"ABC": 1}, PROMETHEUS, path)
        self.assertEqual(os.listdir(self.scratch), ["orbiq.prom"])
        for text in printed, path.read_text():
            value = {(each.name, *each.labels.values()): each.value
                     for family in parser.text_string_to_metric_families(text)
                     for each in family.samples}
            outcomes = [value[key] for key in value if key[0] == "orbiq_hits_total"]
            self.assertEqual((value["orbiq_hits_total", "sent"], sum(outcomes),
                              value["orbiq_hits_accepted_total",], value["orbiq_hits_pending",]),
                             (1, 1, 1, 0))
            self.assertGreater(value["orbiq_last_success_timestamp_seconds",], 1.6e9)


if __name__ == "__main__":
    unittest.main()
