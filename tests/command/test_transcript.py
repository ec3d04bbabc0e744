"""The document of the command shows what the command writes."""

from __future__ import annotations

from tests.command.transcript import DOCUMENT, rewritten
from tovarincore.command.app import SUBCOMMANDS
from tovarincore.command.errors.failures import EXIT_CODES


def test_the_document_shows_what_the_commands_write(sdk_data_read_once: None) -> None:
    """Every block but those on a container engine is run again and has to come out the same."""
    text = DOCUMENT.read_text(encoding="utf-8")
    assert rewritten(text, engine_wanted=False) == text, "run: python -m tests.command.transcript"


def test_the_document_has_every_sub_command_and_exit_code() -> None:
    """Nothing is left out."""
    text = DOCUMENT.read_text(encoding="utf-8")
    for name in SUBCOMMANDS:
        assert f"$ tovarin-nodes {name} " in text or f"`tovarin-nodes {name} " in text
    for code, meaning in EXIT_CODES.items():
        said = meaning.replace("doctor", "`doctor`").replace("--debug", "`--debug`")
        assert f"| {int(code)} | {said} |" in text
