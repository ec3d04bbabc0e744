"""The container engine behind the docker package, on an endpoint that gives prepared answers."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from contextlib import closing
from pathlib import Path
from typing import IO, Any

import pytest

from stage.engine_api import EngineApi, EngineRequest
from stage.patience import SETUP_SECONDS
from stage.settings import settings_of
from tovarincore._container_helper.docker_engine import open_docker_engine
from tovarincore._container_helper.engine import (
    ContainerEngine,
    ContainerRequest,
    ContainerSummary,
    PortBinding,
)
from tovarincore._container_helper.errors import ContainerError, ContainerNameTakenError
from tovarincore._container_helper.limit import TimeLimit
from tovarincore.core_def import OPResultErrorCode

REQUEST = ContainerRequest(
    name="the-worker",
    image="acme/worker:1.0",
    labels={"a": "b"},
    environment={},
    published_port=9001,
    worker_port=9002,
    memory_bytes=64 * 1024 * 1024,
    cpu_count=0.5,
)
NO_SUCH_CONTAINER = (404, {"message": "No such container: id-1"})


@pytest.fixture
def api(tmp_path: Path) -> Iterator[EngineApi]:
    """The endpoint, set as the engine in the configuration."""
    with EngineApi() as api, settings_of(tmp_path, {"container": {"engine_url": api.url}}):
        yield api


@pytest.fixture
def engine(api: EngineApi) -> Iterator[ContainerEngine]:
    """A connection to the endpoint."""
    with closing(open_docker_engine(TimeLimit(SETUP_SECONDS, "testing"))) as engine:
        api.requests.clear()
        yield engine


def test_tags_are_those_of_exactly_this_repository(api: EngineApi, engine: ContainerEngine) -> None:
    """Images without a name, and repositories whose name merely begins alike, do not count."""
    api.answers["GET", "/images/json"] = (
        200,
        [
            {"RepoTags": ["reg:5000/acme/worker:1.0", "reg:5000/acme/worker:latest"]},
            {"RepoTags": ["reg:5000/acme/worker-gpu:3.0", "<none>:<none>"]},
            {"RepoTags": None},
        ],
    )
    assert engine.list_image_tags("reg:5000/acme/worker") == ["1.0", "latest"]


@pytest.mark.parametrize(
    ("repository", "listed"),
    [
        ("worker", ["docker.io/library/worker:1", "localhost/worker:2", "worker:3"]),
        ("acme/worker", ["docker.io/acme/worker:1", "localhost/acme/worker:2", "acme/worker:3"]),
        (
            "docker.io/library/worker",
            ["worker:1", "docker.io/library/worker:2", "docker.io/library/worker:3"],
        ),
        ("docker.io/acme/worker", ["acme/worker:1", "docker.io/acme/worker:2", "docker.io/acme/worker:3"]),
        ("localhost/worker", ["localhost/worker:1", "localhost/worker:2", "localhost/worker:3"]),
    ],
)
def test_tags_are_found_under_each_name_that_engines_give_an_image(
    api: EngineApi, engine: ContainerEngine, repository: str, listed: list[str]
) -> None:
    """Podman lists names with the registry in front, and puts images built there under localhost."""
    strangers = ["quay.io/worker:9", "docker.io/other/worker:9", "worker/x:9", "worker@sha256:00", "worker"]
    api.answers["GET", "/images/json"] = (
        200,
        [{"RepoTags": [*listed, *strangers]}, {"RepoTags": listed[:1]}],
    )
    assert engine.list_image_tags(repository) == ["1", "2", "3"]


def test_an_image_is_used_under_the_name_that_the_engine_has_it_by(
    api: EngineApi, engine: ContainerEngine
) -> None:
    """Podman takes a short name for one of Docker Hub, which an image built on this machine is not."""
    created: list[str] = []

    def create(connection: IO[bytes]) -> None:
        created.append(api.requests[-1].body["Image"])
        api.answers["POST", "/containers/create"] = (201, {"Id": "id-1"})
        connection.write(b"HTTP/1.1 404 Not Found\r\nContent-Length: 28\r\n\r\n")
        connection.write(b'{"message": "no such image"}')

    api.answers["POST", "/containers/create"] = create
    api.answers["GET", "/images/json"] = (200, [{"RepoTags": ["localhost/acme/worker:1.0", "x:1.0"]}])
    assert engine.create_container(REQUEST) == "id-1"
    assert (created, api.requests[-1].body["Image"]) == (["acme/worker:1.0"], "localhost/acme/worker:1.0")


def test_a_container_is_looked_for_by_its_exact_name(api: EngineApi, engine: ContainerEngine) -> None:
    """Stopped ones included; the engine matches names as regular expressions."""
    api.answers["GET", "/containers/json"] = (
        200,
        [{"Id": "id-1", "Names": ["/a.worker"], "State": "exited", "Labels": {"l": "x"}, "Ports": []}],
    )
    assert engine.find_container("a.worker") == ContainerSummary("id-1", "a.worker", "exited", {"l": "x"})
    query = api.requests[0].query
    assert query["all"] == "1"
    assert json.loads(query["filters"]) == {"name": [r"^/?a\.worker$"]}
    assert engine.find_container("awworker") is None


def test_published_tcp_ports_are_listed(api: EngineApi, engine: ContainerEngine) -> None:
    """A port that an image merely exposes has no number on the host, and UDP is no way to a worker."""
    ports = [
        {"IP": "127.0.0.1", "PrivatePort": 9002, "PublicPort": 9001, "Type": "tcp"},
        {"PrivatePort": 8855, "Type": "tcp"},
        {"IP": "127.0.0.1", "PrivatePort": 53, "PublicPort": 53, "Type": "udp"},
    ]
    listed = {"Id": "id-1", "Names": ["/w"], "State": "running", "Labels": {"l": "x"}, "Ports": ports}
    api.answers["GET", "/containers/json"] = (200, [listed])
    container = engine.find_container("w")
    assert container is not None
    assert container.bindings == {PortBinding("127.0.0.1", 9001, 9002)}


def test_a_container_is_created_with_limits_and_a_loopback_port(
    api: EngineApi, engine: ContainerEngine
) -> None:
    """No swap on top of the memory, and nothing published to the network."""
    api.answers["POST", "/containers/create"] = (201, {"Id": "id-1"})
    assert engine.create_container(REQUEST) == "id-1"
    body = api.requests[0].body
    host = body["HostConfig"]
    assert api.requests[0].query == {"name": "the-worker"}
    assert (body["Image"], body["Labels"]) == ("acme/worker:1.0", {"a": "b"})
    # Without this the engine publishes a port only if the image happens to expose it.
    assert body["ExposedPorts"] == {"9002/tcp": {}}
    assert host["PortBindings"] == {"9002/tcp": [{"HostIp": "127.0.0.1", "HostPort": "9001"}]}
    assert (host["Memory"], host["MemorySwap"]) == (64 * 1024 * 1024, 64 * 1024 * 1024)
    assert (host["NanoCpus"], host["Init"]) == (500_000_000, True)


@pytest.mark.parametrize(
    ("call", "request_seen"),
    [
        pytest.param(
            lambda engine: engine.start_container("id-1"),
            EngineRequest("POST", "/containers/id-1/start", {}, None),
            id="start",
        ),
        pytest.param(
            lambda engine: engine.unpause_container("id-1"),
            EngineRequest("POST", "/containers/id-1/unpause", {}, None),
            id="unpause",
        ),
        pytest.param(
            lambda engine: engine.stop_container("id-1", 3),
            EngineRequest("POST", "/containers/id-1/stop", {"t": "3"}, None),
            id="stop",
        ),
        pytest.param(
            lambda engine: engine.restart_container("id-1", 3),
            EngineRequest("POST", "/containers/id-1/restart", {"t": "3"}, None),
            id="restart",
        ),
        pytest.param(
            lambda engine: engine.remove_container("id-1"),
            EngineRequest(
                "DELETE", "/containers/id-1", {"v": "True", "link": "False", "force": "True"}, None
            ),
            id="remove",
        ),
    ],
)
def test_a_change_is_one_request(
    api: EngineApi,
    engine: ContainerEngine,
    call: Callable[[ContainerEngine], None],
    request_seen: EngineRequest,
) -> None:
    """Each change of a container is sent once, with the grace time where one is given."""
    api.answers[request_seen.method, request_seen.path] = (204, None)
    call(engine)
    assert api.requests == [request_seen]


def test_a_missing_image_is_named(api: EngineApi, engine: ContainerEngine) -> None:
    """The text says how to get the image."""
    api.answers["GET", "/images/json"] = (200, [{"RepoTags": ["acme/worker:1.1"]}])
    api.answers["POST", "/containers/create"] = (404, {"message": "No such image: acme/worker:1.0"})
    with pytest.raises(
        ContainerError, match=r"Image acme/worker:1\.0 is not on .*: build it .*pull it"
    ) as caught:
        engine.create_container(REQUEST)
    assert caught.value.error_code is OPResultErrorCode.NOT_FOUND


@pytest.mark.parametrize(
    "answer",
    [
        (409, {"message": "Conflict. The name is already in use"}),
        (
            500,
            {
                "message": 'container create: creating container storage: the container name "the-worker" is '
                "already in use by 061031454f44. You have to remove that container to be able to reuse that "
                "name: that name is already in use"
            },
        ),
    ],
    ids=["docker", "podman"],
)
def test_a_name_in_use_has_an_error_of_its_own(
    api: EngineApi, engine: ContainerEngine, answer: tuple[int, Any]
) -> None:
    """The helper tells a stranger's container from one that another caller just made."""
    api.answers["POST", "/containers/create"] = answer
    with pytest.raises(ContainerNameTakenError, match=r'named "the-worker" .* rename or remove it'):
        engine.create_container(REQUEST)


