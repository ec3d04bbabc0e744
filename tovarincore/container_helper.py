"""Runs the product's worker as the one local container of this machine."""

from __future__ import annotations

import uuid
from collections.abc import Callable
from contextlib import closing, suppress
from typing import TypeVar

from tovarincore._container_helper.docker_engine import open_docker_engine
from tovarincore._container_helper.engine import (
    LOOPBACK,
    ContainerEngine,
    ContainerRequest,
    ContainerSummary,
    PortBinding,
)
from tovarincore._container_helper.errors import ContainerError, ContainerNameTakenError
from tovarincore._container_helper.limit import TimeLimit, run_within
from tovarincore._container_helper.versions import newest_first
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, CloudRegions, NodeState
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import CoreDef, OPResult, OPResultErrorCode

__all__ = ["ContainerError", "ContainerHelper"]

T = TypeVar("T")

UUID_LABEL = "tovarin.worker.uuid"
VERSION_LABEL = "tovarin.worker.version"

_MEBIBYTE = 1024 * 1024
# Long enough for a worker to say goodbye; a short operation limit leaves it less.
_LONGEST_GRACE_SECONDS = 5

_STATE_OF_STATUS = {
    "created": NodeState.STOPPED,
    "running": NodeState.RUNNING,
    # Nothing in it runs and start_tovarin_container lets it go on, as with a stopped one.
    "paused": NodeState.STOPPED,
    "restarting": NodeState.STARTING,
    "removing": NodeState.SHUTTING_DOWN,
    "exited": NodeState.STOPPED,
    # The engine could not remove it completely; it cannot be started again.
    "dead": NodeState.TERMINATED,
}


class ContainerHelper:
    """The local worker container: at most one, known by its name and the labels given to it here.

    Making a helper touches no engine; every method connects anew and keeps nothing, so that one
    helper may serve several threads. Every method ends within [container] operation_seconds
    (default 10 s); any of them raises ConfigError when the settings cannot be used.

    :param open_engine: connects to the engine within a limit
    """

    def __init__(self, open_engine: Callable[[TimeLimit], ContainerEngine] = open_docker_engine) -> None:
        self._open_engine = open_engine

    def list_tvr_container_image_versions(self) -> list[str]:
        """Return the tags of the worker image present on the engine, newest version first.

        :raises ContainerError: the engine does not answer; an empty list means that it has no such image
        """
        image = core_conf_glbl.container__image
        return newest_first(
            self._operate("listing worker images", lambda engine: engine.list_image_tags(image))
        )

    def get_existing_node(self) -> CloudNode | None:
        """Return the record of the local worker container, or None when there surely is none.

        Its ``dns_address`` is 127.0.0.1, where [container] published_port is bound.

        :raises ContainerError: the engine does not answer
        """
        container = self._operate("looking for the worker container", _find)
        return None if container is None else _node_of(container)

    def run_tvr_container_image(self, version: str) -> tuple[CloudNode | None, OPResult]:
        """Run the worker image of a version: create a container, or start the existing one.

        An existing container of another version is an error: it has to be terminated first.

        :param version: tag of the worker image
        :return: the node and success, or None and an error that says what to do
        """
        try:
            container = self._operate(
                f"starting worker version {version}", lambda engine: _run(engine, version)
            )
            return _node_of(container), OPResult(success=True)
        except ContainerError as error:
            return None, _failure(error)

    def start_tovarin_container(self, reboot: bool = False) -> None:
        """Start the container, letting a paused one go on.

        :param reboot: stop it first
        :raises ContainerError: it could not be started, or there is none
        """

        def start(engine: ContainerEngine) -> None:
            container = _find_to_change(engine)
            if reboot:
                _wake(engine, container)
                engine.restart_container(container.container_id, _grace_seconds())
            else:
                _start(engine, container)
            _find_reachable(engine)

        self._operate("restarting the worker" if reboot else "starting the worker", start)

    def stop_tovarin_container(self) -> None:
        """Stop the container; a stopped one stays so.

        :raises ContainerError: it could not be stopped, or there is none
        """

        def stop(engine: ContainerEngine) -> None:
            container = _find_to_change(engine)
            _wake(engine, container)
            engine.stop_container(container.container_id, _grace_seconds())

        self._operate("stopping the worker", stop)

    def delete_tovarin_container(self) -> OPResult:
        """Kill and remove the container.

        :return: success, also when there is none, so that a second delete is one; or an error
        """

        def delete(engine: ContainerEngine) -> None:
            container = _find(engine)
            if container is not None:
                engine.remove_container(container.container_id)

        try:
            self._operate("removing the worker container", delete)
        except ContainerError as error:
            return _failure(error)
        return OPResult(success=True)

    def _operate(self, doing: str, body: Callable[[ContainerEngine], T]) -> T:
        limit = TimeLimit(core_conf_glbl.container__operation_seconds, doing)

        def operation() -> T:
            with closing(self._open_engine(limit)) as engine:
                return body(engine)

        return run_within(limit, operation)


