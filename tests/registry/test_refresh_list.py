"""Refreshing the list of nodes: what is carried over, and failures that never propagate."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.fakes import CallLog, Logged, Workers, call, handled, is_free, make_node, recording
from tests.registry.conftest import BAD, GOOD, listing
from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.core_def import OPResult, OPResultErrorCode

NODE_FAILED = "Error occurred while refreshing Cloud Worker"
LIST_FAILED = "Error occurred while refreshing Cloud Worker list"


def test_a_provider_without_a_listing_leaves_the_registry_unchanged(manager: Any, log: CallLog) -> None:
    """The provider's own result comes back, and nothing is logged."""
    manager.set_node(make_node())
    result = OPResult(error=True, error_code=OPResultErrorCode.TIMEOUT)
    listing(manager, (None, result))
    assert manager.refresh_node_list() is result
    assert manager.get_node_list() == [make_node()]
    assert log == []


def test_the_providers_result_comes_back_as_it_is(manager: Any, workers: Workers) -> None:
    """Even one that reports an error beside a listing."""
    listing(manager, ([make_node()], BAD))
    assert manager.refresh_node_list() is BAD
    assert len(manager.get_node_list()) == 1


def test_an_empty_listing_empties_the_registry(manager: Any) -> None:
    """What the provider no longer lists disappears."""
    manager.set_node(make_node())
    listing(manager, ([], GOOD))
    assert manager.refresh_node_list() is GOOD
    assert manager.get_node_list() == []


def test_running_nodes_are_pinged_in_order_and_no_others(
    manager: Any, workers: Workers, log: CallLog
) -> None:
    """Readiness is set by an answer; other nodes keep what the provider delivered."""
    workers.pings = {"a": GOOD, "b": BAD}
    nodes = [
        make_node("a"),
        make_node("s", state=NodeState.STOPPED, ready=True),
        make_node("b"),
        make_node("p", state=NodeState.STARTING),
    ]
    listing(manager, (nodes, GOOD))
    manager.refresh_node_list()
    assert log == [
        call("WebSocketClient", nodes[0], client_timeout_sec=2),
        call("a.api_get_op_result", PingRequest()),
        call("a.refresh_system_stat"),
        call("WebSocketClient", nodes[2], client_timeout_sec=2),
        call("b.api_get_op_result", PingRequest()),
    ]
    assert log[0].args[0] is nodes[0]
    assert [node.ready for node in nodes] == [True, True, False, False]
    assert manager.get_node_list() == nodes


def test_statistics_are_refreshed_after_readiness_is_set(manager: Any, workers: Workers) -> None:
    """What they write into the node is stored."""

    def note_statistics(node: CloudNode) -> None:
        node.memory_used_bytes = 5 if node.ready else None

    workers.refreshed = note_statistics
    listing(manager, ([make_node()], GOOD))
    manager.refresh_node_list()
    assert manager.get_node_list()[0].memory_used_bytes == 5


def test_worker_ids_are_carried_over_as_a_copy_and_nothing_else_is(manager: Any) -> None:
    """From an old node with workers to every new node with its id; an empty list passes nothing on."""
    state = NodeState.STOPPED
    manager.set_node_list(
        [
            make_node("a", worker_id_list=["w"], ready=True, name="old"),
            make_node("b"),
            make_node("gone", worker_id_list=["x"]),
        ]
    )
    nodes = [make_node(i, state=state, worker_id_list=[i]) for i in ("a", "b", "a", "new")]
    listing(manager, (nodes, GOOD))
    manager.refresh_node_list()
    assert [node.worker_id_list for node in nodes] == [["w"], ["b"], ["w"], ["new"]]
    assert nodes[0].worker_id_list is not nodes[2].worker_id_list
    assert [(node.ready, node.name) for node in manager.get_node_list()] == [(False, "-")] * 4


def test_the_carried_list_is_made_by_the_lists_own_copy(manager: Any) -> None:
    """By its `copy` method, asked for once per match; its length decides whether there is one."""

    class Ids(list[Any]):
        copies = 0

        def copy(self) -> Any:
            Ids.copies += 1
            return ("copy", list(self))

    manager.get_node_list = lambda: [
        make_node("a", worker_id_list=Ids(["w"])),
        make_node("b", worker_id_list=Ids()),
    ]
    nodes = [make_node(i, state=NodeState.STOPPED) for i in ("a", "b", "a")]
    listing(manager, (nodes, GOOD))
    manager.refresh_node_list()
    assert [node.worker_id_list for node in nodes] == [("copy", ["w"]), [], ("copy", ["w"])]
    assert Ids.copies == 2


