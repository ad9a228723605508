"""Sphinx's settings; `./dev docs` makes its input by tools/docs/site.py."""

import pathlib
import sys

project = "orbiq"
author = "the orbiq project"
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "tools/docs"))
extensions = ["myst_parser", "breathe", "mend_theme"]
html_theme = "furo"
html_title = "orbiq"
html_show_copyright = False
html_show_sourcelink = False
html_copy_source = False
html_static_path = ["_static"]
pygments_style = "default"
pygments_dark_style = "github-dark"
html_css_files = ["site.css"]
# Anchors as a repository browser makes them of headings.
myst_heading_anchors = 4
breathe_projects = {"orbiq": "../xml"}
breathe_default_project = "orbiq"
breathe_default_members = ("members",)
breathe_domain_by_file_pattern = {"*orbiq_c.h": "c"}
breathe_show_include = False
