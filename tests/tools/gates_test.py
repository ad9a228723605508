"""Gives the checks of floors and of instruction counts, and the benchmarks' report, one fault at a time.
Its argument is the project's directory."""

import importlib.util
import json
import pathlib
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(sys.argv.pop(1))
sys.path += [str(PROJECT / "tools/lint"), str(PROJECT / "bench")]
import floors  # noqa: E402
import instructions  # noqa: E402

AGENT = "orbiq/private/orbiqAgent/"
TAGGER = "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"


def counted(compiler="GNU 12.2.0", **counts):
    return {"architecture": "x86_64", "compiler": compiler, "counts": counts}


def row(value, kind=None, bound=None, **others):
    aim = {"kind": kind, "bound": bound} if kind else None
    return {"group": "saving", "name": "a row", "value": value, "unit": "", "low": value,
            "high": value, "aim": aim, **others}


class GatesTest(unittest.TestCase):
    def test_floors(self):
        project = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for name, text in (("orbiq/orbiq.h", f'#include <sys/types.h>\n#include "{TAGGER}"\n'),
                           (TAGGER, f'#include <string>\n#include <c/c.h>\n#include "{TAGGER}"\nusing std::string;\n'),
                           (AGENT + "orbiqAgentRegistry.cpp", f'#include "{TAGGER}"\n'),
                           (AGENT + "A.cpp", f'#  include "{TAGGER}"\nstd::mutex a;  // std::mutex')):
            (project / name).parent.mkdir(parents=True, exist_ok=True)
            (project / name).write_text(text, encoding="utf-8")
        expected = ("not below floor 6", "Mutex.h alone", "using std::string;", "a circle",
                    "would reach applications")
        found = list(floors.faults(project))
        self.assertEqual(len(found), len(expected), found)
        for fault, part in zip(found, expected):
            self.assertIn(part, fault)

    def test_instructions(self):
        for measured, status, said in (
                (counted(save=1101), 1, "more than 10%"), (counted(save=1100), 0, "+10.00%"),
                (counted(save=500, more=1), 1, "more: was not noted"),
                (counted(), 1, "save: is not counted"),
                (counted("GNU 12.3.0", save=2000), 1, "+100.00%"),
                (counted("GNU 13.1.0", save=2000), 0, "not compared")):
            lines, came = instructions.compare(counted(save=1000), measured)
            self.assertEqual(came, status, lines)
            self.assertIn(said, "\n".join(lines))

    @unittest.skipUnless(importlib.util.find_spec("matplotlib"), "Python's Matplotlib is not installed")
    def test_report(self):
        import report
        rows, faults = report.read_rows("\n".join(map(json.dumps, (
            row(20, "below", 20), row(1.5, "at most", 1.5), row(0.5, "at least", 0.6),
            row(3, low=2.5, high=12), row(1, low=2, high=3), row(5, "above", 3)))))
        self.assertEqual(report.verdicts(rows), "4 rows, 3 of them with an aim, 2 missed")
        self.assertEqual(faults, ["line 5: the value does not lie between the quartiles",
                                  "line 6: its aim is none that is known"])


if __name__ == "__main__":
    unittest.main()
