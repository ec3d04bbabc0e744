"""Writes the manual page docs/tovarin-nodes.1 out of the command's help: `python -m scripts.man_page`."""

from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path

import click

from tovarincore.command.app import SUBCOMMANDS, cli
from tovarincore.command.errors.failures import EXIT_CODES

PAGE = Path(__file__).parent.parent / "docs" / "tovarin-nodes.1"
_PROGRAM = "tovarin-nodes"
_VARIABLES = {
    "TOVARIN_CONF": "The settings file, in place of core.toml in the configuration folder; it has to exist.",
    "TOVARIN_CLOUD_CONF": "The credential store, in place of cloud.toml in the configuration folder.",
    "TOVARIN_<SECTION>__<KEY>": "A setting, in place of what the file says.",
    "NO_COLOR": "Colours are left out when it holds anything.",
}
_FILES = {
    "~/.config/tovarin/core.toml": "Settings.",
    "~/.config/tovarin/cloud.toml": "Credentials; its owner's alone.",
    "~/.config/tovarin/launches.jsonl": "The ledger of launches.",
}


def manual_page() -> str:
    """Return the page in the macros of man(7)."""
    context = click.Context(cli, info_name=_PROGRAM, **cli.context_settings)
    return "\n".join(_page(context)) + "\n"


def _page(root: click.Context) -> Iterator[str]:
    yield ".\\\" Written by scripts/man_page.py out of the command's help."
    yield f'.TH {_PROGRAM.upper()} 1 "" "tovarincore" "User commands"'
    yield from (".SH NAME", f"{_PROGRAM} \\- launch, find, watch, stop and end compute nodes")
    yield from (".SH SYNOPSIS", f".B {_PROGRAM}", "[OPTIONS] COMMAND [ARGUMENTS]")
    yield from (".SH DESCRIPTION", *_paragraphs(cli.help or ""))
    yield from (".SH OPTIONS", *_options(cli, root), *_terms({"-h, --help": "Show this message and exit."}))
    yield ".SH COMMANDS"
    for name in SUBCOMMANDS:
        command = cli.get_command(root, name)
        assert command is not None
        yield from _command(command, root, name)
    yield from (".SH EXIT STATUS", *_terms({str(int(code)): text for code, text in EXIT_CODES.items()}))
    yield from (".SH ENVIRONMENT", *_terms(_VARIABLES))
    yield from (".SH FILES", *_terms(_FILES))
    yield from (".SH SEE ALSO", f"{_PROGRAM} help", "lists the pages of the documentation that come with it.")


def _command(command: click.Command, parent: click.Context, name: str) -> Iterator[str]:
    context = click.Context(command, parent=parent, info_name=name)
    if isinstance(command, click.Group):
        for inner, member in command.commands.items():
            yield from _command(member, context, inner)
        return
    path = context.command_path.removeprefix(f"{_PROGRAM} ")
    yield f".SS {_roff(path)}"
    yield from (f".B {_roff(context.command_path)}", _roff(" ".join(command.collect_usage_pieces(context))))
    yield ".PP"
    yield from _paragraphs(command.help or "")
    yield from _options(command, context)
    examples = getattr(command, "examples", ())
    if examples:
        yield from (".PP", "Examples:", ".PP", ".nf", ".RS")
        yield from (_roff(f"{_PROGRAM} {line}") for line in examples)
        yield from (".RE", ".fi")


def _options(command: click.Command, context: click.Context) -> Iterator[str]:
    # What every sub-command has is told once, and --help by the caller: its names depend on its first user.
    told = {parameter.name for parameter in cli.params} if context.parent is not None else set()
    shown = [
        parameter
        for parameter in command.get_params(context)
        if parameter.name not in told and parameter is not command.get_help_option(context)
    ]
    records = (parameter.get_help_record(context) for parameter in shown)
    yield from _terms(dict(record for record in records if record is not None and record[1]))


def _terms(terms: dict[str, str]) -> Iterator[str]:
    for term, text in terms.items():
        yield from (".TP", f"\\fB{_roff(term)}\\fR", _roff(" ".join(text.split())))


def _paragraphs(text: str) -> Iterator[str]:
    parts = [part for part in re.split(r"\n\s*\n", text.strip()) if part]
    for number, part in enumerate(parts):
        if number:
            yield ".PP"
        yield _roff(" ".join(part.split()))


def _roff(text: str) -> str:
    text = text.replace("\\", "\\e").replace("-", "\\-")
    # A line that begins so would be taken for a request.
    return f"\\&{text}" if text[:1] in (".", "'") else text


if __name__ == "__main__":
    PAGE.write_text(manual_page(), encoding="utf-8")
