"""What the container helper does on an engine: find, launch, start, stop and remove the one container."""

from __future__ import annotations

import time
from contextlib import suppress

from tovarincore._container_helper.engine import (
    LOOPBACK,
    ContainerEngine,
    ContainerRequest,
    ContainerSummary,
    PortBinding,
)
from tovarincore._container_helper.errors import ContainerError, ContainerNameTakenError, name_taken
from tovarincore._container_helper.limit import TimeLimit
from tovarincore._container_helper.records import UUID_LABEL, VERSION_LABEL
from tovarincore._container_helper.worker_token import choose_token
from tovarincore.cloud_conf import ConfigError
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import CoreDef, OPResultErrorCode

_ON_THE_WAY_OUT = ("stopping", "removing")
_MEBIBYTE = 1024 * 1024
# Long enough for a worker to say goodbye; a short operation limit leaves it less.
_LONGEST_GRACE_SECONDS = 5
# Between two looks at a container that is on its way in or out: twice as long each time.
_FIRST_PAUSE_SECONDS = 0.05
_LONGEST_PAUSE_SECONDS = 0.8


def find(engine: ContainerEngine) -> ContainerSummary | None:
    """The worker container; a stranger's of the same name is none."""
    container = engine.find_container(core_conf_glbl.container__name)
    return container if container is not None and UUID_LABEL in container.labels else None


def launch(engine: ContainerEngine, version: str, limit: TimeLimit) -> ContainerSummary:
    """Create and start the container, or start the one that exists.

    An engine keeps the name for a container before it lists it, and until its removal ends. A name without a
    container is waited for: it becomes the container of another launch, or it becomes free.
    """
    pause = _FIRST_PAUSE_SECONDS
    while True:
        container = engine.find_container(core_conf_glbl.container__name)
        if container is None:
            with suppress(ContainerNameTakenError):
                return _create_and_start(engine, version)
        elif UUID_LABEL not in container.labels:
            raise name_taken(container.name)
        elif container.status not in _ON_THE_WAY_OUT:
            try:
                return _start_existing(engine, container, version)
            except ContainerError as error:
                if not _is_passing(engine, container, error):
                    raise
        if limit.remaining() < pause:
            raise _name_is_kept()
        time.sleep(pause)
        pause = min(2 * pause, _LONGEST_PAUSE_SECONDS)


def _is_passing(engine: ContainerEngine, container: ContainerSummary, error: ContainerError) -> bool:
    """Whether a container could not be started because it is on its way in or out."""
    # Docker lists a new container a moment before it knows the id.
    if error.error_code is OPResultErrorCode.NOT_FOUND:
        return True
    now = find(engine)
    return now is None or now.container_id != container.container_id or now.status in _ON_THE_WAY_OUT


def start(engine: ContainerEngine, reboot: bool) -> None:
    """Start the container, letting a paused one go on; stop it first for a reboot."""
    container = _find_to_change(engine)
    if reboot:
        _wake(engine, container)
        engine.restart_container(container.container_id, _grace_seconds())
    else:
        _start(engine, container)
    _find_reachable(engine)


def stop(engine: ContainerEngine) -> None:
    """Stop the container."""
    container = _find_to_change(engine)
    _wake(engine, container)
    engine.stop_container(container.container_id, _grace_seconds())


def remove(engine: ContainerEngine) -> None:
    """Kill and remove the container, if there is one."""
    container = find(engine)
    if container is None:
        return
    try:
        engine.remove_container(container.container_id)
    except ContainerError:
        # Podman refuses to kill what ends or goes at that moment.
        left = find(engine)
        if left is not None and left.container_id == container.container_id:
            engine.remove_container(container.container_id)


def _create_and_start(engine: ContainerEngine, version: str) -> ContainerSummary:
    # Imported here: few processes create a container.
    import uuid

    token = choose_token()
    container_id = engine.create_container(
        ContainerRequest(
            name=core_conf_glbl.container__name,
            image=f"{core_conf_glbl.container__image}:{version}",
            labels={UUID_LABEL: str(uuid.uuid4()), VERSION_LABEL: version},
            environment={CoreDef.WORKER_TOKEN_VARIABLE: token.value},
            published_port=core_conf_glbl.container__published_port,
            worker_port=core_conf_glbl.container__worker_port,
            memory_bytes=core_conf_glbl.container__memory_mib * _MEBIBYTE,
            cpu_count=core_conf_glbl.container__cpu_count,
        )
    )
    try:
        token.keep()
        _start_stopped(engine, container_id)
        return _find_reachable(engine)
    except (ContainerError, ConfigError):
        # A container that never ran, or that nothing can reach, would stand in the way of the next launch.
        with suppress(ContainerError):
            engine.remove_container(container_id)
        raise


def _start_existing(engine: ContainerEngine, container: ContainerSummary, version: str) -> ContainerSummary:
    existing_version = container.labels.get(VERSION_LABEL, "unknown")
    if existing_version != version:
        raise ContainerError(
            f'Worker container "{container.name}" of version {existing_version} exists: '
            f"terminate it before launching version {version}."
        )
    _start(engine, container)
    return _find_reachable(engine)


def _find_to_change(engine: ContainerEngine) -> ContainerSummary:
    container = find(engine)
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
        _start_stopped(engine, container.container_id)


def _start_stopped(engine: ContainerEngine, container_id: str) -> None:
    try:
        engine.start_container(container_id)
    except ContainerError:
        # Podman refuses the slower of two starts at the same time.
        now = find(engine)
        if now is None or (now.container_id, now.status) != (container_id, "running"):
            raise


def _wake(engine: ContainerEngine, container: ContainerSummary) -> bool:
    """Let a paused container go on, which otherwise sits out its grace time; says whether it was one."""
    paused = container.status == "paused"
    if paused:
        engine.unpause_container(container.container_id)
    return paused


def _grace_seconds() -> int:
    return min(_LONGEST_GRACE_SECONDS, int(core_conf_glbl.container__operation_seconds / 2))


def _name_is_kept() -> ContainerNameTakenError:
    return ContainerNameTakenError(
        f'The container engine keeps the name "{core_conf_glbl.container__name}" for a container that it '
        "does not list, or does not finish removing: another launch or termination takes long. Try again; if "
        "that does not help, restart the engine.",
        OPResultErrorCode.TIMEOUT,
    )
