"""Fixtures for tests on a real container engine: one engine for a process, an empty region for each test."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from stage.engine import ContainerEngineServer, EngineNotRunnable
from stage.local_region import LocalRegion, local_settings
from stage.ports import free_port
from stage.settings import settings_of
from tovarincore.testing.worker_image import import_worker_image

__all__ = ["IMAGE", "VERSIONS", "engine_server", "local"]

VERSIONS = ["1.2.0", "1.10.0", "1.9.0"]
IMAGE = "tovarin-worker"


@pytest.fixture(scope="session")
def engine_server() -> Iterator[ContainerEngineServer]:
    """An engine with three versions of the worker image; where none can run, the tests are skipped."""
    with ExitStack() as cleanup:
        try:
            server = cleanup.enter_context(ContainerEngineServer())
        except EngineNotRunnable as reason:
            pytest.skip(f"no container engine can run here: {reason}")
        with server.client() as client:
            import_worker_image(client, IMAGE, VERSIONS)
        yield server


@pytest.fixture
def local(engine_server: ContainerEngineServer, tmp_path: Path) -> Iterator[LocalRegion]:
    """The local region on the engine, without any container; removes what the test left."""
    port = free_port()
    with engine_server.client() as client, settings_of(tmp_path, local_settings(engine_server, port)):
        local = LocalRegion(engine_server, client, port)
        assert local.refresh().success
        yield local
        engine_server.go_on()
        for container in client.containers(all=True):
            client.remove_container(container["Id"], force=True)
