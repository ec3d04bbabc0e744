"""A node manager whose provider answers as the test says."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import AWS_REGION, CallLog, Workers, recording
from tovarincore.core_def import OPResult

GOOD, BAD = OPResult(success=True), OPResult(error=True, msg="no answer")

OPERATIONS = (
    "launch_node",
    "list_instances",
    "start_node",
    "stop_node",
    "terminate_node",
    "list_instance_templates",
    "list_instance_types",
)


def provider_class(cloud_node: ModuleType, *left_out: str) -> Any:
    """Return a subclass of NodeManager that overrides its abstract operations but for those named."""
    body = {name: lambda self, *args, **kwargs: None for name in OPERATIONS if name not in left_out}
    return type(cloud_node.NodeManager)("Provider", (cloud_node.NodeManager,), body)


@pytest.fixture
def manager(cloud_node: ModuleType, log: CallLog) -> Any:
    """A manager of an empty registry."""
    return provider_class(cloud_node)(AWS_REGION)


@pytest.fixture(params=[RuntimeError, KeyboardInterrupt, SystemExit, GeneratorExit])
def fault(request: pytest.FixtureRequest) -> Any:
    """A failure of each kind, those that are no Exception included."""
    return request.param("broken")


@pytest.fixture
def workers(cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch) -> Workers:
    """The workers that answer the pings of a test."""
    workers = Workers(log, **{"i-1": GOOD})
    monkeypatch.setattr(cloud_node, "WebSocketClient", workers)
    return workers


def listing(manager: Any, answer: Any) -> None:
    """Let the provider answer so."""
    manager.list_instances = recording(CallLog(), "list_instances", answer)


@pytest.fixture
def break_at(
    cloud_node: ModuleType, manager: Any, workers: Workers, monkeypatch: pytest.MonkeyPatch
) -> Callable[[str, BaseException], None]:
    """Lets one step of a refresh fail: the ping, the statistics, a method or a name of the module."""

    def break_it(at: str, fault: BaseException) -> None:
        broken = recording(CallLog(), at, fault)
        if at == "ping":
            workers.pings["i-1"] = fault
        elif at == "statistics":
            workers.refreshed = broken
        elif hasattr(manager, at):
            setattr(manager, at, broken)
        else:
            monkeypatch.setattr(cloud_node, at, broken)

    return break_it
