"""The deadline of requests, on servers and resolvers that do their worst."""

from __future__ import annotations

import gzip
import socket
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager

import pytest

from stage.patience import HANG_SECONDS, SETUP_SECONDS, in_time
from tovarincore._k8s_console_client import transport
from tovarincore._k8s_console_client.credentials import Access
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.transport import Answer, Connection
from tovarincore.core_def import OPResultErrorCode

SECONDS = 0.5


@contextmanager
def peer(behaviour: Callable[[socket.socket], None]) -> Iterator[int]:
    """A server that treats its one connection as told; gives its port."""
    with socket.create_server(("127.0.0.1", 0)) as server:

        def serve() -> None:
            try:
                with server.accept()[0] as connection:
                    behaviour(connection)
            except OSError:
                # The client hung up, or never came.
                return

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield server.getsockname()[1]
        finally:
            # Closing alone does not wake a thread that waits for a connection.
            server.shutdown(socket.SHUT_RDWR)
            thread.join()


def request(server: str, content: bytes = b"", seconds: float = SETUP_SECONDS) -> Answer:
    """Send one request."""
    access = Access(server=server)
    with Connection(access, ApiDeadline(seconds, "a test"), lambda: access) as connection:
        return connection.send("POST", "/", body=content)


def hold(connection: socket.socket) -> None:
    """Takes what comes and says nothing."""
    while connection.recv(65536):
        pass


@contextmanager
def timed_out() -> Iterator[None]:
    """The body has to fail at the deadline."""
    with (
        in_time(SECONDS, least=SECONDS * 0.9),
        pytest.raises(KubernetesError, match="A test did not finish within 0.5 s") as caught,
    ):
        yield
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT


def drip(start: bytes, endless: bytes) -> Callable[[socket.socket], None]:
    """Sends `start` at once and then a piece every 20 ms until the client has gone."""

    def behave(connection: socket.socket) -> None:
        connection.sendall(start)
        for _ in range(HANG_SECONDS * 50):
            connection.sendall(endless)
            time.sleep(0.02)

    return behave


@pytest.mark.parametrize(
    "behaviour",
    [
        hold,
        drip(b"HTTP/1.1 200 OK\r\n", b"X-Header: x\r\n"),
        drip(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n", b"x"),
        drip(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", b"1\r\nx\r\n"),
        drip(b"", b"HTTP/1.1 100 Continue\r\n\r\n"),
    ],
    ids=["silent", "headers", "body", "chunks", "interim answers"],
)
def test_an_answer_in_drips_does_not_stretch_the_time(behaviour: Callable[[socket.socket], None]) -> None:
    """Bytes that keep coming do not move the deadline, in whichever part of the answer they come."""
    with peer(behaviour) as port, timed_out():
        request(f"http://127.0.0.1:{port}/", seconds=SECONDS)


def test_a_server_that_reads_slowly_does_not_stretch_the_time() -> None:
    """A request whose bytes the server takes in drips ends at the deadline."""

    def sip(connection: socket.socket) -> None:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        for _ in range(100):
            connection.recv(512)
            time.sleep(0.02)

    with peer(sip) as port, timed_out():
        request(f"http://127.0.0.1:{port}/", content=bytes(50_000_000), seconds=SECONDS)


def test_a_handshake_that_never_ends_costs_the_time_limit() -> None:
    """A server that accepts a connection and says nothing about TLS is given up at the deadline."""
    with peer(hold) as port, timed_out():
        request(f"https://127.0.0.1:{port}/", seconds=SECONDS)


def test_a_look_up_that_never_ends_costs_the_time_limit(monkeypatch: pytest.MonkeyPatch) -> None:
    """The system's resolver has no time-out; the request has."""
    released = threading.Event()

    def hang(*_args: object, **_named: object) -> list[object]:
        released.wait(HANG_SECONDS)
        return []

    monkeypatch.setattr(socket, "getaddrinfo", hang)
    with timed_out():
        request("http://hanging.example/", seconds=SECONDS)
    released.set()


@pytest.mark.parametrize("host", ["a" * 64 + ".example", "no-such-host.invalid"])
def test_a_name_without_an_address_is_told(monkeypatch: pytest.MonkeyPatch, host: str) -> None:
    """A name that cannot be looked up is a failed connection whose text has the name."""

    def fail(name: str, *_args: object, **_named: object) -> None:
        name.encode("idna")
        raise socket.gaierror(socket.EAI_NONAME, "Name or service not known")

    monkeypatch.setattr(socket, "getaddrinfo", fail)
    with pytest.raises(KubernetesError, match=host) as caught:
        request(f"http://{host}/")
    assert caught.value.error_code is OPResultErrorCode.CONNECTION_FAILED
    assert not caught.value.outcome_unknown


def test_the_next_address_is_tried(monkeypatch: pytest.MonkeyPatch) -> None:
    """A name with an address where nobody listens is reached at its other one."""

    def greet(connection: socket.socket) -> None:
        connection.recv(65536)
        connection.sendall(b"HTTP/1.1 204 No Content\r\n\r\n")

    with peer(greet) as port:
        found = [
            (socket.AF_INET, socket.SOCK_STREAM, 6, "", (host, port)) for host in ("127.0.0.2", "127.0.0.1")
        ]
        monkeypatch.setattr(socket, "getaddrinfo", lambda *_args, **_named: found)
        assert request(f"http://cluster.example:{port}/").status == 204


def test_an_endless_answer_is_given_up(monkeypatch: pytest.MonkeyPatch) -> None:
    """An answer beyond the limit is not kept in memory."""
    monkeypatch.setattr(transport, "_LONGEST_ANSWER_BYTES", 1000)
    endless = drip(b"HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n", bytes(999))
    with peer(endless) as port, pytest.raises(KubernetesError, match="lower page_size"):
        request(f"http://127.0.0.1:{port}/")


def test_the_reserve_is_only_for_tidying_up() -> None:
    """The reserve does not count as time left until it is released."""
    deadline = ApiDeadline(10, "a test", reserve=10)
    with pytest.raises(KubernetesError, match="A test did not finish within 0 s"):
        deadline.remaining()
    deadline.release_reserve()
    assert 9 < deadline.remaining() <= 10


@pytest.mark.parametrize("length", ["Content-Length: %d", "Connection: close"], ids=["length", "to the end"])
def test_a_compressed_answer_is_bounded_after_inflation(monkeypatch: pytest.MonkeyPatch, length: str) -> None:
    """A megabyte of gzip can stand for a gigabyte: it is given up where an answer of that length is."""
    monkeypatch.setattr(transport, "_LONGEST_ANSWER_BYTES", 1_000_000)
    packed = gzip.compress(bytes(20_000_000), 6)
    head = (
        "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n" + length.replace("%d", str(len(packed))) + "\r\n\r\n"
    )

    def behave(connection: socket.socket) -> None:
        connection.recv(65536)
        connection.sendall(head.encode() + packed)

    with peer(behave) as port, pytest.raises(KubernetesError, match="longer than 1000000 bytes") as caught:
        request(f"http://127.0.0.1:{port}/")
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR
