"""The table of nodes: columns that fit the width, and rows that change in place."""

from collections.abc import Container, Mapping, Sequence
from datetime import datetime
from typing import Any, ClassVar

from rich.text import Text
from textual.binding import Binding, BindingType
from textual.widgets import DataTable

from tovarincore._transport.masker import mask
from tovarincore.cloud_def import NodeState
from tovarincore.command.output.text import printable
from tovarincore.command.top.bars import age_text, bar, history
from tovarincore.command.top.rows import Key, Row

__all__ = ["NodeTable", "details"]

_WIDE = 120
"""From so many columns on there is room for the region's whole name, the type and a longer history."""
_GAP = 2
_SHORT = {"north": "n", "south": "s", "east": "e", "west": "w", "central": "c"}
_STYLES = {
    NodeState.RUNNING: "green",
    NodeState.STARTING: "yellow",
    NodeState.STOPPING: "yellow",
    NodeState.SHUTTING_DOWN: "red",
    NodeState.TERMINATED: "dim",
}


class NodeTable(DataTable[Text]):
    """All nodes that are shown, one a line; only what changed is drawn."""

    BINDINGS: ClassVar[list[BindingType]] = [
        Binding("home", "scroll_top", show=False),
        Binding("end", "scroll_bottom", show=False),
    ]

    def __init__(self) -> None:
        super().__init__(cursor_type="row", zebra_stripes=False, cell_padding=1)
        self._widths: dict[str, int] = {}
        self._order: list[Key] = []
        self._drawn: dict[Key, tuple[str, ...]] = {}

    def show(
        self, rows: Sequence[Row], width: int, now: datetime, marked: Container[Key], several: bool
    ) -> None:
        """Show these rows, in this order.

        :param rows: the rows
        :param width: columns of the screen
        :param now: for ages
        :param marked: the rows that bear a mark
        :param several: there is more than one region
        """
        widths = _widths(width, several)
        texts = {row.key: _cells(row, widths, now, row.key in marked) for row in rows}
        order = list(texts)
        if widths != self._widths or order != self._order:
            self._show_all(rows, texts, widths)
        else:
            self._show_changes(rows, texts)
        self._order, self._drawn = order, texts

    @property
    def current(self) -> Key | None:
        """The row under the cursor."""
        return self._order[self.cursor_row] if self.cursor_row < len(self._order) else None

    def _show_all(
        self, rows: Sequence[Row], texts: Mapping[Key, tuple[str, ...]], widths: dict[str, int]
    ) -> None:
        current, top, row_before = self.current, self.scroll_y, self.cursor_row
        with self.app.batch_update():
            self.clear(columns=True)
            for title, column_width in widths.items():
                self.add_column(title, width=column_width, key=title)
            for row in rows:
                self.add_row(*_styled(row, texts[row.key], widths), key="\n".join(row.key))
        self._widths = widths
        order = list(texts)
        # The cursor stays on its node; where that is gone, on its line.
        last = len(order) - 1
        line = order.index(current) if current is not None and current in texts else min(row_before, last)
        if order:
            self.move_cursor(row=max(0, line), animate=False, scroll=False)
            self.scroll_to(y=top, animate=False)

    def _show_changes(self, rows: Sequence[Row], texts: Mapping[Key, tuple[str, ...]]) -> None:
        for row in rows:
            before, after = self._drawn[row.key], texts[row.key]
            if before == after:
                continue
            styled = _styled(row, after, self._widths)
            for title, old, new, text in zip(self._widths, before, after, styled, strict=True):
                if old != new:
                    self.update_cell("\n".join(row.key), title, text)


def _widths(width: int, several_regions: bool) -> dict[str, int]:
    wide = width >= _WIDE
    widths = {"NAME": 24 if wide else 13}
    if several_regions or wide:
        widths["REGION"] = 18 if wide else 8
    if wide:
        widths["TYPE"] = 12
    widths |= {"STATE": 13 if wide else 8, "LOAD": 16 if wide else 7}
    widths |= {"PAST": 12 if wide else 4, "MEM": 16 if wide else 7, "AGE": 4}
    taken = sum(widths.values()) + _GAP * (len(widths) + 1)
    # The reason gets what is left; two columns are the scroll bar's.
    return {**widths, "WORKER": max(5, width - taken - 2)}


def _cells(row: Row, widths: Mapping[str, int], now: datetime, marked: bool) -> tuple[str, ...]:
    node = row.node
    load = node.cpu_percent if node.ready else None
    made = {
        "NAME": f"*{node.name}" if marked else node.name,
        "REGION": node.region.key if widths.get("REGION", 0) > 10 else _short(node.region.name),
        "TYPE": node.instance_type_def.instance_type,
        "STATE": row.doing or node.state.value,
        "LOAD": bar(load, widths["LOAD"] - 4),
        "PAST": history(row.loads, widths["PAST"]),
        "MEM": bar(row.memory if node.ready else None, widths["MEM"] - 4),
        "AGE": age_text(row.launched, now),
        # Of other nodes the state says it already.
        "WORKER": row.readiness if node.state is NodeState.RUNNING else "",
    }
    return tuple(made[title] for title in widths)


def _short(region: str) -> str:
    """Return a region's name with the points of the compass as letters: ``eu-c-1``, ``ap-se-2``."""
    for word, letter in _SHORT.items():
        region = region.replace(word, letter)
    return region


def _styled(row: Row, texts: Sequence[str], widths: Mapping[str, int]) -> list[Text]:
    cells = []
    for title, text in zip(widths, texts, strict=True):
        style = ""
        if title == "STATE":
            style = "yellow" if row.doing else _STYLES.get(row.node.state, "")
        elif title == "WORKER":
            style = "green" if row.node.ready else "red"
        cells.append(Text(_shortened(printable(mask(text)), widths[title]), style, no_wrap=True))
    return cells


def _shortened(text: str, width: int) -> str:
    return text if len(text) <= width else text[: width - 1] + "…"


def details(row: Row, now: datetime) -> list[tuple[str, str]]:
    """Return names and values of all that is known of a node."""
    node = row.node
    known: list[tuple[str, Any]] = [
        ("Name", node.name),
        ("Region", node.region.key),
        ("Instance id", node.instance_id),
        ("uuid", node.uuid),
        ("State", f"{node.state.value}{f', {row.doing}' if row.doing else ''}"),
        ("Worker", row.readiness),
        ("Type", node.instance_type_def.instance_type),
        ("Address", node.dns_address),
        ("Key pair", node.key_pair_name),
        ("Instance profile", node.instance_profile_name),
        ("Processor load", bar(node.cpu_percent, 20) if node.ready else None),
        ("Memory in use", bar(row.memory, 20) if node.ready else None),
        ("Loads until now", history(row.loads, len(row.loads))),
        ("Age", age_text(row.launched, now)),
    ]
    return [(name, printable(mask(str(value or "-")))) for name, value in known]
