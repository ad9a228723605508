#!/usr/bin/env python3
"""Checks the pages: every code sample is compiled, every relative link leads somewhere.

Usage: check.py [PROJECT [LIBRARY...]]. Prints one line per fault and exits 1 if there is any. $CXX
and $CC name the compilers. With the shared libraries given, C and C++ samples are linked against them
and run, each in a library directory of its own and without a network, where that can be had.

Code stands between fences that name its language. What must be known of a C++, C or CMake sample
besides stands in a comment right before it, which no reader sees:

    <!-- sample: whole -->         a whole file, compiled as it stands
    <!-- sample: body -->          statements: the inside of a function, behind the library's header
    <!-- sample: body; given
    struct Player {};
    -->                            the same, behind these declarations, with further includes
    <!-- sample: body; linked -->  the same, but not run: it does not end by itself, or not soon
    <!-- sample: lines -->         CMake: lines of a project that has an executable "app" and these
                                   sources in "orbiq"

`sh` samples are parsed, and linted where shellcheck is there; `python` and `json` samples are parsed;
`text` and the like are no code.
"""

import concurrent.futures
import functools
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import pages  # noqa: E402

NO_CODE = {"text", "ini", "dockerfile", "yaml"}
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror",
            # A sample may show how a thing is made, and no more.
            "-Wno-unused-variable", "-Wno-unused-but-set-variable"]
RULE = re.compile(r"sample: (whole|body|lines)(; linked)?(?:;\s*given\b(.*))?", re.DOTALL)
INCLUDE = re.compile(r"^#include .*\n?", re.MULTILINE)
UMBRELLAS = {"cpp": "orbiq/orbiq.h", "c": "orbiq/orbiq_c.h"}
# The library's installed headers beside the umbrella, and what they need.
COMPONENT = re.compile(r"^#include <orbiq/(secretservice)/", re.MULTILINE)


class Fault(Exception):
    pass


def run(command, text=None, **options):
    done = subprocess.run(command, input=text, capture_output=True, text=True, errors="replace",
                          **options)
    if done.returncode != 0:
        said = (done.stderr + done.stdout).strip()
        raise Fault(f"{os.path.basename(command[0])} refuses it\n{said}")


def compiler_of(language):
    if language == "cpp":
        return [*os.environ.get("CXX", "g++").split(), *WARNINGS, "-std=c++20"]
    return [*os.environ.get("CC", "gcc").split(), *WARNINGS, "-std=c11"]


@functools.cache
def without_network():
    """What runs a program where it reaches nobody; nothing if that cannot be had."""
    for command in (["unshare", "--net"], ["unshare", "--map-root-user", "--net"]):
        if shutil.which("unshare") and subprocess.run([*command, "true"], check=False,
                                                      stderr=subprocess.DEVNULL).returncode == 0:
            return command
    return []


class Programs:
    """Links samples against the libraries and runs them; without libraries, only compiles them."""

    def __init__(self, project, libraries, scratch):
        self.project, self.scratch = project, pathlib.Path(scratch)
        self.libraries = [pathlib.Path(library).resolve() for library in libraries]
        self.include = [f"-I{scratch}", f"-I{project}"]
        if libraries:
            self.precompile()

    def precompile(self):
        """The umbrella, which takes most of the time; other compilers than g++ do not find it."""
        (self.scratch / "orbiq").mkdir()
        subprocess.run([*compiler_of("cpp"), *self.include, "-x", "c++-header",
                        self.project / UMBRELLAS["cpp"],
                        "-o", self.scratch / (UMBRELLAS["cpp"] + ".gch")],
                       capture_output=True, check=False)  # what is wrong with it, each sample says

    def check(self, language, code, is_run):
        compiler = [*compiler_of(language), *self.include]
        source = ["-x", "c++" if language == "cpp" else "c", "-"]
        component = COMPONENT.search(code)
        missing = component and not any(component[1] in path.name for path in self.libraries)
        if not self.libraries or missing:
            run([*compiler, "-fsyntax-only", *source], code)
            return
        with tempfile.TemporaryDirectory(dir=self.scratch) as place:
            program = f"{place}/sample"
            paths = [f"-Wl,-rpath,{path.parent}" for path in self.libraries]
            run([*compiler, *source, "-o", program, "-x", "none", "-Wl,--as-needed",
                 *map(str, self.libraries), *paths], code)
            if is_run and without_network():
                self.run(program, place)

    def run(self, program, place):
        environment = {name: value for name, value in os.environ.items()
                       if not name.lower().endswith("_proxy")}
        environment |= {"ORBIQ_LIBRARY_DIRECTORY": place, "XDG_STATE_HOME": place,
                        "DBUS_SESSION_BUS_ADDRESS": "disabled:"}
        ended = subprocess.run([*without_network(), program], env=environment, timeout=100,
                               capture_output=True, text=True, errors="replace", check=False)
        if ended.returncode != 0:
            raise Fault(f"run, it ends with {ended.returncode}\n{ended.stderr}{ended.stdout}")


