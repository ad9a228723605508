"""What all tools have in common: manual pages, completions and colours.

Its arguments are the directory of the pages and the paths of the tools: requests, collector, doctor.
"""

import os
import pathlib
import re
import subprocess
import sys
import unittest

PAGES, *TOOLS = map(pathlib.Path, sys.argv[1:])


class CommonTest(unittest.TestCase):
    def test_page_help_and_completions_name_the_same_options(self):
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
            version = subprocess.check_output([tool, "--version"], text=True)
            self.assertRegex(version, rf"^{tool.name} \d+\.\d+\.\d+\n$")

    def test_colours_are_for_terminals_that_want_them(self):
        requests, _, doctor = TOOLS
        for tool, text in ((f"{requests} {__file__}", "\x1b[1m"),
                           (f"{doctor} --server $'x\x1b[2Jy' --serial S", "\x1b[1;31mFAILED")):
            for command, refused, coloured in ((["script", "-qefc", tool, "/dev/null"], "", True),
                                               (["script", "-qefc", tool, "/dev/null"], "1", False),
                                               (["bash", "-c", tool], "", False)):
                said = subprocess.run(command, stdout=subprocess.PIPE, text=True, env={
                    **os.environ, "SHELL": "/bin/bash", "NO_COLOR": refused}).stdout
                self.assertIn("bplist00" if tool.startswith(str(requests)) else "FAILED    ", said)
                self.assertEqual(text in said, coloured, command)
                self.assertEqual("\x1b" in said, coloured, command)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
