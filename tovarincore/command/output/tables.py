"""Draws tables for people; ``rich`` is imported when the first one is drawn."""

from collections.abc import Sequence
from typing import TYPE_CHECKING

import click

from tovarincore.command.output.text import one_line

if TYPE_CHECKING:
    from rich.console import Console, RenderableType
    from rich.table import Table

__all__ = ["build_table", "console", "draw", "draw_pairs", "draw_table"]

# Into a file or pipe every cell goes whole: a program or a person will search for it.
_WIDTH_WITHOUT_TERMINAL = 1000
# Colours help to find the odd one; everything is told in words too.
_STYLES = {
    "ready": "green",
    "ok": "green",
    "Running": "green",
    "fail": "bold red",
    "warn": "yellow",
    "Starting": "yellow",
    "Terminated": "dim",
}


def console() -> "Console":
    """Return where tables are drawn: standard output."""
    from rich.console import Console

    found = Console(highlight=False, markup=False, emoji=False)
    return found if found.is_terminal else Console(width=_WIDTH_WITHOUT_TERMINAL, color_system=None)


def draw(content: "RenderableType") -> None:
    """Draw on standard output; into a file or pipe without the blanks that fill the last column."""
    shown = console()
    if shown.is_terminal:
        shown.print(content)
        return
    with shown.capture() as captured:
        shown.print(content)
    click.echo("\n".join(line.rstrip() for line in captured.get().splitlines()))


def build_table(columns: Sequence[str], rows: Sequence[Sequence[object]]) -> "Table":
    """Return a table of the rows, each with one value per column; ``None`` is shown as a dash."""
    from rich.table import Table
    from rich.text import Text

    table = Table(box=None, pad_edge=False, header_style="bold")
    for index, column in enumerate(columns):
        # Folded rather than cut: half an address is of no use.
        table.add_column(column.upper(), no_wrap=index == 0, overflow="fold")
    for row in rows:
        cells = ["-" if value is None or value == "" else one_line(value) for value in row]
        table.add_row(*(Text(cell, style=_STYLES.get(cell, "")) for cell in cells))
    return table


def draw_table(columns: Sequence[str], rows: Sequence[Sequence[object]], when_empty: str) -> None:
    """Draw rows, or write a line when there are none.

    :param columns: their headings
    :param rows: one value per column
    :param when_empty: the line
    """
    draw(build_table(columns, rows) if rows else when_empty)


def draw_pairs(pairs: Sequence[tuple[str, object]]) -> None:
    """Draw names and values, one pair per line."""
    from rich.table import Table
    from rich.text import Text

    table = Table(box=None, pad_edge=False, show_header=False)
    table.add_column(style="bold", no_wrap=True)
    table.add_column(overflow="fold")
    for name, value in pairs:
        cell = "-" if value is None or value == "" else one_line(value)
        table.add_row(name, Text(cell, style=_STYLES.get(cell, "")))
    draw(table)
