"""Reading and replacing the whole registry of a region."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, manager, nodes


def reading(number: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        return {"manager": manager(module, nodes(number))}

    return Scenario(f"get_node_list, {number:,} nodes", goal, "manager.get_node_list()", prepare)


def replacing(number: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        records = nodes(number)
        return {"manager": manager(module, records), "records": records}

    return Scenario(f"set_node_list, {number:,} nodes", goal, "manager.set_node_list(records)", prepare)


SCENARIOS = [reading(10, 65), reading(1_000, 34), reading(10_000, 25), replacing(1_000, 25)]
