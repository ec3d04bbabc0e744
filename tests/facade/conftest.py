"""A facade for each test, and the providers that it may make."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.fakes import AWS_REGION, CallLog, Fake, recording
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion, K8sRegion

AUTH = AWSCloudAuth(aws_profile="work")
LOCAL = CloudRegion(name="local", cloud="local")
LAB = K8sRegion(name="lab")
PROVIDERS = {"AWSNodeManager": AWS_REGION, "LocalContainerNodeManager": LOCAL, "K8sNodeManager": LAB}


@pytest.fixture
def facade(cloud_node: ModuleType, log: CallLog) -> Any:
    """A new facade; making it logs nothing."""
    return cloud_node.CloudManager()


@pytest.fixture
def provider(facade: Any, log: CallLog) -> Fake:
    """A recording provider that the facade finds for every region, recording how it was asked for."""
    provider = Fake(log, "provider")
    facade._get_node_manager = recording(log, "_get_node_manager", lambda *args, **kwargs: provider)
    return provider


@pytest.fixture
def store(facade: Any, log: CallLog) -> Fake:
    """The facade's credential store, empty until the test says otherwise."""
    store = Fake(log, "store")
    facade.cloud_conf_manager = store
    return store


@pytest.fixture
def classes(cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch) -> None:
    """Recording functions in the place of the three provider classes, each giving its own name."""
    for name in PROVIDERS:
        monkeypatch.setattr(cloud_node, name, recording(log, name, lambda *a, name=name, **k: f"a {name}"))
