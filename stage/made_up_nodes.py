"""Made-up nodes of three regions, the same each time, for screens that are drawn and measured."""

from __future__ import annotations

import math
import threading
from collections.abc import Callable
from datetime import datetime, timedelta, timezone
from typing import cast

from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion, K8sRegion, NodeState
from tovarincore.command.context.access import Access
from tovarincore.command.watching.looks import Look, Lookout
from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["NOW", "MadeUpLookout"]

NOW = datetime(2026, 1, 5, 9, 0, tzinfo=timezone.utc)
_GIBIBYTE = 1 << 30
_KINDS = ("web", "trainer", "batch", "db")
_SILENT = OPResult(error=True, error_code=OPResultErrorCode.TIMEOUT, msg="no answer within 2 s")


class MadeUpLookout:
    """Stands in the place of a :class:`Lookout`: its regions have as many nodes as it is told.

    :param count: how many nodes there are in all
    :param lost: the last region cannot be refreshed
    """

    def __init__(self, count: int, lost: bool = False) -> None:
        self.regions = [
            CloudRegion("eu-central-1", "AWS"),
            CloudRegion("us-east-1", "AWS"),
            K8sRegion("lab"),
        ][: 1 if count < 10 else 3]
        self.places: dict[CloudRegion, Access] = {}
        self.looks_taken = 0
        self.lost = lost
        self.nodes = [self._node(number) for number in range(count)]

    def as_lookout(self) -> Lookout:
        """The same, as what it stands for."""
        return cast(Lookout, self)

    def launched(self) -> dict[tuple[str, str], datetime]:
        """When each node was launched."""
        return {
            (node.region.key, node.instance_id): NOW - timedelta(minutes=7 + 61 * number)
            for number, node in enumerate(self.nodes)
        }

    def look(self, on_look: Callable[[Look], None], cancel: threading.Event | None = None) -> None:
        """Give each region's nodes, with loads that go up and down from look to look."""
        self.looks_taken += 1
        for number, node in enumerate(self.nodes):
            if node.ready:
                node.cpu_percent = round(50 + 49 * math.sin(number + self.looks_taken / 2), 1)
        for region in self.regions:
            nodes = [node for node in self.nodes if node.region == region]
            silent = {
                node.instance_id: _SILENT
                for node in nodes
                if node.state is NodeState.RUNNING and not node.ready
            }
            failed = self.lost and region is self.regions[-1]
            failure = "cannot connect to the API server at 127.0.0.1" if failed else ""
            on_look(Look(region, nodes, silent, failure, at=NOW.timestamp()))

    def _node(self, number: int) -> CloudNode:
        region = self.regions[number % len(self.regions)]
        state = NodeState.RUNNING
        if number % 11 == 5:
            state = NodeState.STOPPED
        elif number % 17 == 16:
            state = NodeState.STARTING
        node = CloudNode(
            region,
            f"i-{number:017x}",
            CloudInstanceTypeDef("t3.small" if number % 4 else "g4dn.xlarge", 2, 2048),
            f"0a1b2c3d-0000-4000-8000-{number:012d}",
            f"{_KINDS[number % 4]}-{number // 4 + 1:02}",
            dns_address=f"198.51.100.{number % 250 + 1}",
            state=state,
        )
        if state is NodeState.RUNNING and number % 9 != 1:
            node.ready = True
            node.memory_total_bytes = 16 * _GIBIBYTE
            node.memory_used_bytes = (2 + 5 * number % 13) * _GIBIBYTE
        return node
