"""Where something is unusual and Python's own way has to be taken: never slower than plain Python."""

import copy
import threading
from collections.abc import Callable
from datetime import datetime, timezone
from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, instance_id, manager, nodes, uuid
from tovarincore.cloud_def import AWSCloudNode, CloudNode


class Hook:
    """Copies itself."""

    def __deepcopy__(self, memo: dict[int, Any]) -> "Hook":
        return self


class Registry(list[CloudNode]):
    """A list of another class in the place of the registry."""


class Lock:
    """A lock of another class."""

    def __init__(self) -> None:
        self.lock = threading.Lock()

    def acquire(self, timeout: float) -> bool:
        return self.lock.acquire(timeout=timeout)

    def release(self) -> None:
        self.lock.release()


class Text(str):
    """A text of another class, as an id to look for."""


def changed_record() -> type[CloudNode]:
    """A separate class for records with more attributes: what is done to them changes how all of a
    class are kept."""
    return type("ChangedNode", (AWSCloudNode,), {})


def date_in_each(records: list[CloudNode]) -> None:
    for record in records:
        record.launched = datetime(2024, 1, 1, tzinfo=timezone.utc)  # type: ignore[attr-defined]


def hook_in_each(records: list[CloudNode]) -> None:
    for record in records:
        record.hook = Hook()  # type: ignore[attr-defined]


def set_in_the_last(records: list[CloudNode]) -> None:
    records[-1].labels = {"a"}  # type: ignore[attr-defined]


def dictionaries_of_their_own(records: list[CloudNode]) -> None:
    for record in records:
        record.__dict__ = dict(record.__dict__)


def copying(name: str, number: int, change: Callable[[list[CloudNode]], None]) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        records = nodes(number, changed_record())
        change(records)
        return {"manager": manager(module, records)}

    return Scenario(f"get_node_list, {number:,} nodes, {name}", 1, "manager.get_node_list()", prepare)


def searching(name: str, change: Callable[[Any], None], wanted: str = uuid(501)) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        made = manager(module, nodes(500))
        change(made)
        return {"manager": made, "wanted": wanted}

    return Scenario(f"find, miss in 500, {name}", 1, "manager.find_node_by_uuid(wanted)", prepare)


def other_registry(made: Any) -> None:
    made._NodeManager__node_list = Registry(made._NodeManager__node_list)


def python_copies(made: Any) -> None:
    made._NodeManager__node_list = copy.deepcopy(made._NodeManager__node_list)


def other_lock(made: Any) -> None:
    made._NodeManager__node_list_lock = Lock()


def state_of_own_dictionaries(module: ModuleType) -> dict[str, Any]:
    made = manager(module, nodes(500, changed_record()))
    dictionaries_of_their_own(made._NodeManager__node_list)
    return {"manager": made, "wanted": instance_id(250)}


SCENARIOS = [
    copying("a date in each", 10, date_in_each),
    copying("a date in each", 1_000, date_in_each),
    copying("a hook in each", 1_000, hook_in_each),
    copying("a set in the last", 1_000, set_in_the_last),
    copying("dictionaries of their own", 1_000, dictionaries_of_their_own),
    searching("another kind of list", other_registry),
    searching("copied by Python", python_copies),
    searching("another kind of lock", other_lock),
    searching("another kind of text", lambda made: None, Text(uuid(501))),
    Scenario(
        "change_node_state, middle of 500, dictionaries of their own",
        1,
        "manager.change_node_state(wanted, None)",
        state_of_own_dictionaries,
    ),
]
