"""What the screen shows of each node, and in which order; nothing here draws."""

from collections import deque
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from datetime import datetime
from typing import Any

from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.command.top.bars import age_text
from tovarincore.command.watching.looks import Look

__all__ = ["ORDERS", "Book", "Key", "Row", "chosen"]

Key = tuple[str, str]
"""A region's key and an instance id: names are not unique."""

HISTORY = 12
"""So many loads of the past are shown."""


@dataclass(frozen=True, eq=False)
class Row:
    """One node on the screen; everything else is looked up when it is asked for, most of it for few rows.

    :param node: the node
    :param look: the look that found it
    :param book: what else is known
    """

    node: CloudNode
    look: Look
    book: "Book"

    @property
    def key(self) -> Key:
        """What tells it from all others."""
        return self.look.region.key, self.node.instance_id

    @property
    def why(self) -> str:
        """Why its worker does not answer; empty when it does."""
        return self.look.why_not_ready(self.node)

    @property
    def doing(self) -> str:
        """What is being done with it; empty when nothing is."""
        return self.book.doing.get(self.key, "")

    @property
    def loads(self) -> tuple[float, ...]:
        """Its loads of the last looks, the newest last."""
        return tuple(self.book.loads.get(self.key, ()))

    @property
    def launched(self) -> datetime | None:
        """When it was launched; ``None`` when nobody knows."""
        return self.book.launched.get(self.key)

    @property
    def memory(self) -> float | None:
        """The part of its memory that is in use, 0 to 100; ``None`` when it is not known."""
        used, total = self.node.memory_used_bytes, self.node.memory_total_bytes
        return None if used is None or not total else 100 * used / total

    @property
    def readiness(self) -> str:
        """Whether its worker answers, in a word or in the reason."""
        return "ready" if self.node.ready else self.why

    @property
    def text(self) -> str:
        """All that a filter looks at."""
        node = self.node
        parts = (node.name, node.instance_id, node.region.key, node.state.value, self.readiness, self.doing)
        return " ".join((*parts, node.instance_type_def.instance_type)).casefold()


@dataclass
class Book:
    """What is known of all regions.

    :param looks: the last look at each region
    :param doing: what is being done with a node, until a look shows another state
    :param launched: when each node was launched, where that is known
    :param loads: the last loads of each node
    """

    looks: dict[CloudRegion, Look] = field(default_factory=dict)
    doing: dict[Key, str] = field(default_factory=dict)
    launched: dict[Key, datetime] = field(default_factory=dict)
    loads: dict[Key, deque[float]] = field(default_factory=dict)
    _states: dict[Key, NodeState] = field(default_factory=dict)

    def take(self, look: Look) -> None:
        """Put a look in the place of the one before."""
        self.looks[look.region] = look
        if look.failure:
            return
        for node in look.nodes:
            key = (look.region.key, node.instance_id)
            if node.ready and node.cpu_percent is not None:
                self.loads.setdefault(key, deque(maxlen=HISTORY)).append(node.cpu_percent)
            if self._states.get(key, node.state) is not node.state:
                self.doing.pop(key, None)
            self._states[key] = node.state
        here = {(look.region.key, node.instance_id) for node in look.nodes}
        known: tuple[dict[Key, Any], ...] = (self.loads, self._states, self.doing, self.launched)
        for mapping in known:
            for key in [key for key in mapping if key[0] == look.region.key and key not in here]:
                del mapping[key]

    def nodes(self) -> list[CloudNode]:
        """Return all nodes, region by region in the order of their listings."""
        return [node for look in self.looks.values() for node in look.nodes]

    def rows(self) -> list[Row]:
        """Return the same as rows."""
        return [Row(node, look, self) for look in self.looks.values() for node in look.nodes]


def _number(value: float | None) -> float:
    return -1.0 if value is None else value


ORDERS: Mapping[str, Callable[[Row], Any]] = {
    "name": lambda row: (row.node.name, row.key),
    "region": lambda row: (row.node.region.key, row.node.name),
    "state": lambda row: (row.node.state.value, row.node.name),
    "readiness": lambda row: (row.node.ready, row.why, row.node.name),
    "load": lambda row: (-_number(row.node.cpu_percent if row.node.ready else None), row.node.name),
    "memory": lambda row: (-_number(row.memory if row.node.ready else None), row.node.name),
    "age": lambda row: (row.launched is None, row.launched.timestamp() if row.launched else 0.0),
}
"""What nodes can be sorted by: the busiest and the oldest first."""


def chosen(rows: Iterable[Row], words: str, order: str, gone: bool, now: datetime) -> list[Row]:
    """Return the rows that are shown, in their order.

    :param words: each of them has to stand somewhere in a row; empty lets all through
    :param order: a key of :data:`ORDERS`
    :param gone: also nodes that are terminated
    :param now: for ages, which a filter sees too
    """
    wanted = words.casefold().split()
    found = [row for row in rows if gone or row.node.state is not NodeState.TERMINATED]
    if wanted:
        found = [
            row
            for row in found
            if all(word in f"{row.text} {age_text(row.launched, now)}" for word in wanted)
        ]
    return sorted(found, key=ORDERS[order])
