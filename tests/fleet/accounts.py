"""A region of fakes with nodes in it, for tests that need no emulator."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass

from stage.patience import SETUP_SECONDS
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CpuPlanA,
)
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.fleet import Patience, launch
from tovarincore.testing.fakes import FakeCloud, patched_cloud_node

HASTY = Patience(seconds=SETUP_SECONDS, first_pause=0.01, longest_pause=0.02, unseen_seconds=0.05)


@dataclass
class Account:
    """An Amazon region in memory.

    :param cloud: the fakes
    :param region: the region
    :param size: a type
    :param config: what nodes are launched with
    """

    cloud: FakeCloud
    region: CloudRegion
    size: CloudInstanceTypeDef
    config: CloudInstanceConfig

    def launched(self, count: int, names: str = "web-{}") -> list[CloudNode]:
        """Nodes that were launched and run."""
        report = launch(self.region, count, self.size, self.config, names=names, patience=HASTY)
        assert report.complete, report
        self.listed()
        self.cloud.calls.clear()
        return report.launched

    def listed(self) -> list[CloudNode]:
        """The nodes as EC2 lists them, which lets them settle."""
        nodes, _ = cloud_manager_glbl.list_instances(self.region)
        assert nodes is not None
        return nodes

    def states(self) -> dict[str, str]:
        """The states of all instances by name."""
        return {node.name: node.state.value for node in self.listed()}


@contextmanager
def account() -> Iterator[Account]:
    """An empty region; everything is put back at the end."""
    with patched_cloud_node() as cloud:
        region = CloudRegion("eu-central-1", "AWS")
        template = cloud_manager_glbl.get_default_instance_template(region, None, CpuPlanA())
        assert template is not None
        yield Account(
            cloud, region, CloudInstances.instance_type_list[0], CloudInstanceConfig(20, {}, template)
        )
