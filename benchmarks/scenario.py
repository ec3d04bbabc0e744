"""What a scenario is, and the records, managers and modules that the scenarios work on."""

from __future__ import annotations

import copy
import importlib
from collections.abc import Callable
from dataclasses import dataclass
from types import ModuleType
from typing import Any

from tovarincore.cloud_def import (
    AWSCloudAuth,
    AWSCloudNode,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    NodeState,
)

MODULES = {"twin": "tests.twin.cloud_node", "ours": "tovarincore.cloud_node"}


@dataclass(frozen=True)
class Scenario:
    """One operation, measured on both modules.

    :param name: what is measured; stays, so that tables can be compared
    :param goal: least ratio of the twin's time to ours on CPython 3.10; goals.py has those of newer ones
    :param statement: Python statement to time
    :param prepare: gives, for a module, the names that the statement uses
    """

    name: str
    goal: float
    statement: str
    prepare: Callable[[ModuleType], dict[str, Any]]


def module(side: str) -> ModuleType:
    """The module of one side, ``"twin"`` or ``"ours"``."""
    return importlib.import_module(MODULES[side])


def region() -> CloudRegion:
    return CloudRegion("eu-central-1", "AWS", "Frankfurt")


def nodes(number: int, record: type[CloudNode] = AWSCloudNode) -> list[CloudNode]:
    """Records as a listing gives them: 15 fields, one region and one type record for all."""
    place = region()
    kind = CloudInstanceTypeDef("g4dn.xlarge", 4, 16384, 1, "T4")
    return [
        record(
            region=place,
            instance_id=instance_id(index),
            uuid=uuid(index),
            name="tovarin-node",
            instance_type_def=kind,
            dns_address=f"ec2-18-0-{index // 256}-{index % 256}.compute.amazonaws.com",
            state=NodeState.RUNNING,
            instance_profile_name="tovarin-node-profile",
            key_pair_name="tovarin-key",
        )
        for index in range(number)
    ]


def instance_id(index: int) -> str:
    return f"i-0a1b2c3d4e5{index:06x}"


def uuid(index: int) -> str:
    return f"6f9619ff-8b86-d011-b42d-00cf4f{index:06x}"


def manager(module: ModuleType, records: list[CloudNode]) -> Any:
    """A node manager of one Amazon region with these records in its registry."""
    auth = AWSCloudAuth(aws_access_key_id="id", aws_secret_access_key="secret")
    made = module.AWSNodeManager(region(), auth=auth, username="user")
    made.set_node_list(records)
    copy.deepcopy(records[:1])  # notes on the classes that they have no slots, once in the life of a process
    made.set_node_list(records)
    return made


def facade(module: ModuleType, provider: Any) -> Any:
    """A facade that knows the provider of the region."""
    made = module.CloudManager()
    made._cache_node_manager(region(), provider)
    return made
