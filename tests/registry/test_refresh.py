"""Refreshing one node or the list: pings, what is carried over, and failures that never propagate."""

from __future__ import annotations

import logging
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import CallLog, Fake, FakeLock, Logged, Workers, call, handled, make_node, recording
from tests.registry.conftest import BAD, GOOD, listing
from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.core_def import OPResult

NODE_FAILED = "Error occurred while refreshing Cloud Worker"
LIST_FAILED = "Error occurred while refreshing Cloud Worker list"


def test_an_answering_worker_makes_the_callers_node_ready_and_not_the_stored_one(
    manager: Any, workers: Workers, log: CallLog
) -> None:
    """The stored copy keeps the readiness it was copied with, and what the statistics wrote into it."""

    def note_statistics(updated: CloudNode) -> None:
        assert node.ready is True
        updated.cpu_percent = 12.5

    workers.refreshed = note_statistics
    node = make_node()
    assert manager.refresh_node(node) == GOOD
    (stored,) = manager.get_node_list()
    assert (node.ready, node.cpu_percent) == (True, None)
    assert (stored.ready, stored.cpu_percent) == (False, 12.5)
    assert log[0].args[0] is not node
    assert log == [
        call("WebSocketClient", stored, client_timeout_sec=2),
        call("i-1.api_get_op_result", PingRequest()),
        call("i-1.refresh_system_stat"),
    ]


@pytest.mark.parametrize(
    "answered", [BAD, OPResult(), Fake(CallLog(), "x", success=None)], ids=["bad", "empty", "odd"]
)
def test_a_failed_ping_is_no_error(manager: Any, workers: Workers, log: CallLog, answered: Any) -> None:
    """The node is stored, its readiness is not cleared, nothing is logged."""
    answered.success = 0
    workers.pings["i-1"] = answered
    node = make_node(ready=True)
    assert manager.refresh_node(node) == GOOD
    assert node.ready is True
    assert manager.get_node_list() == [make_node(ready=True)]
    assert log.names == ["WebSocketClient", "i-1.api_get_op_result"]
    assert log.events == []


def test_refresh_node_stores_through_set_node(manager: Any, workers: Workers, log: CallLog) -> None:
    """Once, after the probe, on the manager itself: an override takes effect."""
    manager.set_node = recording(log, "set_node")
    node = make_node()
    manager.refresh_node(node)
    assert log.names[-1] == "set_node"
    assert log[-1].args[0] is log[0].args[0]
    assert manager.get_node_list() == []


@pytest.mark.parametrize(
    "at", ["deepcopy", "WebSocketClient", "PingRequest", "ping", "statistics", "set_node"]
)
def test_any_failure_of_refresh_node_is_logged_and_returned(
    cloud_node: ModuleType,
    manager: Any,
    break_at: Callable[[str, BaseException], None],
    log: CallLog,
    monkeypatch: pytest.MonkeyPatch,
    fault: BaseException,
    at: str,
) -> None:
    """Everything is caught, KeyboardInterrupt too; record and result are made while it is handled."""
    break_at(at, fault)
    seen: list[BaseException | None] = []

    def op_result(**fields: Any) -> OPResult:
        seen.append(handled())
        log.append(call("OPResult", **fields))
        return OPResult(**fields)

    monkeypatch.setattr(cloud_node, "OPResult", op_result)
    result = manager.refresh_node(make_node())
    assert result == OPResult(error=True, msg=NODE_FAILED, exc_info=True)
    assert type(fault).__name__ in result.traceback_text
    assert log.events == [Logged("debug", NODE_FAILED, fault)]
    assert log[-1] == call("OPResult", error=True, msg=NODE_FAILED, exc_info=True)
    assert seen == [fault]
    assert handled() is None
    assert manager._NodeManager__node_list == []


def test_a_registry_that_is_locked_makes_the_refresh_fail(
    manager: Any, workers: Workers, log: CallLog
) -> None:
    """The time-out of the lock comes back as an error result, of both refreshes."""
    manager._NodeManager__node_list_lock = FakeLock(CallLog(), acquired=False)
    assert manager.refresh_node(make_node()) == OPResult(error=True, msg=NODE_FAILED, exc_info=True)
    assert manager.refresh_node_list() == OPResult(error=True, msg=LIST_FAILED, exc_info=True)
    assert [type(event.error) for event in log.events] == [TimeoutError, TimeoutError]


@pytest.mark.parametrize("operation", ["refresh_node", "refresh_node_list"])
def test_a_logger_that_fails_inside_the_handler_propagates_with_the_failure_as_context(
    manager: Any, log: CallLog, operation: str
) -> None:
    """Only the work is guarded, not the handler."""
    fault, second = RuntimeError("first"), ValueError("second")
    manager.get_node_list = manager.set_node = recording(CallLog(), "fails", fault)
    manager.logger = Fake(CallLog(), "logger", debug=second)
    node: Any = make_node(state=NodeState.STOPPED)
    node.__class__ = _Uncopied
    with pytest.raises(ValueError, match="second") as caught:
        getattr(manager, operation)(*([node] if operation == "refresh_node" else []))
    assert caught.value is second
    assert isinstance(second.__context__, RuntimeError)


class _Uncopied(CloudNode):
    """A node whose copy fails."""

    def __deepcopy__(self, memo: Any) -> Any:
        raise RuntimeError("first")


def test_an_exception_handled_by_the_caller_is_back_afterwards(manager: Any, log: CallLog) -> None:
    """Inside the handler the failure is the one being handled, afterwards the caller's own is again."""
    outer, fault = KeyError("outer"), RuntimeError("inner")
    listing(manager, fault)
    try:
        raise outer
    except KeyError:
        manager.refresh_node_list()
        assert handled() is outer
    assert fault.__context__ is outer


def test_the_debug_record_is_made_by_the_standard_logger_with_a_traceback(
    manager: Any, caplog: pytest.LogCaptureFixture
) -> None:
    """A formatter prints the failure below the message."""
    manager.logger = logging.getLogger("tests.refresh")
    listing(manager, RuntimeError("unreachable"))
    with caplog.at_level(logging.DEBUG, "tests.refresh"):
        manager.refresh_node_list()
    assert LIST_FAILED in caplog.text
    assert "RuntimeError: unreachable" in caplog.text


def test_the_variables_of_a_refresh_live_until_it_returns(manager: Any) -> None:
    """The old record that the loop ended with outlives the list of old records."""
    dropped: list[str] = []

    class Copied:
        worker_id_list = ()

        def __init__(self, name: str) -> None:
            self.name = name

        def __del__(self) -> None:
            dropped.append(self.name)

    class Old:
        def __init__(self, name: str) -> None:
            self.name = name

        def __deepcopy__(self, memo: Any) -> Copied:
            return Copied(self.name)

    manager._NodeManager__node_list = [Old("first"), Old("second"), Old("last")]
    listing(manager, ([], GOOD))
    manager.refresh_node_list()
    assert dropped == ["second", "first", "last"]
