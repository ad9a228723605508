"""What Debian's Furo leaves to be mended in a finished site, so that it works from files, too.

A Sphinx extension. Debian took two bundled parts out of the theme: a style sheet, which it looks for on a web
server, and a script, which a browser loads as a module only from a server.
"""

import pathlib
import re
import shutil

NORMALIZE = pathlib.Path("/usr/share/javascript/normalize.css/normalize.css")
# What a screen reader, or somebody without a mouse, needs.
MENDED = [
    ('role="heading">', 'role="heading" aria-level="2">'),
    ('<aside class="sidebar-drawer">', '<aside class="sidebar-drawer" aria-label="All pages">'),
    ('<aside class="toc-drawer', '<aside aria-label="This page" class="toc-drawer'),
    ('<label class="overlay', '<label aria-hidden="true" class="overlay'),
    ("<pre>", '<pre tabindex="0">'),
    ('<th class="head"><p></p></th>', '<td class="head"></td>'),
    ('<div id="search-results">', '<h1>Search</h1>\n<div id="search-results">'),
    ('<div class="table-wrapper', '<div tabindex="0" class="table-wrapper'),
]


def mend(static):
    styles = static / "styles/furo.css"
    text = styles.read_text(encoding="utf-8")
    if "/javascript/normalize.css/" in text:
        shutil.copy(NORMALIZE, styles.with_name("normalize.css"))
        text = text.replace("/javascript/normalize.css/", "")
    # Their compiler of style sheets drops the dark scheme that the system asks for.
    if "prefers-color-scheme" not in text:
        dark = re.search(r'body\[data-theme="dark"\] (\{[^}]*--color[^}]*\})', text)[1]
        text += f"\n@media (prefers-color-scheme: dark) {{ body:not([data-theme=light]) {dark} }}\n"
    styles.write_text(text, encoding="utf-8")
    script = static / "scripts/furo.js"
    text = script.read_text(encoding="utf-8")
    if found := re.match(r'import Gumshoe from "\./(.*)";\n', text):
        module = script.with_name(found[1]).read_text(encoding="utf-8")
        script.write_text(re.sub(r"^export default .*\n?", "", module, flags=re.M) + text[found.end():],
                          encoding="utf-8")


def finish(app, failure):
    if failure or app.builder.name != "html":
        return
    target = pathlib.Path(app.outdir)
    mend(target / "_static")
    for page in target.glob("*.html"):
        text = page.read_text(encoding="utf-8")
        for theirs, ours in MENDED:
            text = text.replace(theirs, ours)
        # What Breathe says of members that share a docstring.
        text = re.sub(r'<p class="breathe-sectiondef-title[^>]*>Unnamed Group</p>', "", text)
        page.write_text(text, encoding="utf-8")


def setup(app):
    app.connect("build-finished", finish)
    return {"parallel_read_safe": True, "parallel_write_safe": True}
