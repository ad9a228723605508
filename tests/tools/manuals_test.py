"""Compares manual pages and completions with what the tools say of themselves.

Its arguments are the directory of the pages and the paths of the tools.
"""

import pathlib
import re
import subprocess
import sys
import unittest

PAGES, *TOOLS = map(pathlib.Path, sys.argv[1:])


class ManualsTest(unittest.TestCase):
    def test_page_and_help_name_the_same_options(self):
        self.assertTrue(TOOLS)
        for tool in TOOLS:
            ended = subprocess.run([tool, "--help"], capture_output=True, text=True, check=True)
            said = set(re.findall(r"^ +(?:-\w,)?--([\w-]+)", ended.stdout, re.MULTILINE))
            page = (PAGES / (tool.name + ".1")).read_text(encoding="utf-8")
            lines = re.findall(r"^\.It Fl (.*)$", page, re.MULTILINE)
            written = set(re.findall(r"(?:^|Fl )-([\w-]+)", "\n".join(lines), re.MULTILINE))
            self.assertIn("help", said)
            self.assertEqual(written, said, tool.name)
            completed = subprocess.run(
                ["bash", "-c", 'source "$0"; _orbiq "$1" --; printf "%s\n" "${COMPREPLY[@]#--}"',
                 PAGES.parents[1] / "tools/completions/orbiq.bash", tool],
                capture_output=True, text=True, check=True)
            self.assertEqual(sorted(completed.stdout.split()), sorted(said))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
