"""What the container helper asks of a container engine, and the records that pass between them."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Protocol

# Where the worker's port is published: other machines cannot reach it.
LOOPBACK = "127.0.0.1"


@dataclass(frozen=True)
class PortBinding:
    """A TCP port of a container and where on the host the engine published it."""

    host_address: str
    host_port: int
    container_port: int


@dataclass(frozen=True)
class ContainerSummary:
    """A container as the engine lists it; `status` is the engine's word, such as "running" or "paused".

    `bindings` are the published ports; they mean something only while the container runs.
    """

    container_id: str
    name: str
    status: str
    labels: Mapping[str, str]
    bindings: frozenset[PortBinding] = frozenset()


@dataclass(frozen=True)
class ContainerRequest:
    """A container to create: `worker_port` inside it becomes `published_port` on 127.0.0.1 of the host."""

    name: str
    image: str
    labels: Mapping[str, str]
    # Holds the worker's token.
    environment: Mapping[str, str] = field(repr=False)
    published_port: int
    worker_port: int
    memory_bytes: int
    cpu_count: float


class ContainerEngine(Protocol):
    """A connection to a container engine. Every method raises ContainerError when it could not be done."""

    def list_image_tags(self, repository: str) -> list[str]:
        """The tags of the images of a repository, each once, in no particular order."""

    def find_container(self, name: str) -> ContainerSummary | None:
        """The container of exactly that name, running or not, whoever made it."""

    def create_container(self, request: ContainerRequest) -> str:
        """Create without starting; returns the id. Raises ContainerNameTakenError for a name in use."""

    def start_container(self, container_id: str) -> None:
        """Start; nothing happens to a running one."""

    def unpause_container(self, container_id: str) -> None:
        """Let a paused container go on."""

    def restart_container(self, container_id: str, grace_seconds: int) -> None:
        """Stop, killing it after the grace time, and start again; a stopped one is started."""

    def stop_container(self, container_id: str, grace_seconds: int) -> None:
        """Stop, killing it after the grace time; nothing happens to a stopped one."""

    def remove_container(self, container_id: str) -> None:
        """Kill and remove, with its anonymous volumes; nothing happens when it is gone already."""

    def close(self) -> None:
        """Give the connection back."""
