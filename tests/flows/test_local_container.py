"""The local region through the facade, on a real container engine with a real worker in the container."""

from __future__ import annotations

import json
import re
import socket
import threading
import time
from collections.abc import Callable
from contextlib import AbstractContextManager
from pathlib import Path
from typing import Any

import pytest
from websockets.exceptions import InvalidStatus
from websockets.sync.client import connect

from stage.engine import ContainerEngineServer
from stage.engine_fixtures import IMAGE
from stage.local_region import LIMIT_SECONDS, LocalRegion, local_region, local_settings
from stage.patience import SLACK_SECONDS
from stage.ports import free_port
from stage.settings import settings_of
from tovarincore._container_helper.docker_engine import DockerEngine
from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import NodeState
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.container_helper import ContainerError
from tovarincore.core_def import OPResultErrorCode
from tovarincore.webs_client import WebSocketClient

NEWEST_FIRST = ["1.10.0", "1.9.0", "1.2.0"]
WORKER_COMMAND = [
    "/opt/python/bin/python3", "-m", "tovarincore.testing.reference_worker", "--host", "0.0.0.0"
]  # fmt: skip
DOCUMENT = Path(__file__).parents[2] / "docs" / "local-containers.md"
# For an engine that is made to hang.
SHORT_LIMIT_SECONDS = 0.7


@pytest.fixture
def limit_of(local: LocalRegion, tmp_path: Path) -> Callable[[float], AbstractContextManager[None]]:
    """Lets the body of a `with` statement run with a limit of so many seconds per operation."""
    folder = tmp_path / "limited"
    folder.mkdir()
    return lambda seconds: settings_of(folder, local_settings(local.server, local.port, seconds))


def _within(seconds: float, call: Callable[[], Any]) -> Any:
    """What the call returned or raised, which must have happened within this time and a second."""
    started = time.monotonic()
    try:
        outcome = call()
    except ContainerError as error:
        outcome = error
    assert time.monotonic() - started < seconds + SLACK_SECONDS
    return outcome


@pytest.mark.each_engine
def test_a_workers_whole_life(local: LocalRegion) -> None:
    """Templates, launch, ready over the web-socket, stop, start, reboot, terminate; nothing at the end."""
    assert [template.version for template in local.templates()] == NEWEST_FIRST

    node = local.running_node("1.9.0")
    assert (node.state, node.dns_address, node.ready) == (NodeState.RUNNING, "127.0.0.1", True)
    assert node.memory_total_bytes is not None
    first = node

    local.stop(node)
    assert local.registry()[0].state is NodeState.STOPPING
    node = local.refreshed_node()
    assert (node.state, node.ready) == (NodeState.STOPPED, False)

    local.start(node)
    assert local.registry()[0].state is NodeState.STARTING
    node = local.wait_until_ready()
    started_first = local.client.inspect_container(node.instance_id)["State"]["StartedAt"]

    local.start(node, reboot=True)
    node = local.wait_until_ready()
    assert local.client.inspect_container(node.instance_id)["State"]["StartedAt"] > started_first
    assert (node.instance_id, node.uuid) == (first.instance_id, first.uuid)

    assert local.terminate(node).success
    assert local.registry()[0].state is NodeState.SHUTTING_DOWN
    assert local.refresh().success
    assert local.registry() == []
    assert local.terminate(node).success


def test_the_container_is_limited_and_on_loopback_only(local: LocalRegion) -> None:
    """Memory, processors and the published port are as configured."""
    node = local.running_node()
    details = local.client.inspect_container(node.instance_id)
    host = details["HostConfig"]
    assert (host["Memory"], host["MemorySwap"], host["NanoCpus"]) == (256 << 20, 256 << 20, 750_000_000)
    assert details["NetworkSettings"]["Ports"] == {
        "8855/tcp": [{"HostIp": "127.0.0.1", "HostPort": str(local.port)}]
    }


