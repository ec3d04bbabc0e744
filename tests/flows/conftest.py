"""The servers that the flow tests share, started once, and the world each test gets on them."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import pytest
from botocore.loaders import JSONFileLoader

from demo.endpoint import Ec2Endpoint
from stage.ec2 import Ec2World, ec2_world
from tovarincore.testing.reference_worker import ReferenceWorker


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
