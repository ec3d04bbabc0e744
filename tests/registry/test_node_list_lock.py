"""The lock of the node list: given back whatever happens under it."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tests.fakes import AWS_REGION, CallLog, FakeLock, is_free, make_node
from tovarincore.cloud_def import CloudNode, NodeState


class Broken(CloudNode):
    """A node one of whose parts fails."""

    fault: Any = None
    at = ""

    def __getattribute__(self, name: str) -> Any:
        if name == type(self).at:
            raise type(self).fault
        return super().__getattribute__(name)

    def __deepcopy__(self, memo: dict[int, Any]) -> Broken:
        if type(self).at == "deepcopy":
            raise type(self).fault
        return self


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt, StopIteration, AttributeError])
@pytest.mark.parametrize(
    ("at", "operation"),
    [
        ("deepcopy", lambda manager, node: manager.get_node_list()),
        ("deepcopy", lambda manager, node: manager.set_node_list([node])),
        ("deepcopy", lambda manager, node: manager.set_node(node)),
        ("deepcopy", lambda manager, node: manager.find_node_by_instance_id("i")),
        ("deepcopy", lambda manager, node: manager.find_node_by_uuid("u")),
        ("deepcopy", lambda manager, node: manager.get_ready_node_next_in_line()),
        ("instance_id", lambda manager, node: manager.set_node(make_node())),
        ("instance_id", lambda manager, node: manager.find_node_by_instance_id("i")),
        ("instance_id", lambda manager, node: manager.change_node_state("i", NodeState.STOPPED)),
        ("uuid", lambda manager, node: manager.find_node_by_uuid("u")),
        ("ready", lambda manager, node: manager.get_ready_node_next_in_line()),
    ],
)
def test_a_failure_under_the_lock_propagates_and_frees_the_lock(
    manager: Any, log: CallLog, kind: type[BaseException], at: str, operation: Callable[[Any, Any], Any]
) -> None:
    """The very exception reaches the caller, nothing is logged, the list is as it was."""
    fault = kind("broken")
    node = Broken(AWS_REGION, "i", make_node().instance_type_def, uuid="u", ready=True)
    manager._NodeManager__node_list.append(node)
    Broken.fault, Broken.at = fault, at
    try:
        with pytest.raises(kind) as caught:
            operation(manager, node)
    finally:
        Broken.at = ""
    assert caught.value is fault
    assert caught.value.__context__ is None
    assert log == []
    assert len(manager._NodeManager__node_list) == 1
    assert manager._NodeManager__node_list[0] is node
    assert node.state is NodeState.STARTING
    assert is_free(manager._NodeManager__node_list_lock)


class Unequal:
    """A key that cannot be compared."""

    def __eq__(self, other: object) -> bool:
        raise ZeroDivisionError("cannot compare")


@pytest.mark.parametrize("name", ["find_node_by_instance_id", "find_node_by_uuid"])
def test_a_failing_comparison_propagates_and_frees_the_lock(manager: Any, name: str) -> None:
    """The equality is that of the objects compared."""
    manager.set_node(make_node())
    with pytest.raises(ZeroDivisionError):
        getattr(manager, name)(Unequal())
    assert is_free(manager._NodeManager__node_list_lock)


def test_an_answer_of_a_comparison_that_has_no_truth_propagates(manager: Any) -> None:
    """The result of == is put to a truth test, which may fail too."""

    class Ambiguous:
        def __eq__(self, other: object) -> Any:
            return self

        def __bool__(self) -> bool:
            raise ValueError("ambiguous")

    manager.set_node(make_node(uuid="u"))
    with pytest.raises(ValueError, match="ambiguous"):
        manager.find_node_by_uuid(Ambiguous())
    assert is_free(manager._NodeManager__node_list_lock)


def test_a_failing_release_carries_the_failure_of_the_body(manager: Any, log: CallLog) -> None:
    """As a finally clause that raises does."""
    manager._NodeManager__node_list_lock = FakeLock(log, released=OSError("release"))
    manager._NodeManager__node_list = 5
    with pytest.raises(OSError, match="release") as caught:
        manager.find_node_by_uuid("u")
    assert isinstance(caught.value.__context__, TypeError)


def test_threads_on_one_list_lose_no_node(manager: Any) -> None:
    """Each of eight threads stores its own nodes; all are there afterwards."""
    start = threading.Barrier(8)

    def store(thread: int) -> None:
        start.wait()
        for number in range(20):
            manager.set_node(make_node(f"{thread}-{number}"))

    threads = [threading.Thread(target=store, args=(number,)) for number in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    found = {node.instance_id for node in manager.get_node_list()}
    assert found == {f"{thread}-{number}" for thread in range(8) for number in range(20)}