def _run(engine: ContainerEngine, version: str) -> ContainerSummary:
    container = _find(engine)
    if container is None:
        try:
            return _create_and_start(engine, version)
        except ContainerNameTakenError:
            # Another caller may have been faster; otherwise the name belongs to a stranger.
            container = _find(engine)
            if container is None:
                raise
    existing_version = container.labels.get(VERSION_LABEL, "unknown")
    if existing_version != version:
        raise ContainerError(
            f'Worker container "{container.name}" of version {existing_version} exists: '
            f"terminate it before launching version {version}."
        )
    _start(engine, container)
    return _find_reachable(engine)


def _create_and_start(engine: ContainerEngine, version: str) -> ContainerSummary:
    container_id = engine.create_container(
        ContainerRequest(
            name=core_conf_glbl.container__name,
            image=f"{core_conf_glbl.container__image}:{version}",
            labels={UUID_LABEL: str(uuid.uuid4()), VERSION_LABEL: version},
            environment=_worker_environment(),
            published_port=core_conf_glbl.container__published_port,
            worker_port=core_conf_glbl.container__worker_port,
            memory_bytes=core_conf_glbl.container__memory_mib * _MEBIBYTE,
            cpu_count=core_conf_glbl.container__cpu_count,
        )
    )
    try:
        engine.start_container(container_id)
        return _find_reachable(engine)
    except ContainerError:
        # A container that never ran, or that nothing can reach, would stand in the way of the next launch.
        with suppress(ContainerError):
            engine.remove_container(container_id)
        raise


def _worker_environment() -> dict[str, str]:
    """The token that the web-socket client will send, for the worker to ask for; nothing without one."""
    stored = CloudConfManager().get_cloud_conf(_local_region())
    token = (stored and stored.worker_token) or core_conf_glbl.worker__token
    return {CoreDef.WORKER_TOKEN_VARIABLE: token} if token else {}


def _find(engine: ContainerEngine) -> ContainerSummary | None:
    return engine.find_container(core_conf_glbl.container__name, UUID_LABEL)


def _find_to_change(engine: ContainerEngine) -> ContainerSummary:
    container = _find(engine)
    if container is None:
        raise ContainerError(
            f'There is no worker container "{core_conf_glbl.container__name}": launch one.',
            OPResultErrorCode.NOT_FOUND,
        )
    return container


def _find_reachable(engine: ContainerEngine) -> ContainerSummary:
    """The container just started. Raises ContainerError when it runs and its port leads nowhere."""
    container = _find_to_change(engine)
    wanted = PortBinding(
        LOOPBACK, core_conf_glbl.container__published_port, core_conf_glbl.container__worker_port
    )
    if container.status != "running" or wanted in container.bindings:
        return container
    bound = ", ".join(
        f"port {binding.container_port} at {binding.host_address}:{binding.host_port}"
        for binding in sorted(container.bindings, key=lambda binding: binding.container_port)
    )
    raise ContainerError(
        f'Nothing can reach the worker in container "{container.name}": the engine published '
        f"{bound or 'none of its ports'}, and [container] asks for port {wanted.container_port} at "
        f"{wanted.host_address}:{wanted.host_port}. Terminate it and launch again; if that does not help, "
        "see whether the engine can publish ports at all."
    )


def _start(engine: ContainerEngine, container: ContainerSummary) -> None:
    # Engines refuse to start a paused container.
    if not _wake(engine, container):
        engine.start_container(container.container_id)


def _wake(engine: ContainerEngine, container: ContainerSummary) -> bool:
    """Let a paused container go on, which otherwise sits out its grace time; says whether it was one."""
    paused = container.status == "paused"
    if paused:
        engine.unpause_container(container.container_id)
    return paused


def _grace_seconds() -> int:
    return min(_LONGEST_GRACE_SECONDS, int(core_conf_glbl.container__operation_seconds / 2))


def _failure(error: ContainerError) -> OPResult:
    return OPResult(error=True, error_code=error.error_code, msg=str(error))


def _node_of(container: ContainerSummary) -> CloudNode:
    return CloudNode(
        region=_local_region(),
        instance_id=container.container_id,
        instance_type_def=CloudInstances.get_default_local_instance_type(),
        uuid=container.labels[UUID_LABEL],
        name=container.name,
        dns_address=LOOPBACK,
        state=_STATE_OF_STATUS.get(container.status, NodeState.UNKNOWN),
    )


def _local_region() -> CloudRegion:
    region = CloudRegions.get_local_container_region()
    if region is None:
        raise ContainerError("This installation has no local container region.")
    return region
