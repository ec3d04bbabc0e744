"""Storing one record, and changing the state of one."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, instance_id, manager, nodes
from tovarincore.cloud_def import NodeState


def storing(module: ModuleType) -> dict[str, Any]:
    records = nodes(1_000)
    return {"manager": manager(module, records), "node": records[500]}


def changing(place: str, index: int, goal: float) -> Scenario:
    def prepare(module: ModuleType) -> dict[str, Any]:
        return {
            "manager": manager(module, nodes(1_000)),
            "wanted": instance_id(index),
            "state": NodeState.STOPPING,
        }

    statement = "manager.change_node_state(wanted, state)"
    return Scenario(f"change_node_state, {place} of 1,000", goal, statement, prepare)


SCENARIOS = [
    Scenario("set_node, middle of 1,000", 23, "manager.set_node(node)", storing),
    changing("first", 0, 3.5),
    changing("middle", 500, 8),
]
