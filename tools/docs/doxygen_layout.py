#!/usr/bin/env python3
"""Prints Doxygen's layout, which begins with the sections of docs/index.md and the pages in them.

Usage: doxygen_layout.py, in the project's root.
"""

import pathlib
import sys
from xml.sax.saxutils import quoteattr

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import doxygen_filter  # noqa: E402
import pages  # noqa: E402

INDEX = pathlib.Path("docs/index.md")
# What follows the pages. Everything else that Doxygen lists by itself is left out.
REFERENCE = """
    <tab type="classes" visible="yes" title="Classes">
      <tab type="classlist" visible="yes" title="All classes"/>
      <tab type="classmembers" visible="yes" title="All members"/>
    </tab>
    <tab type="namespaces" visible="yes" title="Namespaces">
      <tab type="namespacelist" visible="yes" title="All namespaces"/>
      <tab type="namespacemembers" visible="yes" title="All members"/>
    </tab>
    <tab type="files" visible="yes" title="Headers">
      <tab type="filelist" visible="yes" title="Headers"/>
      <tab type="globals" visible="yes" title="Names at global scope"/>
    </tab>"""


def section(title, links):
    tabs = "".join(
        f'\n      <tab type="user" title={quoteattr(link.text)} '
        f'url={quoteattr("@ref " + doxygen_filter.label(pages.resolve(INDEX, link.target)))}/>'
        for link in links)
    return f'\n    <tab type="usergroup" title={quoteattr(title)}>{tabs}\n    </tab>'


def main():
    sections = {}
    for piece in pages.pieces(INDEX.read_text(encoding="utf-8")):
        if isinstance(piece, pages.Heading) and piece.level == 2:
            sections[piece.text] = []
        elif sections and isinstance(piece, pages.Text):
            sections[next(reversed(sections))] += pages.links(piece.whole)
    groups = "".join(section(title, links) for title, links in sections.items())
    print('<doxygenlayout version="1.0">\n  <navindex>\n'
          f'    <tab type="mainpage" visible="yes" title="Start"/>{groups}{REFERENCE}\n'
          "  </navindex>\n</doxygenlayout>")


if __name__ == "__main__":
    main()
