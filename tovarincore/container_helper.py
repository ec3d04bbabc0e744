"""Runs the product's worker as the one local container of this machine."""

from __future__ import annotations

from collections.abc import Callable
from contextlib import closing
from typing import TypeVar

from tovarincore._container_helper import operations
from tovarincore._container_helper.docker_engine import client_settings, open_docker_engine
from tovarincore._container_helper.engine import ContainerEngine
from tovarincore._container_helper.errors import ContainerError, unreadable_answer
from tovarincore._container_helper.limit import TimeLimit
from tovarincore._container_helper.records import UUID_LABEL, VERSION_LABEL, node_of
from tovarincore._container_helper.versions import newest_first
from tovarincore._transport.deadline import run_within
from tovarincore._transport.failure import Failure
from tovarincore._transport.gate import RefusedName, check_version
from tovarincore.cloud_conf import ConfigError
from tovarincore.cloud_def import CloudNode
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult

__all__ = ["UUID_LABEL", "VERSION_LABEL", "ContainerError", "ContainerHelper", "client_settings"]

T = TypeVar("T")


class ContainerHelper:
    """The local worker container: at most one, known by its name and by the labels set here.

    Making a helper touches no engine. Every method opens a connection and closes it, and keeps nothing, so
    one helper may serve several threads. Every method ends within [container] operation_seconds (default
    10 s), whatever the engine does. Besides the errors below, each raises ConfigError when the settings or
    the credential store cannot be used, and nothing else.

    :param open_engine: connects to the engine within a limit
    """

    def __init__(self, open_engine: Callable[[TimeLimit], ContainerEngine] = open_docker_engine) -> None:
        self._open_engine = open_engine

    def list_tvr_container_image_versions(self) -> list[str]:
        """Return the tags of the worker image on the engine, newest version first.

        :return: an empty list when the engine has no such image
        :raises ContainerError: the engine does not answer, or not as an engine does
        """
        image = core_conf_glbl.container__image
        tags = self._operate("listing worker images", lambda engine, _: engine.list_image_tags(image))
        return newest_first(tags)

    def get_existing_node(self) -> CloudNode | None:
        """Return the record of the local worker container, or None when there surely is none.

        Its ``dns_address`` is 127.0.0.1, where [container] published_port is bound.

        :raises ContainerError: the engine does not answer, or not as an engine does
        """

        def find(engine: ContainerEngine, _: TimeLimit) -> CloudNode | None:
            container = operations.find(engine)
            return None if container is None else node_of(container)

        return self._operate("looking for the worker container", find)

    def run_tvr_container_image(self, version: str) -> tuple[CloudNode | None, OPResult]:
        """Run the worker image of a version: create a container, or start the existing one.

        Launches at the same time end with one container and the same node. An existing container of another
        version is an error: terminate it first. The worker is given the token stored for the region, else
        [worker] token, else a new one, which is then stored for the region.

        :param version: tag of the worker image
        :return: the node and success, or None and an error that says what to do
        """
        try:
            check_version(version)
            node = self._operate(
                f"starting worker version {version}",
                lambda engine, limit: node_of(operations.launch(engine, version, limit)),
            )
        except RefusedName as error:
            return None, OPResult(error=True, msg=str(error))
        except ContainerError as error:
            return None, error.as_result()
        return node, OPResult(success=True)

    def start_tovarin_container(self, reboot: bool = False) -> None:
        """Start the container; a paused one goes on.

        :param reboot: stop it first
        :raises ContainerError: it cannot be started or reached, or there is none
        """
        self._operate(
            "restarting the worker" if reboot else "starting the worker",
            lambda engine, _: operations.start(engine, reboot),
        )

    def stop_tovarin_container(self) -> None:
        """Stop the container; a stopped one stays as it is.

        :raises ContainerError: it cannot be stopped, or there is none
        """
        self._operate("stopping the worker", lambda engine, _: operations.stop(engine))

    def delete_tovarin_container(self) -> OPResult:
        """Kill the container and remove it.

        :return: success, also when there is none, so that deleting twice succeeds; or an error
        """
        try:
            self._operate("removing the worker container", lambda engine, _: operations.remove(engine))
        except ContainerError as error:
            return error.as_result()
        return OPResult(success=True)

    def _operate(self, doing: str, body: Callable[[ContainerEngine, TimeLimit], T]) -> T:
        """Run a body on an open engine within the limit. Nothing but the documented errors leaves it."""
        limit = TimeLimit(core_conf_glbl.container__operation_seconds, doing)

        def operation() -> T:
            with closing(self._open_engine(limit)) as engine:
                return body(engine, limit)

        try:
            return run_within(limit, operation, "container-operation")
        except (ContainerError, ConfigError):
            raise
        except Failure as error:
            raise ContainerError(str(error), error.error_code) from None
        except Exception as error:
            raise unreadable_answer(f"{type(error).__name__}: {error}") from None
