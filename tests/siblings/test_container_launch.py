"""Launches by the container helper, on an engine that keeps its containers in memory."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable
from pathlib import Path

import pytest

from stage.memory_engine import MemoryEngine
from stage.memory_engine_fixtures import SETTINGS, engine, helper, settings
from stage.patience import in_time
from stage.settings import settings_of
from tovarincore._container_helper.engine import ContainerRequest, ContainerSummary, PortBinding
from tovarincore._container_helper.errors import ContainerNameTakenError
from tovarincore.cloud_conf import CloudConf, CloudConfManager, ConfigError
from tovarincore.cloud_def import CloudRegions, NodeState
from tovarincore.container_helper import (
    UUID_LABEL,
    VERSION_LABEL,
    ContainerError,
    ContainerHelper,
)
from tovarincore.core_def import CoreDef, OPResultErrorCode

__all__ = ["engine", "helper", "settings"]


def test_run_creates_the_container_as_configured(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """Image, ports and limits come from the settings; the version and a new uuid become labels."""
    node, result = helper.run_tvr_container_image("1.10")
    assert (result.success, result.error) == (True, False)
    assert node is not None
    assert engine.changes() == [
        (
            "create_container",
            ContainerRequest(
                name="the-worker",
                image="acme/worker:1.10",
                labels={UUID_LABEL: node.uuid, VERSION_LABEL: "1.10"},
                environment={CoreDef.WORKER_TOKEN_VARIABLE: "a-token"},
                published_port=9001,
                worker_port=9002,
                memory_bytes=64 * 1024 * 1024,
                cpu_count=0.5,
            ),
        ),
        ("start_container", "id-1"),
    ]
    assert len(node.uuid) == 36
    assert node.state is NodeState.RUNNING


def test_the_uuid_stays_and_is_new_for_every_container(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """Stop, start and reboot keep the uuid; the container that follows a termination has another."""
    node, _ = helper.run_tvr_container_image("1.10")
    helper.stop_tovarin_container()
    helper.start_tovarin_container()
    helper.start_tovarin_container(reboot=True)
    again = helper.get_existing_node()
    helper.delete_tovarin_container()
    successor, _ = helper.run_tvr_container_image("1.10")
    assert node is not None
    assert again is not None
    assert successor is not None
    assert again.uuid == node.uuid
    assert successor.uuid != node.uuid


@pytest.mark.parametrize(
    ("status", "change"),
    [("exited", "start_container"), ("running", "start_container"), ("paused", "unpause_container")],
)
def test_run_of_the_existing_version_starts_and_returns_it(
    engine: MemoryEngine, helper: ContainerHelper, status: str, change: str
) -> None:
    """A second launch of the same version is no error and makes no second container."""
    engine.put_container("1.10", status)
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success
    assert node is not None
    assert (node.uuid, node.state) == ("uuid-1", NodeState.RUNNING)
    assert engine.changes() == [(change, "id-1")]


def test_run_of_another_version_says_to_terminate_first(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """The existing container is left alone."""
    engine.put_container("1.9")
    node, result = helper.run_tvr_container_image("1.10")
    assert (node, result.error, result.success) == (None, True, False)
    assert result.msg == (
        'Worker container "the-worker" of version 1.9 exists: terminate it before launching version 1.10.'
    )
    assert engine.changes() == []


def test_run_takes_the_container_that_another_caller_just_made(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """Two launches at the same time end with one container and two successes."""
    engine.before["create_container"] = engine.put_container
    engine.failures["create_container"] = ContainerNameTakenError("taken")
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success
    assert node is not None
    assert node.uuid == "uuid-1"


def _after(calls: int, action: Callable[[], object]) -> Callable[[], object]:
    """Something that acts once, at the call of that number."""
    left = iter(range(calls, 0, -1))
    return lambda: action() if next(left, 0) == 1 else None


def test_run_waits_for_a_container_that_the_engine_does_not_list_yet(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """Another launch has the name reserved: its container is waited for, started and returned."""
    engine.failures["create_container"] = ContainerNameTakenError("taken")
    engine.before["find_container"] = _after(4, lambda: engine.put_container(status="created"))
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success, result.msg
    assert node is not None
    assert (node.uuid, node.state) == ("uuid-1", NodeState.RUNNING)
    assert engine.changes()[-1] == ("start_container", "id-1")


def test_run_creates_the_container_when_a_reserved_name_becomes_free(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """The other launch failed before it had a container: this one has the name now."""
    engine.failures["create_container"] = ContainerNameTakenError("taken")
    engine.before["create_container"] = _after(3, engine.failures.clear)
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success, result.msg
    assert node is not None
    assert [call[0] for call in engine.changes()] == ["create_container"] * 3 + ["start_container"]


def test_run_waits_until_a_container_is_removed(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """A launch right after a termination gets a new container."""
    engine.put_container(status="removing")
    engine.before["find_container"] = _after(3, lambda: setattr(engine, "container", None))
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success, result.msg
    assert node is not None
    assert node.uuid != "uuid-1"


def test_a_name_that_stays_reserved_is_an_error_within_the_limit(
    engine: MemoryEngine, tmp_path: Path
) -> None:
    """Nobody is told to remove a container that cannot be seen."""
    engine.failures["create_container"] = ContainerNameTakenError("taken")
    with in_time(2), settings_of(tmp_path, {"container": {**SETTINGS, "operation_seconds": 2}}):
        node, result = ContainerHelper(engine.open).run_tvr_container_image("1.10")
    assert (node, result.error_code) == (None, OPResultErrorCode.TIMEOUT)
    assert 'keeps the name "the-worker" for a container that it does not list' in str(result.msg)


def test_a_strangers_container_of_that_name_is_an_error(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """A container without the labels is never started, stopped or removed, and is no node."""
    engine.container = ContainerSummary("id-9", "the-worker", "exited", {"by": "somebody else"})
    node, result = helper.run_tvr_container_image("1.10")
    assert (node, result.error) == (None, True)
    assert 'A container named "the-worker" that was not made here' in str(result.msg)
    assert helper.get_existing_node() is None
    assert helper.delete_tovarin_container().success
    with pytest.raises(ContainerError, match="launch one"):
        helper.start_tovarin_container()
    assert engine.changes() == []


@pytest.mark.parametrize("version", ["", "../1.0", "1.0?x=y", "-rf", "1.0\n", "v" * 129, None])
def test_a_version_that_is_no_tag_is_refused_before_the_engine_is_asked(
    engine: MemoryEngine, helper: ContainerHelper, version: str
) -> None:
    """The text says what is allowed."""
    node, result = helper.run_tvr_container_image(version)
    assert (node, result.error) == (None, True)
    assert "a version" in str(result.msg)
    assert engine.opened == 0


@pytest.mark.parametrize("running", [True, False], ids=["running", "not-running"])
def test_the_slower_of_two_starts_succeeds_if_the_worker_runs(
    engine: MemoryEngine, helper: ContainerHelper, running: bool
) -> None:
    """An engine may refuse to start what another caller just started."""
    engine.put_container(status="created")
    engine.failures["start_container"] = ContainerError("container state improper")
    if running:
        engine.before["start_container"] = engine.put_container
    node, result = helper.run_tvr_container_image("1.10")
    assert (node is not None, result.msg) == (running, None if running else "container state improper")


@pytest.mark.parametrize("status", ["created", "running"])
def test_a_launch_keeps_its_container_when_another_started_it_first(
    engine: MemoryEngine, helper: ContainerHelper, status: str
) -> None:
    """Its own start is refused then; only a container that does not run is in the way."""
    engine.failures["start_container"] = ContainerError("container state improper")

    def start() -> None:
        assert engine.container is not None
        engine.container = dataclasses.replace(engine.container, status=status)

    engine.before["start_container"] = start
    node, result = helper.run_tvr_container_image("1.10")
    assert (node is not None) == result.success == (engine.container is not None) == (status == "running")


@pytest.mark.parametrize("ends", [False, True], ids=["stays", "ends"])
def test_a_container_that_is_listed_before_it_can_be_started_is_waited_for(
    engine: MemoryEngine, helper: ContainerHelper, ends: bool
) -> None:
    """An engine may list another launch's container a moment before it knows the id, or after its end."""
    engine.put_container(status="created")
    engine.failures["start_container"] = ContainerError("no such container", OPResultErrorCode.NOT_FOUND)

    def pass_by() -> None:
        engine.failures.clear()
        if ends:
            engine.container = None

    engine.before["find_container"] = _after(5, pass_by)
    node, result = helper.run_tvr_container_image("1.10")
    assert result.success, result.msg
    assert node is not None
    assert (node.uuid == "uuid-1") != ends


