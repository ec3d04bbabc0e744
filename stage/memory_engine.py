"""A container engine in memory, for tests of what the container helper asks of an engine."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable
from typing import Any

from tovarincore._container_helper.engine import LOOPBACK, ContainerRequest, ContainerSummary, PortBinding
from tovarincore._container_helper.errors import ContainerError
from tovarincore._container_helper.limit import TimeLimit
from tovarincore.container_helper import UUID_LABEL, VERSION_LABEL
from tovarincore.core_conf import core_conf_glbl


class MemoryEngine:
    """A container engine in memory that records every call.

    `failures` gives the error to raise for a method, `before` something to do first; `bindings`, unless
    None, is what it publishes in place of what was asked for.
    """

    def __init__(self) -> None:
        self.calls: list[tuple[Any, ...]] = []
        self.tags = ["1.9", "1.10"]
        self.container: ContainerSummary | None = None
        self.failures: dict[str, ContainerError] = {}
        self.before: dict[str, Callable[[], object]] = {}
        self.bindings: frozenset[PortBinding] | None = None
        self.opened = 0
        self.closed = 0

    def open(self, limit: TimeLimit) -> MemoryEngine:
        self.opened += 1
        return self

    def close(self) -> None:
        self.closed += 1

    def put_container(self, version: str = "1.10", status: str = "running") -> None:
        labels = {UUID_LABEL: "uuid-1", VERSION_LABEL: version}
        self.container = ContainerSummary("id-1", "the-worker", status, labels)

    def list_image_tags(self, repository: str) -> list[str]:
        self._record("list_image_tags", repository)
        return self.tags

    def find_container(self, name: str) -> ContainerSummary | None:
        self._record("find_container", name)
        if self.container is None or self.container.status != "running":
            return self.container
        return dataclasses.replace(self.container, bindings=self._published())

    def create_container(self, request: ContainerRequest) -> str:
        self._record("create_container", request)
        self.container = ContainerSummary("id-1", request.name, "created", request.labels)
        return "id-1"

    def start_container(self, container_id: str) -> None:
        self._record("start_container", container_id)
        self._set_status("running")

    def unpause_container(self, container_id: str) -> None:
        self._record("unpause_container", container_id)
        self._set_status("running")

    def restart_container(self, container_id: str, grace_seconds: int) -> None:
        self._record("restart_container", container_id, grace_seconds)
        self._set_status("running")

    def stop_container(self, container_id: str, grace_seconds: int) -> None:
        self._record("stop_container", container_id, grace_seconds)
        self._set_status("exited")

    def remove_container(self, container_id: str) -> None:
        self._record("remove_container", container_id)
        self.container = None

    def changes(self) -> list[tuple[Any, ...]]:
        """The recorded calls that are no look-ups."""
        return [call for call in self.calls if call[0] not in ("find_container", "list_image_tags")]

    def _published(self) -> frozenset[PortBinding]:
        if self.bindings is not None:
            return self.bindings
        conf = core_conf_glbl
        return frozenset({PortBinding(LOOPBACK, conf.container__published_port, conf.container__worker_port)})

    def _set_status(self, status: str) -> None:
        assert self.container is not None
        self.container = dataclasses.replace(self.container, status=status)

    def _record(self, *call: Any) -> None:
        self.calls.append(call)
        self.before.get(call[0], lambda: None)()
        if call[0] in self.failures:
            raise self.failures[call[0]]
