"""The container engine behind the `docker` package: a Docker daemon or anything that speaks its interface."""

from __future__ import annotations

import re
import socket
from collections.abc import Iterator
from contextlib import contextmanager
from http import HTTPStatus
from typing import TYPE_CHECKING, Any

from tovarincore._container_helper.engine import (
    LOOPBACK,
    ContainerEngine,
    ContainerRequest,
    ContainerSummary,
    PortBinding,
)
from tovarincore._container_helper.errors import ContainerError, ContainerNameTakenError
from tovarincore._container_helper.limit import TimeLimit
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResultErrorCode

if TYPE_CHECKING:
    import docker

_DEFAULT_URL = "unix:///var/run/docker.sock"
_PORT_IN_USE = re.compile(
    r"127\.0\.0\.1:(?P<number>\d+)\b.*(?:port is already allocated|address already in use)", re.DOTALL
)
_NANO = 1_000_000_000


def open_docker_engine(limit: TimeLimit) -> ContainerEngine:
    """Connect to the engine of [container] engine_url, or else of DOCKER_HOST, or else of this machine.

    Raises ContainerError when the package is missing or no engine answers within the limit.
    """
    try:
        import docker
    except ModuleNotFoundError:
        raise ContainerError(
            "Local containers need the docker package: run pip install 'tovarincore[containers]'"
        ) from None

    settings = {"timeout": limit.remaining(), **client_settings()}
    address = settings["base_url"]
    with _explained(limit, address):
        if address.startswith("unix://"):
            # The package leaves its socket open when it cannot connect, and hides why.
            with socket.socket(socket.AF_UNIX) as probe:
                probe.settimeout(limit.remaining())
                probe.connect(address.removeprefix("unix://"))
        return DockerEngine(docker.APIClient(**settings), limit, address)


def client_settings() -> dict[str, Any]:
    """The arguments of docker.APIClient that say which engine is meant and how to reach it."""
    import docker.utils

    settings: dict[str, Any] = {"base_url": _DEFAULT_URL, **docker.utils.kwargs_from_env()}
    if core_conf_glbl.container__engine_url:
        settings["base_url"] = core_conf_glbl.container__engine_url
    return settings


class DockerEngine:
    """A ContainerEngine on the package's low-level client, which sends one request per call."""

    def __init__(self, client: docker.APIClient, limit: TimeLimit, address: str) -> None:
        self._client = client
        self._limit = limit
        self._address = address

    def list_image_tags(self, repository: str) -> list[str]:
        with self._request():
            images = self._client.images(name=repository)
        names = [name for image in images for name in image["RepoTags"] or ()]
        return sorted(name[len(repository) + 1 :] for name in names if name.startswith(repository + ":"))

    def find_container(self, name: str, label: str) -> ContainerSummary | None:
        # The engine takes the name as a regular expression, and its own names begin with a slash.
        filters = {"label": label, "name": f"^/?{re.escape(name)}$"}
        with self._request():
            found = self._client.containers(all=True, filters=filters)
        return next(
            (
                ContainerSummary(item["Id"], name, item["State"], item["Labels"], _bindings(item["Ports"]))
                for item in found
            ),
            None,
        )

    def create_container(self, request: ContainerRequest) -> str:
        import docker

        with self._request():
            host_config = self._client.create_host_config(
                port_bindings={request.worker_port: (LOOPBACK, request.published_port)},
                mem_limit=request.memory_bytes,
                # The same number again, or the container may use as much swap on top of its memory.
                memswap_limit=request.memory_bytes,
                nano_cpus=int(request.cpu_count * _NANO),
                # Process number 1 ignores the stop signal unless it handles it; an init passes it on.
                init=True,
            )
            try:
                created = self._client.create_container(
                    request.image,
                    name=request.name,
                    labels=dict(request.labels),
                    environment=dict(request.environment),
                    ports=[request.worker_port],
                    host_config=host_config,
                )
            except docker.errors.ImageNotFound as error:
                raise _missing_image(request.image) from error
            except docker.errors.APIError as error:
                if error.status_code != HTTPStatus.CONFLICT:
                    raise
                raise _name_taken(request.name) from error
        return str(created["Id"])

    def start_container(self, container_id: str) -> None:
        with self._request():
            self._client.start(container_id)

    def unpause_container(self, container_id: str) -> None:
        with self._request():
            self._client.unpause(container_id)

    def restart_container(self, container_id: str, grace_seconds: int) -> None:
        with self._request(grace_seconds):
            self._client.restart(container_id, timeout=grace_seconds)

    def stop_container(self, container_id: str, grace_seconds: int) -> None:
        with self._request(grace_seconds):
            self._client.stop(container_id, timeout=grace_seconds)

    def remove_container(self, container_id: str) -> None:
        import docker

        with self._request():
            try:
                self._client.remove_container(container_id, v=True, force=True)
            except docker.errors.APIError as error:
                # Another caller was faster, or is about to be.
                if error.status_code not in (HTTPStatus.NOT_FOUND, HTTPStatus.CONFLICT):
                    raise

    def close(self) -> None:
        self._client.close()

    @contextmanager
    def _request(self, added_by_client: int = 0) -> Iterator[None]:
        """One request with the time that is left; the client adds a grace time to it by itself."""
        # The package passes fractions of a second on; its type stubs know whole seconds only.
        self._client.timeout = max(self._limit.remaining() - added_by_client, 0.001)  # type: ignore[assignment]
        with _explained(self._limit, self._address):
            yield


