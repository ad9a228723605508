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


def run(server, *command, **more):
    with tempfile.TemporaryDirectory() as directory:
        return subprocess.run(
            command, capture_output=True, text=True, timeout=60,
            env={**os.environ, **more, "ORBIQ_LIBRARY_DIRECTORY": directory,
                 "ORBIQ_AUTHORIZATION_SERVER": f"http://127.0.0.1:{server.port}/auth/"})


class ExamplesTest(unittest.TestCase):
    def test_the_first_hit_from_c(self):
        with collector.Collector(COLLECTOR) as server:
            ended = run(server, FIRST_HIT_C)
            self.assertEqual((ended.returncode, ended.stderr), (0, ""))
            self.assertEqual(json.loads(ended.stdout)["sent"], 1)
            self.assertEqual(server.counts()["hits"], {"ABC": 1})

    def test_the_first_hit_from_other_languages(self):
        if not LIBRARY:
            self.skipTest("the library is built with what other compilers do not have")
        scratch = self.enterContext(tempfile.TemporaryDirectory())
        pathlib.Path(scratch, "orbiq.pc").write_text(
            f"Name: orbiq\nVersion: 1\nDescription: not installed\nCflags: -I{SOURCE}\n"
            f"Libs: -L{LIBRARY.parent} -lorbiq\n")
        environment = {**os.environ, "PATH": DEBIAN, "PKG_CONFIG_PATH": scratch,
                       "GOCACHE": f"{scratch}/go", "LD_LIBRARY_PATH": str(LIBRARY.parent)}
        environment.pop("GOFLAGS", None)
        for name, command in {
                "rust": ["rustc", "--edition", "2021", "-D", "warnings", "-L", LIBRARY.parent],
                "go": ["go", "build"]}.items():
            with self.subTest(language=name), collector.Collector(COLLECTOR) as server:
                if not shutil.which(command[0], path=DEBIAN):
                    self.skipTest(f"there is no {command[0]}")
                source = next((SOURCE / f"examples/first-hit-{name}").iterdir())
                program = f"{scratch}/{name}-program"
                subprocess.run([shutil.which(command[0], path=DEBIAN), *command[1:], "-o", program,
                                source], env=environment, check=True, timeout=300)
                self.assertEqual(run(server, program, **environment).returncode, 0)
                self.assertEqual(server.counts()["hits"], {"ABC": 1})

    def test_the_player_counts_each_start(self):
        if PLAYER == "none":
            self.skipTest("there is no GStreamer, or none that a sanitizer could look into")
        scratch = self.enterContext(tempfile.TemporaryDirectory())
        subprocess.run(["gst-launch-1.0", "-q", "audiotestsrc", "num-buffers=20", "!", "vorbisenc",
                        "!", "oggmux", "!", "filesink", f"location={scratch}/a.ogg"], check=True)
        heard, missing = f"file://{scratch}/a.ogg", f"file://{scratch}/none.ogg"
        environment = {"GST_REGISTRY": f"{scratch}/registry"}
        for media, code in ((3 * [heard], 0), ([heard, missing, heard], 1)):
            with collector.Collector(COLLECTOR) as server:
                ended = run(server, PLAYER, "--silent", *media, **environment)
                self.assertEqual(ended.returncode, code, ended.stderr)
                self.assertEqual(server.counts()["hits"], {"PLAYER": media.index(missing)
                                                           if code else len(media)})

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
