"""Numbers on the command line."""

from __future__ import annotations

from pathlib import Path

import pytest

from tests.command.conftest import Run


@pytest.mark.parametrize(
    "arguments, words",
    [
        (("launch", "--disk", "abc"), "'abc' is not allowed; give a whole number from 1 to 16384"),
        (("launch", "--count", "1.5"), "'1.5' is not allowed; give a whole number from 1 to 1000"),
        (("history", "--count", "0"), "'0' is not allowed; give a whole number from 1 on"),
        (("watch", "--every", "x"), "'x' is not allowed; give a number from 0 to 86400"),
        (("list", "--timeout", "0"), "'0' is not allowed; give a number above 0, at most 86400"),
    ],
)
def test_a_wrong_number_is_told_with_what_is_allowed(
    run: Run, no_account: Path, arguments: tuple[str, ...], words: str
) -> None:
    """The option, what was given, and what could be."""
    result = run(*arguments)
    assert result.exit_code == 2
    assert f"error: Invalid value for '{arguments[1]}': {words}" in result.stderr
