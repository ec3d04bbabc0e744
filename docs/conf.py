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
from stub_signatures import typed_signatures  # noqa: E402

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
STUB = HERE.parent / "tovarincore" / "cloud_node.pyi"
TYPED = typed_signatures(STUB, "tovarincore.cloud_node")


class NativeMethodDocumenter(MethodDocumenter):
    """Documents the extension's methods, which are no Python functions and would pass for attributes."""

    objtype = "nativemethod"
    directivetype = "method"
    priority = 20

    @classmethod
    def can_document_member(cls, member: Any, membername: str, isattr: bool, parent: Any) -> bool:
        """Take the extension's own function type."""
        return type(member).__name__ == "native_function"


def with_types(
    app: Sphinx, what: str, name: str, found: Any, options: Any, signature: str | None, result: str | None
) -> tuple[str | None, str | None]:
    """Show the stub's types."""
    app.env.note_dependency(str(STUB))
    return TYPED.get(name, (signature, result))


def setup(app: Sphinx) -> None:
    """Called by the generator."""
    app.connect("autodoc-process-signature", with_types)
    app.add_autodocumenter(NativeMethodDocumenter)
