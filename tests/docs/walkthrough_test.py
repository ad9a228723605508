"""Does what docs/tutorial.md and docs/testing.md say, and compares what comes of it. The hit of each
sample that sends one arrives, and those that tell of the failure do so."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

import collector

PROJECT, COLLECTOR, TUTORIAL = (pathlib.Path(argument) for argument in sys.argv[1:4])
LIBRARY = pathlib.Path(sys.argv[4]).resolve() if len(sys.argv) > 4 else None
del sys.argv[1:]
sys.path.insert(0, str(PROJECT / "tools/docs"))
import pages  # noqa: E402


def block(page, comment):
    return pages.block(PROJECT / "docs" / page, lambda fence: fence.comment == comment)


class Walkthrough(unittest.TestCase):
    def run_script(self, *command):
        # The command timeout ends the script's collector too.
        script = ["timeout", "100", "bash", "-c", block("testing.md", "script"), "script"]
        return subprocess.run([*script, *command], env={**os.environ, "COLLECTOR": COLLECTOR},
                              capture_output=True, text=True)

    def test_tutorial(self):
        with tempfile.TemporaryDirectory() as scratch, collector.Collector(COLLECTOR) as server:
            ended = subprocess.run([TUTORIAL], capture_output=True, text=True, timeout=100,
                                   env=server.environment(scratch))
            lines = server.stop()[1]
        self.assertEqual(ended.stdout, block("tutorial.md", "output"), ended.stderr)
        self.assertEqual("".join(line.partition(" ")[2] for line in lines),
                         block("tutorial.md", "requests"))

    def test_script(self):
        ended = self.run_script(TUTORIAL)
        self.assertEqual(ended.returncode, 0, ended.stderr)
        self.assertIn("'hits': {'ABC': 1}", ended.stdout)
        self.assertEqual(self.run_script("true").returncode, 1)  # an application that sends nothing

    @unittest.skipUnless(LIBRARY, "no program can be linked with this library")
    def test_samples(self):
        samples = [(page, language, code) for page in ("README.md", "docs/c.md")
                   for language, code in re.findall(r"^```(cpp|c|python)\n(.*?)^```",
                                                    (PROJECT / page).read_text(), re.M | re.S)
                   if "https://" in code or "int main" in code]
        self.assertEqual([sample[:2] for sample in samples],
                         [("README.md", "cpp"), ("README.md", "c"), ("docs/c.md", "c"),
                          ("docs/c.md", "python"), ("docs/c.md", "python")])
        with tempfile.TemporaryDirectory() as scratch, collector.Collector(COLLECTOR) as server:
            for number, (page, language, code) in enumerate(samples, 1):
                with self.subTest(page=page, language=language):
                    code = re.sub(r"https://[a-z.]*/tag/", f"{server.url}auth/", code)
                    place = f"{scratch}/{number}"
                    program = self.program(language, code, place)
                    server.behave(hitStatus=200)
                    self.send(program, server, place, 0, "^")
                    self.assertEqual(server.counts()["hits"], {"ABC": number})
                    if "not sent" in code:
                        server.behave(hitStatus=500)
                        self.send(program, server, place, 1, "not sent: .* with status 500")

    def program(self, language, code, place):
        os.mkdir(place)
        program = [sys.executable, "-c", code]
        if language != "python":
            program = [f"{place}/program"]
            compiler = os.environ.get("CXX", "g++") if language == "cpp" else "gcc"
            subprocess.run([*compiler.split(), "-std=c++20" if language == "cpp" else "-std=c11",
                            f"-I{PROJECT}", "-x", "c++" if language == "cpp" else "c", "-", "-o",
                            *program, "-x", "none", LIBRARY, f"-Wl,-rpath,{LIBRARY.parent}"],
                           input=code, text=True, check=True)
        return program

    def send(self, program, server, place, status, said):
        ended = subprocess.run(program, timeout=100, env=server.environment(place) | {
            "LD_LIBRARY_PATH": str(LIBRARY.parent), "PYTHONPATH": PROJECT / "python"},
                               capture_output=True, text=True)
        self.assertEqual(ended.returncode, status, ended.stderr)
        self.assertRegex(ended.stdout + ended.stderr, said)


if __name__ == "__main__":
    unittest.main()
