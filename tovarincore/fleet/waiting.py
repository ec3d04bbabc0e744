"""Waiting until many nodes are where they should be."""

import threading
import time
from collections.abc import Callable, Iterable, Mapping
from contextlib import ExitStack
from dataclasses import dataclass, field
from typing import Literal

from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet.crew import Crew
from tovarincore.fleet.failures import Failure, failure_of_error, failure_of_result
from tovarincore.fleet.probing import FIRST_PROBES, ping
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["Missed", "Until", "WaitReport", "wait"]

Until = Literal["ready", "running", "stopped", "terminated"]
"""What nodes can be waited for: ``ready`` means that the worker answers."""

_GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)
_RESTING = (NodeState.STOPPING, NodeState.STOPPED)
_AIMS: dict[str, tuple[tuple[NodeState, ...], tuple[NodeState, ...]]] = {
    # What counts as reached, and from where it is not reached any more.
    "ready": ((), _GONE),
    "running": ((NodeState.RUNNING,), _GONE),
    "stopped": ((NodeState.STOPPED,), _GONE),
    "terminated": ((NodeState.TERMINATED,), ()),
}
_Listing = dict[str, CloudNode] | Failure


@dataclass(frozen=True)
class Missed:
    """A node that is not where it should be.

    :param node: the node as it was seen last
    :param why: for people
    """

    node: CloudNode
    why: str


@dataclass(frozen=True)
class WaitReport:
    """What came of waiting, or has come of it until now.

    :param reached: the nodes that are where they should be, in the order given, as they were seen last
    :param missed: those that are not, and why
    :param seconds: how long it took
    """

    reached: list[CloudNode] = field(default_factory=list)
    missed: list[Missed] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def complete(self) -> bool:
        """Whether every node is where it should be."""
        return not self.missed


def wait(
    nodes: Iterable[CloudNode],
    until: Until = "ready",
    timeout: float = 600.0,
    *,
    every: float = 3.0,
    unseen_seconds: float = 30.0,
    probes: int = 64,
    regions_at_once: int = 8,
    manager: CloudManager = cloud_manager_glbl,
    on_look: Callable[[WaitReport], None] | None = None,
    cancel: threading.Event | None = None,
) -> WaitReport:
    """Look at nodes again and again until all of them are where they should be, or cannot get there.

    The registries are not changed: the report has the records. A listing that fails is tried again, unless it
    is the first one of its region and was refused.

    :param nodes: the nodes; one that comes twice counts once
    :param until: ``ready`` (the worker answers), ``running``, ``stopped`` or ``terminated`` (a node that is
        not listed any more counts as terminated)
    :param timeout: longest time in seconds
    :param every: seconds between two looks
    :param unseen_seconds: how long a node may not be listed, or be listed as it was before: EC2 and API
        servers answer from copies
    :param probes: how many workers are pinged at the same time
    :param regions_at_once: how many providers are asked for their lists at the same time
    :param manager: the facade
    :param on_look: called in this thread after each look, with those that are not there yet as missed
    :param cancel: once it is set, the report comes as things are then
    :return: which nodes are there, which are not and why
    :raises ValueError: ``until`` is none of these
    """
    if until not in _AIMS:
        raise ValueError(f'until is "{until}"; allowed are {", ".join(_AIMS)}')
    begin = time.monotonic()
    given = {(node.region, node.instance_id): node for node in nodes}
    for region in dict.fromkeys(region for region, _ in given):
        # One after the other: two threads could make two providers for one region.
        manager.get_node_manager(region)
    cancel = cancel or threading.Event()
    watch = _Watch(given, until, unseen_seconds)
    with ExitStack() as stack:
        if any(region.cloud == "AWS" for region, _ in given):
            stack.enter_context(service_descriptions_shared())
        listers = stack.enter_context(Crew(regions_at_once, "tovarin-list"))
        probers = stack.enter_context(Crew(probes, "tovarin-probe", FIRST_PROBES))
        while watch.waiting:
            watch.look(manager, listers, probers)
            report = watch.report(time.monotonic() - begin)
            if on_look is not None:
                on_look(report)
            left = begin + timeout - time.monotonic()
            if not watch.waiting or left <= 0 or cancel.wait(min(every, left)):
                break
    return watch.report(time.monotonic() - begin)