@pytest.mark.parametrize(
    "message",
    [
        "endpoint w (9ed): Bind for 127.0.0.1:9001 failed: port is already allocated",
        "endpoint w (9c7): Error starting userland proxy: listen tcp4 127.0.0.1:9001: bind: "
        "address already in use",
        "cannot listen on the TCP port: listen tcp4 127.0.0.1:9001: bind: address already in use",
    ],
    ids=["container", "program", "podman"],
)
def test_a_port_in_use_is_named(api: EngineApi, engine: ContainerEngine, message: str) -> None:
    """Whether a container or another program holds it, the text names the port and the setting."""
    api.answers["POST", "/containers/id-1/start"] = (500, {"message": message})
    with pytest.raises(
        ContainerError, match=r"Port 9001 of 127\.0\.0\.1 is in use .*published_port"
    ) as caught:
        engine.start_container("id-1")
    assert caught.value.error_code is OPResultErrorCode.RESOURCE_EXHAUSTED


def test_a_refused_value_is_passed_on_in_the_engines_words(api: EngineApi, engine: ContainerEngine) -> None:
    """The engine knows best what it allows."""
    api.answers["POST", "/containers/create"] = (400, {"message": "Range of CPUs is from 0.01 to 2.00"})
    with pytest.raises(ContainerError, match=r"refused the request: Range of CPUs .* change that in \[cont"):
        engine.create_container(REQUEST)


