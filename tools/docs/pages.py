"""The project's Markdown pages, taken apart.

Usage: pages.py PAGE LANGUAGE prints the page's first block of that language.
"""

import dataclasses
import os.path
import pathlib
import re
import sys


@dataclasses.dataclass
class Fence:
    """A fenced block; `comment` is what the one right before it says, or nothing."""
    language: str
    code: str
    line: int
    comment: str
    whole: str


@dataclasses.dataclass
class Heading:
    level: int
    text: str
    anchor: str
    line: int
    whole: str


@dataclasses.dataclass
class Text:
    """One line of anything else."""
    whole: str
    line: int


@dataclasses.dataclass
class Link:
    text: str
    target: str
    is_image: bool
    whole: str


FENCE = re.compile(r"^```(\S*)\s*$")
HEADING = re.compile(r"^(#{1,6}) (.+?)\s*$")
COMMENT = re.compile(r"^<!--(.*?)-->\s*", re.DOTALL)
# A code span, which holds no links, or a link.
LINK = re.compile(r"`[^`]*`|(!?)\[((?:[^\[\]`]|`[^`]*`)*)\]\(([^()\s]+)\)")


def all_pages(project):
    """Those of the root and of docs/, from the project's root."""
    found = [*project.glob("*.md"), *(project / "docs").glob("*.md")]
    return sorted(path.relative_to(project) for path in found)


def resolve(page, target):
    """The file that a relative link on a page leads to, from the project's root."""
    return pathlib.Path(os.path.normpath(page.parent / target))


def anchor_of(heading, taken):
    """As repository browsers make it: lower case, hyphens for blanks, no punctuation."""
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).strip().lower()
    anchor = re.sub(r"[^\w\- ]", "", text).replace(" ", "-")
    taken[anchor] = taken.get(anchor, -1) + 1
    return f"{anchor}-{taken[anchor]}" if taken[anchor] else anchor


def pieces(text):
    """Fences, headings and lines in their order; comments are left out."""
    lines = text.splitlines(keepends=True)
    taken, comment, at = {}, "", 0
    while at < len(lines):
        number, line = at + 1, lines[at]
        if line.startswith("<!--") and (found := COMMENT.match("".join(lines[at:]))):
            comment = found[1].strip()
            at += found[0].rstrip().count("\n") + 1
            continue
        if opened := FENCE.match(line):
            end = next((i for i in range(at + 1, len(lines)) if lines[i].rstrip() == "```"),
                       len(lines))
            yield Fence(opened[1], "".join(lines[at + 1:end]), number, comment,
                        "".join(lines[at:end + 1]))
            at = end
        elif heading := HEADING.match(line):
            yield Heading(len(heading[1]), heading[2], anchor_of(heading[2], taken), number,
                          line)
        else:
            yield Text(line, number)
        if line.strip():
            comment = ""
        at += 1


def link_of(found):
    return Link(found[2], found[3], bool(found[1]), found[0])


def links(line):
    return [link_of(found) for found in LINK.finditer(line) if found[3]]


def replace_links(line, replacement):
    def replaced(found):
        return replacement(link_of(found)) if found[3] else found[0]

    return LINK.sub(replaced, line)


def block(path, fits):
    """The code of the page's first block that fits."""
    text = pathlib.Path(path).read_text(encoding="utf-8")
    return next(piece.code for piece in pieces(text) if isinstance(piece, Fence) and fits(piece))


if __name__ == "__main__":
    sys.stdout.write(block(sys.argv[1], lambda fence: fence.language == sys.argv[2]))
