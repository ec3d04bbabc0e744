"""The table of nodes: columns that fit the width, and lines that are drawn when they are seen."""

from collections.abc import Container, Mapping, Sequence
from dataclasses import dataclass
from datetime import datetime
from typing import Any, ClassVar

from rich.cells import cell_len, set_cell_size
from rich.segment import Segment
from rich.style import Style
from textual.binding import Binding, BindingType
from textual.events import Click
from textual.geometry import Size
from textual.message import Message
from textual.scroll_view import ScrollView
from textual.strip import Strip

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


class NodeTable(ScrollView, can_focus=True):
    """All nodes that are shown, one a line below the titles; the cursor is a line.

    What a line shows is worked out when it is drawn: 1,000 nodes cost no more than those on the screen.
    """

    COMPONENT_CLASSES: ClassVar[set[str]] = {"titles", "cursor"}
    DEFAULT_CSS = """
    NodeTable {
        background: $surface;
        color: $foreground;
        overflow-x: hidden;
        &:focus { background-tint: $foreground 5%; }
        & > .titles { background: $panel; color: $foreground; text-style: bold; }
        &:focus > .titles { background-tint: $foreground 5%; }
        &:ansi > .titles { background: ansi_bright_blue; color: ansi_default; }
        & > .cursor {
            background: $block-cursor-background;
            color: $block-cursor-foreground;
            text-style: $block-cursor-text-style;
        }
    }
    """
    BINDINGS: ClassVar[list[BindingType]] = [
        Binding("up", "move(-1)", show=False),
        Binding("down", "move(1)", show=False),
        Binding("pageup", "page(-1)", show=False),
        Binding("pagedown", "page(1)", show=False),
        Binding("home", "to_start", show=False),
        Binding("end", "to_end", show=False),
    ]

    @dataclass
    class Chosen(Message):
        """The node under the cursor was clicked at."""

    def __init__(self) -> None:
        super().__init__()
        self._rows: Sequence[Row] = ()
        self._widths: dict[str, int] = {}
        self._marked: Container[Key] = ()
        self._now = datetime.min
        self._drawn: dict[int, tuple[str, ...]] = {}
        self.cursor_row = 0

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
        current, widths = self.current, _widths(width, several)
        is_resized = len(rows) != len(self._rows) or widths != self._widths
        self._rows, self._widths, self._now, self._marked = rows, widths, now, marked
        # The cursor stays on its node; where that is gone, on its line.
        if self.current != current:
            lines = (line for line, row in enumerate(rows) if row.key == current)
            self.cursor_row = next(lines, max(0, min(self.cursor_row, len(rows) - 1)))
        if is_resized:
            self.virtual_size = Size(width, len(rows) + 1)
            self._see_cursor()
            self.refresh()
            return
        for line in self._lines():
            if self._drawn.get(line) != self._texts(line):
                self.refresh_line(line + 1)

    @property
    def row_count(self) -> int:
        """How many nodes are shown."""
        return len(self._rows)

    @property
    def current(self) -> Key | None:
        """The row under the cursor."""
        return self._rows[self.cursor_row].key if self.cursor_row < len(self._rows) else None

    def column(self, title: str) -> list[str]:
        """Return the texts of a column, from top to bottom."""
        place = list(self._widths).index(title)
        return [self._texts(line)[place] for line in range(len(self._rows))]

    def move_cursor(self, line: int) -> None:
        """Put the cursor on a line, or on the nearest that there is."""
        before, self.cursor_row = self.cursor_row, max(0, min(line, len(self._rows) - 1))
        self.refresh_line(before + 1)
        self.refresh_line(self.cursor_row + 1)
        self._see_cursor()

    def action_move(self, lines: int) -> None:
        """Go down so many lines."""
        self.move_cursor(self.cursor_row + lines)

    def action_page(self, pages: int) -> None:
        """Go down so many pages."""
        self.move_cursor(self.cursor_row + pages * max(1, self._height))

    def action_to_start(self) -> None:
        """Go to the first node."""
        self.move_cursor(0)

    def action_to_end(self) -> None:
        """Go to the last node."""
        self.move_cursor(len(self._rows) - 1)

    def on_resize(self) -> None:
        """Keep the cursor on the screen."""
        self._see_cursor()

    def on_click(self, event: Click) -> None:
        """Go to the line; a click at the cursor chooses its node."""
        place = event.get_content_offset(self)
        if place is None or place.y == 0:
            return
        line = place.y - 1 + self.scroll_offset.y
        if line == self.cursor_row:
            self.post_message(self.Chosen())
        elif line < len(self._rows):
            self.move_cursor(line)

    def render_line(self, y: int) -> Strip:
        """Draw a line of the screen; the first one holds the titles."""
        line = y - 1 + self.scroll_offset.y
        if y == 0:
            style = self.get_component_rich_style("titles")
            segments = [(_fitting(title, width), style) for title, width in self._widths.items()]
        elif line < len(self._rows):
            self._drawn[line] = texts = self._texts(line)
            # On the cursor's own background a colour would be hard to read.
            at_cursor = line == self.cursor_row
            style = self.get_component_rich_style("cursor") if at_cursor else self.rich_style
            colours = {} if at_cursor else _colours(self._rows[line])
            segments = [
                (_fitting(text, width), style + colours[title] if title in colours else style)
                for text, (title, width) in zip(texts, self._widths.items(), strict=True)
            ]
        else:
            style, segments = self.rich_style, []
        strip = Strip([Segment(f" {text} ", styled) for text, styled in segments])
        return strip.adjust_cell_length(self.size.width, style)

    def _texts(self, line: int) -> tuple[str, ...]:
        row = self._rows[line]
        return _cells(row, self._widths, self._now, row.key in self._marked)

    @property
    def _height(self) -> int:
        return self.size.height - 1

    def _lines(self) -> range:
        """The lines that are on the screen."""
        top = self.scroll_offset.y
        return range(top, min(top + self._height, len(self._rows)))

    def _see_cursor(self) -> None:
        top, height = self.scroll_offset.y, self._height
        if height < 1:
            return  # not laid out yet
        if self.cursor_row < top:
            self.scroll_to(y=self.cursor_row, animate=False, force=True)
        elif self.cursor_row >= top + height:
            self.scroll_to(y=self.cursor_row - height + 1, animate=False, force=True)


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


def _colours(row: Row) -> dict[str, Style]:
    state = "yellow" if row.doing else _STYLES.get(row.node.state, "")
    return {"STATE": Style.parse(state), "WORKER": Style.parse("green" if row.node.ready else "red")}


def _fitting(text: str, width: int) -> str:
    shown = printable(mask(text))
    return set_cell_size(shown, width) if cell_len(shown) <= width else set_cell_size(shown, width - 1) + "…"


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
