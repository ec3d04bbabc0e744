"""Fixtures for tests on an emulated EC2: one endpoint for a module, a fresh account for each test."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from botocore.loaders import JSONFileLoader

from stage.ec2 import Ec2World, ec2_world
from stage.ec2_endpoint import Ec2Endpoint
from tovarincore.testing.reference_worker import ReferenceWorker

__all__ = ["ec2", "ec2_endpoint", "healthy_worker", "sdk_data_read_once"]


@pytest.fixture(scope="module")
def sdk_data_read_once() -> Iterator[None]:
    """Let the SDK parse each of its data files once: the facade makes a client for every request."""
    load_file = JSONFileLoader.load_file
    files: dict[str, Any] = {}

    def load_once(loader: JSONFileLoader, path: str) -> Any:
        if path not in files:
            files[path] = load_file(loader, path)
        return files[path]

    with pytest.MonkeyPatch.context() as patched:
        patched.setattr(JSONFileLoader, "load_file", load_once)
        yield


@pytest.fixture(scope="module")
def ec2_endpoint(sdk_data_read_once: None) -> Iterator[Ec2Endpoint]:
    """The emulated EC2 of a test module."""
    with Ec2Endpoint() as endpoint:
        yield endpoint


@pytest.fixture(scope="session")
def healthy_worker() -> Iterator[ReferenceWorker]:
    """A worker that answers pings and statistics requests."""
    with ReferenceWorker() as worker:
        yield worker


@pytest.fixture
def ec2(ec2_endpoint: Ec2Endpoint, healthy_worker: ReferenceWorker) -> Iterator[Ec2World]:
    """A fresh account in the emulated EC2, with a fresh facade."""
    with ec2_world(ec2_endpoint, healthy_worker) as world:
        yield world
