"""Gives the check of the floors one fault at a time. Its argument is the project's directory."""

import importlib.util
import pathlib
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(sys.argv.pop(1)) / "tools" / "lint" / "floors.py"
LOADER = importlib.util.spec_from_file_location("floors", SCRIPT)
floors = importlib.util.module_from_spec(LOADER)
LOADER.loader.exec_module(floors)

AGENT = "orbiq/private/orbiqAgent/"
TAGGER = "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h"
PLATFORM = "orbiq/services/platform/"
SOUND = {
    "orbiq/orbiq.h": f'#include <sys/types.h>\n#include "{TAGGER}"\n',
    TAGGER: f'#include <string>\n#include "{AGENT}orbiqAgent.h"\n',
    AGENT + "orbiqAgent.h": "class orbiqAudienceTagger;\n",
    AGENT + "orbiqAgentRegistry.cpp": f'#include "{TAGGER}"\n',
    PLATFORM + "threads/Mutex.h": "std::mutex _mutex;\n",
    PLATFORM + "host/Platform.h": f'#include "{PLATFORM}threads/Mutex.h"  // not std::mutex\n',
    PLATFORM + "http/H.h": "",
    PLATFORM + "http/Curl.cpp": "#include <curl/curl.h>\n",
}


class FloorsTest(unittest.TestCase):
    def faults(self, files={}):
        with tempfile.TemporaryDirectory() as directory:
            project = pathlib.Path(directory)
            for name, text in (SOUND | files).items():
                (project / name).parent.mkdir(parents=True, exist_ok=True)
                (project / name).write_text(text, encoding="utf-8")
            return list(floors.faults(project))

    def test_accepts_a_sound_project(self):
        self.assertEqual(self.faults(), [])

    def test_finds_each_fault(self):
        for name, text, part in (
                (AGENT + "orbiqAgentQueue.cpp", f'#include "{TAGGER}"\n', "not below floor 6"),
                (AGENT + "DeviceContext/D.h", f'#  include "{AGENT}orbiqAgent.h"\n', "floor 4"),
                (PLATFORM + "loop/L.h", f'#include "{PLATFORM}http/H.h"\n', "not below floor 1.5"),
                ("tools/t.cpp", f'#include "{PLATFORM}threads/Mutex.h"\n#include <tools/none.h>\n', None),
                ("examples/e.cpp", f"#include <{TAGGER}>\n", "nothing behind it"),
                ("bench/b.cpp", '#include "examples/demo/e.h"\n', "no file of the project"),
                ("orbiq/private/orbiqRequest/R.h", '#include "R.h"\n', "from the root"),
                (PLATFORM + "host/Http.h", f'#include "{PLATFORM}host/Platform.h"\n', "stands alone"),
                (PLATFORM + "threads/Thread.cpp", "static std::mutex lock;\n", "Mutex.h alone"),
                (PLATFORM + "threads/Mutex.h", f'#include "{PLATFORM}host/Platform.h"\n', "a circle"),
                (AGENT + "orbiqAgent.h", "#include <curl/curl.h>\n",
                 "would reach applications")):
            found = self.faults({name: text})
            if part:
                self.assertTrue(any(part in fault for fault in found), (name, found))
            else:
                self.assertEqual(found, [])


if __name__ == "__main__":
    unittest.main()
