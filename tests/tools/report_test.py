"""Gives the benchmarks' report rows of its own. Its argument is the project's directory."""

import json
import pathlib
import sys
import unittest

sys.path.append(str(pathlib.Path(sys.argv.pop(1)) / "bench"))
import report  # noqa: E402


def row(value, kind=None, bound=None, met=None, **others):
    aim = {"kind": kind, "bound": bound} if kind else None
    return {"group": "saving", "name": "a row", "value": value, "unit": "", "low": value,
            "high": value, "aim": aim, "met": met, **others}


class ReportTest(unittest.TestCase):
    def test_tells_what_is_missed_and_what_is_broken(self):
        rows, faults = report.read_rows("\n".join(map(json.dumps, (
            row(20, "below", 20, False), row(1.5, "at most", 1.5, True),
            row(0.5, "at least", 0.6, False), row(3, low=2.5, high=12),
            row(1, low=2, high=3), row(5, "below", 3, True)))))
        self.assertEqual(report.verdicts(rows), "4 rows, 3 of them with an aim, 2 missed")
        self.assertEqual(faults, ["line 5: the value does not lie between the quartiles",
                                  'line 6: "met" says True, and it should be False'])


if __name__ == "__main__":
    unittest.main()
