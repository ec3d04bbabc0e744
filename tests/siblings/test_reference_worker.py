"""The reference worker, asked by a client that knows nothing of this package's."""

import json
import re
import signal
import socket
import ssl
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest
from websockets.exceptions import ConnectionClosed, InvalidStatus
from websockets.sync.client import connect
from websockets.sync.connection import Connection

from stage.certificates import make_server_certificate
from stage.patience import SETUP_SECONDS
from tovarincore.testing.reference_worker import ReferenceWorker

_ROOT = Path(__file__).resolve().parents[2]


@contextmanager
def connection_to(worker: ReferenceWorker, **options: Any) -> Iterator[Connection]:
    """Connect to a worker."""
    with connect(f"ws://127.0.0.1:{worker.port}/", proxy=None, **options) as connection:
        yield connection


# A busy machine needs a few; whoever waited for a closing handshake would need ten.
STOP_SECONDS = 8


def ask(worker: ReferenceWorker, message: str | bytes) -> dict[str, Any]:
    """Return the worker's reply to a message."""
    with connection_to(worker) as connection:
        connection.send(message)
        reply: dict[str, Any] = json.loads(connection.recv(timeout=SETUP_SECONDS))
        return reply


def test_a_ping_comes_back_with_the_worker_id() -> None:
    """Version, id and kind are the request's."""
    with ReferenceWorker(worker_id="w") as worker:
        reply = ask(worker, '{"v": 1, "id": "7", "kind": "ping"}')
        assert worker.requests == 1
    assert reply == {"v": 1, "id": "7", "kind": "ping", "worker_id": "w"}


def test_statistics_are_those_of_this_machine() -> None:
    """The memory is what the kernel says, the load moves with the work that is done."""
    with ReferenceWorker() as worker:
        first = ask(worker, '{"v": 1, "id": "7", "kind": "system_stat"}')["stat"]
        end = time.monotonic() + 0.2
        while time.monotonic() < end:
            pass
        second = ask(worker, '{"v": 1, "id": "8", "kind": "system_stat"}')["stat"]
    total = next(
        line for line in Path("/proc/meminfo").read_text().splitlines() if line.startswith("MemTotal")
    )
    assert first["memory_total_bytes"] == int(total.split()[1]) * 1024
    assert 0 < first["memory_used_bytes"] < first["memory_total_bytes"]
    assert 0 < second["cpu_percent"] <= 100


@pytest.mark.parametrize(
    ("message", "code"),
    [
        ("hello", "bad_request"),
        (b"\xff\x00", "bad_request"),
        ("[" * 30000, "bad_request"),
        ("[]", "bad_request"),
        ('{"v": 1, "kind": "ping"}', "bad_request"),
        ('{"v": 1, "id": 7, "kind": "ping"}', "bad_request"),
        ('{"v": 2, "id": "7", "kind": "ping"}', "unknown_version"),
        ('{"id": "7", "kind": "ping"}', "unknown_version"),
        ('{"v": 1, "id": "7", "kind": "dance"}', "unknown_kind"),
        ('{"v": 1, "id": "7"}', "unknown_kind"),
    ],
)
def test_what_is_no_request_is_refused_with_a_code(message: str | bytes, code: str) -> None:
    """The connection stays, and the text is for people."""
    with ReferenceWorker() as worker:
        reply = ask(worker, message)
        assert ask(worker, '{"v": 1, "id": "7", "kind": "ping"}')["kind"] == "ping"
    assert (reply["v"], reply["kind"], reply["error"]["code"]) == (1, "error", code)
    assert reply["error"]["message"]


def test_a_message_that_is_too_long_ends_the_connection() -> None:
    """With the code that web-sockets have for it."""
    with ReferenceWorker() as worker, connection_to(worker) as connection:
        connection.send("x" * 100_000)
        with pytest.raises(ConnectionClosed) as caught:
            connection.recv(timeout=SETUP_SECONDS)
    assert caught.value.rcvd is not None
    assert caught.value.rcvd.code == 1009


@pytest.mark.parametrize("given", [None, "Bearer wrong", "Bearer", "Basic right", "right"])
def test_another_token_is_refused_in_the_handshake(given: str | None) -> None:
    """Status 401, before any message."""
    headers = {} if given is None else {"Authorization": given}
    with (
        ReferenceWorker(token="right") as worker,
        pytest.raises(InvalidStatus) as caught,
        connection_to(worker, additional_headers=headers),
    ):
        pass
    assert caught.value.response.status_code == 401
    assert worker.requests == 0


def test_a_token_that_is_not_ascii_is_refused_like_any_other() -> None:
    """Whatever bytes the header holds, they are compared and not decoded."""
    head = b"GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    head += b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n"
    head += b"Authorization: Bearer right\xfc\r\n\r\n"
    with ReferenceWorker(token="right") as worker:
        with socket.create_connection(("127.0.0.1", worker.port), timeout=SETUP_SECONDS) as client:
            client.sendall(head)
            assert client.recv(4096).startswith(b"HTTP/1.1 401 ")