@pytest.mark.parametrize("exposed", [None, 8855, 9777], ids=["exposes-nothing", "other-port", "exposes-it"])
def test_the_workers_port_is_published_whatever_the_image_exposes(
    local: LocalRegion, tmp_path: Path, exposed: int | None
) -> None:
    """The port is the one of the settings; an image that exposes nothing or another one is no obstacle."""
    command = json.dumps([*WORKER_COMMAND, "--port", "9777"])
    changes = [f"CMD {command}", *([f"EXPOSE {exposed}"] if exposed else [])]
    base = local.client.create_container(f"{IMAGE}:1.9.0")
    local.client.commit(base, IMAGE, "2.0.0", changes="\n".join(changes))
    local.client.remove_container(base)
    settings = local_settings(local.server, local.port)
    settings["container"]["worker_port"] = 9777
    try:
        with settings_of(tmp_path, settings):
            node = local.running_node("2.0.0")
            assert node.ready
            bound = local.client.inspect_container(node.instance_id)["NetworkSettings"]["Ports"]
            assert bound["9777/tcp"] == [{"HostIp": "127.0.0.1", "HostPort": str(local.port)}]
            assert local.terminate(node).success
    finally:
        local.client.remove_image(f"{IMAGE}:2.0.0", force=True)


@pytest.mark.parametrize("sent", [None, "wrong", "a-token-of-this-tes"])
def test_the_worker_refuses_whoever_lacks_its_token(local: LocalRegion, sent: str | None) -> None:
    """Without the token, and with another one, not even the handshake is answered."""
    local.running_node()
    headers = {} if sent is None else {"Authorization": f"Bearer {sent}"}
    with (
        pytest.raises(InvalidStatus) as refused,
        connect(f"ws://127.0.0.1:{local.port}/", additional_headers=headers, proxy=None),
    ):
        pass
    assert refused.value.response.status_code == 401


def test_the_client_with_another_token_finds_the_worker_not_ready(local: LocalRegion, tmp_path: Path) -> None:
    """With the right one it is ready; with a wrong one or none the probe says that the token is refused."""
    node = local.running_node()
    settings = local_settings(local.server, local.port)
    others = tmp_path / "others"
    others.mkdir()
    for token in ("wrong", ""):
        settings["worker"]["token"] = token
        with settings_of(others, settings):
            assert not local.refreshed_node().ready
            answer = WebSocketClient(node, client_timeout_sec=2).api_get_op_result(PingRequest())
        assert answer.error_code is OPResultErrorCode.UNAUTHENTICATED
    assert local.refreshed_node().ready


@pytest.mark.each_engine
def test_launching_again_returns_the_container_there_is(local: LocalRegion) -> None:
    """The same version is started and returned; another version has to wait for a termination."""
    node = local.running_node("1.9.0")
    local.stop(node)
    again, result = local.launch("1.9.0")
    assert result.success
    assert again is not None
    assert (again.instance_id, again.uuid, again.state) == (node.instance_id, node.uuid, NodeState.RUNNING)

    other, result = local.launch("1.10.0")
    assert (other, result.error) == (None, True)
    assert "terminate it before launching version 1.10.0" in str(result.msg)
    assert local.refreshed_node().uuid == node.uuid


def test_trying_a_launch_really_launches(local: LocalRegion) -> None:
    """The engine has no dry run, and the facade passes on what the launch returned."""
    (template, *_) = local.templates()
    result = cloud_manager_glbl.try_launching_node(local.region, None, *local.launch_arguments(template))
    assert result.success
    assert local.refreshed_node().state is NodeState.RUNNING


def test_a_container_killed_from_outside_is_seen_stopped(local: LocalRegion) -> None:
    """The next refresh says so, and the node can be started again."""
    node = local.running_node()
    local.client.kill(node.instance_id)
    node = local.refreshed_node()
    assert (node.state, node.ready) == (NodeState.STOPPED, False)
    local.start(node)
    assert local.wait_until_ready().uuid == node.uuid


def test_a_container_removed_from_outside_is_gone(local: LocalRegion) -> None:
    """The next refresh empties the registry; stopping says that there is none, terminating is a success."""
    node = local.running_node()
    local.client.remove_container(node.instance_id, force=True)
    with pytest.raises(ContainerError, match="launch one"):
        local.stop(node)
    assert local.terminate(node).success
    assert local.refresh().success
    assert local.registry() == []


