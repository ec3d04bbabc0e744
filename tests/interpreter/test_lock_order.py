"""The order in which the facade and its managers take locks has no circle, so that no threads wait in one."""

from __future__ import annotations

import random
import threading
from types import ModuleType, SimpleNamespace

import pytest

from tests.differential.hostile.operations import draw
from tests.differential.hostile.programs import WebSocketClient, outcome
from tests.differential.hostile.world import World

LOCKS = {
    "nodes": ("manager", "_NodeManager__node_list_lock"),
    "pool": ("facade", "webs_client_pool_lock"),
    "managers": ("facade", "_node_manager_hashset_lock"),
}


class Recorded:
    """A lock that notes which others the thread holds when it is taken."""

    def __init__(self, name: str, held: list[str], orders: set[tuple[str, str]]) -> None:
        self.name, self.held, self.orders = name, held, orders
        self.inner = threading.Lock()

    def acquire(self, timeout: float = -1) -> bool:
        taken = self.inner.acquire(timeout=timeout)
        self.orders.update((other, self.name) for other in self.held or ["nothing"])
        self.held.append(self.name)
        return taken

    def release(self) -> None:
        self.held.remove(self.name)
        self.inner.release()

    def locked(self) -> bool:
        return self.inner.locked()


def test_no_lock_is_taken_under_another(cloud_node: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    """In any operation; each lock is taken by some."""
    monkeypatch.setattr(cloud_node, "WebSocketClient", WebSocketClient)
    monkeypatch.setattr(cloud_node, "CloudConfManager", SimpleNamespace)
    held: list[str] = []
    orders: set[tuple[str, str]] = set()
    for seed in range(40):
        world = World(cloud_node, random.Random(seed))
        world.fill()
        for name, (owner, attribute) in LOCKS.items():
            setattr(getattr(world, owner), attribute, Recorded(name, held, orders))
        for _ in range(25):
            outcome(draw(world)[1])
            assert held == []
    assert orders == {("nothing", name) for name in LOCKS}
