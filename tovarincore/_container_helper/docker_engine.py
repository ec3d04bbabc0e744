"""The container engine behind the `docker` package: Docker, Podman or another that speaks its interface."""

from __future__ import annotations

import re
import socket
from collections.abc import Iterator
from contextlib import contextmanager
from http import HTTPStatus
from typing import TYPE_CHECKING, Any

from tovarincore._container_helper.answers import container_id_in, find_container_in, image_references_in
from tovarincore._container_helper.engine import (
    LOOPBACK,
    ContainerEngine,
    ContainerRequest,
    ContainerSummary,
)
from tovarincore._container_helper.errors import ContainerError, name_taken
from tovarincore._container_helper.failures import explained, is_name_conflict, missing_image
from tovarincore._container_helper.image_names import spellings, tags_of
from tovarincore._container_helper.limit import TimeLimit
from tovarincore._transport.masker import know_secret
from tovarincore.core_conf import core_conf_glbl

if TYPE_CHECKING:
    import docker

_DEFAULT_URL = "unix:///var/run/docker.sock"
_NANO = 1_000_000_000


def open_docker_engine(limit: TimeLimit) -> ContainerEngine:
    """Connect to the engine of [container] engine_url, or else of DOCKER_HOST, or else of this machine.

    Raises ContainerError when the package is missing or no engine answers within the limit.
    """
    try:
        import docker  # noqa: F401

        from tovarincore._container_helper.bounded_client import BoundedClient
    except ModuleNotFoundError:
        raise ContainerError(
            "Local containers need the docker package: run pip install 'tovarincore[containers]'"
        ) from None

    settings = {"timeout": limit.remaining(), **client_settings()}
    address = settings["base_url"]
    _know_password(address)
    with explained(limit, address):
        if address.startswith("unix://"):
            # The package leaves its socket open when it cannot connect, and hides why.
            with socket.socket(socket.AF_UNIX) as probe:
                probe.settimeout(limit.remaining())
                probe.connect(address.removeprefix("unix://"))
        return DockerEngine(BoundedClient(limit, **settings), limit, address)


def _know_password(address: str) -> None:
    """Let no text show the password of an address, whatever else is wrong with that."""
    login = address.rpartition("@")[0].rpartition("://")[2]
    password = login.partition(":")[2]
    if password:
        know_secret(password)


def client_settings() -> dict[str, Any]:
    """Return the arguments of docker.APIClient that reach the engine of the settings or the environment."""
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
        return tags_of(repository, self._image_references())

    def find_container(self, name: str) -> ContainerSummary | None:
        # The engine takes the name as a regular expression, and its own names begin with a slash.
        with self._request():
            found = self._client.containers(all=True, filters={"name": f"^/?{re.escape(name)}$"})
        return find_container_in(found, name)

    def create_container(self, request: ContainerRequest) -> str:
        import docker

        with self._request():
            try:
                return self._create(request, request.image)
            except docker.errors.ImageNotFound:
                pass
        # The engine may have it under a name with a registry, and take the short one for Docker Hub's.
        repository, _, tag = request.image.rpartition(":")
        names = [f"{name}:{tag}" for name in spellings(repository)[1:]]
        image = next((name for name in self._image_references() if name in names), None)
        if image is None:
            raise missing_image(request.image)
        with self._request():
            try:
                return self._create(request, image)
            except docker.errors.ImageNotFound:
                raise missing_image(request.image) from None

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

    def _image_references(self) -> list[str]:
        # Unfiltered: engines disagree about which names a filter means.
        with self._request():
            images = self._client.images()
        return image_references_in(images)

    def _create(self, request: ContainerRequest, image: str) -> str:
        import docker

        host_config = self._client.create_host_config(
            # Plain numbers: the client spells the protocol out itself.
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
                image,
                name=request.name,
                labels=dict(request.labels),
                environment=dict(request.environment),
                ports=[request.worker_port],
                host_config=host_config,
            )
        except docker.errors.APIError as error:
            if not is_name_conflict(error):
                raise
            raise name_taken(request.name) from None
        return container_id_in(created)

    @contextmanager
    def _request(self, added_by_client: int = 0) -> Iterator[None]:
        """One request with the time that is left; the client adds a grace time to it by itself."""
        # The package passes fractions of a second on; its type stubs know whole seconds only.
        self._client.timeout = max(self._limit.remaining() - added_by_client, 0.001)  # type: ignore[assignment]
        with explained(self._limit, self._address):
            yield
