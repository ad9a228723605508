#!/usr/bin/env python3
"""Compares what a shared library exports with the list of what it is meant to export.

Usage: symbols.py [--update] LIST LIBRARY. Prints what differs and exits 1 if anything does; with
--update, writes the list anew instead. The list has the linker's names, sorted; they are those of
64-bit Linux, whatever the compiler.
"""

import pathlib
import subprocess
import sys


def run(*command, text=None):
    return subprocess.run(command, input=text, capture_output=True, text=True, check=True).stdout


def exported(library):
    listing = run("nm", "--dynamic", "--defined-only", "--format=posix", library)
    # "name@@version" where there are versions.
    return {line.split()[0].split("@")[0] for line in listing.splitlines()}


def show(title, names):
    if names:
        print(title)
        print(run("c++filt", text="".join(f"  {name}\n" for name in sorted(names))), end="")


def main():
    update = sys.argv[1] == "--update"
    path, library = sys.argv[2:] if update else sys.argv[1:]
    listed_in = pathlib.Path(path)
    now = exported(library)
    if update:
        listed_in.write_text("".join(f"{name}\n" for name in sorted(now)))
        return 0
    listed = set(listed_in.read_text().split())
    if now == listed:
        return 0
    print(f"{pathlib.Path(library).name} does not export what {listed_in.name} lists")
    show("Missing, so applications that use it no longer start:", listed - now)
    show("Added, and part of the interface from the first release on:", now - listed)
    print("If this is meant: ./dev symbols, and commit the list with the change.")
    return 1


if __name__ == "__main__":
    sys.exit(main())
