"""EC2's codes for what it has no room for: a launch goes on with the next place, and nothing is repeated."""

from __future__ import annotations

from typing import Any

import pytest

from tests.fleet.accounts import HASTY, Account
from tovarincore.cloud_def import CloudInstances
from tovarincore.fleet import Place, launch
from tovarincore.testing.fakes import client_error


@pytest.mark.parametrize(
    "code",
    [
        "InsufficientCapacity",
        "InsufficientFreeAddressesInSubnet",
        "InsufficientHostCapacity",
        "InsufficientInstanceCapacity",
        "InsufficientReservedInstanceCapacity",
        "InsufficientVolumeCapacity",
        "InstanceLimitExceeded",
        "MaxSpotInstanceCountExceeded",
        "Unsupported",
        "VcpuLimitExceeded",
    ],
)
def test_the_next_place_is_tried_after(world: Account, code: str) -> None:
    """One request is refused for both nodes; then each is launched with the other type."""
    run = type(client := world.cloud.ec2(world.region)).run_instances.__wrapped__  # type: ignore[attr-defined]
    asked: list[str] = []

    def none_of_the_first(**request: Any) -> Any:
        asked.append(request["InstanceType"])
        if request["InstanceType"] == world.size.instance_type:
            raise client_error(code, "none is left")
        return run(client, **request)

    world.cloud.answers["ec2.run_instances"] = none_of_the_first
    other = CloudInstances.instance_type_list[1]
    report = launch(
        world.region,
        2,
        world.size,
        world.config,
        names="web-{}",
        at_once=1,
        fallbacks=[Place(instance_type=other)],
        patience=HASTY,
    )
    assert report.complete, report
    assert asked == [world.size.instance_type, other.instance_type, other.instance_type]