def test_a_paused_worker_is_not_ready_and_start_lets_it_go_on(local: LocalRegion) -> None:
    """A worker that hangs costs a refresh no more than the limit."""
    node = local.running_node()
    local.client.pause(node.instance_id)
    assert _within(LIMIT_SECONDS, local.refresh).success
    (node,) = local.registry()
    assert (node.state, node.ready) == (NodeState.STOPPED, False)
    local.start(node)
    assert local.wait_until_ready().state is NodeState.RUNNING


def test_a_paused_worker_can_be_stopped(local: LocalRegion) -> None:
    """A worker that hangs is stopped within the limit."""
    node = local.running_node()
    local.client.pause(node.instance_id)
    assert _within(LIMIT_SECONDS, lambda: local.stop(node)) is None
    assert local.refreshed_node().state is NodeState.STOPPED
    assert local.client.containers(filters={"status": "exited"}, all=True) != []


@pytest.mark.each_engine
def test_a_paused_worker_can_be_rebooted_and_terminated(local: LocalRegion) -> None:
    """A worker that hangs works again after a reboot, and is got rid of within the limit."""
    node = local.running_node()
    local.client.pause(node.instance_id)
    _within(LIMIT_SECONDS, lambda: local.start(node, reboot=True))
    node = local.wait_until_ready()
    local.client.pause(node.instance_id)
    assert _within(LIMIT_SECONDS, lambda: local.terminate(node)).success
    assert local.client.containers(all=True) == []


def test_a_removed_image_leaves_the_container_and_fails_the_next_launch(local: LocalRegion) -> None:
    """What runs goes on; a later launch of that version says how to get the image."""
    node = local.running_node("1.2.0")
    (removed,) = [template for template in local.templates() if template.version == "1.2.0"]
    local.client.remove_image(f"{IMAGE}:1.2.0", force=True)
    try:
        assert [template.version for template in local.templates()] == ["1.10.0", "1.9.0"]
        assert local.refreshed_node().ready
        assert local.terminate(node).success
        launched, result = local.launch_template(removed)
        assert (launched, result.error_code) == (None, OPResultErrorCode.NOT_FOUND)
        assert f"Image {IMAGE}:1.2.0 is not on the container engine" in str(result.msg)
        assert local.refresh().success
        assert local.registry() == []
    finally:
        local.client.tag(f"{IMAGE}:1.9.0", IMAGE, "1.2.0")


@pytest.mark.each_engine
def test_a_port_in_use_fails_the_launch_and_leaves_nothing(local: LocalRegion) -> None:
    """The text names the port; no half-made container stands in the way of the next launch."""
    with socket.create_server(("127.0.0.1", local.port)):
        node, result = local.launch("1.10.0")
        assert (node, result.error_code) == (None, OPResultErrorCode.RESOURCE_EXHAUSTED)
        assert f"Port {local.port} of 127.0.0.1 is in use" in str(result.msg)
    assert local.client.containers(all=True) == []
    local.running_node()


def test_a_strangers_container_of_that_name_is_left_alone(local: LocalRegion) -> None:
    """It is no node, cannot be terminated from here, and a launch says to rename or remove it."""
    stranger = local.client.create_container(f"{IMAGE}:1.9.0", name="tovarin-worker")["Id"]
    assert local.refresh().success
    assert local.registry() == []
    node, result = local.launch("1.9.0")
    assert (node, result.error) == (None, True)
    assert 'A container named "tovarin-worker" that was not made here' in str(result.msg)
    assert cloud_manager_glbl.terminate_node(local.region, None, stranger).success
    assert [container["Id"] for container in local.client.containers(all=True)] == [stranger]