def _bindings(ports: list[dict[str, Any]]) -> frozenset[PortBinding]:
    """What is published of a container's ports; one that is merely exposed has no public number."""
    return frozenset(
        PortBinding(port["IP"], port["PublicPort"], port["PrivatePort"])
        for port in ports
        if port["Type"] == "tcp" and port.get("PublicPort")
    )


@contextmanager
def _explained(limit: TimeLimit, address: str) -> Iterator[None]:
    """Turn what the package and its transport raise into a ContainerError that says what to do."""
    import docker

    try:
        yield
    except docker.errors.APIError as error:
        raise _refusal(error) from error
    except (docker.errors.DockerException, OSError) as error:
        raise _no_answer(error, limit, address) from error


def _missing_image(image: str) -> ContainerError:
    return ContainerError(
        f"Image {image} is not on the container engine: build it (docker build -t {image} -f "
        "containers/worker/Dockerfile tovarincore), pull it, or choose a version that "
        "list_instance_templates returns.",
        OPResultErrorCode.NOT_FOUND,
    )


def _name_taken(name: str) -> ContainerNameTakenError:
    return ContainerNameTakenError(
        f'A container named "{name}" that was not made here is on the engine: rename or remove it, or set '
        "another name in [container]."
    )


def _refusal(error: docker.errors.APIError) -> ContainerError:
    text = str(error.explanation or error).strip()
    port = _PORT_IN_USE.search(text)
    if port is not None:
        return ContainerError(
            f"Port {port['number']} of 127.0.0.1 is in use by another program or container: stop that, or "
            "set another published_port in [container], terminate and launch anew.",
            OPResultErrorCode.RESOURCE_EXHAUSTED,
        )
    if error.status_code == HTTPStatus.NOT_FOUND:
        return ContainerError(
            f"The container engine no longer has what was asked for: {text}. Refresh and try again.",
            OPResultErrorCode.NOT_FOUND,
        )
    return ContainerError(
        f"The container engine refused the request: {text}. If it names a value, change that in [container]."
    )


def _no_answer(error: Exception, limit: TimeLimit, address: str) -> ContainerError:
    import requests

    cause: BaseException = error
    while not isinstance(cause, (OSError, requests.Timeout)) and cause.__cause__ is not None:
        cause = cause.__cause__
    if isinstance(cause, (TimeoutError, requests.Timeout)):
        return limit.exceeded()
    if isinstance(cause, FileNotFoundError):
        advice = (
            "install and start one (on Debian: apt-get install docker.io), or set engine_url in [container] "
            "to where it listens"
        )
    elif isinstance(cause, PermissionError):
        advice = "this user may not open it: add the user to the engine's group (docker) and log in again"
    elif isinstance(cause, ConnectionRefusedError):
        advice = "it does not run, start it (for example: systemctl start docker)"
    else:
        advice = f"see that it runs and that engine_url in [container] is right ({cause})"
    return ContainerError(
        f"No container engine answers at {address}: {advice}.", OPResultErrorCode.ENGINE_UNAVAILABLE
    )
