"""Nodes for the length of a ``with`` block."""

import threading
import time
from collections.abc import Callable, Iterator, Sequence
from concurrent import futures
from contextlib import contextmanager, suppress
from typing import Any

from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    NodeState,
)
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.fleet.attempts import NotLaunched, Patience
from tovarincore.fleet.crew import Crew
from tovarincore.fleet.launching import LaunchReport, Place, launch
from tovarincore.fleet.ledger import Ledger
from tovarincore.fleet.lifecycle import ActionReport, terminate
from tovarincore.fleet.waiting import Until, WaitReport, wait

__all__ = ["FleetError", "temporary_nodes"]

_GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)


class FleetError(Exception):
    """Not every node is as it should be; the text names them.

    :param what: what was wanted
    :param report: what came of it
    """

    def __init__(self, what: str, report: LaunchReport | WaitReport | ActionReport) -> None:
        if isinstance(report, LaunchReport):
            missing = [(entry.name, entry.why) for entry in report.not_launched]
        else:
            entries = report.missed if isinstance(report, WaitReport) else report.not_done
            missing = [(f"{entry.node.name} ({entry.node.instance_id})", entry.why) for entry in entries]
        names: dict[str, list[str]] = {}
        for name, why in missing:
            names.setdefault(why, []).append(name)
        super().__init__(f"{what}: " + "; ".join(f"{', '.join(names[why])}: {why}" for why in names))
        self.report = report


@contextmanager
def temporary_nodes(
    region: CloudRegion,
    count: int,
    instance_type: CloudInstanceTypeDef,
    config: CloudInstanceConfig,
    *,
    fallbacks: Sequence[Place] = (),
    until: Until | None = "ready",
    timeout: float = 600.0,
    patience: Patience | None = None,
    ledger: Ledger | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: Callable[[CloudNode | NotLaunched], None] | None = None,
    cancel: threading.Event | None = None,
    **arguments: Any,
) -> Iterator[list[CloudNode]]:
    """Launch nodes, wait for them, give them to the body, and terminate all of them, whatever happens.

    All of them or none: when one cannot be launched or does not become ready, those that were launched are
    terminated and the body does not run. Nodes of which it is not known whether they were launched are looked
    for and terminated too. The end cannot be interrupted: Ctrl-C takes effect behind it. A process that is
    killed ends nothing; its nodes are in the ledger.

    :param region: the region
    :param count: how many nodes
    :param instance_type: the type of all of them
    :param config: what all of them are launched with
    :param fallbacks: what is tried in turn when there is no capacity
    :param until: what to wait for before the body runs; ``None`` means not to wait
    :param timeout: longest time to wait, in seconds
    :param patience: how long requests are repeated, those of the end too
    :param ledger: where launches are noted; ``None`` means the user's own
    :param manager: the facade
    :param on_outcome: called with each node or failure of the launch as soon as it is there
    :param cancel: once it is set, launch and wait end early, with :class:`FleetError`
    :param arguments: what else :func:`launch` takes, other than ``if_absent``
    :return: the nodes, as they were seen last
    :raises FleetError: a node could not be launched, did not become ready in time, or could not be terminated
    :raises ValueError: an argument that cannot be used, or the local engine has a container already, which
        a launch would start and the end would remove
    """
    if "if_absent" in arguments:
        raise ValueError("if_absent cannot be used here: nodes that were there before would be ended")
    if region.cloud == "local":
        there, _ = manager.list_instances(region)
        if there:
            raise ValueError(
                f"the local engine has the container {there[0].name} already; terminate it first"
            )
    cancel = cancel or threading.Event()
    patience = patience or Patience()
    places = [region, *(place.region or region for place in fallbacks)]
    asked = _Asked(Ledger() if ledger is None else ledger)
    try:
        launched = launch(
            region,
            count,
            instance_type,
            config,
            fallbacks=fallbacks,
            patience=patience,
            ledger=asked,
            manager=manager,
            on_outcome=on_outcome,
            cancel=cancel,
            **arguments,
        )
        if not launched.complete:
            raise FleetError("not every node was launched", launched)
        nodes = launched.launched
        if until is not None:
            waited = wait(nodes, until, timeout, manager=manager, cancel=cancel)
            if not waited.complete:
                raise FleetError(f"not every node is {until}", waited)
            nodes = waited.reached
        yield nodes
    finally:
        regions = {place.key: place for place in places}
        _uninterrupted(lambda: _end(asked, regions, patience, manager))


class _Asked(Ledger):
    """A ledger that remembers what one launch has asked for and got."""

    def __init__(self, ledger: Ledger) -> None:
        super().__init__(ledger.path)
        self.nodes: list[CloudNode] = []
        self.open: dict[str, str] = {}

    def intend(self, region: str, uuid: str, name: str, instance_type: str) -> None:
        self.open[uuid] = region
        super().intend(region, uuid, name, instance_type)

    def launched(self, node: CloudNode, intent: str = "") -> None:
        self.nodes.append(node)
        self.open.pop(intent, None)
        super().launched(node, intent)

    def refused(self, region: str, uuid: str) -> None:
        self.open.pop(uuid, None)
        super().refused(region, uuid)


def _end(asked: _Asked, regions: dict[str, CloudRegion], patience: Patience, manager: CloudManager) -> None:
    _find_unknown(asked, regions, patience, manager)
    report = terminate(asked.nodes, reason="temporary", patience=patience, manager=manager)
    left = [entry for entry in report.not_done if _is_there(entry.node, manager)]
    if left:
        raise FleetError("not every node was terminated", ActionReport(report.done, left, report.seconds))


def _find_unknown(
    asked: _Asked, regions: dict[str, CloudRegion], patience: Patience, manager: CloudManager
) -> None:
    """Look for nodes whose request was cut short, for as long as they may not show in listings."""
    end = time.monotonic() + patience.unseen_seconds
    while asked.open:
        for key in set(asked.open.values()):
            # A listing that fails is tried again, too: nothing better can be done.
            with suppress(Exception):
                nodes, _ = manager.list_instances(regions[key])
                for node in nodes or ():
                    if node.uuid in asked.open:
                        asked.launched(node, node.uuid)
        if time.monotonic() >= end:
            return
        time.sleep(min(patience.first_pause, patience.unseen_seconds))


def _is_there(node: CloudNode, manager: CloudManager) -> bool:
    try:
        nodes, _ = manager.list_instances(node.region)
    except Exception:
        return True
    states = {listed.instance_id: listed.state for listed in nodes or ()}
    return nodes is None or states.get(node.instance_id, NodeState.TERMINATED) not in _GONE


def _uninterrupted(function: Callable[[], None]) -> None:
    """Call a function in a new thread; an interrupt of this one is raised after it ends."""
    interrupt: BaseException | None = None
    with Crew(1, "tovarin-end") as crew:
        call = crew.submit(function)
        while not call.done():
            try:
                futures.wait([call])
            except BaseException as error:
                interrupt = error
        call.result()
    if interrupt is not None:
        raise interrupt
