"""What every operation under a lock owes its callers, stated once for all locks of the module."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from types import ModuleType, SimpleNamespace
from typing import Any

import boto3
import pytest

from tests.facade.conftest import LOCAL
from tests.fakes import AWS_REGION, LOCKED, RELEASED, CallLog, Fake, FakeLock, is_free, make_node
from tests.providers.aws.conftest import AUTH
from tests.registry.conftest import provider_class
from tovarincore.cloud_def import NodeState


@dataclass
class Operation:
    """An operation ready to be called, and where its lock stands."""

    owner: Any
    lock: str
    call: Callable[[], Any]


def of_the_list(call: Callable[[Any], Any]) -> Callable[[ModuleType], Operation]:
    """An operation on a node list with one ready node."""

    def make(cloud_node: ModuleType) -> Operation:
        manager = provider_class(cloud_node)(AWS_REGION)
        manager.set_node(make_node(ready=True))
        return Operation(manager, "_NodeManager__node_list_lock", lambda: call(manager))

    return make


def of_the_facade(lock: str, call: Callable[[Any], Any]) -> Callable[[ModuleType], Operation]:
    """An operation on a facade with one client in its pool and one provider in its cache."""

    def make(cloud_node: ModuleType) -> Operation:
        facade = cloud_node.CloudManager()
        facade.add_to_webs_client_pool(CLIENT)
        facade._cache_node_manager(LOCAL, "provider")
        return Operation(facade, lock, lambda: call(facade))

    return make


def get_client(cloud_node: ModuleType) -> Operation:
    """Making a client of the SDK, under the lock of the whole module."""
    manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
    return Operation(cloud_node, "aws_node_manager_client_lock", manager._get_client)


CLIENT = SimpleNamespace(node=SimpleNamespace(uuid="A"), worker_id=1)
POOL, CACHE = "webs_client_pool_lock", "_node_manager_hashset_lock"
OPERATIONS: dict[str, Callable[[ModuleType], Operation]] = {
    "get_node_list": of_the_list(lambda manager: manager.get_node_list()),
    "set_node_list": of_the_list(lambda manager: manager.set_node_list([])),
    "set_node": of_the_list(lambda manager: manager.set_node(make_node(name="changed"))),
    "find_node_by_instance_id": of_the_list(lambda manager: manager.find_node_by_instance_id("i-1")),
    "find_node_by_uuid": of_the_list(lambda manager: manager.find_node_by_uuid("uuid of i-1")),
    "get_ready_node_next_in_line": of_the_list(lambda manager: manager.get_ready_node_next_in_line()),
    "change_node_state": of_the_list(lambda manager: manager.change_node_state("i-1", NodeState.STOPPED)),
    "add_to_webs_client_pool": of_the_facade(POOL, lambda facade: facade.add_to_webs_client_pool(CLIENT)),
    "get_from_webs_client_pool": of_the_facade(POOL, lambda facade: facade.get_from_webs_client_pool("A")),
    "flush_webs_client_pool": of_the_facade(POOL, lambda facade: facade.flush_webs_client_pool("A")),
    "flush all": of_the_facade(POOL, lambda facade: facade.flush_webs_client_pool(None, True)),
    "_get_cached_node_manager": of_the_facade(CACHE, lambda facade: facade._get_cached_node_manager(LOCAL)),
    "_cache_node_manager": of_the_facade(CACHE, lambda facade: facade._cache_node_manager(LOCAL, "other")),
    "_get_client": get_client,
}


@pytest.fixture(params=OPERATIONS.values(), ids=OPERATIONS.keys())
def operation(
    request: pytest.FixtureRequest, cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> Operation:
    """Each operation in turn; no session of the SDK is made, and the module's own lock comes back."""
    monkeypatch.setattr(boto3, "Session", lambda **settings: Fake(CallLog(), "session"))
    monkeypatch.setattr(cloud_node, "aws_node_manager_client_lock", threading.Lock())
    made: Operation = request.param(cloud_node)
    log.clear()
    return made


def contents(operation: Operation) -> Any:
    """What the lock protects, to be compared."""
    named = vars(operation.owner)
    names = ("_NodeManager__node_list", "webs_client_pool", "_node_manager_hashset")
    return [repr(named.get(name)) for name in names]


def test_the_lock_is_taken_for_three_seconds_and_given_back(operation: Operation, log: CallLog) -> None:
    """The limit goes by keyword; one acquire, one release, on early returns too."""
    setattr(operation.owner, operation.lock, FakeLock(log))
    operation.call()
    assert log == [LOCKED, RELEASED]


@pytest.mark.parametrize("refused", [False, 0, None, ""], ids=repr)
def test_a_lock_that_is_not_acquired_is_a_bare_timeout_error(
    operation: Operation, log: CallLog, refused: Any
) -> None:
    """Nothing is logged, changed or released; an exception that is being handled becomes the context."""
    before = contents(operation)
    setattr(operation.owner, operation.lock, FakeLock(log, acquired=refused))
    outer = KeyError("outer")
    with pytest.raises(TimeoutError) as caught:
        try:
            raise outer
        except KeyError:
            operation.call()
    assert type(caught.value) is TimeoutError
    assert caught.value.args == ()
    assert caught.value.__context__ is outer
    assert log == [LOCKED]
    assert contents(operation) == before


def test_a_failing_acquire_is_followed_by_no_release(operation: Operation, log: CallLog) -> None:
    """The lock's own error reaches the caller."""
    setattr(operation.owner, operation.lock, FakeLock(log, acquired=RuntimeError("acquire")))
    with pytest.raises(RuntimeError, match="acquire"):
        operation.call()
    assert log == [LOCKED]


def test_a_failing_release_replaces_the_result(operation: Operation, log: CallLog) -> None:
    """As a finally clause that raises."""
    failure = OSError("release")
    setattr(operation.owner, operation.lock, FakeLock(log, released=failure))
    with pytest.raises(OSError, match="release") as caught:
        operation.call()
    assert caught.value is failure
    assert caught.value.__context__ is None


def test_the_lock_of_a_new_object_is_free_and_stays_so(operation: Operation) -> None:
    """It is the one that the constructor makes, a plain lock that no operation holds on to."""
    lock = getattr(operation.owner, operation.lock)
    assert type(lock) is type(threading.Lock())
    operation.call()
    assert is_free(lock)


def test_a_lock_held_elsewhere_is_waited_for_three_seconds(
    cloud_node: ModuleType, own_settings: None
) -> None:
    """Really, once: with the constructor's lock, while the interpreter runs other threads."""
    operation = OPERATIONS["get_node_list"](cloud_node)
    lock = getattr(operation.owner, operation.lock)
    ticked = threading.Event()
    threading.Timer(0.1, ticked.set).start()
    with lock:
        began = time.monotonic()
        with pytest.raises(TimeoutError):
            operation.call()
        assert time.monotonic() - began > 2.9
        assert ticked.is_set()
        assert lock.locked()
    assert operation.call() != []
