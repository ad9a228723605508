"""Installs a build into a prefix of its own, compiles every installed header, links a C program with
the archive, and uninstalls.

Usage: prefix_test.py BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

BUILD, SOURCE, COMPILER = sys.argv[1:]
COMPONENTS = ("library", "secretservice", "development", "secretservice_development", "tools",
              "python", "documentation")
WARNINGS = ("-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion", "-Werror")


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


class Prefix(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        """By component: the manifest of the user's own installation is left alone."""
        cls.scratch = pathlib.Path(cls.enterClassContext(
            tempfile.TemporaryDirectory(prefix="orbiq-install-")))
        cls.prefix = cls.scratch / "prefix"
        manifest = ""
        for component in COMPONENTS:
            done = run("cmake", "--install", BUILD, "--prefix", cls.prefix, "--component", component)
            assert done.returncode == 0, done.stderr
            manifest += pathlib.Path(BUILD, f"install_manifest_{component}.txt").read_text() + "\n"
        (cls.scratch / "install_manifest.txt").write_text(manifest)

    def test_headers_stand_alone(self):
        include = self.prefix / "include"
        headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
        self.assertIn("orbiq/orbiq.h", headers)
        jobs = [(header, ("-std=c++20", "-x", "c++")) for header in headers]
        jobs += [(header, ("-std=c11", "-x", "c")) for header in headers if header.endswith("_c.h")]

        def compiled(job):
            header, language = job
            return run(COMPILER, "-fsyntax-only", *WARNINGS, *language, "-I", include, "-",
                       input=2 * f"#include <{header}>\n").stderr

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for job, faults in zip(jobs, pool.map(compiled, jobs)):
                with self.subTest(job=job):
                    self.assertEqual(faults, "")

    def test_c_alone_links_the_archive(self):
        application = self.scratch / "application"
        application.mkdir()
        compiler = COMPILER.replace("clang++", "clang").replace("g++", "gcc")
        program = f"{SOURCE}/examples/first-hit-c/main.c"
        flags = run("pkg-config", "--cflags", "--libs", "orbiq-static", env={
            **os.environ, "PKG_CONFIG_PATH": str(next(self.prefix.rglob("pkgconfig")))})
        (application / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.25)\nproject(consumer LANGUAGES C)\n"
            "find_package(orbiq REQUIRED COMPONENTS static)\n"
            f"add_executable(app {program})\ntarget_link_libraries(app PRIVATE orbiq::orbiq_static)\n")
        for command in ([compiler, program, *flags.stdout.split(), "-o", application / "app"],
                        ["cmake", "-G", "Ninja", "-S", application, "-B", application / "build",
                         f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_C_COMPILER={compiler}"],
                        ["cmake", "--build", application / "build"]):
            with self.subTest(command=command[:2]):
                done = run(*command)
                self.assertEqual(done.returncode, 0, done.stderr + done.stdout)

    # The last, as tests run in the order of their names.
    def test_uninstalling_removes_what_was_installed_and_nothing_else(self):
        foreign = self.prefix / "include/orbiq/private/of-the-user.h"
        foreign.write_text("")
        done = run("cmake", "-P", f"{SOURCE}/cmake/uninstall.cmake", cwd=self.scratch)
        self.assertEqual(done.returncode, 0, done.stderr)
        files = [path for path in self.prefix.rglob("*") if not path.is_dir()]
        self.assertEqual(files, [foreign])
        places = {str(path.relative_to(self.prefix)) for path in self.prefix.rglob("*orbiq*")}
        self.assertEqual(places, {"include/orbiq"})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
