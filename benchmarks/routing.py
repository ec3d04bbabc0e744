"""From the facade to the provider of a region."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, facade, manager, nodes, region


class StoredRegion:
    """A region whose key is an attribute and not a property."""

    def __init__(self) -> None:
        self.cloud = "AWS"
        self.hash_key = region().hash_key


def computed(module: ModuleType) -> dict[str, Any]:
    return {"facade": facade(module, manager(module, nodes(1))), "region": region()}


def stored(module: ModuleType) -> dict[str, Any]:
    return computed(module) | {"region": StoredRegion()}


def one_is_ready(module: ModuleType) -> dict[str, Any]:
    records = nodes(1_000)
    records[0].ready = True
    return {"facade": facade(module, manager(module, records)), "region": region()}


SCENARIOS = [
    Scenario("routing, hash_key computed", 2.2, "facade.get_node_manager(region)", computed),
    Scenario("routing, hash_key stored", 5.5, "facade.get_node_manager(region)", stored),
    Scenario("facade, next ready node", 25, "facade.get_ready_node_next_in_line(region)", one_is_ready),
]
