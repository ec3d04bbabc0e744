"""Fixtures for tests on an emulated EC2: one endpoint for a module, a fresh account for each test."""

from __future__ import annotations

import functools
import gc
from collections.abc import Iterator

import pytest

from stage.ec2 import Ec2World, ec2_world
from stage.ec2_endpoint import Ec2Endpoint
from stage.sdk_once import sdk_read_once
from tovarincore.testing.reference_worker import ReferenceWorker

__all__ = ["ec2", "ec2_endpoint", "healthy_worker", "sdk_data_read_once"]


@pytest.fixture(scope="module")
def sdk_data_read_once() -> Iterator[None]:
    """Let the SDK read its data and write a client's methods once in all of this process."""
    with sdk_read_once():
        yield


@pytest.fixture(scope="module")
def ec2_endpoint(sdk_data_read_once: None) -> Iterator[Ec2Endpoint]:
    """The emulated EC2 of a test module."""
    with Ec2Endpoint() as endpoint:
        _freeze_the_emulator()
        yield endpoint


@functools.cache
def _freeze_the_emulator() -> None:
    """Take it out of the collector's sight: it stays for good, and tests that collect need not look at it."""
    gc.collect()
    gc.freeze()


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
