"""The command in the local region, on a real container engine."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from stage.engine_fixtures import DOCKER, engine_server, local
from stage.local_region import LocalRegion
from stage.settings import settings_of
from tests.command.conftest import Run

__all__ = ["engine_server", "local"]

# The command does not see which engine it is.
on_docker = pytest.mark.parametrize("engine_server", [DOCKER], indirect=True)


@on_docker
def test_a_container_lives_from_launch_to_termination(
    run: Run, run_json: Callable[..., Any], local: LocalRegion
) -> None:
    """Launch with the newest image, wait, stop, start, reboot and terminate, each through the command."""
    launched = run("launch", "local", "--wait")
    assert launched.exit_code == 0, launched.output
    assert launched.stdout.endswith("is ready\n")
    (node,) = run_json("list", "local")
    assert (node["name"], node["state"], node["ready"]) == ("tovarin-worker", "Running", True)
    assert run_json("orphans", "local") == []
    assert run("stop", "local", "tovarin-worker").exit_code == 0
    assert run_json("show", "local", node["instance_id"])["state"] == "Stopped"
    assert run("start", "local", "tovarin-worker").exit_code == 0
    assert run("wait", "local", "tovarin-worker").exit_code == 0
    assert run("reboot", "local", "tovarin-worker").exit_code == 0
    assert run("terminate", "local", "tovarin-worker", "--yes").exit_code == 0
    assert run("list", "local").stdout == "No nodes in the region local.\n"


@on_docker
def test_images_are_listed_newest_first(run: Run, run_json: Callable[..., Any], local: LocalRegion) -> None:
    """The templates are the versions of the worker image, and the doctor names them."""
    assert [entry["version"] for entry in run_json("templates", "local")] == ["1.10.0", "1.9.0", "1.2.0"]
    doctor = run("doctor", "local")
    assert doctor.exit_code == 0, doctor.output
    assert doctor.stdout.splitlines()[-1] == (
        "ok      local engine: versions of tovarin-worker: 1.10.0, 1.9.0, 1.2.0; no worker"
    )


@on_docker
def test_another_version_needs_the_first_to_end(run: Run, local: LocalRegion) -> None:
    """There is one local container: the line says to terminate it first."""
    assert run("launch", "local", "--template", "1.9.0").exit_code == 0
    result = run("launch", "local", "--template", "1.2.0")
    assert result.exit_code == 1
    assert "terminate it before launching version 1.2.0" in result.stderr


@pytest.fixture
def no_engine(tmp_path: Path) -> Iterator[None]:
    """A socket that is not there."""
    with settings_of(tmp_path, {"container": {"engine_url": f"unix://{tmp_path}/gone.sock"}}):
        yield


@pytest.mark.parametrize("command", [["list"], ["launch"], ["templates"]])
def test_without_an_engine_there_is_one_line(run: Run, no_engine: None, command: list[str]) -> None:
    """The engine's absence is said with what to do, once."""
    result = run(*command, "local")
    assert (result.exit_code, result.stdout) == (5, "")
    (line,) = result.stderr.splitlines()
    assert "No container engine answers" in line
