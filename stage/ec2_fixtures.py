"""Fixtures for tests on an emulated EC2: one endpoint for a module, a fresh account for each test."""

from __future__ import annotations

import functools
import gc
from collections.abc import Callable, Hashable, Iterator
from typing import Any

import pytest
from botocore import hooks
from botocore.client import ClientCreator
from botocore.loaders import JSONFileLoader, Loader

from stage.ec2 import Ec2World, ec2_world
from stage.ec2_endpoint import Ec2Endpoint
from tovarincore.testing.reference_worker import ReferenceWorker

__all__ = ["ec2", "ec2_endpoint", "healthy_worker", "sdk_data_read_once"]

_SDK_MADE: dict[Hashable, Any] = {}


def _judged_once(judge: Callable[[Any], Any]) -> Callable[[Any], Any]:
    """The judgement of a hook, made once for each function: every session registers the same hundred."""
    of_function = functools.cache(judge)
    return lambda hook: of_function(getattr(hook, "__func__", hook))


def _once(method: Callable[..., Any], key: Callable[..., Hashable]) -> Callable[..., Any]:
    """The method, called once for each key of its arguments in all of this process."""

    def remembered(self: Any, *arguments: Any, **named: Any) -> Any:
        place = (method.__qualname__, key(self, *arguments, **named))
        if place not in _SDK_MADE:
            _SDK_MADE[place] = method(self, *arguments, **named)
        # A copy of what callers change.
        return dict(made) if isinstance(made := _SDK_MADE[place], dict) else made

    return remembered


@pytest.fixture(scope="module")
def sdk_data_read_once() -> Iterator[None]:
    """Let the SDK read its data and write a client's methods once.

    The facade makes a client for every request.
    """
    with pytest.MonkeyPatch.context() as patched:
        for owner, name, key in (
            (JSONFileLoader, "load_file", lambda loader, path: path),
            (Loader, "list_available_services", lambda loader, type_name: (*loader.search_paths, type_name)),
            (ClientCreator, "_create_methods", lambda creator, service_model: service_model.service_name),
        ):
            patched.setattr(owner, name, _once(getattr(owner, name), key))
        patched.setattr(hooks, "accepts_kwargs", _judged_once(hooks.accepts_kwargs))
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
