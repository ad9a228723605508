"""Installs a build into a prefix of its own, compiles every installed header, and uninstalls.

Usage: prefix_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BUILD, SOURCE, COMPILER = sys.argv[1:]
COMPONENTS = ("library", "secretservice", "development", "secretservice_development", "tools",
              "python", "documentation")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror")
# Who may own what the headers include: the C library, the kernel's headers, the compiler's.
SYSTEM_PACKAGES = re.compile(r"(libc6-dev|linux-libc-dev|lib(stdc\+\+|gcc)-\d+-dev|"
                             r"libclang-(common|rt)-\d+-dev)(:\w+)?")


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


def owners(paths):
    """The packages that own each of these files of the system."""
    found = run("dpkg-query", "--search", *paths).stdout
    owning = {path: ["nobody"] for path in paths}
    for line in found.splitlines():
        packages, _, path = line.rpartition(": ")
        owning[path] = packages.split(", ")
    return owning


class Prefix(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory(prefix="orbiq-install-")
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = pathlib.Path(scratch.name)

    def install(self, name):
        """By component: the manifest of the user's own installation is left alone."""
        place = self.scratch / name
        prefix = place / "prefix"
        manifest = ""
        for component in COMPONENTS:
            done = run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
            self.assertEqual(done.returncode, 0, done.stderr)
            manifest += pathlib.Path(BUILD, f"install_manifest_{component}.txt").read_text() + "\n"
        (place / "install_manifest.txt").write_text(manifest)
        return prefix

    def compile(self, include, header, language):
        """What is wrong with the header when it is included first, and twice; what it includes."""
        line = f"#include <{header}>\n"
        dependencies = self.scratch / (header.replace("/", "-") + language[0] + ".d")
        done = run(COMPILER, "-fsyntax-only", *WARNINGS, *language, "-I", include, "-MD", "-MF",
                   dependencies, "-MT", "x", "-", input=line + line)
        included = []
        if done.returncode == 0:
            included = dependencies.read_text().replace("\\\n", " ").split()[1:]
        return done.stderr, {os.path.realpath(path) for path in included if path != "-"}

    def test_headers_stand_alone(self):
        include = self.install("headers") / "include"
        headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
        self.assertIn("orbiq/orbiq.h", headers)
        jobs = [(header, ("-std=c++20", "-x", "c++")) for header in headers]
        jobs += [(header, ("-std=c11", "-x", "c")) for header in headers if header.endswith("_c.h")]
        foreign = {}
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            compiled = pool.map(lambda job: self.compile(include, *job), jobs)
            for (header, _), (faults, included) in zip(jobs, compiled):
                with self.subTest(header=header):
                    self.assertEqual(faults, "")
                    self.assertTrue(included)
                for path in included:
                    if not path.startswith(f"{os.path.realpath(include)}/orbiq/"):
                        foreign.setdefault(path, header)
        self.assertTrue(foreign)
        for path, packages in owners(sorted(foreign)).items():
            with self.subTest(header=foreign[path], includes=path):
                self.assertTrue(all(map(SYSTEM_PACKAGES.fullmatch, packages)), packages)

    def test_uninstalling_removes_what_was_installed_and_nothing_else(self):
        prefix = self.install("uninstalled")
        foreign = prefix / "include/orbiq/private/of-the-user.h"
        foreign.write_text("")
        done = run("cmake", "-P", f"{SOURCE}/cmake/uninstall.cmake", cwd=prefix.parent)
        self.assertEqual(done.returncode, 0, done.stderr)
        files = [path for path in prefix.rglob("*") if not path.is_dir()]
        self.assertEqual(files, [foreign])
        places = {str(path.relative_to(prefix)) for path in prefix.rglob("orbiq*")}
        self.assertEqual(places, {"include/orbiq"})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