@pytest.mark.parametrize(
    ("status", "code"), [(429, OPResultErrorCode.THROTTLED), (503, OPResultErrorCode.UNAVAILABLE)]
)
def test_a_busy_engine_has_a_code_of_its_own(
    api: EngineApi, engine: ContainerEngine, status: int, code: OPResultErrorCode
) -> None:
    """It is no refusal: the same request may be accepted in a moment."""
    api.answers["POST", "/containers/create"] = (status, {"message": "swarm is starting"})
    with pytest.raises(ContainerError, match=r"is busy or starting: swarm is starting\. Try again") as caught:
        engine.create_container(REQUEST)
    assert caught.value.error_code is code


def test_a_container_that_vanished_is_not_found(api: EngineApi, engine: ContainerEngine) -> None:
    """Somebody removed it between the look-up and the change."""
    api.answers["POST", "/containers/id-1/stop"] = NO_SUCH_CONTAINER
    with pytest.raises(ContainerError, match="no longer has what was asked for") as caught:
        engine.stop_container("id-1", 1)
    assert caught.value.error_code is OPResultErrorCode.NOT_FOUND


@pytest.mark.parametrize(
    "answer",
    [
        NO_SUCH_CONTAINER,
        (409, {"message": "removal of container id-1 is already in progress"}),
    ],
    ids=["gone", "going"],
)
def test_removing_what_somebody_else_removes_is_a_success(
    api: EngineApi, engine: ContainerEngine, answer: tuple[int, Any]
) -> None:
    """Two terminations at the same time both succeed."""
    api.answers["DELETE", "/containers/id-1"] = answer
    engine.remove_container("id-1")


def test_a_failing_removal_is_an_error(api: EngineApi, engine: ContainerEngine) -> None:
    """Only a container that is gone counts as removed."""
    api.answers["DELETE", "/containers/id-1"] = (500, {"message": "driver failed to remove root filesystem"})
    with pytest.raises(ContainerError, match="driver failed to remove"):
        engine.remove_container("id-1")
