"""Finding one record: by its ids, or the next that is ready."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, instance_id, manager, nodes, uuid


def finding(place: str, number: int, index: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        return {"manager": manager(module, nodes(number)), "wanted": uuid(index)}

    return Scenario(f"find, {place}", goal, "manager.find_node_by_uuid(wanted)", prepare)


def missing(number: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        return {"manager": manager(module, nodes(number)), "wanted": instance_id(number + 1)}

    return Scenario(f"find, miss in {number:,}", goal, "manager.find_node_by_instance_id(wanted)", prepare)


def ready(place: str, number: int, index: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        records = nodes(number)
        records[index].ready = True
        return {"manager": manager(module, records)}

    return Scenario(f"ready node, {place}", goal, "manager.get_ready_node_next_in_line()", prepare)


SCENARIOS = [
    finding("hit at the first", 1_000, 0, 50),
    ready("hit at the first", 1_000, 0, 50),
    finding("middle of 1,000", 1_000, 500, 18),
    ready("middle of 1,000", 1_000, 500, 18),
    finding("last of 1,000", 1_000, 999, 18),
    ready("last of 1,000", 1_000, 999, 18),
    missing(10, 4.8),
    missing(1_000, 8),
    missing(10_000, 3.5),
]
