#!/usr/bin/env python3
"""Draws what orbiq_bench_fleet has simulated.

Usage: plot.py SERIES OUTPUT. Of each scenario in the directory SERIES (NAME-CLIENTS.csv) the largest
fleet is drawn into OUTPUT/fleet-NAME.svg.
"""

import csv
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
# Texts stay texts, and the same series make the same file.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "orbiq"})
from matplotlib import pyplot  # noqa: E402

TITLES = {
    "steady": "nothing happens",
    "outage": "both servers fail and come back",
    "lossy": "a part of all exchanges is lost",
    "restarts": "all clients restart",
    "restarts-in-outage": "all clients restart while both servers fail",
}
EVENTS = (("outage", "outage"), ("loss", "losses"), ("restarts", "restarts"))
SECONDS_PER_POINT = 10


def read(path):
    with path.open(encoding="ascii", newline="") as file:
        lines = list(csv.DictReader(file))
    return {column: [int(line[column]) for line in lines] for column in lines[0]}


def largest_fleets(directory):
    """The file of each scenario's largest fleet, by its number of clients."""
    best = {}
    for path in directory.glob("*-*.csv"):
        name, _, clients = path.stem.rpartition("-")
        best[name] = max(best.get(name, (0, path)), (int(clients), path))
    return best


def panel(axes, rows, column, heading):
    begins = len(rows["second"])
    for event, name in EVENTS:
        during = [second for second, is_on in enumerate(rows[event]) if is_on]
        if during:
            axes.axvspan(during[0] / 60, (during[-1] + 1) / 60, color="#eef0f4", label=name)
            begins = min(begins, during[0])
    for values, style, label in ((rows[column], {"color": "#1757b8", "linewidth": 2}, "asked"),
                                 (rows[column + "_answered"],
                                  {"color": "#a8480a", "linestyle": "--"}, "answered")):
        starts = range(0, len(values), SECONDS_PER_POINT)
        axes.plot([(start + SECONDS_PER_POINT / 2) / 60 for start in starts],
                  [max(values[start:start + SECONDS_PER_POINT]) for start in starts],
                  label=label, **style)
    asked = rows[column]
    peak, steady = max(asked), sum(asked[:begins]) / max(begins, 1)
    axes.axhline(steady, color="black", linestyle=":", label="mean before")
    axes.plot(asked.index(peak) / 60, peak, "o", color="#1757b8")
    axes.set_title(f"{heading}: peak {peak:,}/s, steady {steady:,.3g}/s", loc="left")
    axes.set_ylabel("per second")
    axes.set_ylim(bottom=0)
    axes.grid(color="#d5d9e0")
    axes.legend(loc="best")


def draw(name, clients, rows, path):
    # White paper, which is read beside dark pages, too.
    figure, panels = pyplot.subplots(2, sharex=True, figsize=(8, 6.4), layout="constrained")
    figure.suptitle(f"{clients:,} clients: {TITLES.get(name, name)}")
    panel(panels[0], rows, "authorizations", "Authorization server")
    panel(panels[1], rows, "hits", "Hit server")
    panels[1].set_xlabel(f"time in minutes; highest of each {SECONDS_PER_POINT} s")
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    series, output = map(pathlib.Path, sys.argv[1:])
    found = largest_fleets(series)
    if not found:
        sys.exit(f"plot: no series in {series}")
    output.mkdir(parents=True, exist_ok=True)
    for name, (clients, path) in found.items():
        drawing = output / f"fleet-{name}.svg"
        draw(name, clients, read(path), drawing)
        print(drawing)


if __name__ == "__main__":
    main()