def test_a_stop_that_is_underway_is_waited_for(engine: MemoryEngine, helper: ContainerHelper) -> None:
    """A launch then starts the container again."""
    engine.put_container(status="stopping")
    engine.before["find_container"] = _after(3, lambda: engine.put_container(status="exited"))
    assert helper.run_tvr_container_image("1.10")[1].success
    assert engine.changes() == [("start_container", "id-1")]


def test_a_removal_that_is_refused_in_passing_is_tried_again(
    engine: MemoryEngine, helper: ContainerHelper
) -> None:
    """The engine could not kill what had just ended; the second attempt removes it."""
    engine.put_container()
    engine.failures["remove_container"] = ContainerError("could not be stopped: state improper")
    engine.before["remove_container"] = _after(2, engine.failures.clear)
    assert helper.delete_tovarin_container().success
    assert engine.container is None


@pytest.mark.parametrize("removable", [True, False])
def test_a_container_that_cannot_start_is_removed_again(
    engine: MemoryEngine, helper: ContainerHelper, removable: bool
) -> None:
    """The result tells why the start failed, also when the removal fails as well."""
    engine.failures["start_container"] = ContainerError("port in use", OPResultErrorCode.RESOURCE_EXHAUSTED)
    if not removable:
        engine.failures["remove_container"] = ContainerError("cannot remove")
    node, result = helper.run_tvr_container_image("1.10")
    assert (node, result.error, result.msg) == (None, True, "port in use")
    assert result.error_code is OPResultErrorCode.RESOURCE_EXHAUSTED
    assert [call[0] for call in engine.changes()] == [
        "create_container",
        "start_container",
        "remove_container",
    ]