def test_the_right_token_is_let_in() -> None:
    """It comes as a bearer token."""
    with (
        ReferenceWorker(token="right") as worker,
        connection_to(worker, additional_headers={"Authorization": "Bearer right"}) as connection,
    ):
        connection.send('{"v": 1, "id": "7", "kind": "ping"}')
        assert json.loads(connection.recv(timeout=SETUP_SECONDS))["id"] == "7"


def test_one_that_does_not_answer_accepts_connections() -> None:
    """And says nothing on them until it is stopped, which does not take long."""
    with ReferenceWorker(answer=False) as worker:
        with pytest.raises(TimeoutError), connection_to(worker, open_timeout=0.2):
            pass
        start = time.monotonic()
    assert time.monotonic() - start < STOP_SECONDS
    assert worker.requests == 0


def test_stopping_closes_connections_and_port_at_once() -> None:
    """Clients that do not answer a closing handshake are not waited for."""
    with ReferenceWorker() as worker:
        silent = socket.create_connection(("127.0.0.1", worker.port))
        with connection_to(worker) as connection:
            start = time.monotonic()
            worker.stop()
            assert time.monotonic() - start < STOP_SECONDS
            with pytest.raises(ConnectionClosed):
                connection.recv(timeout=SETUP_SECONDS)
        silent.close()
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", worker.port))
        worker.start()


def test_a_port_that_is_taken_is_an_error_of_the_start() -> None:
    """It is raised where the worker is started."""
    with ReferenceWorker() as worker, pytest.raises(OSError, match="in use"):
        ReferenceWorker(port=worker.port).start()


def test_it_serves_with_a_certificate(tmp_path: Path) -> None:
    """For clients that want TLS."""
    files = make_server_certificate(tmp_path)
    trusting = ssl.create_default_context(cafile=str(files.authority))
    with (
        ReferenceWorker(ssl_context=files.server_context()) as worker,
        connect(f"wss://127.0.0.1:{worker.port}/", ssl=trusting, proxy=None) as connection,
    ):
        connection.send('{"v": 1, "id": "7", "kind": "ping"}')
        assert json.loads(connection.recv(timeout=SETUP_SECONDS))["id"] == "7"


@pytest.mark.parametrize("host", ["0.0.0.0", "::", "", "192.0.2.7", "worker.example"])
@pytest.mark.parametrize("token", [None, ""])
def test_without_a_token_it_serves_this_machine_only(host: str, token: str | None) -> None:
    """Anybody who reached the port could use the worker; the text says where the token comes from."""
    with pytest.raises(ValueError, match=r"needs a token.* TOVARIN_WORKER_TOKEN .* listen on 127\.0\.0\.1"):
        ReferenceWorker(host, token=token)


@pytest.mark.parametrize("host", ["127.0.0.1", "127.0.0.2", "::1", "localhost"])
def test_on_loopback_it_needs_no_token(host: str) -> None:
    """A worker that only this machine reaches may serve without."""
    ReferenceWorker(host)


@contextmanager
def program(folder: Path, environment: dict[str, str], *arguments: str) -> Iterator[subprocess.Popen[str]]:
    """Run the worker from the files that the image's recipe copies, and nothing else of the package."""
    recipe = (_ROOT / "containers" / "worker" / "Dockerfile").read_text()
    for line in re.findall(r"^COPY (.*) \S+$", recipe, re.MULTILINE):
        for name in line.split():
            target = folder / "tovarincore" / name
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes((_ROOT / "tovarincore" / name).read_bytes())
    module = "tovarincore.testing.reference_worker"
    with subprocess.Popen(
        [sys.executable, "-X", "dev", "-W", "error", "-m", module, "--port", "0", *arguments],
        cwd=folder,
        env=environment,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    ) as process:
        try:
            yield process
        finally:
            process.kill()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("variable", ["TOVARIN_WORKER_TOKEN", "TOVARIN_WORKER__TOKEN"])
def test_as_a_program_it_serves_until_it_is_told_to_end(number: int, variable: str, tmp_path: Path) -> None:
    """It asks for the token of its variable, or of the one that clients have their setting from."""
    with program(tmp_path, {variable: "right"}, "--host", "0.0.0.0", "--worker-id", "w") as process:
        assert process.stdout is not None
        line = process.stdout.readline()
        assert line.startswith("listening on 0.0.0.0 port ")
        url = f"ws://127.0.0.1:{line.split()[-1]}/"
        with pytest.raises(InvalidStatus), connect(url, proxy=None):
            pass
        with connect(url, additional_headers={"Authorization": "Bearer right"}, proxy=None) as connection:
            connection.send('{"v": 1, "id": "7", "kind": "ping"}')
            assert json.loads(connection.recv(timeout=SETUP_SECONDS))["worker_id"] == "w"
            process.send_signal(number)
            assert process.wait(SETUP_SECONDS) == 0


def test_as_a_program_it_refuses_to_be_open_to_others(tmp_path: Path) -> None:
    """It ends at once, with one line that names the variable."""
    with program(tmp_path, {"TOVARIN_WORKER_TOKEN": ""}, "--host", "0.0.0.0") as process:
        output, errors = process.communicate(timeout=SETUP_SECONDS)
    assert (process.returncode, output) == (2, "")
    assert 'listens on "0.0.0.0" needs a token' in errors
