#!/usr/bin/env python3
"""Prints a Markdown page as Doxygen wants it.

Usage: doxygen_filter.py PAGE. The pages are written for a repository browser: relative links to
other pages and to files of the project, anchors that are made of headings. Doxygen knows neither
such anchors nor files that it does not read.
"""

import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import pages  # noqa: E402

NAME = re.compile(r"[\w:]+")


def label(page, anchor=""):
    """Doxygen's name of a page, or of a heading on it."""
    name = "page-" + "-".join(page.with_suffix("").parts).lower()
    return f"{name}-{anchor}" if anchor else name


def reference(page, link):
    target, _, anchor = link.target.partition("#")
    if ":" in target:
        return link.whole
    other = pages.resolve(page, target) if target else page
    if link.is_image:
        return f"![{link.text}]({other.name})"
    if other.suffix == ".h" and NAME.fullmatch(link.text):
        return f'@ref {link.text} "{link.text}"'
    if other not in pages.all_pages(pathlib.Path.cwd()):
        # The site holds no sources: it names them.
        path = f"`{other.as_posix()}`"
        return path if other.name in link.text else f"{link.text} ({path})"
    text = link.text.replace("`", "")
    return f'@ref {label(other, anchor)} "{text}"'


def filtered(page, text):
    for piece in pages.pieces(text):
        if isinstance(piece, pages.Fence):
            yield piece.whole
        elif isinstance(piece, pages.Heading):
            name = label(page) if piece.level == 1 else label(page, piece.anchor)
            yield f"{'#' * piece.level} {piece.text} {{#{name}}}\n"
        elif isinstance(piece, pages.Text):
            yield pages.replace_links(piece.whole, lambda link: reference(page, link))


def main():
    path = pathlib.Path(sys.argv[1])
    page = path.resolve().relative_to(pathlib.Path.cwd())
    sys.stdout.write("".join(filtered(page, path.read_text(encoding="utf-8"))))


if __name__ == "__main__":
    main()
