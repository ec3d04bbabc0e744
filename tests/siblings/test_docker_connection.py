"""Finding a container engine, and what is said when there is none or it does not answer."""

from __future__ import annotations

import os
import socket
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import closing, suppress
from pathlib import Path
from typing import IO, Any

import pytest

from stage.engine_api import EngineApi
from stage.patience import SETUP_SECONDS, in_time
from stage.settings import settings_of
from tovarincore._container_helper.docker_engine import open_docker_engine
from tovarincore._container_helper.errors import ContainerError
from tovarincore._container_helper.limit import TimeLimit
from tovarincore.container_helper import ContainerHelper
from tovarincore.core_def import OPResultErrorCode

ROOT = Path(__file__).resolve().parents[2]


@pytest.fixture
def api(tmp_path: Path) -> Iterator[EngineApi]:
    """The endpoint, set as the engine in the configuration."""
    with EngineApi() as api, settings_of(tmp_path, {"container": {"engine_url": api.url}}):
        yield api


def _trickle(connection: IO[bytes]) -> None:
    with suppress(OSError):
        for byte in b"HTTP/1.1 200 OK\r\n" + 400 * b"X: y\r\n":
            connection.write(bytes([byte]))
            connection.flush()
            time.sleep(0.05)


@pytest.mark.parametrize("path", ["/_ping", "/containers/json"])
def test_an_answer_that_trickles_in_ends_at_the_limit(api: EngineApi, tmp_path: Path, path: str) -> None:
    """Every byte comes soon after the last one, yet the whole call is bounded."""
    api.answers["GET", path] = _trickle
    settings = {"engine_url": api.url, "operation_seconds": 0.4}
    with (
        in_time(0.4),
        settings_of(tmp_path, {"container": settings}),
        pytest.raises(ContainerError) as caught,
    ):
        ContainerHelper().get_existing_node()
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT


def test_no_request_is_sent_after_the_limit(api: EngineApi) -> None:
    """An operation that was left behind at its limit changes nothing later on."""
    limit = TimeLimit(SETUP_SECONDS, "testing")
    with closing(open_docker_engine(limit)) as engine:
        api.requests.clear()
        # As if the time were up.
        limit.reserve = SETUP_SECONDS
        with pytest.raises(ContainerError, match=rf"within {SETUP_SECONDS} s while testing"):
            engine.start_container("id-1")
    assert api.requests == []


@pytest.mark.parametrize(
    "answer",
    [
        pytest.param(lambda connection: connection.write(b"SSH-2.0-OpenSSH\r\n"), id="not-http"),
        pytest.param(lambda connection: None, id="hangs-up"),
        pytest.param((200, {"hello": "world"}), id="other-json"),
        pytest.param((200, "hello"), id="other-type"),
        pytest.param(
            lambda connection: connection.write(b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n<p>"), id="html"
        ),
    ],
)
def test_something_else_than_an_engine_is_reported(api: EngineApi, answer: Any) -> None:
    """The text names the address and the setting, whatever answers there."""
    api.answers["GET", "/_ping"] = answer
    api.api_version = None
    with pytest.raises(ContainerError, match=r"No container engine answers at unix://.*engine_url") as caught:
        open_docker_engine(TimeLimit(SETUP_SECONDS, "testing"))
    assert caught.value.error_code is OPResultErrorCode.ENGINE_UNAVAILABLE


def _missing(path: Path) -> None:
    """Put nothing there."""


def _abandoned(path: Path) -> None:
    with socket.socket(socket.AF_UNIX) as left_behind:
        left_behind.bind(str(path))


@pytest.mark.parametrize(
    ("put_there", "advice"),
    [
        pytest.param(_missing, r"install and start one .*engine_url in \[container\]", id="missing"),
        pytest.param(_abandoned, "it does not run, start it", id="stopped"),
    ],
)
def test_a_missing_engine_says_what_to_do(
    tmp_path: Path, put_there: Callable[[Path], None], advice: str
) -> None:
    """An engine that is not installed and one that does not run are told apart."""
    with EngineApi() as api:
        path = Path(api.url.removeprefix("unix://")).with_name("x.sock")
        put_there(path)
        with settings_of(tmp_path, {"container": {"engine_url": f"unix://{path}"}}):
            node, result = ContainerHelper().run_tvr_container_image("1.0")
    assert (node, result.error) == (None, True)
    assert result.error_code is OPResultErrorCode.ENGINE_UNAVAILABLE
    with pytest.raises(ContainerError, match=f"No container engine answers at unix://{path}: {advice}"):
        raise ContainerError(str(result.msg))


def test_a_socket_that_may_not_be_opened_names_the_group(
    api: EngineApi, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The usual reason is a user outside the engine's group."""

    def refuse(self: socket.socket, address: object) -> None:
        raise PermissionError(13, "Permission denied")

    monkeypatch.setattr(socket.socket, "connect", refuse)
    with pytest.raises(ContainerError, match=r"add the user to the engine's group \(docker\)"):
        open_docker_engine(TimeLimit(SETUP_SECONDS, "testing"))


def test_the_environment_names_the_engine_unless_the_setting_does(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """DOCKER_HOST counts as it does for the engine's own command."""
    with EngineApi() as api, settings_of(tmp_path, {}):
        monkeypatch.setenv("DOCKER_HOST", api.url)
        api.answers["GET", "/containers/json"] = (200, [])
        assert ContainerHelper().get_existing_node() is None
        assert [request.path for request in api.requests] == ["/_ping", "/containers/json"]


def test_a_missing_package_is_one_line_that_names_the_extra(
    api: EngineApi, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Without local containers, the engine's package need not be installed."""
    monkeypatch.setitem(sys.modules, "docker", None)
    _, result = ContainerHelper().run_tvr_container_image("1.0")
    assert result.msg == (
        "Local containers need the docker package: run pip install 'tovarincore[containers]'"
    )
    with pytest.raises(ContainerError, match=r"tovarincore\[containers\]"):
        ContainerHelper().get_existing_node()


def test_the_package_is_imported_at_first_use() -> None:
    """Importing the helper and making one need no engine package."""
    program = (
        "import sys; from tovarincore.container_helper import ContainerHelper; ContainerHelper(); "
        "print(sorted({'docker', 'requests'} & set(sys.modules)))"
    )
    done = subprocess.run(
        [sys.executable, "-c", program], cwd=ROOT, check=True, capture_output=True, text=True, timeout=60
    )
    assert done.stdout.strip() == "[]"


def test_a_program_ends_cleanly_after_a_call_that_was_left_behind(api: EngineApi) -> None:
    """The thread that still waits for the engine neither delays the end of the process nor disturbs it."""
    released = threading.Event()
    api.answers["GET", "/containers/json"] = lambda connection: released.wait(2 * SETUP_SECONDS)
    program = (
        "from tovarincore.container_helper import ContainerError, ContainerHelper\n"
        "try:\n    ContainerHelper().get_existing_node()\nexcept ContainerError as error:\n    print(error)"
    )
    try:
        done = subprocess.run(
            [sys.executable, "-X", "dev", "-W", "error", "-c", program],
            cwd=ROOT,
            env={**os.environ, "TOVARIN_CONTAINER__OPERATION_SECONDS": "0.5"},
            check=False,
            capture_output=True,
            text=True,
            timeout=SETUP_SECONDS,
        )
    finally:
        released.set()
    assert (done.returncode, done.stderr) == (0, "")
    assert "did not answer within 0.5 s" in done.stdout
