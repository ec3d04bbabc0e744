"""The one way out: everything that the command writes passes here, and leaves its secrets behind."""

import json
import os
import sys
from typing import Any, TextIO

import click

from tovarincore._transport.masker import mask
from tovarincore.command.output import progress

__all__ = ["error_is_terminal", "masked", "terminal_width", "to_csv", "to_json", "to_yaml", "write"]


def write(text: str, err: bool = False) -> None:
    """Write lines on standard output or standard error.

    :param text: the lines, without the last line break; colours vanish where there is no terminal
    :param err: on standard error
    """
    progress.clear()
    click.echo(mask(text), err=err, color=False if os.environ.get("NO_COLOR") else None)


def terminal_width() -> int | None:
    """Return the columns of the terminal on standard output; ``None`` for a file or pipe."""
    if not _is_terminal(sys.stdout):
        return None
    import shutil

    return shutil.get_terminal_size().columns


def error_is_terminal() -> bool:
    """Whether a person sees standard error as it is written."""
    return _is_terminal(sys.stderr) and os.environ.get("TERM") != "dumb"


def _is_terminal(stream: TextIO) -> bool:
    return stream.isatty()


def to_json(document: object, indent: int | None = 2) -> str:
    """Return a document as JSON, secrets masked."""
    text = json.dumps(document, indent=indent)
    # Rare enough to be worth a second pass: a masked text is no longer sure to be JSON.
    return text if mask(text) == text else json.dumps(masked(document), indent=indent)


def to_yaml(document: object) -> str:
    """Return a document as YAML, secrets masked.

    :raises ImportError: the package for it is not installed
    """
    import yaml

    return str(yaml.safe_dump(masked(document), sort_keys=False, allow_unicode=True)).rstrip("\n")


def to_csv(rows: list[list[object]]) -> str:
    """Return rows as comma-separated values; ``None`` is an empty field."""
    import csv
    import io

    text = io.StringIO()
    csv.writer(text, lineterminator="\n").writerows(rows)
    return text.getvalue().rstrip("\n")


def masked(document: Any) -> Any:
    """Return a document with every text in it masked."""
    if isinstance(document, str):
        return mask(document)
    if isinstance(document, dict):
        return {key: masked(value) for key, value in document.items()}
    if isinstance(document, (list, tuple)):
        return [masked(item) for item in document]
    return document
