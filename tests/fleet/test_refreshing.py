"""Refreshing many regions at once."""

from __future__ import annotations

import os
import threading
import time
from typing import Any

import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from tests.fleet.worlds import (
    FAILURE,
    RandomRegion,
    World,
    facade,
    listing_of,
    node_of,
    placed,
    raising,
    random_regions,
    random_workers,
)
from tests.thorough import sized
from tovarincore.cloud_def import CloudRegion, K8sRegion, NodeState
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet import Refreshed, refresh
from tovarincore.testing.fakes import client_error, patched_cloud_node

WORLDS = int(os.environ.get("TOVARIN_FLEET_WORLDS", str(sized(60, 200))))

pytestmark = pytest.mark.usefixtures("own_settings")


def seen(manager: CloudManager, regions: list[RandomRegion], results: list[OPResult]) -> list[Any]:
    """What a refresh can be told by: results and registries."""
    return [
        (result, result.traceback_text is None, manager.get_node_list(entry.region))
        for entry, result in zip(regions, results, strict=True)
    ]


@settings(max_examples=WORLDS, deadline=None)
@given(random_regions(), random_workers(), st.integers(1, 4), st.integers(1, 3))
def test_the_effect_is_that_of_one_refresh_after_the_other(
    regions: list[RandomRegion], workers: dict[str, Any], probes: int, regions_at_once: int
) -> None:
    """On random worlds both give the same results and leave the same registries behind."""
    world = World({entry.region.name: entry.listing for entry in regions}, workers)
    with placed(world):
        one_by_one, together = facade(regions), facade(regions)
        expected = [one_by_one.refresh_node_list(entry.region) for entry in regions]
        refreshed = refresh([entry.region for entry in regions], probes, regions_at_once, manager=together)
        assert [outcome.region for outcome in refreshed] == [entry.region for entry in regions]
        assert seen(together, regions, [outcome.result for outcome in refreshed]) == seen(
            one_by_one, regions, expected
        )


def region_with(count: int, world: World, name: str = "r") -> CloudRegion:
    """A region with so many running nodes."""
    region = K8sRegion(name)
    world.listings[name] = listing_of([node_of(region, f"{name}-{number}") for number in range(count)])
    return region


def test_silent_workers_are_waited_for_side_by_side() -> None:
    """Of twelve silent workers four are waited for at a time, whatever region they are in."""
    world = World(silent_seconds=0.1, at_once=4)
    regions = [region_with(6, world, "r1"), region_with(6, world, "r2")]
    with placed(world):
        outcomes = refresh(regions, probes=4, manager=CloudManager())
    assert world.most_at_once["pings"] == 4
    assert [(len(outcome.silent), outcome.answered) for outcome in outcomes] == [(6, 0), (6, 0)]


def test_providers_are_asked_side_by_side_up_to_the_limit() -> None:
    """Of five regions two are listed at a time."""
    world = World(at_once=2)
    regions = [K8sRegion(f"r{number}") for number in range(5)]

    def slow() -> object:
        world.take(0.05)
        return [], OPResult(success=True)

    world.listings = {region.name: slow for region in regions}
    with placed(world):
        assert all(outcome.result.success for outcome in refresh(regions, 9, 2, manager=CloudManager()))
    assert world.most_at_once["listings"] == 2


def test_an_outcome_tells_what_was_found() -> None:
    """Counts, reasons of silence and a duration; a region that comes twice is refreshed once."""
    world = World(workers={"r-0": (0.0, 3.0)})
    region = region_with(2, world)
    seen_at_once: list[Refreshed] = []
    with placed(world):
        (outcome,) = refresh(
            [region, K8sRegion("r")], manager=CloudManager(), on_refreshed=seen_at_once.append
        )
    assert (outcome.region, outcome.listed, outcome.answered) == (region, 2, 1)
    assert outcome.silent == {"r-1": FAILURE}
    assert outcome.seconds > 0
    assert seen_at_once == [outcome]
    assert sorted(world.pinged) == ["r-0", "r-1"]