@pytest.mark.each_engine
def test_a_hanging_engine_ends_every_call_within_the_limit(
    local: LocalRegion, limit_of: Callable[[float], AbstractContextManager[None]]
) -> None:
    """Each ends in a time-out, the registry stays as it was, and afterwards a refresh tells the truth."""
    node = local.running_node()
    template = local.templates()[0]
    calls: list[Callable[[], Any]] = [
        lambda: local.stop(node),
        lambda: local.start(node),
        lambda: local.terminate(node),
        lambda: local.launch_template(template)[1],
        local.templates,
    ]
    local.server.hang()
    with limit_of(SHORT_LIMIT_SECONDS):
        assert _within(SHORT_LIMIT_SECONDS, local.refresh).error
        outcomes = [_within(SHORT_LIMIT_SECONDS, call) for call in calls]
    assert [outcome.error_code for outcome in outcomes] == [OPResultErrorCode.TIMEOUT] * len(calls)
    assert local.registry() == [node]
    local.server.go_on()
    assert local.wait_until_ready().uuid == node.uuid


def test_an_engine_that_hangs_in_the_middle_of_a_launch_is_not_fatal(
    local: LocalRegion,
    limit_of: Callable[[float], AbstractContextManager[None]],
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """The launch times out with the container made and not started; launching again starts that one."""
    start_container = DockerEngine.start_container

    def hang_before_start(engine: DockerEngine, container_id: str) -> None:
        local.server.hang()
        start_container(engine, container_id)

    monkeypatch.setattr(DockerEngine, "start_container", hang_before_start)
    # Enough for what comes before the hang.
    template = local.templates()[0]
    with limit_of(2):
        node, result = _within(2, lambda: local.launch_template(template))
    monkeypatch.undo()
    assert (node, result.error_code) == (None, OPResultErrorCode.TIMEOUT)
    assert "while starting worker version 1.10.0" in str(result.msg)

    local.server.go_on()
    found = local.refreshed_node()
    again, result = local.launch("1.10.0")
    assert result.success
    assert again is not None
    assert again.uuid == found.uuid
    local.wait_until_ready()


def test_an_engine_that_ends_in_the_middle_of_a_call_gives_a_clear_error(
    engine_server: ContainerEngineServer, tmp_path: Path
) -> None:
    """The call ends at once with what to look at; the next one says to start the engine."""
    with type(engine_server)() as server, settings_of(tmp_path, local_settings(server, free_port())):
        server.hang()
        # Late enough for a busy machine to have sent the request.
        killer = threading.Timer(1.5, server.kill)
        killer.start()
        broken_off = _within(LIMIT_SECONDS, lambda: cloud_manager_glbl.list_instances(local_region()))
        killer.join()
        refused = _within(LIMIT_SECONDS, lambda: cloud_manager_glbl.list_instances(local_region()))
    assert broken_off.error_code is OPResultErrorCode.ENGINE_UNAVAILABLE
    assert "see that it runs" in str(broken_off)
    assert refused.error_code is OPResultErrorCode.ENGINE_UNAVAILABLE
    assert "it does not run, start it" in str(refused)


def test_an_engine_that_ends_leaves_the_registry_as_it_was(tmp_path: Path, local: LocalRegion) -> None:
    """A refresh without an engine is an error, not an empty listing; a launch says to start one."""
    node = local.running_node()
    template = local.templates()[0]
    gone = {"container": {"engine_url": f"unix://{tmp_path}/gone.sock"}}
    with settings_of(tmp_path, gone):
        assert _within(LIMIT_SECONDS, local.refresh).error
        assert local.registry() == [node]
        _, result = _within(LIMIT_SECONDS, lambda: local.launch_template(template))
        assert result.error_code is OPResultErrorCode.ENGINE_UNAVAILABLE
    assert local.registry() == [node]


def test_the_documented_program_runs(local: LocalRegion, capsys: pytest.CaptureFixture[str]) -> None:
    """The sample of the documentation launches, waits for the worker and terminates it."""
    (program,) = re.findall(r"^```python\n(.*?)^```$", DOCUMENT.read_text(), re.DOTALL | re.MULTILINE)
    exec(compile(program, str(DOCUMENT), "exec"), {})
    assert "'tovarin-worker', <NodeState.RUNNING: 'Running'>, True" in capsys.readouterr().out
    assert local.client.containers(all=True) == []