def test_the_previous_list_is_taken_before_the_provider_is_asked(manager: Any, log: CallLog) -> None:
    """What another thread stores meanwhile is overwritten, and its workers are not carried over."""

    def list_instances() -> Any:
        manager.set_node(make_node("late", worker_id_list=["w"]))
        return [make_node("late", state=NodeState.STOPPED)], GOOD

    manager.list_instances = list_instances
    manager.refresh_node_list()
    assert [node.worker_id_list for node in manager.get_node_list()] == [[]]


def test_the_registry_is_read_and_replaced_through_the_managers_own_methods(
    manager: Any, log: CallLog
) -> None:
    """Overrides of get_node_list, list_instances and set_node_list take effect, in this order."""
    new: list[Any] = []
    manager.get_node_list = recording(log, "get_node_list", [])
    manager.list_instances = recording(log, "list_instances", (new, GOOD))
    manager.set_node_list = recording(log, "set_node_list")
    assert manager.refresh_node_list() is GOOD
    assert log == [call("get_node_list"), call("list_instances"), call("set_node_list", new)]
    assert log[-1].args[0] is new


@pytest.mark.parametrize(
    "at",
    [
        "get_node_list",
        "list_instances",
        "WebSocketClient",
        "PingRequest",
        "ping",
        "statistics",
        "set_node_list",
    ],
)
def test_any_failure_of_refresh_node_list_is_logged_and_returned(
    manager: Any,
    break_at: Callable[[str, BaseException], None],
    log: CallLog,
    fault: BaseException,
    at: str,
) -> None:
    """Everything is caught, KeyboardInterrupt too, and the registry keeps the previous list."""
    manager.set_node(make_node("old"))
    listing(manager, ([make_node()], GOOD))
    break_at(at, fault)
    result = manager.refresh_node_list()
    assert result == OPResult(error=True, msg=LIST_FAILED, exc_info=True)
    assert type(fault).__name__ in result.traceback_text
    assert log.events == [Logged("debug", LIST_FAILED, fault)]
    assert handled() is None
    assert [node.instance_id for node in manager._NodeManager__node_list] == ["old"]
    assert is_free(manager._NodeManager__node_list_lock)


@pytest.mark.parametrize(
    ("listed", "text"),
    [
        (None, "cannot unpack non-iterable NoneType object"),
        (([],), "not enough values to unpack (expected 2, got 1)"),
        (([], GOOD, 3), "too many values to unpack (expected 2)"),
        ("", "not enough values to unpack (expected 2, got 0)"),
        (7, "cannot unpack non-iterable int object"),
    ],
    ids=repr,
)
def test_a_listing_that_is_no_pair_is_an_error_result(
    manager: Any, log: CallLog, listed: Any, text: str
) -> None:
    """The unpacking error has the interpreter's own text."""
    listing(manager, listed)
    assert manager.refresh_node_list() == OPResult(error=True, msg=LIST_FAILED, exc_info=True)
    (event,) = log.events
    assert isinstance(event.error, (TypeError, ValueError))
    assert str(event.error).startswith(text)


def test_any_iterable_of_two_unpacks(manager: Any) -> None:
    """A list, an iterator: whatever gives exactly two values."""
    pairs: list[Any] = [[[], GOOD], iter(([], GOOD))]
    for pair in pairs:
        listing(manager, pair)
        assert manager.refresh_node_list() is GOOD


def test_old_node_without_a_length_of_workers_fails_the_refresh(manager: Any, log: CallLog) -> None:
    """A worker list of None is caught as any failure, after the probes, before anything is stored."""
    manager.set_node(make_node("a", worker_id_list=None))
    listing(manager, ([make_node("a", state=NodeState.STOPPED)], GOOD))
    assert manager.refresh_node_list().error
    assert isinstance(log.events[0].error, TypeError)
    assert manager.get_node_list() == [make_node("a", worker_id_list=None)]
