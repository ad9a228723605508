"""Does what docs/tutorial.md and docs/testing.md say, and compares what comes of it."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

PROJECT, COLLECTOR, TUTORIAL = (pathlib.Path(argument) for argument in sys.argv[1:4])
del sys.argv[1:4]
sys.path.insert(0, str(PROJECT / "tools/docs"))
import pages  # noqa: E402


def block(page, comment):
    return pages.block(PROJECT / "docs" / page, lambda fence: fence.comment == comment)


class Walkthrough(unittest.TestCase):
    def run_script(self, *command):
        environment = {**os.environ, "COLLECTOR": COLLECTOR}
        return subprocess.run(["bash", "-c", block("testing.md", "script"), "script", *command],
                              env=environment, capture_output=True, text=True, timeout=100)

    def test_tutorial(self):
        with tempfile.TemporaryDirectory() as scratch, subprocess.Popen(
                [COLLECTOR, "--port", "0"], stdout=subprocess.PIPE, text=True) as collector:
            url = collector.stdout.readline().removeprefix("listening on ").strip()
            ended = subprocess.run([TUTORIAL], capture_output=True, text=True, timeout=100, env={
                "ORBIQ_AUTHORIZATION_SERVER": f"{url}auth/", "ORBIQ_LIBRARY_DIRECTORY": scratch})
            collector.terminate()
            lines = collector.stdout.readlines()
        self.assertEqual(ended.stdout, block("tutorial.md", "output"), ended.stderr)
        self.assertEqual("".join(line.partition(" ")[2] for line in lines),
                         block("tutorial.md", "requests"))

    def test_script(self):
        ended = self.run_script(TUTORIAL)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertIn("'hits': {'ABC': 1}", ended.stdout)
        self.assertEqual(self.run_script("true").returncode, 1)  # an application that sends nothing


if __name__ == "__main__":
    unittest.main()
