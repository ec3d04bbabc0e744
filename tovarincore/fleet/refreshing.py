"""Refreshing the registries of many regions, with the workers' pings side by side."""

import threading
import time
from collections.abc import Callable, Iterable, Sequence
from concurrent.futures import FIRST_COMPLETED, Future, wait
from contextlib import ExitStack
from dataclasses import dataclass, field

from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.cloud_node import CloudManager, NodeManager, cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet.crew import Crew
from tovarincore.fleet.probing import FIRST_PROBES, ping
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["Refreshed", "refresh"]

_LOOK_SECONDS = 0.1
"""A sign to stop is seen so soon."""
_FAILED = "Error occurred while refreshing Cloud Worker list"


@dataclass(frozen=True)
class Refreshed:
    """What came of refreshing one region.

    :param region: the region
    :param result: what ``refresh_node_list`` would have returned
    :param listed: how many nodes the provider listed
    :param answered: how many workers answered
    :param silent: by instance id, why a worker of a running node did not answer
    :param seconds: how long it took
    """

    region: CloudRegion
    result: OPResult
    listed: int = 0
    answered: int = 0
    silent: dict[str, OPResult] = field(default_factory=dict)
    seconds: float = 0.0


def refresh(
    regions: Iterable[CloudRegion],
    probes: int = 64,
    regions_at_once: int = 8,
    *,
    manager: CloudManager = cloud_manager_glbl,
    on_refreshed: Callable[[Refreshed], None] | None = None,
    cancel: threading.Event | None = None,
) -> list[Refreshed]:
    """Bring the registries of regions up to date, as ``refresh_node_list`` does for each, but side by side.

    The registry of each region is replaced by what its provider lists, in that order; workers of running
    nodes are pinged, and those that answer are ready and tell their load; ids of workers are carried over. A
    region that fails keeps its registry, and does not keep the others. Pings take at most ``ceil(running
    nodes / probes) * 2`` seconds in all, and as much again where workers answer and are slow to tell their
    load. Few threads begin; others follow within hundredths of a second while workers do not answer at once.

    Credentials are those that are stored for a region, unless the program has already made a call for it with
    others: the facade keeps its providers.

    :param regions: the regions; one that comes twice is refreshed once
    :param probes: how many workers are pinged at the same time, in all regions together
    :param regions_at_once: how many providers are asked for their lists at the same time
    :param manager: the facade whose registries are meant
    :param on_refreshed: called in this thread with each region's outcome as soon as it is there
    :param cancel: once it is set, no ping begins and no registry changes any more; what is left comes back as
        error results
    :return: one outcome for each region, in the order given
    :raises ValueError: ``probes`` or ``regions_at_once`` is less than 1
    """
    if probes < 1 or regions_at_once < 1:
        raise ValueError(f"probes is {probes} and regions_at_once {regions_at_once}; allowed is 1 or more")
    wanted = list(dict.fromkeys(regions))
    cancel = cancel or threading.Event()
    outcomes: dict[CloudRegion, Refreshed] = {}
    begun: dict[Future[Refreshed], CloudRegion] = {}
    with ExitStack() as stack:
        if any(region.cloud == "AWS" for region in wanted):
            stack.enter_context(service_descriptions_shared())
        probers = stack.enter_context(Crew(probes, "tovarin-probe", FIRST_PROBES))
        listers = stack.enter_context(Crew(max(1, len(wanted)), "tovarin-list"))
        # Also when Ctrl-C ends this function: nothing may change behind the back of its caller.
        left = threading.Event()
        stack.callback(left.set)
        run = _Run(threading.Semaphore(regions_at_once), probers, (cancel, left))
        for region in wanted:
            try:
                # One after the other: two threads could make two providers for one region.
                provider = manager.get_node_manager(region)
            except Exception as error:
                outcomes[region] = Refreshed(region, _no_provider(region, error))
                if on_refreshed is not None:
                    on_refreshed(outcomes[region])
            else:
                begun[listers.submit(run.refresh, region, provider)] = region
        pending = set(begun)
        while pending:
            done, pending = wait(pending, _LOOK_SECONDS, FIRST_COMPLETED)
            for future in done:
                outcomes[begun[future]] = future.result()
                if on_refreshed is not None:
                    on_refreshed(future.result())
            if cancel.is_set():
                break
    stopped = OPResult(error=True, msg="the refresh was stopped")
    return [outcomes.get(region) or Refreshed(region, stopped) for region in wanted]


class _Run:
    """What the regions of one refresh share."""

    def __init__(self, listing: threading.Semaphore, probers: Crew, ends: Sequence[threading.Event]) -> None:
        self._listing = listing
        self._probers = probers
        self._ends = ends

    def refresh(self, region: CloudRegion, provider: NodeManager) -> Refreshed:
        start = time.monotonic()
        nodes: list[CloudNode] | None = None
        pings: dict[str, OPResult] = {}
        try:
            with self._listing:
                self._go_on()
                before = provider.get_node_list()
                nodes, result = provider.list_instances()
            if nodes is not None:
                running = [node for node in nodes if node.state == NodeState.RUNNING]
                ids = [node.instance_id for node in running]
                pings = dict(zip(ids, self._ping_all(running), strict=True))
                _carry_worker_ids(before, nodes)
                self._go_on()
                provider.set_node_list(nodes)
        except BaseException:  # what refresh_node_list catches
            provider.logger.debug(_FAILED, exc_info=True)
            result = OPResult(error=True, msg=_FAILED, exc_info=True)
        silent = {instance_id: answer for instance_id, answer in pings.items() if not answer.success}
        return Refreshed(
            region, result, len(nodes or ()), len(pings) - len(silent), silent, time.monotonic() - start
        )

    def _ping_all(self, nodes: list[CloudNode]) -> list[OPResult]:
        pings = [self._probers.submit(ping, node, self._go_on) for node in nodes]
        try:
            return list(self._probers.results(pings))
        finally:
            # A failure that is not a worker's fails the region: its other pings are of no use then.
            for future in pings:
                future.cancel()

    def _go_on(self) -> None:
        if any(end.is_set() for end in self._ends):
            raise InterruptedError("the refresh was stopped")


def _carry_worker_ids(before: list[CloudNode], nodes: list[CloudNode]) -> None:
    by_id: dict[str, list[CloudNode]] = {}
    for node in nodes:
        by_id.setdefault(node.instance_id, []).append(node)
    for old in before:
        if old.worker_id_list:
            for node in by_id.get(old.instance_id, ()):
                node.worker_id_list = old.worker_id_list.copy()


def _no_provider(region: CloudRegion, error: Exception) -> OPResult:
    if isinstance(error, AssertionError) and not str(error):
        msg = f"no credentials that can be used are stored for the region {region.key}"
    else:
        msg = str(error) or type(error).__name__
    return OPResult(error=True, msg=msg, exc_info=True)
