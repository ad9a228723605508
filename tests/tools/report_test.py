"""Gives the benchmarks' report rows of its own. Its argument is the project's directory."""

import json
import pathlib
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

SCRIPT = pathlib.Path(sys.argv.pop(1)) / "bench" / "report.py"
sys.path.insert(0, str(SCRIPT.parent))
import chart  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"


def row(value, kind=None, bound=None, met=None, **others):
    aim = {"kind": kind, "bound": bound} if kind else None
    return {"group": "saving", "name": f"row of {value}", "value": value, "unit": "", "low": value,
            "high": value, "aim": aim, "met": met, **others}


AIMED = [row(19.9, "below", 20, True), row(20, "below", 20, False),
         row(1.5, "at most", 1.5, True), row(1.51, "at most", 1.5, False),
         row(0.6, "at least", 0.6, True), row(0.5, "at least", 0.6, False),
         row(0, "at most", 0, True, group="rest", name="a < b & c", unit="switches"),
         row(7, "at most", 0, False, group="rest", unit="switches")]


class ReportTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.place = pathlib.Path(directory.name)

    def run_script(self, *arguments):
        return subprocess.run([sys.executable, SCRIPT, *arguments], capture_output=True, text=True)

    def report(self, *lines):
        source = self.place / "rows.jsonl"
        source.write_text("".join(line if isinstance(line, str) else json.dumps(line) + "\n"
                                  for line in lines))
        return self.run_script(source, self.place)

    def results(self):
        return json.loads((self.place / "results.json").read_text())

    def test_tells_each_kind_of_aim(self):
        done = self.report(*AIMED, row(3, name="of no aim", low=2.5, high=12))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        lines = done.stdout.splitlines()
        ends = [line.split()[-1] for line in lines if " row of " in line or "a < b" in line]
        self.assertEqual(ends, ["met", "missed"] * 4)
        self.assertRegex(done.stdout, r"of no aim +3\.00 +× +2\.50 to 12\.0\n")
        self.assertIn("9 rows, 8 of them with an aim, 4 missed", done.stdout)
        # One column stands under the other, and a group's rows stand together.
        self.assertEqual(len({line.index("  ×  ") for line in lines if "  ×  " in line}), 1)
        self.assertLess(done.stdout.index("of no aim"), done.stdout.index("\nrest\n"))
        self.assertEqual(len(self.results()["rows"]), 9)
        for name in ("processor", "cores", "kernel", "fileSystem", "date", "commit"):
            self.assertTrue(self.results()["machine"][name])

    def test_draws_what_has_an_aim(self):
        self.report(*AIMED, row(3, name="of no aim"))
        drawing = xml.etree.ElementTree.parse(self.place / "results.svg").getroot()
        words = " ".join("".join(text.itertext()) for text in drawing.iter(SVG + "text"))
        self.assertEqual((words.count("\u2717 missed"), words.count("\u2713")), (4, 4))
        self.assertIn("a < b & c", words)
        self.assertNotIn("of no aim", words)
        for each in AIMED:  # what is missed goes to the right, whichever way its aim points
            is_right = chart.relative(each["value"], each["aim"]) > 1
            self.assertTrue(each["met"] or is_right or each["value"] == each["aim"]["bound"])
            self.assertFalse(each["met"] and is_right)

    def test_names_a_broken_line_and_keeps_the_others(self):
        whole = row(2, "below", 3, True)
        broken = {
            "no JSON": '{"group": "saving", "na\n',
            '"value" is no number': row(None, low=1, high=1),
            '"low" is no number': row(1, low=float("nan")),
            "between the quartiles": row(1, low=2, high=3),
            "none that is known": row(1, "about", 1, True),
            "should be False": row(5, "below", 3, True),
            "should be True": row(1, "below", 3, None),
            "no object": "[]\n",
        }
        for fault, line in broken.items():
            with self.subTest(fault):
                done = self.report(whole, line, whole)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr, f"line 2: .*{fault}")
                self.assertEqual(self.results()["rows"], [whole, whole])
                self.assertEqual(len(self.results()["faults"]), 1)
        self.assertEqual(self.report().returncode, 1)  # nothing was measured

    def test_puts_the_results_into_a_page(self):
        self.report(*AIMED[:2], row(1, name="a|b"))
        page = self.place / "page.md"
        page.write_text("Before.\n<!-- results: begin -->\nold\n<!-- results: end -->\nAfter.\n")
        for _ in range(2):  # again, and nothing piles up
            self.assertEqual(self.run_script("--markdown", self.place, page).returncode, 0)
        text = page.read_text()
        self.assertTrue(text.startswith("Before.\n<!--") and text.endswith("-->\nAfter.\n"))
        self.assertNotIn("old", text)
        self.assertEqual(text.count("| **missed** |"), 1)
        self.assertEqual((text.count("row of 19.9"), text.count("a\\|b")), (1, 1))
        self.assertEqual((self.place / "images" / "performance.svg").read_text(),
                         (self.place / "results.svg").read_text())
        page.write_text("no place\n")
        self.assertNotEqual(self.run_script("--markdown", self.place, page).returncode, 0)


if __name__ == "__main__":
    unittest.main()