def check_c_family(programs, page, fence, rule):
    kind, linked, given = rule
    umbrella = UMBRELLAS[fence.language]
    # As the compiler shall name what it refuses.
    code = f'#line {fence.line + 1} "{page}"\n{fence.code}'
    if kind == "body":
        includes = "".join(INCLUDE.findall(fence.code))
        code = (f"#include <{umbrella}>\n{includes}{given}\nvoid sample(void);\n"
                f'void sample(void) {{\n{INCLUDE.sub(chr(10), code)}}}\n'
                "int main(void) { sample(); return 0; }\n")
    elif not re.search(r"\bmain\(", code):
        code += "int main(void) { return 0; }\n"
    programs.check(fence.language, code, not linked)


def check_cmake(project, fence, rule):
    code = fence.code
    if rule[0] == "lines":
        code = ("cmake_minimum_required(VERSION 3.25)\nproject(sample LANGUAGES CXX)\n"
                f"add_executable(app app.cpp)\n{code}")
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        (place / "CMakeLists.txt").write_text(code)
        for source in {"app.cpp", *re.findall(r"[\w-]+\.cpp", code)}:
            (place / source).write_text("int main() {}\n")
        (place / "orbiq").symlink_to(project.resolve())
        # What find_package finds are the sources; `./dev install-check` has an installation.
        (place / "orbiq-config.cmake").write_text(
            "add_subdirectory(${CMAKE_CURRENT_LIST_DIR}/orbiq orbiq)\n")
        (place / "orbiq-config-version.cmake").write_text("set(PACKAGE_VERSION_COMPATIBLE TRUE)\n")
        run(["cmake", "-S", directory, "-B", directory + "/build", "-G", "Ninja",
             f"-Dorbiq_DIR={directory}"])


def check_shell(_project, fence):
    run(["bash", "-n"], fence.code)
    if shutil.which("shellcheck"):
        run(["shellcheck", "--shell=bash", "-"], fence.code)


def check_json(fence):
    try:
        json.loads(fence.code)
    except ValueError as error:
        raise Fault(f"it is no JSON: {error}") from None


def check_python(fence):
    try:
        compile(fence.code, "sample", "exec")
    except SyntaxError as error:
        raise Fault(f"it is no Python: {error}") from None


def rule_of(fence, kinds):
    said = RULE.fullmatch(fence.comment)
    if not said or said[1] not in kinds:
        raise Fault(f"no comment says how it is compiled: {', '.join(kinds)}")
    return said[1], said[2], said[3] or ""


def check_sample(programs, page, fence):
    project = programs.project
    if fence.language in ("cpp", "c"):
        check_c_family(programs, page, fence, rule_of(fence, ("whole", "body")))
    elif fence.language == "cmake":
        check_cmake(project, fence, rule_of(fence, ("whole", "lines")))
    elif fence.language == "sh":
        check_shell(project, fence)
    elif fence.language == "python":
        check_python(fence)
    elif fence.language == "json":
        check_json(fence)
    elif fence.language not in NO_CODE:
        raise Fault(f'no language named "{fence.language}"')


def check_link(project, page, target, anchors):
    name, _, anchor = target.partition("#")
    if re.match(r"[a-z]+:", name):
        return
    other = pages.resolve(page, name) if name else page
    if other.is_absolute() or other.parts[:1] == ("..",) or not (project / other).exists():
        raise Fault(f"{target} leads nowhere")
    if anchor and anchor not in anchors(other):
        raise Fault(f"{other} has no heading #{anchor}")


def prose_faults(project, page, line, anchors):
    if "](" in re.sub(r"`[^`]*`", "", pages.replace_links(line, lambda _: "")):
        yield "a link stands on one line"
    for link in pages.links(line):
        try:
            check_link(project, page, link.target, anchors)
        except Fault as fault:
            yield str(fault)


def page_faults(project, page, content, anchors):
    """The faults in links and form."""
    after_blank = False
    for piece in content:
        if isinstance(piece, pages.Fence):
            continue
        if after_blank and piece.whole.startswith("    ") or re.match(r" +```", piece.whole):
            yield f"{page}:{piece.line}: indented code: put it between fences at the margin"
        after_blank = not piece.whole.strip()
        for fault in prose_faults(project, page, piece.whole, anchors):
            yield f"{page}:{piece.line}: {fault}"


def faults(programs):
    project = programs.project
    contents = {page: list(pages.pieces((project / page).read_text(encoding="utf-8")))
                for page in pages.all_pages(project)}

    def anchors(page):
        return {piece.anchor for piece in contents.get(page, ())
                if isinstance(piece, pages.Heading)}

    found = [fault for page, content in contents.items()
             for fault in page_faults(project, page, content, anchors)]
    samples = [(page, piece) for page, content in contents.items()
               for piece in content if isinstance(piece, pages.Fence)]

    def sample_fault(sample):
        try:
            check_sample(programs, *sample)
        except Fault as fault:
            return f"{sample[0]}:{sample[1].line}: {fault}"
        return None

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        found += filter(None, pool.map(sample_fault, samples))
    return found, len(contents), len(samples)


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    with tempfile.TemporaryDirectory() as scratch:
        programs = Programs(project, sys.argv[2:], scratch)
        found, page_count, sample_count = faults(programs)
    print("\n".join(found), end="\n" if found else "")
    if programs.libraries and not without_network():
        print("no network namespace can be made here, so no sample was run")
    print(f"{page_count} pages, {sample_count} samples, {len(found)} faults")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
