"""Configuration of the documentation generator; `make docs` runs it."""

import sys
from importlib.metadata import version as version_of
from pathlib import Path
from typing import Any

from sphinx.application import Sphinx
from sphinx.ext.autodoc import MethodDocumenter

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE))

from settings_tables import write_settings_tables  # noqa: E402

project = "tovarincore"
author = copyright = project
version = release = version_of("tovarincore")

extensions = ["myst_parser", "sphinx.ext.autodoc"]
exclude_patterns = ["_build", "_generated"]
html_theme = "furo"
html_static_path = ["_static"]
html_css_files = ["tables.css"]
html_title = f"{project} {release}"
html_show_copyright = False

myst_enable_extensions = ["colon_fence"]
myst_heading_anchors = 3
suppress_warnings = ["myst.header"]

autodoc_member_order = "bysource"
autodoc_typehints = "signature"
autodoc_default_options = {"members": True, "show-inheritance": True}

write_settings_tables(HERE / "_generated" / "settings.md")


class NativeMethodDocumenter(MethodDocumenter):
    """Documents the extension's methods, which are no Python functions and would pass for attributes."""

    objtype = "nativemethod"
    directivetype = "method"
    priority = 20

    @classmethod
    def can_document_member(cls, member: Any, membername: str, isattr: bool, parent: Any) -> bool:
        """Take the extension's own function type."""
        return type(member).__name__ == "native_function"


def setup(app: Sphinx) -> None:
    """Called by the generator."""
    app.add_autodocumenter(NativeMethodDocumenter)
