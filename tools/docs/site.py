#!/usr/bin/env python3
"""Makes Sphinx's input of the pages, which are written for a repository browser.

Usage: site.py DIRECTORY, in the project's root. Pages of the root and of docs/ come to stand beside each
other. Links to sources, which the site does not hold, become their names. The sidebar has the sections
of docs/index.md. Each section of docs/reference.md becomes a page with the docstrings of its headers.

       site.py --headers prints the headers of the reference, as Doxygen's input.
"""

import pathlib
import re
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import pages  # noqa: E402

# Without the namespaces, which would come again with each header.
PARTS = ("briefdescription detaileddescription innerclass user-defined define enum typedef func var "
         "public-type public-func public-static-func public-attrib public-static-attrib")
PROJECT = pathlib.Path.cwd()
DOCS = pathlib.Path("docs")


def sections(page):
    """The links under each heading of the second level, by its text."""
    found = {}
    for piece in pages.pieces((PROJECT / page).read_text(encoding="utf-8")):
        if isinstance(piece, pages.Heading) and piece.level == 2:
            found[piece.text] = []
        elif found and isinstance(piece, pages.Text):
            found[next(reversed(found))] += [(link.text, pages.resolve(page, link.target))
                                             for link in pages.links(piece.whole)]
    return found


def reference():
    """Each topic's headers, with the names that the reference has of each."""
    topics = {}
    for title, links in sections(DOCS / "reference.md").items():
        headers = topics[title] = {}
        for name, header in links:
            if header.suffix == ".h":
                headers.setdefault(header, []).append(name)
    return topics


def file_name(title):
    return "reference-" + re.sub(r"\W+", "-", title.lower())


def on_site(page, link, known):
    target, _, anchor = link.target.partition("#")
    if ":" in target or not target:
        return link.whole
    other = pages.resolve(page, target)
    if link.is_image:
        return f"![{link.text}]({other.name})"
    if other in known:
        return f"[{link.text}]({other.name}{'#' + anchor if anchor else ''})"
    if other.suffix == ".h":
        return f"[{link.text}](header-{other.stem.lower()})"
    path = f"`{other.as_posix()}`"
    return path if other.name in link.text else f"{link.text} ({path})"


def staged(page, known):
    for piece in pages.pieces((PROJECT / page).read_text(encoding="utf-8")):
        is_text = isinstance(piece, pages.Text)
        yield pages.replace_links(piece.whole, lambda link: on_site(page, link, known)) \
            if is_text else piece.whole


def toctree(entries, caption=""):
    options = f":caption: {caption}\n" if caption else ""
    return "\n```{toctree}\n:hidden:\n" + options + "\n" + "\n".join(entries) + "\n```\n"


def topic_page(title, headers):
    text = f"# {title}\n"
    for header, names in headers.items():
        text += (f"\n(header-{header.stem.lower()})=\n## {', '.join(names)}\n\n"
                 f"`{header.as_posix()}`\n\n```{{doxygenfile}} {header.as_posix()}\n"
                 f":sections: {PARTS}\n```\n")
    return text


def main():
    topics = reference()
    if sys.argv[1] == "--headers":
        print("INPUT =", *sorted({str(header) for headers in topics.values() for header in headers}))
        return
    target = pathlib.Path(sys.argv[1])
    shutil.rmtree(target, ignore_errors=True)
    shutil.copytree(DOCS / "static", target / "_static")
    for image in [*DOCS.glob("diagrams/*"), *DOCS.glob("images/*")]:
        shutil.copy(image, target)
    shutil.copy(DOCS / "conf.py", target)
    known = pages.all_pages(PROJECT)
    texts = {page.name: "".join(staged(page, known)) for page in known}
    for title, links in sections(DOCS / "index.md").items():
        texts["index.md"] += toctree([other.stem for _, other in links], title)
    texts["index.md"] += toctree(["README"])
    texts["reference.md"] += toctree([file_name(title) for title in topics])
    texts |= {f"{file_name(title)}.md": topic_page(title, headers) for title, headers in topics.items()}
    for name, text in texts.items():
        (target / name).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