class _Watch:
    """The nodes that are waited for, and what is known of each."""

    def __init__(
        self, nodes: Mapping[tuple[CloudRegion, str], CloudNode], until: Until, unseen_seconds: float
    ) -> None:
        self._seen = dict(nodes)
        self._until = until
        self._reached_in, self._hopeless_in = _AIMS[until]
        self._fresh_at = time.monotonic() + unseen_seconds
        self._listed: set[CloudRegion] = set()
        self._reached: set[tuple[CloudRegion, str]] = set()
        self._reasons = dict.fromkeys(nodes, "it has not been looked at")
        self.waiting = set(nodes)

    def look(self, manager: CloudManager, listers: Crew, probers: Crew) -> None:
        """Look once at every node that is waited for."""
        regions = dict.fromkeys(region for region, _ in self._seen if self._waits_in(region))
        listings = {region: listers.submit(_list, manager, region) for region in regions}
        pings = {}
        for region, listing in listings.items():
            for key in self._judge(region, listing.result()):
                pings[key] = probers.submit(ping, self._seen[key], lambda: None)
        for key, answer in zip(pings, probers.results(list(pings.values())), strict=True):
            if answer.success:
                self._reach(key)
            else:
                self._reasons[key] = answer.msg or "its worker does not answer"

    def report(self, seconds: float) -> WaitReport:
        """Return what has come of it."""
        return WaitReport(
            [node for key, node in self._seen.items() if key in self._reached],
            [
                Missed(node, self._reasons[key])
                for key, node in self._seen.items()
                if key not in self._reached
            ],
            seconds,
        )

    def _waits_in(self, region: CloudRegion) -> bool:
        return any(key[0] == region for key in self.waiting)

    def _judge(self, region: CloudRegion, listing: _Listing) -> list[tuple[CloudRegion, str]]:
        """Look at what a region lists; return the nodes whose workers to ask."""
        asked = []
        for key in [key for key in self.waiting if key[0] == region]:
            if isinstance(listing, Failure):
                self._reasons[key] = f"the region cannot be listed: {listing.why}"
                if listing.is_final and region not in self._listed:
                    self.waiting.discard(key)
            elif key[1] in listing:
                self._seen[key] = listing[key[1]]
                if self._place(key):
                    asked.append(key)
            else:
                self._unlisted(key)
        if not isinstance(listing, Failure):
            self._listed.add(region)
        return asked

    def _place(self, key: tuple[CloudRegion, str]) -> bool:
        node = self._seen[key]
        self._reasons[key] = f"it is {node.state.value.lower()}"
        if node.state in self._reached_in:
            self._reach(key)
        elif node.state in self._hopeless_in:
            self._give_up(key)
        elif node.state in _RESTING and self._until in ("ready", "running"):
            # Right after a start it may still be listed as it was before.
            self._give_up_unless_fresh(key)
        return self._until == "ready" and node.state is NodeState.RUNNING

    def _unlisted(self, key: tuple[CloudRegion, str]) -> None:
        self._reasons[key] = "it is not listed"
        if self._until == "terminated" and (
            key[0].cloud != "AWS" or self._seen[key].state in _GONE or not self._is_fresh()
        ):
            self._reach(key)
        elif self._until != "terminated":
            self._give_up_unless_fresh(key)

    def _is_fresh(self) -> bool:
        return time.monotonic() < self._fresh_at

    def _give_up_unless_fresh(self, key: tuple[CloudRegion, str]) -> None:
        if not self._is_fresh():
            self._give_up(key)

    def _give_up(self, key: tuple[CloudRegion, str]) -> None:
        self.waiting.discard(key)

    def _reach(self, key: tuple[CloudRegion, str]) -> None:
        self._reached.add(key)
        self.waiting.discard(key)


def _list(manager: CloudManager, region: CloudRegion) -> _Listing:
    try:
        nodes, result = manager.list_instances(region)
    except AssertionError:
        text = "an instance of a type that is not known stops the listing"
        return failure_of_result(OPResult(error=True, msg=text))
    except Exception as error:
        return failure_of_error(error)
    return failure_of_result(result) if nodes is None else {node.instance_id: node for node in nodes}
