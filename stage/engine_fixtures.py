"""Fixtures for tests on real container engines: one of each kind, with an empty region for each test."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from stage.engine import ContainerEngineServer, EngineNotRunnable
from stage.engine_docker import DockerServer
from stage.engine_podman import PodmanServer
from stage.local_region import LocalRegion, local_settings
from stage.ports import free_port
from stage.settings import settings_of
from tovarincore.testing.worker_image import import_worker_image

__all__ = ["DOCKER", "IMAGE", "PODMAN", "VERSIONS", "engine_server", "local"]

VERSIONS = ["1.2.0", "1.10.0", "1.9.0"]
IMAGE = "tovarin-worker"


DOCKER = pytest.param(DockerServer, id="docker")
PODMAN = pytest.param(
    PodmanServer,
    id="podman",
    marks=pytest.mark.thorough(reason="Podman runs what differs between the engines only"),
)


@pytest.fixture(scope="session", params=[DOCKER, PODMAN])
def engine_server(request: pytest.FixtureRequest) -> Iterator[ContainerEngineServer]:
    """Each engine with three versions of the worker image; where one cannot run, its tests are skipped."""
    with ExitStack() as cleanup:
        try:
            server = cleanup.enter_context(request.param())
        except EngineNotRunnable as reason:
            pytest.skip(f"this container engine cannot run here: {reason}")
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
