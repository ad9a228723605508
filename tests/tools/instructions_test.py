"""Gives the comparison of instruction counts what can come of a run. Its argument is the project's
directory."""

import importlib.util
import json
import pathlib
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(sys.argv.pop(1)) / "bench" / "instructions.py"
LOADER = importlib.util.spec_from_file_location("instructions", SCRIPT)
instructions = importlib.util.module_from_spec(LOADER)
LOADER.loader.exec_module(instructions)


def counted(compiler="GNU 12.2.0", architecture="x86_64", **counts):
    return {"architecture": architecture, "compiler": compiler, "counts": counts}


class InstructionsTest(unittest.TestCase):
    def expect(self, noted, measured, status, *texts):
        lines, came = instructions.compare(noted, measured)
        self.assertEqual(came, status, lines)
        self.assertEqual(len(lines), len(texts), lines)
        for line, text in zip(lines, texts):
            self.assertIn(text, line)

    def test_growth_above_a_tenth_fails_and_nothing_else(self):
        self.expect(counted(save=1000, sendHit=1000), counted(save=1101, sendHit=1000), 1,
                    "save: 1,000 before, 1,101 now, +10.10%: more than 10%", "+0.00%")
        self.expect(counted(save=1000), counted(save=1100), 0, "+10.00%")
        self.expect(counted(save=1000), counted(save=500), 0, "1,000 before, 500 now, -50.00%")

    def test_what_has_no_partner_fails(self):
        self.expect(counted(save=1), counted(save=1, sendHit=1), 1, "save: 1", "sendHit: was not noted")
        self.expect(counted(save=1, sendHit=1), counted(save=1), 1, "save: 1", "sendHit: is not counted")

    def test_only_like_is_compared_with_like(self):
        noted = counted(save=1000)
        for other in (counted("GNU 13.1.0", save=2000), counted("Clang 12.0.1", save=2000),
                      counted(architecture="aarch64", save=2000)):
            self.expect(noted, other, 0, "not compared: the noted counts are of GNU 12 on x86_64",
                        "save: 2,000")
        self.expect(noted, counted("GNU 12.3.0", save=2000), 1, "+100.00%: more than 10%")

    def test_an_update_is_what_the_next_run_compares_with(self):
        instructions.measure = lambda _: counted(**dict.fromkeys(instructions.WORK, count))
        with tempfile.TemporaryDirectory() as directory:
            path = pathlib.Path(directory, "noted.json")
            count = 1000
            self.assertEqual(instructions.main("", path, update=True), 0)
            self.assertEqual(json.loads(path.read_text())["counts"]["save"], 1000)
            self.assertEqual(instructions.main("", path), 0)
            count = 1200
            self.assertEqual(instructions.main("", path), 1)


if __name__ == "__main__":
    unittest.main()
