"""An emulated account for the command, and ways to run the command on it."""

from __future__ import annotations

import functools
import json
import os
import subprocess
import sys
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import click.testing
import jsonschema
import pytest
import tomli_w

from stage.ec2_fixtures import ec2, ec2_endpoint, healthy_worker, sdk_data_read_once
from stage.settings import settings_of
from tests.conftest import ROOT
from tovarincore._config_files.toml_file import read_toml
from tovarincore.command.app import cli
from tovarincore.command.context import lean_sdk
from tovarincore.core_conf import core_conf_glbl

# Named here, pytest finds them in this folder too.
__all__ = ["ec2", "ec2_endpoint", "healthy_worker", "sdk_data_read_once"]

SCHEMA = json.loads((ROOT / "docs" / "command.schema.json").read_bytes())
Run = Callable[..., click.testing.Result]


# For the processes that tests start: the user's cache that they share.
_of_processes: dict[str, str] = {}


@pytest.fixture(scope="session", autouse=True)
def lean_data_made_once(tmp_path_factory: pytest.TempPathFactory) -> Iterator[None]:
    """Each test has another cache, for which the command would read all of the SDK's data again."""
    _of_processes["XDG_CACHE_HOME"] = str(tmp_path_factory.mktemp("cache"))
    with pytest.MonkeyPatch.context() as patched:
        patched.setattr(lean_sdk, "_make", functools.cache(lean_sdk._make))
        yield


@pytest.fixture
def older_sdk(monkeypatch: pytest.MonkeyPatch) -> None:
    """An SDK that names no types besides those of the files."""
    monkeypatch.setattr("tovarincore._cloud_def.sdk_types._names_of_sdk", list)
    core_conf_glbl.reload()


@pytest.fixture
def no_account(tmp_path: Path) -> Iterator[Path]:
    """A machine on which nothing is configured; gives the folder of its configuration."""
    with settings_of(tmp_path, {}):
        yield tmp_path


@pytest.fixture
def run() -> Run:
    """Runs one command in this process, with text for its standard input."""

    def run_it(*arguments: str, answer: str = "") -> click.testing.Result:
        return click.testing.CliRunner().invoke(cli, list(arguments), input=answer)

    return run_it


@pytest.fixture
def run_json(run: Run) -> Callable[..., Any]:
    """Runs one command with --json and returns its item or items, after seeing that it went well."""

    def run_it(*arguments: str, answer: str = "") -> Any:
        result = run(*arguments, "--json", answer=answer)
        assert (result.exit_code, result.stderr) == (0, ""), result.output
        document = json.loads(result.stdout)
        check_document(document)
        return document["items"] if "items" in document else document["item"]

    return run_it


def check_document(document: Any) -> None:
    """Fail unless a document is as the published schema says."""
    jsonschema.Draft202012Validator(SCHEMA).validate(document)


def send_to_worker(pattern: str, port: int) -> None:
    """Let nodes of these names be reached at a port of this machine, for the rest of the test."""
    path = Path(os.environ["TOVARIN_CONF"])
    settings = read_toml(path)
    assert settings is not None
    settings["worker_addresses"][pattern] = f"127.0.0.1:{port}"
    path.write_text(tomli_w.dumps(settings))
    core_conf_glbl.reload()


def start_command(
    *arguments: str, module: str = "tovarincore", stdin: int = subprocess.DEVNULL
) -> subprocess.Popen[str]:
    """Start the command as a separate process in the test's surroundings, warnings being errors."""
    return subprocess.Popen(
        [sys.executable, "-W", "error", "-m", module, *arguments],
        env={**os.environ, **_of_processes, "PYTHONPATH": str(ROOT)},
        stdin=stdin,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def finish(process: subprocess.Popen[str], seconds: float = 60) -> tuple[int, str, str]:
    """Exit code, standard output and standard error of a process, waited for."""
    with process:
        stdout, stderr = process.communicate(timeout=seconds)
    return process.returncode, stdout, stderr
