"""One look at all regions: a refresh of their registries, and what it found in each."""

import re
import threading
import time
from collections.abc import Callable, Sequence
from dataclasses import dataclass, field, replace

from tovarincore import fleet
from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.errors.explain import explain
from tovarincore.command.nodes.activity import note_if_possible
from tovarincore.command.nodes.inventory import own_nodes
from tovarincore.command.output.text import one_line
from tovarincore.core_def import OPResult

__all__ = ["Look", "Lookout"]

# The last line of a traceback: what was raised, and its text.
_RAISED = re.compile(r"^([A-Za-z_][\w.]*)(?:: (.*))?$", re.MULTILINE)


@dataclass(frozen=True)
class Look:
    """What one look at a region found.

    :param region: the region
    :param nodes: the user's nodes, as its registry holds them; those of the look before when this one failed
    :param silent: by instance id, why the worker of a running node did not answer
    :param failure: why there is no new listing; empty when there is one
    :param code: the same in one word
    :param seconds: how long it took
    :param at: when it ended, in seconds since the epoch
    """

    region: CloudRegion
    nodes: list[CloudNode] = field(default_factory=list)
    silent: dict[str, OPResult] = field(default_factory=dict)
    failure: str = ""
    code: str = ""
    seconds: float = 0.0
    at: float = 0.0

    def why_not_ready(self, node: CloudNode) -> str:
        """Return why a worker does not answer, in a line; empty when it does."""
        if node.ready:
            return ""
        if node.instance_id in self.silent:
            msg = self.silent[node.instance_id].msg or "its worker does not answer"
            # The name stands beside it wherever it is shown.
            return one_line(msg.removeprefix(f"Worker of node {node.name}: "))
        return "" if node.state is NodeState.RUNNING else f"the node is {node.state.value.lower()}"


class Lookout:
    """Looks at regions again and again; a region that fails keeps what was known of it.

    It is made in the thread of the command, which knows with which credentials regions are opened; looks may
    be taken in any thread, one at a time.

    :param regions: the regions
    """

    def __init__(self, regions: Sequence[CloudRegion]) -> None:
        self.regions = list(regions)
        self.places: dict[CloudRegion, Access] = {}
        self._closed: dict[CloudRegion, Look] = {}
        self._last: dict[CloudRegion, Look] = {}
        for region in self.regions:
            try:
                self.places[region] = open_region(region)
            except Exception as error:
                failure = explain(error, region)
                self._closed[region] = Look(region, failure=failure.what, code=failure.code.name)

    def look(
        self, on_look: Callable[[Look], None], cancel: threading.Event | None = None, probes: int = 64
    ) -> None:
        """Look at every region once.

        :param on_look: called with each region's look as soon as it is there
        :param cancel: once it is set, the looks that are not there yet are left out
        :param probes: how many workers are asked at the same time
        """
        for look in self._closed.values():
            on_look(replace(look, at=time.time()))

        def found(outcome: fleet.Refreshed) -> None:
            if cancel is None or not cancel.is_set():
                look = self._last[outcome.region] = self._look_of(outcome)
                on_look(look)

        fleet.refresh(self.places, probes, cancel=cancel, on_refreshed=found)
        note_if_possible([node for look in self._last.values() for node in look.nodes])

    def _look_of(self, outcome: fleet.Refreshed) -> Look:
        region, now = outcome.region, time.time()
        if outcome.result.success:
            nodes = own_nodes(self.places[region], cloud_manager_glbl.get_node_list(region))
            own = {node.instance_id for node in nodes}
            silent = {key: result for key, result in outcome.silent.items() if key in own}
            return Look(region, nodes, silent, seconds=outcome.seconds, at=now)
        failure, code = _reason(outcome.result)
        before = self._last.get(region, Look(region))
        return replace(before, failure=failure, code=code, seconds=outcome.seconds, at=now)


def _reason(result: OPResult) -> tuple[str, str]:
    """Return in a line and in a word why a region was not refreshed."""
    code = result.error_code.value if result.error_code else result.provider_code
    raised = _RAISED.findall(result.traceback_text or "")
    if raised:
        # The result's own text says only that the refresh failed.
        name, text = raised[-1]
        code = code or name.rpartition(".")[2]
        return one_line(text or code), code
    return one_line(result.msg or "the provider gives no reason"), code or "Failed"
