#!/usr/bin/env python3
"""What the library adds to a device and to a program.

size.py BUILD  links programs against the archive in that build directory, in a directory of its
own there, and prints sizes without symbols; appends rows to the file that ORBIQ_BENCH_RESULTS names.
"""
import json
import os
import pathlib
import subprocess
import sys

AIM_KIB = 300
LIBRARIES = ["-lcurl", "-lmnl", "-luriparser", "-lpthread"]

# Each uses what the library uses, so that only the library's own part differs.
BASE = """
#include <curl/curl.h>
#include <libmnl/libmnl.h>
#include <uriparser/Uri.h>
#include <functional>
#include <memory>
#include <string>
volatile int sink;
int main(int argc, char** argv) {
  sink = curl_global_init(CURL_GLOBAL_DEFAULT);
  sink = mnl_socket_open(0) != nullptr;
  UriUriA uri;
  const char* end = nullptr;
  sink = uriParseSingleUriA(&uri, argv[argc - 1], &end);
  auto text = std::make_shared<std::string>(argv[0]);
  std::function<int()> length = [text] { return static_cast<int>(text->size()); };
  sink = length();
  USE
}
"""
PROGRAMS = {
    "nothing of the library": ("", ""),
    "the logger": ("#include <orbiq/orbiq.h>\n", 'orbiqLogger::log_withMode("hello", orbiq::LoggingModeError);'),
    "a tagger and sendHit": (
        "#include <orbiq/orbiq.h>\n",
        """orbiq::HostApplication::describe({.bundleIdentifier = "tv.example.player",
                                    .authorizationServer = "https://auth.example/tag/"});
  orbiqAudienceTagger::orbiqAudienceTaggerWithSerial("ABC")->sendHit();""",
    ),
}


def stripped_size(file, place):
    copy = place / (file.name + ".stripped")
    subprocess.run(["strip", "-o", copy, file], check=True)
    return copy.stat().st_size


def linked_size(name, build, place):
    include, use = PROGRAMS[name]
    source = place / (name.replace(" ", "-") + ".cpp")
    source.write_text(include + BASE.replace("USE", use))
    program = source.with_suffix("")
    root = pathlib.Path(__file__).resolve().parent.parent
    subprocess.run(
        ["g++", "-std=c++20", "-O2", "-ffunction-sections", "-fdata-sections", f"-I{root}", source,
         "-o", program, "-Wl,--gc-sections", build / "orbiq" / "liborbiq.a", *LIBRARIES], check=True)
    return stripped_size(program, place)


def row(name, size, aim=None):
    kib = size / 1024
    missed = " (missed)" if aim is not None and kib > aim else ""
    print(f"  {name}: {kib:.1f} KiB" + (f" (aim: at most {aim}){missed}" if aim is not None else ""))
    bound = None if aim is None else {"kind": "at most", "bound": aim}
    return {"group": "size", "name": name, "value": kib, "unit": "KiB", "low": kib, "high": kib,
            "aim": bound, "met": None if aim is None else kib <= aim}


def main():
    build = pathlib.Path(sys.argv[1])
    place = build / "size"
    place.mkdir(exist_ok=True)
    print("sizes without symbols")
    rows = [row("liborbiq.so", stripped_size((build / "orbiq" / "liborbiq.so").resolve(), place), AIM_KIB)]
    sizes = {name: linked_size(name, build, place) for name in PROGRAMS}
    base = sizes.pop("nothing of the library")
    rows += [row(f"{name}, linked from liborbiq.a, adds", size - base) for name, size in sizes.items()]
    results = os.environ.get("ORBIQ_BENCH_RESULTS")
    if results:
        with open(results, "a", encoding="utf-8") as file:
            file.writelines(json.dumps(result) + "\n" for result in rows)


if __name__ == "__main__":
    main()
