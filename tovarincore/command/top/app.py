"""The full screen: what it is made of, and what its keys do."""

import threading
import time
from collections.abc import Callable, Mapping, Sequence
from datetime import datetime, timezone
from typing import Any, ClassVar

from textual import work
from textual.app import App, ComposeResult
from textual.binding import Binding, BindingType
from textual.widgets import Footer, Input, Static
from textual.worker import get_current_worker

from tovarincore import fleet
from tovarincore._transport.masker import mask
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.command.errors.explain import explain
from tovarincore.command.nodes.ages import launch_times
from tovarincore.command.nodes.ownership import require_own
from tovarincore.command.output.text import printable
from tovarincore.command.top.dialogs import Question, Sheet
from tovarincore.command.top.rows import ORDERS, Book, Row, chosen
from tovarincore.command.top.table import NodeTable, details
from tovarincore.command.watching.looks import Look, Lookout
from tovarincore.core_conf import log_manager_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["TopApp"]

_ACTIONS: Mapping[str, tuple[Callable[..., fleet.ActionReport], str]] = {
    "start": (fleet.start, "starting"),
    "stop": (fleet.stop, "stopping"),
    "reboot": (fleet.reboot, "rebooting"),
    "terminate": (fleet.terminate, "ending"),
}
_FEW = 8
"""So many names are shown in a question."""


