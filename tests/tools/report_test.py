"""Gives the benchmarks' report rows of its own. Its argument is the project's directory."""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(sys.argv.pop(1)) / "bench" / "report.py"


def row(value, kind=None, bound=None, met=None, **others):
    aim = {"kind": kind, "bound": bound} if kind else None
    return {"group": "saving", "name": f"row of {value}", "value": value, "unit": "", "low": value,
            "high": value, "aim": aim, "met": met, **others}


ROWS = [row(20, "below", 20, False), row(1.5, "at most", 1.5, True),
        row(0.5, "at least", 0.6, False), row(3, name="a|b", low=2.5, high=12)]
BROKEN = [("no object", ["group"]), ("is no number", row(1, low=float("nan"))),
          ("quartiles", row(1, low=2, high=3)), ("should be False", row(5, "below", 3, True))]


class ReportTest(unittest.TestCase):
    def test_tells_what_is_missed_and_what_is_broken(self):
        place = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        source, page = place / "rows.jsonl", place / "page.md"
        source.write_text("".join(json.dumps(each) + "\n"
                                  for each in [*ROWS, *(line for _, line in BROKEN)]))

        def run(*arguments):
            return subprocess.run([sys.executable, SCRIPT, *arguments], capture_output=True,
                                  text=True)

        done = run(source, place)
        self.assertEqual(done.returncode, 1)
        self.assertIn("4 rows, 3 of them with an aim, 2 missed", done.stdout)
        said = done.stderr.splitlines()
        self.assertEqual(len(said), len(BROKEN), said)
        for number, (line, (fault, _)) in enumerate(zip(said, BROKEN), 5):
            self.assertRegex(line, f"line {number}: .*{fault}")

        page.write_text("Before.\n<!-- results: begin -->\nold\n<!-- results: end -->\nAfter.\n")
        for _ in range(2):  # again, and nothing piles up
            self.assertEqual(run("--markdown", place, page).returncode, 0)
        text = page.read_text()
        self.assertRegex(text, r"^Before\.\n<!--[^>]*-->\s+Measured on[^>]*<!--[^>]*-->\nAfter\.\n$")
        self.assertEqual((text.count("| **missed** |"), text.count("| a\\|b |")), (2, 1))
        self.assertIn("✗ missed", (place / "images" / "performance.svg").read_text())
        self.assertNotEqual(run("--markdown", place, source).returncode, 0)  # it has no place


if __name__ == "__main__":
    unittest.main()
