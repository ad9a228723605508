#!/usr/bin/env python3
"""Counts the instructions of some work and compares them with those that were noted.

Usage: instructions.py PROGRAM NOTED.json [--update]. Exits 1 if a count grew by more than 10 % or has
nothing to be compared with, 0 with "not compared" where another compiler or architecture would make
other counts anyway. --update notes the counts of this run.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

WORK = {
    "sendHit": "200 calls of sendHit while the server stalls",
    "save": "40 saves of a queue of 100 requests, its file included",
}
ALLOWED_GROWTH = 10  # percent


def fixed_addresses():
    """What lets a program find its memory where it was the last time, as far as that is allowed."""
    try:
        subprocess.run(["setarch", "-R", "true"], check=True, capture_output=True)
        return ["setarch", "-R"]
    except (OSError, subprocess.CalledProcessError):
        return []


def count(program, role):
    """The instructions that the program's role counts."""
    with tempfile.TemporaryDirectory() as directory:
        out = pathlib.Path(directory, "callgrind.out")
        state = pathlib.Path(directory, "state")
        state.mkdir()
        command = fixed_addresses() + [
            "valgrind", "--tool=callgrind", "--collect-atstart=no", f"--callgrind-out-file={out}",
            program, "--role", role, str(state)]
        # A bare environment, as its size and its settings are counted too.
        run = subprocess.run(command, env={"PATH": os.environ["PATH"], "LC_ALL": "C", "TZ": "UTC"},
                             capture_output=True, text=True, timeout=600)
        totals = re.search(r"^totals: (\d+)$", out.read_text(), re.M) if out.exists() else None
        if run.returncode != 0 or totals is None or int(totals[1]) == 0:
            raise RuntimeError(f"{role} cannot be counted:\n{run.stderr}")
        return int(totals[1])


def measure(program):
    """What is noted: the counts, and what they were counted of."""
    told = subprocess.run([program, "--role", "build"], check=True, capture_output=True, text=True)
    compiler, architecture = told.stdout.splitlines()
    return {"architecture": architecture, "compiler": compiler,
            "counts": {role: count(program, role) for role in WORK}}


def builder(measured):
    """Compiler and architecture without the compiler's minor version: "GNU 12 on x86_64"."""
    return f"{measured['compiler'].split('.')[0]} on {measured['architecture']}"


def compare(noted, measured):
    """The lines to print, and the exit status."""
    if builder(noted) != builder(measured):
        lines = [f"not compared: the noted counts are of {builder(noted)}, these of {builder(measured)}"]
        return lines + [f"  {role}: {new:,}" for role, new in measured["counts"].items()], 0
    lines, status = [], 0
    for role in sorted(noted["counts"].keys() | measured["counts"].keys()):
        old, new = noted["counts"].get(role), measured["counts"].get(role)
        if old is None or new is None:
            lines.append(f"  {role}: " + ("was not noted" if old is None else "is not counted any more"))
            status = 1
            continue
        verdict = ""
        if 100 * new > (100 + ALLOWED_GROWTH) * old:
            verdict, status = f": more than {ALLOWED_GROWTH}%", 1
        lines.append(f"  {role}: {old:,} before, {new:,} now, {new / old - 1:+.2%}{verdict}")
    return lines, status


def main(program, path, update=False):
    measured = measure(program)
    for role, text in WORK.items():
        print(f"{role}: {text}")
    if update:
        path.write_text(json.dumps(measured, indent=2) + "\n")
        print("noted: " + ", ".join(f"{role} {new:,}" for role, new in measured["counts"].items()))
        return 0
    lines, status = compare(json.loads(path.read_text()), measured)
    print("instructions in user space")
    print("\n".join(lines))
    if status:
        print("if this is meant: ./dev instructions --update, and say why in the commit")
    return status


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4) or sys.argv[3:] not in ([], ["--update"]):
        sys.exit(__doc__)
    try:
        sys.exit(main(sys.argv[1], pathlib.Path(sys.argv[2]), bool(sys.argv[3:])))
    except (OSError, RuntimeError, ValueError, subprocess.SubprocessError) as error:
        sys.exit(f"instructions: {error}")
