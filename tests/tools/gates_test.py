"""Gives the checks of floors and of instruction counts one fault at a time. Its argument is the
project's directory."""

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
THREADS = "orbiq/services/platform/threads/"
SOUND = {
    "orbiq/orbiq.h": f'#include <sys/types.h>\n#include "{TAGGER}"\n',
    TAGGER: f'#include <string>\n#include "{AGENT}orbiqAgent.h"\n',
    AGENT + "orbiqAgent.h": "class orbiqAudienceTagger;  // no std::mutex\n",
    AGENT + "orbiqAgentRegistry.cpp": f'#include "{TAGGER}"\n',
    THREADS + "Mutex.h": "std::mutex _mutex;\n",
}


def counted(compiler="GNU 12.2.0", **counts):
    return {"architecture": "x86_64", "compiler": compiler, "counts": counts}


class GatesTest(unittest.TestCase):
    def test_floors(self):
        for name, text, expected in (
                (AGENT + "orbiqAgentRegistry.h", "", ""),
                (AGENT + "orbiqAgentQueue.cpp", f'#  include "{TAGGER}"\n', ".*not below floor 6.*"),
                (THREADS + "Thread.cpp", "static std::mutex lock;\n", ".*Mutex.h alone.*"),
                (THREADS + "Mutex.h", f'#include "{THREADS}Mutex.h"\n', ".*a circle.*"),
                (AGENT + "orbiqAgent.h", "#include <curl/curl.h>\n", ".*would reach.*")):
            with self.subTest(name), tempfile.TemporaryDirectory() as directory:
                for file, content in (SOUND | {name: text}).items():
                    path = pathlib.Path(directory, file)
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_text(content, encoding="utf-8")
                found = list(floors.faults(pathlib.Path(directory)))
                self.assertRegex("\n".join(found), f"^{expected}$")

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


if __name__ == "__main__":
    unittest.main()
