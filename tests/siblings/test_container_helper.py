"""The container helper on an engine that keeps its containers in memory."""

from __future__ import annotations

import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from stage.memory_engine import MemoryEngine
from stage.memory_engine_fixtures import SETTINGS, engine, helper, settings
from stage.patience import HANG_SECONDS, in_time
from stage.settings import settings_of
from tovarincore._container_helper.limit import TimeLimit
from tovarincore._transport.failure import Failure
from tovarincore.cloud_def import CloudInstances, CloudRegions, NodeState
from tovarincore.container_helper import (
    ContainerError,
    ContainerHelper,
)
from tovarincore.core_def import OPResultErrorCode

__all__ = ["engine", "helper", "settings"]

GRACE_SECONDS = 4


def test_making_a_helper_touches_no_engine(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """The facade makes a helper for the region long before anybody wants a container."""
    assert (engine.opened, engine.calls) == (0, [])


def test_versions_come_newest_first(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """The tags of the configured image are ordered as versions, not as texts."""
    assert helper.list_tvr_container_image_versions() == ["1.10", "1.9"]
    assert engine.calls == [("list_image_tags", "acme/worker")]


def test_no_container_is_none(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """None says that the engine answered and holds no worker container."""
    assert helper.get_existing_node() is None
    assert engine.calls == [("find_container", "the-worker")]


@pytest.mark.parametrize(
    ("method", "query"),
    [("list_tvr_container_image_versions", "list_image_tags"), ("get_existing_node", "find_container")],
)
def test_an_engine_that_does_not_answer_is_no_empty_listing(
    engine: MemoryEngine, helper: ContainerHelper, method: str, query: str
) -> None:
    """Listings raise: an empty one would empty the registry."""
    engine.failures[query] = ContainerError("no answer", OPResultErrorCode.ENGINE_UNAVAILABLE)
    with pytest.raises(ContainerError, match="no answer"):
        getattr(helper, method)()


def test_the_record_describes_the_container(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """Identity comes from the engine and the label, the address is loopback, the worker list fresh."""
    engine.put_container()
    node = helper.get_existing_node()
    other = helper.get_existing_node()
    assert node is not None
    assert other is not None
    assert node.region is CloudRegions.get_local_container_region()
    assert (node.instance_id, node.uuid, node.name) == ("id-1", "uuid-1", "the-worker")
    assert (node.dns_address, node.state, node.ready) == ("127.0.0.1", NodeState.RUNNING, False)
    assert node.instance_type_def == CloudInstances.get_default_local_instance_type()
    assert node.worker_id_list == []
    assert node.worker_id_list is not other.worker_id_list


@pytest.mark.parametrize(
    ("status", "state"),
    [
        ("created", NodeState.STOPPED),
        ("running", NodeState.RUNNING),
        ("paused", NodeState.STOPPED),
        ("restarting", NodeState.STARTING),
        ("removing", NodeState.SHUTTING_DOWN),
        ("exited", NodeState.STOPPED),
        ("dead", NodeState.TERMINATED),
        ("a status of tomorrow", NodeState.UNKNOWN),
    ],
)
def test_the_engines_status_becomes_a_state(
    engine: MemoryEngine, helper: ContainerHelper, status: str, state: NodeState
) -> None:
    """Only a running container counts as running; a status that is not known is said to be that."""
    engine.put_container(status=status)
    node = helper.get_existing_node()
    assert node is not None
    assert node.state is state


def test_stop_and_reboot_give_the_worker_a_grace_time(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """Half of the limit, so that the engine's answer still comes within it."""
    engine.put_container()
    helper.stop_tovarin_container()
    helper.start_tovarin_container(reboot=True)
    assert engine.changes() == [
        ("stop_container", "id-1", GRACE_SECONDS),
        ("restart_container", "id-1", GRACE_SECONDS),
    ]


@pytest.mark.parametrize(
    ("call", "changes"),
    [
        pytest.param(ContainerHelper.start_tovarin_container, [], id="start"),
        pytest.param(
            ContainerHelper.stop_tovarin_container, [("stop_container", "id-1", GRACE_SECONDS)], id="stop"
        ),
        pytest.param(
            lambda helper: helper.start_tovarin_container(reboot=True),
            [("restart_container", "id-1", GRACE_SECONDS)],
            id="reboot",
        ),
    ],
)
def test_a_paused_container_is_let_go_on_first(
    engine: MemoryEngine, helper: ContainerHelper, call: Callable[[ContainerHelper], None], changes: list[Any]
) -> None:
    """Engines refuse to start a paused container, and it cannot heed the stop signal."""
    engine.put_container(status="paused")
    call(helper)
    assert engine.changes() == [("unpause_container", "id-1"), *changes]


@pytest.mark.parametrize(
    "call",
    [
        pytest.param(lambda helper: helper.start_tovarin_container(), id="start"),
        pytest.param(lambda helper: helper.start_tovarin_container(reboot=True), id="reboot"),
        pytest.param(lambda helper: helper.stop_tovarin_container(), id="stop"),
    ],
)
def test_without_a_container_start_reboot_and_stop_raise(
    engine: MemoryEngine, helper: ContainerHelper, call: Callable[[ContainerHelper], None]
) -> None:
    """Nobody reads their results, so they raise."""
    with pytest.raises(ContainerError, match='no worker container "the-worker": launch one') as caught:
        call(helper)
    assert caught.value.error_code is OPResultErrorCode.NOT_FOUND
    assert engine.changes() == []


def test_a_second_delete_is_a_success(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """The first removes the container, the second finds none."""
    engine.put_container()
    assert helper.delete_tovarin_container().success
    assert helper.delete_tovarin_container().success
    assert engine.changes() == [("remove_container", "id-1")]


def test_a_delete_that_fails_gives_an_error_result(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """The text and the code of the failure are in the result."""
    engine.put_container()
    engine.failures["remove_container"] = ContainerError("no", OPResultErrorCode.TIMEOUT)
    result = helper.delete_tovarin_container()
    assert (result.success, result.error, result.msg) == (False, True, "no")
    assert result.error_code is OPResultErrorCode.TIMEOUT


def test_every_connection_is_closed(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """Also after failures, and so one helper can serve several threads."""
    helper.run_tvr_container_image("1.10")
    engine.failures["find_container"] = ContainerError("no")
    helper.delete_tovarin_container()
    with pytest.raises(ContainerError):
        helper.get_existing_node()
    assert (engine.opened, engine.closed) == (3, 3)


@pytest.mark.parametrize(
    ("hanging", "call"),
    [
        pytest.param("list_image_tags", ContainerHelper.list_tvr_container_image_versions, id="versions"),
        pytest.param("find_container", ContainerHelper.get_existing_node, id="listing"),
        pytest.param("create_container", lambda helper: helper.run_tvr_container_image("1.10"), id="run"),
        pytest.param("find_container", ContainerHelper.start_tovarin_container, id="start"),
        pytest.param("find_container", ContainerHelper.stop_tovarin_container, id="stop"),
        pytest.param("find_container", ContainerHelper.delete_tovarin_container, id="delete"),
    ],
)
def test_every_call_ends_within_the_limit(
    engine: MemoryEngine, tmp_path: Path, hanging: str, call: Callable[[ContainerHelper], Any]
) -> None:
    """An engine that hangs costs operation_seconds and gives a time-out, by result or by exception."""
    released = threading.Event()
    engine.before[hanging] = lambda: released.wait(HANG_SECONDS)
    with in_time(0.2), settings_of(tmp_path, {"container": {**SETTINGS, "operation_seconds": 0.2}}):
        try:
            returned = call(ContainerHelper(engine.open))
            result = returned[1] if isinstance(returned, tuple) else returned
            code, text = result.error_code, result.msg
        except ContainerError as error:
            code, text = error.error_code, str(error)
    assert code is OPResultErrorCode.TIMEOUT
    assert "did not answer within 0.2 s" in text
    released.set()


@pytest.mark.parametrize(
    "error", [KeyError("Id"), RecursionError(), TypeError("x"), MemoryError(), Failure("y")]
)
def test_nothing_but_the_documented_errors_leaves_the_helper(error: Exception) -> None:
    """Whatever goes wrong underneath is a result where one is returned, else a ContainerError."""

    def open_engine(limit: TimeLimit) -> MemoryEngine:
        raise error

    helper = ContainerHelper(open_engine)
    assert helper.run_tvr_container_image("1.10")[1].error
    assert helper.delete_tovarin_container().error
    for call in (
        helper.get_existing_node,
        helper.list_tvr_container_image_versions,
        helper.start_tovarin_container,
        helper.stop_tovarin_container,
    ):
        with pytest.raises(ContainerError):
            call()
