#!/usr/bin/env python3
"""What the library adds to a device and to a program.

size.py BUILD  links programs against the archive in that build directory, in a directory of its
own there, and prints sizes without symbols; appends rows to the file that ORBIQ_BENCH_RESULTS names.
"""
import json
import os
import pathlib
import re
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parent.parent
AIM_KIB = 260
LIBRARIES = ["-lcurl", "-lmnl", "-luriparser", "-lpthread"]

# What a program has that uses the same libraries without this one.
NOTHING = """
#include <curl/curl.h>
#include <libmnl/libmnl.h>
#include <uriparser/Uri.h>
int main() {
  UriUriA uri;
  const char* end = nullptr;
  return static_cast<int>(curl_global_init(CURL_GLOBAL_DEFAULT)) + (mnl_socket_open(0) != nullptr) +
         uriParseSingleUriA(&uri, "http://hits.example/", &end);
}
"""
LOGGER = """
#include <orbiq/orbiq.h>
int main() { orbiqLogger::log_withMode("hello", orbiq::LoggingModeError); }
"""


def readme_example():
    """README's, so that what is measured is what a reader writes."""
    readme = (PROJECT / "README.md").read_text(encoding="utf-8")
    sample = re.search(r"<!-- sample: whole(?:; linked)? -->\n```cpp\n(.*?)```", readme, re.DOTALL)
    if not sample or "sendHit" not in sample[1]:
        sys.exit("size: README has no example that sends a hit")
    return sample[1]


def stripped_size(file, place):
    copy = place / (file.name + ".stripped")
    subprocess.run(["strip", "-o", copy, file], check=True)
    return copy.stat().st_size / 1024


def linked_size(name, code, build, place):
    source = place / (name + ".cpp")
    source.write_text(code, encoding="utf-8")
    program = source.with_suffix("")
    subprocess.run(
        ["g++", "-std=c++20", "-O2", f"-I{PROJECT}", source, "-o", program, "-Wl,--gc-sections",
         build / "orbiq" / "liborbiq.a", *LIBRARIES], check=True)
    return stripped_size(program, place)


def report(name, kib, aim=None):
    print(f"  {name}: {kib:.1f} KiB")
    results = os.environ.get("ORBIQ_BENCH_RESULTS")
    if not results:
        return
    row = {"group": "size", "name": name, "value": kib, "unit": "KiB", "low": kib, "high": kib,
           "aim": None if aim is None else {"kind": "at most", "bound": aim}}
    # At once, so that a program that does not link leaves what was measured before.
    with open(results, "a", encoding="utf-8") as file:
        file.write(json.dumps(row) + "\n")


def main():
    build = pathlib.Path(sys.argv[1])
    place = build / "size"
    place.mkdir(exist_ok=True)
    print("sizes without symbols")
    shared = (build / "orbiq" / "liborbiq.so").resolve()
    report("stripped liborbiq.so", stripped_size(shared, place), AIM_KIB)
    base = linked_size("nothing", NOTHING, build, place)
    for name, what, code in (("logger", "the logger", LOGGER),
                             ("hit", "a tagger and sendHit", readme_example())):
        report(f"{what}, linked from liborbiq.a, adds", linked_size(name, code, build, place) - base)


if __name__ == "__main__":
    main()