def test_nodes_that_do_not_run_are_not_pinged() -> None:
    """As one refresh after the other does not either."""
    region = K8sRegion("r")
    world = World({"r": listing_of([node_of(region, state.value, state) for state in NodeState])})
    with placed(world):
        refresh([region], manager=CloudManager())
    assert world.pinged == ["Running"]


def test_a_region_without_a_provider_does_not_keep_the_others() -> None:
    """Its outcome says why: no credentials, or a kind that does not exist."""
    with patched_cloud_node() as cloud:
        good = CloudRegion("eu-central-1", "AWS")
        poor, odd = CloudRegion("us-east-1", "AWS"), CloudRegion("somewhere", "azure")
        cloud.conf.delete_cloud_conf(poor)
        outcomes = refresh([poor, good, odd])
        assert [outcome.result.success for outcome in outcomes] == [False, True, False]
        assert (
            outcomes[0].result.msg
            == "no credentials that can be used are stored for the region AWS:us-east-1"
        )
        assert outcomes[2].result.msg == "Cloud Region azure is not supported"


def test_a_provider_that_fails_keeps_its_registry_alone() -> None:
    """The failure of one region is its own."""
    world = World()
    good = region_with(1, world, "good")
    bad = K8sRegion("bad")
    world.listings["bad"] = raising(RuntimeError("down"))
    with placed(world):
        manager = CloudManager()
        manager.get_node_manager(bad).set_node_list([node_of(bad, "kept")])
        first, second = refresh([bad, good], manager=manager)
        assert first.result.msg == "Error occurred while refreshing Cloud Worker list"
        assert first.result.traceback_text is not None and "down" in first.result.traceback_text
        assert [node.name for node in manager.get_node_list(bad)] == ["kept"]
        assert second.result.success


def test_a_refresh_that_is_told_to_stop_changes_nothing_more() -> None:
    """What had not begun is left out, the registry stays, and the outcome is an error."""
    cancel = threading.Event()

    class Pinged(list[str]):
        """Tells to stop with the first ping."""

        def append(self, instance_id: str) -> None:
            super().append(instance_id)
            cancel.set()

    world = World(pinged=Pinged(), silent_seconds=0.1)
    region = region_with(20, world)
    with placed(world):
        manager = CloudManager()
        (outcome,) = refresh([region], probes=2, manager=manager, cancel=cancel)
        assert outcome.result.error
        assert len(world.pinged) <= 4
        assert manager.get_node_list(region) == []


def test_ctrl_c_ends_the_wait_and_no_registry_changes_afterwards() -> None:
    """Whoever catches the interrupt can rely on what the registries hold."""
    world = World(silent_seconds=0.3)
    region = region_with(3, world)

    def interrupt(outcome: Refreshed) -> None:
        raise KeyboardInterrupt

    with placed(world):
        manager = CloudManager()
        quick = region_with(0, world, "quick")
        with pytest.raises(KeyboardInterrupt):
            refresh([quick, region], manager=manager, on_refreshed=interrupt)
        time.sleep(0.5)
        assert manager.get_node_list(region) == []


@pytest.mark.parametrize("probes, regions_at_once", [(0, 1), (1, 0), (-1, 8)])
def test_limits_below_one_are_refused(probes: int, regions_at_once: int) -> None:
    """A limit of nothing would wait for ever."""
    with pytest.raises(ValueError, match="allowed is 1 or more"):
        refresh([], probes, regions_at_once)


def test_no_regions_are_nothing_to_do() -> None:
    """An empty list gives an empty list."""
    assert refresh([]) == []


def test_the_facade_of_the_package_is_the_one_that_is_refreshed() -> None:
    """Amazon regions too, with what is stored for them; EC2's own failure is an error result."""
    region = CloudRegion("eu-central-1", "AWS")
    with patched_cloud_node() as cloud:
        assert refresh([region])[0].result == cloud_manager_glbl.refresh_node_list(region)
        cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")
        assert refresh([region])[0].result == cloud_manager_glbl.refresh_node_list(region)
