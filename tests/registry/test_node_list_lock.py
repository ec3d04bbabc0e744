"""The lock of the node list: taken for every operation, given back whatever happens under it."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest

from tests.fakes import AWS_REGION, LOCKED, RELEASED, CallLog, FakeLock, is_free, make_node
from tovarincore.cloud_def import CloudNode, NodeState

EVERY_OPERATION: dict[str, Callable[[Any], Any]] = {
    "get_node_list": lambda manager: manager.get_node_list(),
    "set_node_list": lambda manager: manager.set_node_list([]),
    "set_node": lambda manager: manager.set_node(make_node()),
    "find_node_by_instance_id": lambda manager: manager.find_node_by_instance_id("i-1"),
    "find_node_by_uuid": lambda manager: manager.find_node_by_uuid("u"),
    "get_ready_node_next_in_line": lambda manager: manager.get_ready_node_next_in_line(),
    "change_node_state": lambda manager: manager.change_node_state("i-1", NodeState.RUNNING),
}
every_operation = pytest.mark.parametrize("operation", EVERY_OPERATION.values(), ids=EVERY_OPERATION)


@every_operation
def test_every_operation_takes_the_lock_for_three_seconds_and_gives_it_back(
    manager: Any, log: CallLog, operation: Callable[[Any], Any]
) -> None:
    """The time-out goes by keyword; one acquire, one release, on early returns too."""
    manager.set_node_list([make_node(uuid="u", ready=True)])
    manager._NodeManager__node_list_lock = FakeLock(log)
    operation(manager)
    assert log == [LOCKED, RELEASED]


@every_operation
@pytest.mark.parametrize("refused", [False, 0, None, ""], ids=repr)
def test_a_lock_not_had_in_time_is_a_bare_timeout_error(
    manager: Any, log: CallLog, operation: Callable[[Any], Any], refused: Any
) -> None:
    """Nothing is logged, changed or released."""
    manager.set_node(make_node(ready=True))
    manager._NodeManager__node_list_lock = FakeLock(log, acquired=refused)
    with pytest.raises(TimeoutError) as caught:
        operation(manager)
    assert type(caught.value) is TimeoutError
    assert caught.value.args == ()
    assert log == [LOCKED]
    assert manager._NodeManager__node_list == [make_node(ready=True)]


def test_a_lock_held_elsewhere_is_waited_for_three_seconds(manager: Any) -> None:
    """With the lock that the constructor makes, held by another thread."""
    held, done = threading.Event(), threading.Event()

    def hold() -> None:
        with manager._NodeManager__node_list_lock:
            held.set()
            done.wait(30)

    holder = threading.Thread(target=hold)
    holder.start()
    held.wait()
    try:
        # A second thread shows that the interpreter runs on while the lock is waited for.
        started = threading.Event()
        threading.Timer(0.1, started.set).start()
        with pytest.raises(TimeoutError):
            manager.get_node_list()
        assert started.is_set()
    finally:
        done.set()
        holder.join()
    assert is_free(manager._NodeManager__node_list_lock)


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


def test_a_failing_release_replaces_the_result_and_carries_an_earlier_failure(
    manager: Any, log: CallLog
) -> None:
    """As a finally clause that raises does; a failing acquire is never followed by a release."""
    failure = OSError("release")
    manager._NodeManager__node_list_lock = FakeLock(log, released=failure)
    with pytest.raises(OSError, match="release") as caught:
        manager.get_node_list()
    assert caught.value is failure
    assert caught.value.__context__ is None
    manager._NodeManager__node_list = 5
    with pytest.raises(OSError, match="release") as caught:
        manager.find_node_by_uuid("u")
    assert isinstance(caught.value.__context__, TypeError)
    manager._NodeManager__node_list_lock = FakeLock(log, acquired=RuntimeError("acquire"))
    log.clear()
    with pytest.raises(RuntimeError, match="acquire"):
        manager.get_node_list()
    assert log == [LOCKED]


def test_a_failure_inside_a_handler_carries_the_exception_being_handled(manager: Any) -> None:
    """Chaining is Python's: a TimeoutError raised while another failure is handled has it as context."""
    manager._NodeManager__node_list_lock = FakeLock(CallLog(), acquired=False)
    outer = KeyError("outer")
    with pytest.raises(TimeoutError) as caught:
        try:
            raise outer
        except KeyError:
            manager.get_node_list()
    assert caught.value.__context__ is outer


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
