"""The chart of the rows that have an aim: how far from its aim each one is."""

import math
import textwrap

import matplotlib

matplotlib.use("svg")
# Texts stay texts, and the same rows make the same file.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "orbiq", "font.size": 9})
from matplotlib import pyplot  # noqa: E402

FARTHEST = 1000  # times the aim, or as small a part of it: farther out nothing is drawn


def relative(value, aim):
    """1 at the aim, more where it is missed, whichever way the aim points."""
    if aim["bound"] <= 0:  # "none" is an aim, too
        return 0.0 if value <= aim["bound"] else math.inf
    if aim["kind"] == "at least":
        return aim["bound"] / value if value > 0 else math.inf
    return value / aim["bound"]


def number_text(value):
    """Three digits that count, and no fewer before the point."""
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.{min(max(2 - math.floor(math.log10(abs(value))), 0), 4)}f}"


def draw(rows, footer, path):
    aimed = [row for row in rows if row["aim"]]
    # White paper, which is read beside dark pages, too.
    figure, axes = pyplot.subplots(figsize=(10, 1.5 + 0.34 * len(aimed)), layout="constrained")
    for place, row in enumerate(aimed):
        value, low, high = (min(max(relative(row[name], row["aim"]), 1 / FARTHEST), FARTHEST)
                            for name in ("value", "low", "high"))
        axes.barh(place, value - 1, left=1, height=0.6, color="#0a7ea4" if row["met"] else "white",
                  edgecolor="#0a7ea4" if row["met"] else "#b35900",
                  hatch="" if row["met"] else "////")
        axes.plot((low, high), (place, place), color="black", linewidth=1)
        axes.text(1.01, place, f"{'✓' if row['met'] else '✗ missed,'} {number_text(row['value'])}"
                  f"{' ' + row['unit'] if row['unit'] else '×'}", va="center",
                  transform=axes.get_yaxis_transform())
    axes.set_yticks(range(len(aimed)), [textwrap.fill(f"{row['group']}: {row['name']}", 64)
                                        for row in aimed])
    axes.invert_yaxis()
    axes.set_xscale("log")
    axes.axvline(1, color="black", linewidth=1.5)
    axes.grid(axis="x", color="#d1d9e0", zorder=0)
    axes.set_axisbelow(True)
    axes.set_title("Times the aim: to the left is better. Thin lines: half of the runs.")
    figure.supxlabel(footer, fontsize=8)
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)
