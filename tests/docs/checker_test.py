"""Lets the checker of the pages find one fault of each kind, and nothing else."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(sys.argv.pop(1)).resolve()

FENCE = "```"
GOOD = f"""# A page
See [below](#code), [above](../README.md#a-page) and `[no](link)`.

## Code

<!-- sample: whole -->
{FENCE}cpp
int main() {{ return 0; }}
{FENCE}

<!-- sample: body; given
#include <vector>
struct Player {{}};
-->
{FENCE}cpp
#include <string>
std::vector<Player> players;
std::string text = "{{";
{FENCE}

<!-- sample: body; given
static int two;
-->
{FENCE}c
int three = two + 1;
{FENCE}

{FENCE}sh
until [[ -s port ]]; do sleep 1; done
{FENCE}
"""

# What is put into the page, and what is said of it.
FAULTS = [
    ("[x](gone.md)", "gone.md leads nowhere"),
    ("[x](../../README.md)", "leads nowhere"),
    ("![x](gone.svg)", "gone.svg leads nowhere"),
    ("[x](page.md#codes)", "no heading #codes"),
    ("[two\nlines](page.md)", "a link stands on one line"),
    ("\n    int indented;", "indented code"),
    (f"- item\n  {FENCE}cpp\n  {FENCE}", "indented code"),
    (f"{FENCE}cpp\nint x;\n{FENCE}", "no comment says how"),
    (f"<!-- sample: lines -->\n{FENCE}cpp\nint x;\n{FENCE}", "no comment says how"),
    (f"<!-- sample: whole -->\n\ntext\n{FENCE}cpp\nint x;\n{FENCE}", "no comment says how"),
    (f"<!-- sample: whole -->\n{FENCE}cpp\nint main() {{ return x; }}\n{FENCE}", "docs/page.md:34:21: error"),
    (f"<!-- sample: body -->\n{FENCE}cpp\nint* p = 1;\n{FENCE}", "invalid conversion"),
    (f"<!-- sample: body -->\n{FENCE}c\nint class = x;\n{FENCE}", "gcc refuses it"),
    (f"<!-- sample: whole -->\n{FENCE}cmake\nadd_library(\n{FENCE}", "cmake refuses it"),
    (f"{FENCE}sh\nif true\n{FENCE}", "bash refuses it"),
    (f"{FENCE}json\n{{1}}\n{FENCE}", "it is no JSON"),
    (f"{FENCE}\ncode\n{FENCE}", 'no language named ""'),
    (f"{FENCE}rust\ncode\n{FENCE}", 'no language named "rust"'),
]


class Checker(unittest.TestCase):
    def check(self, page, *libraries):
        with tempfile.TemporaryDirectory() as directory:
            project = pathlib.Path(directory)
            (project / "README.md").write_text("# A page\n")
            (project / "docs").mkdir()
            (project / "docs/page.md").write_text(page)
            (project / "orbiq").mkdir()  # the samples of this test need nothing of the headers
            for header in ("orbiq.h", "orbiq_c.h"):
                (project / "orbiq" / header).touch()
            return subprocess.run([sys.executable, PROJECT / "tools/docs/check.py", directory,
                                   *libraries],
                                  capture_output=True, text=True, timeout=100)

    def test_good_page(self):
        ended = self.check(GOOD)
        self.assertEqual((ended.returncode, ended.stdout), (0, "2 pages, 4 samples, 0 faults\n"),
                         ended.stderr)

    def test_each_fault(self):
        for text, said in FAULTS:
            with self.subTest(text):
                ended = self.check(f"{GOOD}\n{text}\n")
                self.assertEqual(ended.returncode, 1, ended.stderr)
                self.assertIn(said, ended.stdout)

    def test_samples_that_do_not_link_or_run(self):
        def body(code, how=""):
            given = "void there(void);\nvoid hidden(void);"
            return f"<!-- sample: body{how}; given\n{given}\n-->\n{FENCE}c\n{code}\n{FENCE}\n"

        with tempfile.TemporaryDirectory() as directory:
            library = f"{directory}/liborbiq.so"
            subprocess.run(["gcc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], check=True,
                           input=b"void there(void) { __builtin_trap(); }")
            for code, said in ((body("hidden();", "; linked"), "undefined reference"),
                               (body("there();"), "run, it ends with -4"),
                               (body("there();", "; linked"), ", 5 samples, 0 faults")):
                with self.subTest(code):
                    self.assertIn(said, self.check(f"{GOOD}\n{code}", library).stdout)


if __name__ == "__main__":
    unittest.main()