class TopApp(App[None]):
    """All nodes of some regions on the full screen.

    Nothing that waits for a provider or a worker runs in the thread that draws: looks and changes have
    separate threads, and hand over what they found.

    :param lookout: looks at the regions
    :param every: seconds between the beginnings of two looks
    :param clock: tells the time
    """

    TITLE = "tovarin-nodes top"
    ENABLE_COMMAND_PALETTE = False
    CSS = """
    #head { height: 1; text-style: bold; }
    #lost { height: auto; color: $error; display: none; }
    #filter { height: 1; border: none; padding: 0; display: none; }
    NodeTable { height: 1fr; }
    """
    BINDINGS: ClassVar[list[BindingType]] = [
        Binding("q,ctrl+c", "quit", "quit", key_display="q", priority=False),
        Binding("slash", "filter", "filter", key_display="/"),
        Binding("s", "sort", "sort"),
        Binding("enter", "details", "info", priority=False),
        Binding("g", "gone", "ended"),
        Binding("space", "mark", "mark"),
        Binding("S", "change('start')", "start"),
        Binding("X", "change('stop')", "stop"),
        Binding("R", "change('reboot')", "reboot"),
        Binding("T", "change('terminate')", "end"),
        Binding("escape", "clear", "clear", show=False),
    ]

    def __init__(
        self, lookout: Lookout, every: float = 10.0, clock: Callable[[], datetime] | None = None
    ) -> None:
        super().__init__()
        self._clock = clock or (lambda: datetime.now(timezone.utc))
        self._lookout = lookout
        self._every = every
        self.book = Book()
        self._order = "region" if len(lookout.regions) > 1 else "name"
        self._words = ""
        self._gone = False
        self._marked: set[tuple[str, str]] = set()
        self._looked: float | None = None
        self._ended = threading.Event()
        self.left_out: list[CloudNode] = []
        """Nodes that were to be changed when the screen was left."""

    def compose(self) -> ComposeResult:
        """Lay the screen out."""
        yield Static("looking at the nodes ...", id="head", markup=False)
        yield Static("", id="lost", markup=False)
        yield NodeTable()
        yield Input(placeholder="words that a node has; Enter keeps them, Esc drops them", id="filter")
        footer = Footer()
        footer.compact = True
        yield footer

    def on_mount(self) -> None:
        """Begin to look."""
        self.query_one(NodeTable).focus()
        self.look_on()
        # Ages go on between two looks.
        self.set_interval(1.0, self.draw)

    def on_unmount(self) -> None:
        """Let the thread that looks begin nothing more."""
        self._ended.set()

    def on_resize(self) -> None:
        """Other columns may fit."""
        self.draw()

    # ---- looking

    @work(thread=True, exclusive=True, group="looking", exit_on_error=False)
    def look_on(self) -> None:
        """Look again and again, until the screen is left."""
        worker = get_current_worker()
        while not self._ended.is_set() and not worker.is_cancelled:
            begin = time.monotonic()
            try:
                self._lookout.look(lambda look: self._hand_over(self._take, look), self._ended)
                self._find_ages()
            except Exception as error:
                # Whatever it is: the screen stays, and the next look may go well.
                self._hand_over(self._tell, explain(error).what)
            self._ended.wait(max(0.5, begin + self._every - time.monotonic()))

    def _hand_over(self, function: Callable[[Any], None], subject: object) -> None:
        if not self._ended.is_set():
            self.call_from_thread(function, subject)

    def _find_ages(self) -> None:
        entries = Ledger().entries()
        for region, access in self._lookout.places.items():
            look = self.book.looks.get(region)
            unknown = [
                node
                for node in (look.nodes if look else ())
                if (region.key, node.instance_id) not in self.book.launched
            ]
            if look is None or look.failure or not unknown:
                continue
            try:
                times = launch_times(access, unknown, entries)
            except Exception as error:
                # An instance may be gone since it was listed; its age is worth no message.
                log_manager_glbl.get_logger().debug("Ages in %s are not known: %s", region.key, error)
                continue
            self._hand_over(
                self.book.launched.update,
                {(region.key, instance_id): moment for instance_id, moment in times.items()},
            )

    def _take(self, look: Look) -> None:
        self.book.take(look)
        self._looked = look.at
        self.draw()

    # ---- drawing

    def draw(self) -> None:
        """Show what is known now."""
        if not self.is_running or not self.screen_stack:
            return
        base = self.screen_stack[0]
        now = self._clock()
        rows = self._shown(now)
        several = len(self._lookout.regions) > 1
        base.query_one(NodeTable).show(rows, self.size.width, now, self._marked, several)
        _put(base.query_one("#head", Static), self._head(rows))
        lost = [f"{look.region.key}: {look.failure}" for look in self.book.looks.values() if look.failure]
        line = base.query_one("#lost", Static)
        line.display = bool(lost)
        _put(line, printable(mask("   ".join(lost)))[: 2 * self.size.width])

    def _shown(self, now: datetime) -> list[Row]:
        return chosen(self.book.rows(), self._words, self._order, self._gone, now)

    def _head(self, rows: Sequence[Row]) -> str:
        if self._looked is None:
            return "looking at the nodes ..."
        everything = self.book.nodes()
        running = sum(node.state is NodeState.RUNNING for node in everything)
        ready = sum(node.ready for node in everything)
        parts = [f"{len(everything)} nodes", f"{running} running", f"{ready} ready"]
        if len(rows) < len(everything):
            parts.append(f"{len(rows)} shown")
        if self._marked:
            parts.append(f"{len(self._marked)} marked")
        parts += [f"by {self._order}", f"{datetime.fromtimestamp(self._looked):%H:%M:%S}"]
        return "  ".join(parts) + (f"  /{self._words}" if self._words else "")

    def _tell(self, text: str) -> None:
        self.notify(printable(mask(text)), severity="error", markup=False, timeout=10)

    # ---- keys

    def action_filter(self) -> None:
        """Ask for words."""
        field = self.query_one("#filter", Input)
        field.value = self._words
        field.display = True
        field.focus()

    def on_input_changed(self, event: Input.Changed) -> None:
        """Show at once what fits."""
        self._words = event.value.strip()
        self.draw()

    def on_input_submitted(self) -> None:
        """Keep the words."""
        self._close_filter()

    def action_clear(self) -> None:
        """Drop the filter's words and the marks."""
        self._words = ""
        self._marked.clear()
        self.query_one("#filter", Input).value = ""
        self._close_filter()
        self.draw()

    def _close_filter(self) -> None:
        self.query_one("#filter", Input).display = False
        self.query_one(NodeTable).focus()

    def action_sort(self) -> None:
        """Sort by the next column."""
        orders = list(ORDERS)
        self._order = orders[(orders.index(self._order) + 1) % len(orders)]
        self.draw()

    def action_gone(self) -> None:
        """Show nodes that are terminated, or hide them."""
        self._gone = not self._gone
        self.draw()

    def action_mark(self) -> None:
        """Mark the node under the cursor, or take its mark away."""
        table = self.query_one(NodeTable)
        if table.current is not None:
            self._marked ^= {table.current}
            table.action_move(1)
            self.draw()

    def on_node_table_chosen(self) -> None:
        """Show all that is known of the node under the cursor."""
        self.action_details()

    def action_details(self) -> None:
        """Show all that is known of the node under the cursor."""
        row = self._current()
        if row is not None:
            self.push_screen(Sheet(details(row, self._clock())))

    def _current(self) -> Row | None:
        key = self.query_one(NodeTable).current
        return next((row for row in self.book.rows() if row.key == key), None)

    # ---- changing

    def action_change(self, verb: str) -> None:
        """Ask, then change the marked nodes, or the one under the cursor.

        :param verb: ``start``, ``stop``, ``reboot`` or ``terminate``
        """
        current = self._current()
        rows = [row for row in self.book.rows() if row.key in self._marked] or ([current] if current else [])
        if not rows:
            return
        lines = [_named(row.node) for row in rows[:_FEW]]
        if len(rows) > _FEW:
            lines.append(f"and {len(rows) - _FEW} more")
        number = "this node" if len(rows) == 1 else f"these {len(rows)} nodes"
        ending = ", disks included" if verb == "terminate" else ""
        lines += ["", f"{verb.capitalize()} {number}{ending}?"]

        def answered(agreed: bool | None) -> None:
            if agreed:
                self._marked.clear()
                for row in rows:
                    self.book.doing[row.key] = _ACTIONS[verb][1]
                self.draw()
                self.change(verb, [row.node for row in rows])

        self.push_screen(Question([printable(mask(line)) for line in lines]), answered)

    @work(thread=True, group="changing", exit_on_error=False)
    def change(self, verb: str, nodes: list[CloudNode]) -> None:
        """Change nodes; tells of each with which it cannot be done."""

        def tell(outcome: CloudNode | fleet.NotDone) -> None:
            if isinstance(outcome, fleet.NotDone) and self._ended.is_set():
                self.left_out.append(outcome.node)
            elif isinstance(outcome, fleet.NotDone):
                self._hand_over(self._not_done, (outcome.node, f"{outcome.node.name}: {outcome.why}"))

        try:
            for region, access in self._lookout.places.items():
                require_own(access, [node for node in nodes if node.region == region])
            _ACTIONS[verb][0](nodes, on_outcome=tell, cancel=self._ended)
        except Exception as error:
            why = explain(error).what
            for node in nodes:
                self._hand_over(self._not_done, (node, ""))
            self._hand_over(self._tell, why)

    def _not_done(self, what: tuple[CloudNode, str]) -> None:
        node, why = what
        self.book.doing.pop((node.region.key, node.instance_id), None)
        if why:
            self._tell(why)
        self.draw()


def _put(line: Static, text: str) -> None:
    # An update lays the whole screen out again.
    if str(line.content) != text:
        line.update(text)


def _named(node: CloudNode) -> str:
    return f"{node.name} ({node.instance_id}, {node.state.value.lower()}) in {node.region.key}"
