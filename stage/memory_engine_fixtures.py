"""Fixtures for tests of the container helper on an engine in memory."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest

from stage.memory_engine import MemoryEngine
from stage.settings import settings_of
from tovarincore.container_helper import ContainerHelper

__all__ = ["SETTINGS", "engine", "helper", "settings"]

SETTINGS: dict[str, Any] = {
    "image": "acme/worker",
    "name": "the-worker",
    "published_port": 9001,
    "worker_port": 9002,
    "memory_mib": 64,
    "cpu_count": 0.5,
    "operation_seconds": 8,
}


@pytest.fixture(autouse=True)
def settings(tmp_path: Path) -> Iterator[None]:
    """The settings that the expectations below name."""
    with settings_of(tmp_path, {"container": SETTINGS, "worker": {"token": "a-token"}}):
        yield


@pytest.fixture
def engine() -> MemoryEngine:
    """An engine with two image versions and no container."""
    return MemoryEngine()


@pytest.fixture
def helper(engine: MemoryEngine) -> ContainerHelper:
    """A helper that connects to the engine in memory."""
    return ContainerHelper(engine.open)
