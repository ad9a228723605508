#!/usr/bin/env python3
"""Makes a table, results.json and results.svg of what the benchmarks have measured.

Usage: report.py ROWS.JSONL DIRECTORY [--place DIRECTORY]
       report.py --markdown DIRECTORY PAGE

The first form reads one row a line, as bench/Report.h writes them, prints the table and writes the
results into the directory; `--place` is where the benchmarks have saved. The second form puts the
table of the results in a directory into a page, between the two comments that say "results", and
the chart into "images" beside the page.

A line that is no row is named, left out, and makes the exit status 1.
"""

import argparse
import datetime
import json
import math
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from chart import draw, number_text  # noqa: E402

PROJECT = pathlib.Path(__file__).resolve().parent.parent
IS_MET = {
    "below": lambda value, bound: value < bound,
    "at most": lambda value, bound: value <= bound,
    "at least": lambda value, bound: value >= bound,
}
BLOCK = re.compile(r"(<!-- results: begin[^>]*-->\n).*?(<!-- results: end -->)", re.DOTALL)


def is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool) and math.isfinite(value)


def row_of(line):
    """The row that a line holds; a ValueError says why it holds none."""
    try:
        row = json.loads(line)
    except ValueError:
        raise ValueError("it is no JSON") from None
    if not isinstance(row, dict):
        raise ValueError("it is no object")
    for name in ("group", "name", "unit"):
        if not isinstance(row.get(name), str):
            raise ValueError(f'"{name}" is no text')
    for name in ("value", "low", "high"):
        if not is_number(row.get(name)):
            raise ValueError(f'"{name}" is no number')
    if not row["low"] <= row["value"] <= row["high"]:
        raise ValueError("the value does not lie between the quartiles")
    aim = row.get("aim")
    if aim is not None:
        if not isinstance(aim, dict) or aim.get("kind") not in IS_MET \
                or not is_number(aim.get("bound")):
            raise ValueError("its aim is none that is known")
    met = IS_MET[aim["kind"]](row["value"], aim["bound"]) if aim else None
    return row | {"met": met}


def read_rows(text):
    """The rows in the order of their groups' first rows, and what is wrong with other lines."""
    groups, faults = {}, []
    for number, line in enumerate(text.splitlines(), 1):
        try:
            row = row_of(line)
            groups.setdefault(row["group"], []).append(row)
        except ValueError as fault:
            faults.append(f"line {number}: {fault}")
    return [row for rows in groups.values() for row in rows], faults


def cells(row):
    aim = f"{row['aim']['kind']} {row['aim']['bound']:,g}" if row["aim"] else ""
    half = "" if row["low"] == row["high"] else \
        f"{number_text(row['low'])} to {number_text(row['high'])}"
    verdict = {True: "met", False: "missed", None: ""}[row["met"]]
    return row["name"], number_text(row["value"]), row["unit"] or "×", half, aim, verdict


HEADINGS = ("What", "Value", "Unit", "Half of the runs", "Aim", "")


def verdicts(rows):
    aimed = [row for row in rows if row["aim"]]
    missed = sum(not row["met"] for row in aimed)
    return f"{len(rows)} rows, {len(aimed)} of them with an aim, {missed} missed"


def table_text(rows):
    lines = [cells(row) for row in rows]
    widths = [max(map(len, column)) for column in zip(HEADINGS, *lines)]

    def aligned(line):
        texts = [text.rjust(width) if at == 1 else text.ljust(width)
                 for at, (text, width) in enumerate(zip(line, widths))]
        return ("  " + "  ".join(texts)).rstrip()

    output, group = [aligned(HEADINGS)], None
    for row, line in zip(rows, lines):
        if row["group"] != group:
            group = row["group"]
            output.append(group)
        output.append(aligned(line))
    return "\n".join(output) + f"\n{verdicts(rows)}\n"


def said_by(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def processor():
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8", errors="replace")
    # Arm tells parts, not names.
    for name in ("model name", "Model", "Hardware", "CPU part"):
        if found := re.search(rf"^{name}\s*:\s*(.+)$", text, re.MULTILINE):
            return found[1].strip()
    return "unknown"


def machine(place):
    commit = said_by("git", "-C", str(PROJECT), "rev-parse", "--short=12", "HEAD")
    if said_by("git", "-C", str(PROJECT), "status", "--porcelain", "--untracked-files=no"):
        commit += " with changes"
    return {
        "processor": processor(),
        "cores": len(os.sched_getaffinity(0)),
        "architecture": platform.machine(),
        "kernel": platform.release(),
        "fileSystem": said_by("findmnt", "-no", "FSTYPE", "-T", str(place)),
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
        "commit": commit,
    }


def machine_text(where):
    return (f"{where['processor']}, {where['cores']} cores ({where['architecture']}), "
            f"Linux {where['kernel']}, {where['fileSystem']}; {where['date']}, "
            f"commit {where['commit']}")


def markdown(results):
    rows = results["rows"]
    lines = [f"Measured on: {machine_text(results['machine'])}. {verdicts(rows)}.", ""]
    group = None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            lines += ["", f"**{group}**", "", "| " + " | ".join(HEADINGS) + " |",
                      "|---|---:|---|---|---|---|"]
        texts = [text.replace("|", "\\|") for text in cells(row)]
        if row["met"] is False:
            texts[-1] = "**missed**"
        lines.append("| " + " | ".join(texts) + " |")
    return re.sub(r"\n{3,}", "\n\n", "\n".join(lines)) + "\n"


def write_page(directory, page):
    results = json.loads((directory / "results.json").read_text(encoding="utf-8"))
    text, count = BLOCK.subn(lambda found: f"{found[1]}\n{markdown(results)}\n{found[2]}",
                             page.read_text(encoding="utf-8"))
    if count != 1:
        sys.exit(f"report: {page} has no place for the results")
    page.write_text(text, encoding="utf-8")
    (page.parent / "images").mkdir(exist_ok=True)
    shutil.copy(directory / "results.svg", page.parent / "images" / "performance.svg")


def write_results(source, directory, place):
    rows, faults = read_rows(source.read_text(encoding="utf-8"))
    directory.mkdir(parents=True, exist_ok=True)
    where = machine(place)
    (directory / "results.json").write_text(
        json.dumps({"machine": where, "rows": rows, "faults": faults}, indent=1) + "\n",
        encoding="utf-8")
    draw(rows, machine_text(where), directory / "results.svg")
    print(table_text(rows), end="")
    print(machine_text(where))
    for fault in faults:
        print(f"report: {source}: {fault}", file=sys.stderr)
    return 1 if faults or not rows else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--markdown", action="store_true", help="put results into a page")
    parser.add_argument("--place", type=pathlib.Path, help="where the benchmarks have saved")
    parser.add_argument("source", type=pathlib.Path)
    parser.add_argument("target", type=pathlib.Path)
    options = parser.parse_args()
    if options.markdown:
        write_page(options.source, options.target)
        return 0
    return write_results(options.source, options.target, options.place or options.target)


if __name__ == "__main__":
    sys.exit(main())
