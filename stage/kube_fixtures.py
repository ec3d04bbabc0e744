"""Fixtures for the tests of the Kubernetes client: an API server inside the process and a namespace on it."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest

from stage.kube_api import KubeApi
from stage.kube_world import KubeWorld, kube_world
from stage.patience import HANG_SECONDS


@pytest.fixture(scope="session")
def shared_kube_api(tmp_path_factory: pytest.TempPathFactory) -> Iterator[KubeApi]:
    """One API server for all tests: making its certificate takes a while."""
    with KubeApi(tmp_path_factory.mktemp("kube-api")) as api:
        yield api


@pytest.fixture
def kube_api(shared_kube_api: KubeApi) -> Iterator[KubeApi]:
    """The API server, without faults and without memory of earlier requests."""
    shared_kube_api.requests.clear()
    yield shared_kube_api
    shared_kube_api.clear_faults()


@pytest.fixture
def kube(kube_api: KubeApi, tmp_path: Path) -> Iterator[KubeWorld]:
    """A fresh namespace; operations have plenty of time and listings come in pages of 100."""
    with kube_world(
        kube_api, tmp_path, {"kubernetes": {"operation_seconds": float(HANG_SECONDS), "page_size": 100}}
    ) as world:
        kube_api.requests.clear()
        yield world
