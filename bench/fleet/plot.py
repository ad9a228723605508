#!/usr/bin/env python3
"""Draws what orbiq_bench_fleet has simulated.

Usage: plot.py SERIES OUTPUT. Of each scenario in the directory SERIES (NAME-CLIENTS.csv) the largest
fleet is drawn into OUTPUT/fleet-NAME.svg.
"""

import csv
import dataclasses
import html
import math
import pathlib
import re
import sys

TITLES = {
    "steady": "nothing happens",
    "outage": "both servers fail and come back",
    "lossy": "a part of all exchanges is lost",
    "restarts": "all clients restart",
    "restarts-in-outage": "all clients restart while both servers fail",
}
EVENTS = (("outage", "outage"), ("loss", "losses"), ("restarts", "restarts"))
SECONDS_PER_POINT = 10

WIDTH, HEIGHT = 760, 616
LEFT, RIGHT, PANEL = 92, 24, 190
TOPS = (92, 352)

STYLE = """
  svg { --paper: #ffffff; --ink: #1c2128; --faint: #d5d9e0; --event: #eef0f4;
        --asked: #1757b8; --answered: #a8480a; }
  @media (prefers-color-scheme: dark) {
    svg { --paper: #14181e; --ink: #e4e8ee; --faint: #3b434e; --event: #232a33;
          --asked: #7db4ff; --answered: #ffae70; }
  }
  text { font: 13px system-ui, sans-serif; fill: var(--ink); }
  .title { font-size: 16px; font-weight: 600; }
  .small { font-size: 12px; }
  .paper { fill: var(--paper); }
  .event { fill: var(--event); }
  .grid { stroke: var(--faint); stroke-width: 1; }
  .axis { stroke: var(--ink); stroke-width: 1; }
  .asked { fill: none; stroke: var(--asked); stroke-width: 2.5; stroke-linejoin: round; }
  .answered { fill: none; stroke: var(--answered); stroke-width: 1.5; stroke-dasharray: 6 4; }
  .steady { stroke: var(--ink); stroke-width: 1; stroke-dasharray: 1 4; }
  .peak { fill: var(--paper); stroke: var(--asked); stroke-width: 2; }
"""


@dataclasses.dataclass
class Series:
    name: str
    clients: int
    rows: dict

    @property
    def seconds(self):
        return len(self.rows["second"])

    def event(self):
        """The first and the last second of what happens, and its name; or nothing."""
        for column, name in EVENTS:
            during = [at for at, is_on in enumerate(self.rows[column]) if is_on]
            if during:
                yield during[0], during[-1] + 1, name

    def steady(self, column):
        """The mean until something happens."""
        until = min((begin for begin, _, _ in self.event()), default=self.seconds)
        return sum(self.rows[column][:until]) / until if until else 0


def read(path):
    found = re.fullmatch(r"(.+)-(\d+)", path.stem)
    if not found:
        return None
    with path.open(encoding="ascii", newline="") as file:
        lines = list(csv.DictReader(file))
    rows = {column: [int(line[column]) for line in lines] for column in lines[0]}
    return Series(found[1], int(found[2]), rows)


def largest_fleets(directory):
    best = {}
    for series in filter(None, map(read, sorted(directory.glob("*.csv")))):
        if series.name not in best or best[series.name].clients < series.clients:
            best[series.name] = series
    return best


def round_up(value):
    """The next number that is 1, 2, 2.5 or 5 times a power of ten, and a step that divides it."""
    power = 10 ** math.floor(math.log10(max(value, 1)))
    top = next(factor * power for factor in (1, 2, 2.5, 5, 10) if factor * power >= value)
    return top, top / (5 if top in (power, 5 * power, 2.5 * power, 10 * power) else 4)


def number(value):
    return f"{value:,.0f}" if value >= 10 or value == int(value) else f"{value:.2g}"


