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

<!-- sample: body; given
struct Player {{}};
-->
{FENCE}cpp
#include <string>
std::string text = "{{"; Player player;
{FENCE}
"""

# What is put behind it, and what is said of it.
FAULTS = [
    ("[x](gone.md)", "gone.md leads nowhere"),
    ("[x](page.md#codes)", "no heading #codes"),
    ("[two\nlines](page.md)", "a link stands on one line"),
    ("\n    int indented;", "indented code"),
    (f"<!-- sample: lines -->\n{FENCE}cpp\nint x;\n{FENCE}", "no comment says how"),
    (f"<!-- sample: whole -->\n{FENCE}cpp\nint main() {{ return x; }}\n{FENCE}", "g++ refuses it"),
    (f"<!-- sample: whole -->\n{FENCE}cmake\nadd_library(\n{FENCE}", "cmake refuses it"),
    (f"{FENCE}sh\nif true\n{FENCE}", "bash refuses it"),
    (f"{FENCE}json\n{{1}}\n{FENCE}", "it is no JSON"),
    (f"{FENCE}rust\ncode\n{FENCE}", 'no language named "rust"'),
]


class Checker(unittest.TestCase):
    def test_finds_each_fault(self):
        page = "\n\n".join([GOOD, *(text for text, _ in FAULTS)])
        with tempfile.TemporaryDirectory() as directory:
            project = pathlib.Path(directory)
            (project / "README.md").write_text("# A page\n")
            (project / "docs").mkdir()
            (project / "docs/page.md").write_text(page)
            (project / "orbiq").mkdir()  # the samples of this test need nothing of the header
            (project / "orbiq/orbiq.h").touch()
            checker = [sys.executable, PROJECT / "tools/docs/check.py", project]
            found = subprocess.run(checker, stdout=subprocess.PIPE, text=True, timeout=100).stdout
        for _, said in FAULTS:
            self.assertIn(said, found)
        line = page.split("\n").index("int main() { return x; }") + 1
        self.assertIn(f"docs/page.md:{line}:21: error", found)
        self.assertIn(f" {len(FAULTS)} faults\n", found)


if __name__ == "__main__":
    unittest.main()
