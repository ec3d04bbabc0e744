"""A listing in the form that was asked for: filtered, sorted, as a table or for a program."""

from collections.abc import Sequence
from dataclasses import dataclass
from fnmatch import fnmatchcase
from typing import Any

from tovarincore._config_files.names import did_you_mean
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.tables import Column, table_lines
from tovarincore.command.output.text import one_line

__all__ = ["Listing", "View", "choose", "draw"]


@dataclass(frozen=True)
class View:
    """How listings are shown.

    :param form: ``table``, ``wide``, ``name``, ``json``, ``yaml`` or ``csv``
    :param columns: keys of the columns to show, in this order; empty means the usual ones
    :param sort: key to sort by, with a ``-`` in front from high to low; empty keeps the provider's order
    :param filters: conditions ``key=value``; all must hold, and a value may be a shell pattern
    :param headings: begin tables with a line of headings
    """

    form: str = "table"
    columns: tuple[str, ...] = ()
    sort: str = ""
    filters: tuple[str, ...] = ()
    headings: bool = True


@dataclass(frozen=True)
class Listing:
    """What is listed.

    :param kind: the documents' kind
    :param columns: the columns of a table; the first one that is not a region is the item's name
    :param when_empty: the line for people when there is nothing
    """

    kind: str
    columns: tuple[Column, ...]
    when_empty: str

    @property
    def name_key(self) -> str:
        """Key of what a command takes as an item's name."""
        return next(column.key for column in self.columns if column.key != "region")


def choose(view: View, listing: Listing, items: Sequence[dict[str, Any]]) -> list[dict[str, Any]]:
    """Return the items that the view's filters let through, in its order.

    :raises CommandFailure: a filter or the order names no key, or a filter is no condition
    """
    keys = _keys(listing, items)
    conditions = [_condition(text, keys) for text in view.filters]
    found = [
        item
        for item in items
        if all(fnmatchcase(_plain(item.get(key)), pattern) for key, pattern in conditions)
    ]
    descending, key = view.sort[:1] == "-", view.sort.lstrip("-")
    if key:
        _require_key(key, keys, "--sort")
        filled = [item for item in found if item.get(key) is not None]
        filled.sort(key=lambda item: item[key], reverse=descending)
        found = filled + [item for item in found if item.get(key) is None]
    return found


def draw(
    view: View, listing: Listing, items: Sequence[dict[str, Any]], width: int | None
) -> tuple[list[str], list[str]]:
    """Lay a listing out for people, or as names or comma-separated values.

    :param width: columns of the terminal; ``None`` where nothing limits a line
    :return: the lines, and the titles of columns that did not fit
    :raises CommandFailure: no column has the wanted key
    """
    if view.form == "name":
        return [str(item.get(listing.name_key)) for item in items], []
    columns = _columns(view, listing, items)
    if view.form == "csv":
        from tovarincore.command.output.writer import masked, to_csv

        rows: list[list[object]] = [[column.key for column in columns]] if view.headings else []
        rows += [[masked(item.get(column.key)) for column in columns] for item in items]
        return ([to_csv(rows)] if rows else []), []
    if not items:
        return [listing.when_empty], []
    return table_lines(columns, items, view.headings, None if view.form == "wide" else width)


def _columns(view: View, listing: Listing, items: Sequence[dict[str, Any]]) -> list[Column]:
    known = {column.key: column for column in listing.columns}
    keys = _keys(listing, items)
    for key in view.columns:
        _require_key(key, keys, "--columns")
    if view.columns:
        return [known.get(key, Column(key, key.replace("_", " "))) for key in view.columns]
    if view.form == "csv":
        return [known.get(key, Column(key, key)) for key in keys]
    return [column for column in listing.columns if view.form == "wide" or not column.wide]


def _keys(listing: Listing, items: Sequence[dict[str, Any]]) -> list[str]:
    """The keys of the documents; without any, those of the columns."""
    return list(items[0]) if items else [column.key for column in listing.columns]


def _condition(text: str, keys: Sequence[str]) -> tuple[str, str]:
    key, equals, value = text.partition("=")
    if not equals:
        raise CommandFailure(
            f'"{one_line(text)}" is no condition',
            "give --filter KEY=VALUE, for example --filter state=running",
            ExitCode.USAGE,
        )
    _require_key(key, keys, "--filter")
    return key, value.casefold()


def _require_key(key: str, keys: Sequence[str], option: str) -> None:
    if key not in keys:
        raise CommandFailure(
            f'{option}: there is no column "{one_line(key)}"; {did_you_mean(key, keys)}', "", ExitCode.USAGE
        )


def _plain(value: object) -> str:
    """The text that a filter's value is compared with."""
    return "" if value is None else str(value).casefold()
