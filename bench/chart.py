"""The chart of the rows that have an aim: how far from its aim each one is."""

import math
import textwrap
from xml.sax.saxutils import escape

WIDTH = 960
LABEL_WIDTH = 400  # the row's name, to the left
VALUE_WIDTH = 190  # its value, to the right
LETTERS = 58  # of a name, in one line
LINE, BAR, GAP, TOP = 15, 12, 8, 92

STYLE = """
text { font: 13px system-ui, sans-serif; fill: #1f2328; }
.title { font-size: 17px; font-weight: 600; }
.group { font-weight: 600; }
.quiet { fill: #59636e; font-size: 12px; }
.ground { fill: #ffffff; }
.grid { stroke: #d1d9e0; }
.aim { stroke: #1f2328; stroke-width: 2; }
.met { fill: #0a7ea4; }
.missed { fill: url(#stripes); stroke: #b35900; stroke-width: 1.5; }
.stripe { stroke: #b35900; stroke-width: 3; }
.half { stroke: #1f2328; }
@media (prefers-color-scheme: dark) {
  text { fill: #f0f6fc; }
  .quiet { fill: #9198a1; }
  .ground { fill: #0d1117; }
  .grid { stroke: #3d444d; }
  .aim { stroke: #f0f6fc; }
  .met { fill: #4cc2e6; }
  .missed { stroke: #ff9f43; }
  .stripe { stroke: #ff9f43; }
  .half { stroke: #f0f6fc; }
}
"""


def relative(value, aim):
    """1 at the aim, more where it is missed, whichever way the aim points."""
    if aim["bound"] <= 0:  # "none" is an aim, too
        return 0.0 if value <= aim["bound"] else math.inf
    if aim["kind"] == "at least":
        return aim["bound"] / value if value > 0 else math.inf
    return value / aim["bound"]


class Scale:
    """Powers of ten around 1, as many as the rows take, but no more than three on a side."""

    def __init__(self, ratios):
        # An aim of none has no place on such a scale: it is drawn as far out as anything is.
        logs = [math.log10(ratio) for ratio in ratios if 0 < ratio < math.inf]
        self.low = min(-1, max(-3, math.floor(min(logs, default=-1))))
        self.high = max(1, min(3, math.ceil(max(logs, default=1))))

    def x(self, ratio):
        span = WIDTH - LABEL_WIDTH - VALUE_WIDTH
        log = -math.inf if ratio <= 0 else math.log10(ratio)
        at = min(max(log, self.low), self.high)
        return LABEL_WIDTH + span * (at - self.low) / (self.high - self.low)


def text(x, y, content, kind="", anchor="start"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">'
            f"{escape(content)}</text>")


def line(x1, y1, x2, y2, kind):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{kind}"/>'


def number_text(value):
    """Three digits that count, and no fewer before the point."""
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.{min(max(2 - math.floor(math.log10(abs(value))), 0), 4)}f}"


def value_text(row):
    return f"{number_text(row['value'])}{' ' + row['unit'] if row['unit'] else '×'}"


def bar(row, scale, y):
    """A bar from the aim to the value, and a thin line over half of the runs."""
    aim = row["aim"]
    end, start = scale.x(relative(row["value"], aim)), scale.x(1)
    low, high = sorted(scale.x(relative(row[name], aim)) for name in ("low", "high"))
    verdict = "met" if row["met"] else "missed"
    said = f"{row['group']}: {row['name']}: {value_text(row)}, aim {aim['kind']} {aim['bound']:g}"
    yield f"<g><title>{escape(f'{said}, {verdict}')}</title>"
    # What is at its aim is seen, too.
    left, width = min(start, end), max(abs(start - end), 2)
    yield (f'<rect x="{left:.1f}" y="{y - BAR / 2:.1f}" width="{width:.1f}" height="{BAR}" '
           f'class="{verdict}"/>')
    if high > low:
        yield line(low, y, high, y, "half")
    yield "</g>"
    mark = "✓" if row["met"] else "✗ missed,"
    yield text(WIDTH - VALUE_WIDTH + 8, y + 4.5, f"{mark} {value_text(row)}")


def body(rows, scale):
    """The elements of all rows, and the height that they end at."""
    elements, y, group = [], TOP, None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            y += 2 * GAP
            elements.append(text(16, y + 4.5, group, "group"))
            y += LINE + GAP
        label = textwrap.wrap(row["name"], LETTERS) or [""]
        for number, part in enumerate(label):
            elements.append(text(28, y + 4.5 + number * LINE, part))
        elements += bar(row, scale, y + (len(label) - 1) * LINE / 2)
        y += len(label) * LINE + GAP
    return elements, y


def axis(scale, end):
    for power in range(scale.low, scale.high + 1):
        x = scale.x(10.0 ** power)
        label = "aim" if power == 0 else f"{10.0 ** power:g}×"
        yield text(x, TOP - 10, label, "group" if power == 0 else "quiet", "middle")
        yield line(x, TOP - 4, x, end, "aim" if power == 0 else "grid")


def svg(rows, footer):
    aimed = [row for row in rows if row["aim"]]
    scale = Scale([relative(row["value"], row["aim"]) for row in aimed])
    elements, end = body(aimed, scale)
    missed = sum(not row["met"] for row in aimed)
    described = (f"{len(aimed)} measured values, each relative to its aim, on a logarithmic scale. "
                 f"{missed} miss their aim: their bars are striped and go to the right.")
    height = end + 40
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
        f'width="{WIDTH}" height="{height}" role="img" aria-labelledby="title desc">',
        '<title id="title">What was measured, relative to its aim</title>',
        f'<desc id="desc">{escape(described)}</desc>',
        f"<style>{STYLE}</style>",
        '<defs><pattern id="stripes" width="6" height="6" patternUnits="userSpaceOnUse" '
        'patternTransform="rotate(45)"><line x1="0" y1="0" x2="0" y2="6" class="stripe"/>'
        "</pattern></defs>",
        f'<rect width="{WIDTH}" height="{height}" class="ground"/>',
        text(16, 28, "What was measured, relative to its aim", "title"),
        text(16, 50, "To the left of the aim is better; a striped bar to the right has missed it. "
                     "Thin lines: half of the runs.", "quiet"),
        *axis(scale, end),
        *elements,
        text(16, height - 14, footer, "quiet"),
        "</svg>",
    ]) + "\n"
