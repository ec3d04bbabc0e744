"""The manual page that is installed with the package."""

from __future__ import annotations

import shutil
import subprocess

import pytest

from scripts.man_page import PAGE, manual_page
from tovarincore.command.app import SUBCOMMANDS


def test_the_manual_page_is_that_of_the_command() -> None:
    """`python -m scripts.man_page` writes it again when an option changes."""
    assert PAGE.read_text(encoding="utf-8") == manual_page()


def test_the_formatter_takes_the_manual_page_and_shows_every_sub_command() -> None:
    """No request is misspelt, and no line lost to one."""
    if shutil.which("groff") is None:
        pytest.skip("groff is not installed")
    done = subprocess.run(
        ["groff", "-man", "-Tascii", "-ww", "-P-c", "-rLL=100n"],
        input=PAGE.read_text(encoding="utf-8"),
        capture_output=True,
        text=True,
        check=True,
        timeout=60,
    )
    assert done.stderr == ""
    for name in SUBCOMMANDS:
        assert f"tovarin-nodes {name}" in done.stdout, name