OTHER_PORT = frozenset({PortBinding("127.0.0.1", 9001, 8855)})


@pytest.mark.parametrize(
    ("bindings", "published"),
    [
        pytest.param(frozenset(), "none of its ports", id="none"),
        pytest.param(OTHER_PORT, r"port 8855 at 127\.0\.0\.1:9001", id="another"),
    ],
)
def test_a_new_worker_that_nothing_can_reach_is_an_error(
    engine: MemoryEngine, helper: ContainerHelper, bindings: frozenset[PortBinding], published: str
) -> None:
    """The launch says what is published and what should be, and leaves no container in the way."""
    engine.bindings = bindings
    node, result = helper.run_tvr_container_image("1.10")
    assert (node, result.error) == (None, True)
    with pytest.raises(AssertionError, match=rf"published {published}, .* port 9002 at 127\.0\.0\.1:9001"):
        raise AssertionError(result.msg)
    assert engine.container is None


@pytest.mark.parametrize("reboot", [False, True], ids=["start", "reboot"])
def test_an_existing_worker_that_nothing_can_reach_is_an_error(
    engine: MemoryEngine, helper: ContainerHelper, reboot: bool
) -> None:
    """Made under other settings, it is reported by launch, start and reboot, and stays for its owner."""
    engine.put_container("1.10")
    engine.bindings = OTHER_PORT
    node, result = helper.run_tvr_container_image("1.10")
    assert node is None
    assert "Terminate it and launch again" in str(result.msg)
    with pytest.raises(ContainerError, match="Nothing can reach the worker"):
        helper.start_tovarin_container(reboot)
    assert engine.container is not None


@pytest.mark.parametrize(
    ("stored", "setting", "environment"),
    [
        pytest.param(None, "from-setting", {CoreDef.WORKER_TOKEN_VARIABLE: "from-setting"}, id="setting"),
        pytest.param(
            "stored-one", "from-setting", {CoreDef.WORKER_TOKEN_VARIABLE: "stored-one"}, id="stored"
        ),
    ],
)
def test_the_worker_asks_for_the_token_that_clients_send(
    engine: MemoryEngine, tmp_path: Path, stored: str | None, setting: str, environment: dict[str, str]
) -> None:
    """A token stored for the region goes before the setting; the request does not show it."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    with settings_of(tmp_path, {"container": SETTINGS, "worker": {"token": setting}}):
        if stored is not None:
            CloudConfManager().set_cloud_conf(region, CloudConf(None, "", stored))
        ContainerHelper(engine.open).run_tvr_container_image("1.10")
    request = engine.changes()[0][1]
    assert request.environment == environment
    assert "from-setting" not in repr(request)
    assert "stored-one" not in repr(request)


def test_without_a_token_a_launch_makes_one_and_stores_it(engine: MemoryEngine, tmp_path: Path) -> None:
    """The worker is never open to others, and every client of this user finds the token, which stays."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    with settings_of(tmp_path, {"container": SETTINGS}):
        CloudConfManager().set_cloud_conf(region, CloudConf(None, "ada"))
        for _ in range(2):
            helper = ContainerHelper(engine.open)
            assert helper.run_tvr_container_image("1.10")[1].success
            assert helper.delete_tovarin_container().success
        stored = CloudConfManager().get_cloud_conf(region)
    assert stored is not None
    assert (stored.user_name, len(stored.worker_token or "")) == ("ada", 43)
    given = [call[1].environment for call in engine.changes() if call[0] == "create_container"]
    assert given == [{CoreDef.WORKER_TOKEN_VARIABLE: stored.worker_token}] * 2


def test_a_token_that_cannot_be_stored_fails_the_launch(engine: MemoryEngine, tmp_path: Path) -> None:
    """No worker is left that nobody has the token of."""
    with settings_of(tmp_path, {"container": SETTINGS}):
        store = tmp_path / "cloud.toml"
        store.write_text("")
        store.chmod(0o600)
        engine.before["create_container"] = lambda: store.chmod(0o644)
        with pytest.raises(ConfigError):
            ContainerHelper(engine.open).run_tvr_container_image("1.10")
    assert [call[0] for call in engine.changes()] == ["create_container", "remove_container"]
