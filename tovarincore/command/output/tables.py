"""Draws tables for people: cells stay whole; the least important columns give way on a narrow terminal."""

import unicodedata
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from typing import Any

import click

from tovarincore.command.output.text import printable
from tovarincore.command.output.writer import write

__all__ = ["Column", "cell_text", "draw_pairs", "table_lines"]

_GAP = "  "
# Colours help to find the odd one; everything is told in words too.
_STYLES: dict[str, dict[str, Any]] = {
    "ready": {"fg": "green"},
    "Running": {"fg": "green"},
    "Starting": {"fg": "yellow"},
    "Terminated": {"dim": True},
}


@dataclass(frozen=True)
class Column:
    """One column of a listing.

    :param key: key of the value in a document
    :param title: heading
    :param weight: the heaviest are left out first where the terminal is narrow; 0 stays
    :param show: makes a text of the value; ``None`` shows it as it is
    :param wide: shown in the wide form only
    """

    key: str
    title: str
    weight: int = 0
    show: Callable[[Any], object] | None = None
    wide: bool = False


def table_lines(
    columns: Sequence[Column],
    items: Sequence[dict[str, Any]],
    headings: bool = True,
    width: int | None = None,
) -> tuple[list[str], list[str]]:
    """Lay a table out.

    :param columns: what to show of each item
    :param items: the rows, as documents
    :param headings: begin with a line of headings
    :param width: columns of the terminal; ``None`` where nothing limits a line
    :return: the lines, and the titles of columns that did not fit
    """
    cells = [[cell_text(column, item) for item in items] for column in columns]
    titles = [column.title.upper() if headings else "" for column in columns]
    widths = [max(map(_width, [title, *texts])) for title, texts in zip(titles, cells, strict=True)]
    shown = _fitting(columns, widths, width)
    lines = []
    if headings:
        lines.append(_line([(titles[index], widths[index], {"bold": True}) for index in shown]))
    for row in range(len(items)):
        texts = [(cells[index][row], widths[index]) for index in shown]
        lines.append(_line([(text, wide, _STYLES.get(text, {})) for text, wide in texts]))
    return lines, [column.title for index, column in enumerate(columns) if index not in shown]


def cell_text(column: Column, item: dict[str, Any]) -> str:
    """Return an item's text for a column; a dash where there is nothing."""
    value = item.get(column.key)
    if column.show is not None:
        value = column.show(value)
    return "-" if value is None or value == "" else printable(" ".join(str(value).split()))


def draw_pairs(pairs: Sequence[tuple[str, object]]) -> None:
    """Write names and values, one pair per line."""
    longest = max(len(name) for name, _ in pairs)
    for name, value in pairs:
        text = cell_text(Column("value", name), {"value": value})
        styled = click.style(text, **_STYLES[text]) if text in _STYLES else text
        write(f"{click.style(name.ljust(longest), bold=True)}{_GAP}{styled}")


def _fitting(columns: Sequence[Column], widths: Sequence[int], width: int | None) -> list[int]:
    shown = list(range(len(columns)))
    while width is not None and sum(widths[i] for i in shown) + len(_GAP) * (len(shown) - 1) > width:
        heaviest = max(shown, key=lambda index: columns[index].weight)
        if not columns[heaviest].weight:
            # What is left is needed; the terminal breaks the line where it must, and it can be copied whole.
            break
        shown.remove(heaviest)
    return shown


def _line(cells: Sequence[tuple[str, int, dict[str, Any]]]) -> str:
    parts = []
    for position, (text, width, style) in enumerate(cells):
        last = position == len(cells) - 1
        blanks = "" if last else " " * (width - _width(text))
        parts.append((click.style(text, **style) if style else text) + blanks)
    return _GAP.join(parts).rstrip()


def _width(text: str) -> int:
    if text.isascii():
        return len(text)
    return sum(
        0 if unicodedata.combining(sign) else 2 if unicodedata.east_asian_width(sign) in "WF" else 1
        for sign in text
    )