class Picture:
    def __init__(self, series):
        self.series = series
        self.parts = []

    def add(self, text):
        self.parts.append(text)

    def text(self, x, y, content, kind="", anchor="start", more=""):
        kind = f' class="{kind}"' if kind else ""
        self.add(f'<text x="{x:g}" y="{y:g}"{kind} text-anchor="{anchor}"{more}>'
                 f"{html.escape(content)}</text>")

    def x(self, second):
        return LEFT + (WIDTH - LEFT - RIGHT) * second / self.series.seconds

    def line(self, column, kind, y):
        values = self.series.rows[column]
        points = []
        for begin in range(0, len(values), SECONDS_PER_POINT):
            highest = max(values[begin:begin + SECONDS_PER_POINT])
            points.append(f"{self.x(begin + SECONDS_PER_POINT / 2):.1f},{y(highest):.1f}")
        self.add(f'<polyline class="{kind}" points="{" ".join(points)}"/>')

    def events(self, top):
        for begin, end, name in self.series.event():
            width = max(self.x(end) - self.x(begin), 2)
            self.add(f'<rect class="event" x="{self.x(begin):.1f}" y="{top}" width="{width:.1f}" '
                     f'height="{PANEL}"/>')
        names = " and ".join(name for _, _, name in self.series.event())
        if names:
            begin = self.x(min(begin for begin, _, _ in self.series.event()))
            end = self.x(max(end for _, end, _ in self.series.event()))
            is_wide = end - begin > 7 * len(names)
            self.text((begin if is_wide else end) + 6, top + 14, names, "small")

    def time_axis(self, top):
        bottom = top + PANEL
        minutes = self.series.seconds // 60
        step = next((s for s in (1, 2, 5, 10, 20, 60, 120) if minutes / s <= 12), minutes)
        for minute in range(0, minutes + 1, step):
            x = self.x(minute * 60)
            self.add(f'<line class="axis" x1="{x:.1f}" y1="{bottom}" x2="{x:.1f}" '
                     f'y2="{bottom + 5}"/>')
            self.text(x, bottom + 19, str(minute), "small", "middle")
        self.add(f'<line class="axis" x1="{LEFT}" y1="{bottom}" x2="{WIDTH - RIGHT}" '
                 f'y2="{bottom}"/>')
        self.text((LEFT + WIDTH - RIGHT) / 2, bottom + 36, "time in minutes", "small", "middle")

    def panel(self, top, column, heading):
        asked = self.series.rows[column]
        most = max(asked)
        limit, step = round_up(most * 1.08)

        def y(value):
            return top + PANEL * (1 - value / limit)

        self.events(top)
        for tick in range(int(limit / step + 0.5) + 1):
            value = tick * step
            self.add(f'<line class="grid" x1="{LEFT}" y1="{y(value):.1f}" x2="{WIDTH - RIGHT}" '
                     f'y2="{y(value):.1f}"/>')
            self.text(LEFT - 8, y(value) + 4, number(value), "small", "end")
        self.text(20, top + PANEL / 2, "per second", "small", "middle",
                  f' transform="rotate(-90 20 {top + PANEL / 2:g})"')
        self.text(LEFT, top - 8, heading)
        steady = self.series.steady(column)
        self.add(f'<line class="steady" x1="{LEFT}" y1="{y(steady):.1f}" x2="{WIDTH - RIGHT}" '
                 f'y2="{y(steady):.1f}"/>')
        self.line(column, "asked", y)
        self.line(f"{column}_answered", "answered", y)
        self.time_axis(top)
        at = asked.index(most)
        self.add(f'<circle class="peak" cx="{self.x(at):.1f}" cy="{y(most):.1f}" r="4"/>')
        says = f"peak {number(most)}/s, steady {number(steady)}/s"
        self.text(WIDTH - RIGHT, top - 8, says, "small", "end")
        return f"{heading}: {says}; the peak comes at second {at}."

    def legend(self):
        for x, kind, says in ((LEFT, "asked", "asked by clients"),
                              (LEFT + 158, "answered", "answered"),
                              (LEFT + 272, "steady", "mean before the event")):
            self.add(f'<line class="{kind}" x1="{x}" y1="52" x2="{x + 34}" y2="52"/>')
            self.text(x + 42, 56, says, "small")
        self.text(WIDTH - RIGHT, 56, f"highest of each {SECONDS_PER_POINT} s", "small",
                  "end")

    def draw(self):
        clients = f"{self.series.clients:,} client{'' if self.series.clients == 1 else 's'}"
        title = f"{clients}: {TITLES.get(self.series.name, self.series.name)}"
        self.text(LEFT, 30, title, "title")
        self.legend()
        says = [self.panel(TOPS[0], "authorizations", "Authorization server"),
                self.panel(TOPS[1], "hits", "Hit server")]
        description = " ".join(says) + f" Each point is the highest of {SECONDS_PER_POINT} seconds."
        body = "\n".join(self.parts)
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
                f'width="{WIDTH}" height="{HEIGHT}" role="img" '
                f'aria-labelledby="title description">\n'
                f'<title id="title">{html.escape(title)}</title>\n'
                f'<desc id="description">{html.escape(description)}</desc>\n'
                f"<style>{STYLE}</style>\n"
                f'<rect class="paper" width="{WIDTH}" height="{HEIGHT}"/>\n{body}\n</svg>\n')


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__.strip())
    series, output = map(pathlib.Path, sys.argv[1:])
    found = largest_fleets(series)
    if not found:
        sys.exit(f"plot: no series in {series}")
    output.mkdir(parents=True, exist_ok=True)
    for name, fleet in found.items():
        path = output / f"fleet-{name}.svg"
        path.write_text(Picture(fleet).draw(), encoding="utf-8")
        print(path)


if __name__ == "__main__":
    main()
