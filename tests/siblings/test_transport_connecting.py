"""Connecting to a host of several addresses."""

import socket
from collections.abc import Iterator
from contextlib import ExitStack

import pytest

from stage.patience import SETUP_SECONDS, in_time
from tovarincore._transport import connecting
from tovarincore._transport.connecting import connect
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._transport.resolver import SocketAddress
from tovarincore.core_def import OPResultErrorCode


def resolves_to(monkeypatch: pytest.MonkeyPatch, *addresses: str) -> None:
    """Let every name have these addresses."""
    found = [
        (socket.AF_INET, socket.SOCK_STREAM, socket.IPPROTO_TCP, "", (address, 0)) for address in addresses
    ]
    monkeypatch.setattr(socket, "getaddrinfo", lambda *_, **__: found)


@pytest.fixture
def swallowing() -> Iterator[socket.socket]:
    """A listener on 127.0.0.2 whose queue is full: the kernel swallows further connections."""
    with socket.create_server(("127.0.0.2", 0), backlog=0) as listening, ExitStack() as stack:
        for _ in range(4):
            waiting = stack.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(listening.getsockname())
        yield listening


def peer_of(connected: socket.socket) -> str:
    """Return the address that a socket is connected to, and close it."""
    with connected:
        assert connected.getblocking() is False
        return str(connected.getpeername()[0])


def test_the_next_address_is_tried_at_once_when_one_refuses(monkeypatch: pytest.MonkeyPatch) -> None:
    """Without using up any time."""
    resolves_to(monkeypatch, "127.0.0.3", "127.0.0.1")
    with socket.create_server(("127.0.0.1", 0)) as server:
        with in_time():
            assert peer_of(connect("worker", server.getsockname()[1], Deadline(60))) == "127.0.0.1"


def test_a_silent_address_costs_the_others_a_quarter_second_each(
    monkeypatch: pytest.MonkeyPatch, swallowing: socket.socket
) -> None:
    """Not half of a long operation's time."""
    resolves_to(monkeypatch, "127.0.0.2", "127.0.0.1")
    port = swallowing.getsockname()[1]
    with socket.create_server(("127.0.0.1", port)):
        with in_time(0.25, least=0.25):
            assert peer_of(connect("worker", port, Deadline(60))) == "127.0.0.1"


def test_little_time_is_shared(monkeypatch: pytest.MonkeyPatch, swallowing: socket.socket) -> None:
    """Three silent addresses and one that accepts, in less than the head starts take."""
    resolves_to(monkeypatch, "127.0.0.2", "127.0.0.2", "127.0.0.2", "127.0.0.1")
    monkeypatch.setattr(connecting, "_HEAD_START_SECONDS", 3600)
    port = swallowing.getsockname()[1]
    with socket.create_server(("127.0.0.1", port)):
        assert peer_of(connect("worker", port, Deadline(5))) == "127.0.0.1"


def test_a_slow_address_may_still_win(monkeypatch: pytest.MonkeyPatch, swallowing: socket.socket) -> None:
    """It goes on beside the next one, which refuses."""
    resolves_to(monkeypatch, "127.0.0.2", "127.0.0.3")
    port = swallowing.getsockname()[1]
    started: list[str] = []
    start = connecting._Race.start

    def start_and_accept(race: connecting._Race, address: SocketAddress) -> socket.socket | None:
        # Once the second address is tried, the queue of the first moves on.
        started.append(address[1])
        if len(started) == 2:
            swallowing.listen(100)
            for _ in range(2):
                swallowing.accept()[0].close()
        return start(race, address)

    monkeypatch.setattr(connecting._Race, "start", start_and_accept)
    assert peer_of(connect("worker", port, Deadline(60))) == "127.0.0.2"
    assert started == ["127.0.0.2", "127.0.0.3"]


def test_addresses_that_are_all_silent_end_at_the_deadline(
    monkeypatch: pytest.MonkeyPatch, swallowing: socket.socket
) -> None:
    """The result is a time-out, and no socket stays open (the interpreter would warn)."""
    resolves_to(monkeypatch, "127.0.0.2", "127.0.0.2", "127.0.0.2")
    with in_time(0.3, least=0.3), pytest.raises(Failure) as caught:
        connect("worker", swallowing.getsockname()[1], Deadline(0.3))
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT


def test_the_last_refusal_is_told_with_the_remedy(monkeypatch: pytest.MonkeyPatch) -> None:
    """And the port."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
    resolves_to(monkeypatch, "127.0.0.3", "127.0.0.1")
    with pytest.raises(Failure, match=rf"cannot connect to worker port {port} \(\[Errno 111\].*\); ask Ada"):
        connect("worker", port, Deadline(SETUP_SECONDS), look="ask Ada")


def test_an_address_of_a_family_that_is_switched_off_is_passed_over(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """No socket can be made for it."""
    families = [socket.AF_INET6, socket.AF_INET]
    real = socket.socket

    def without_ipv6(family: int, kind: int) -> socket.socket:
        if family == socket.AF_INET6:
            raise OSError(97, "Address family not supported by protocol")
        return real(family, kind)

    with real() as listening:
        listening.bind(("127.0.0.1", 0))
        listening.listen()
        found = [(f, socket.SOCK_STREAM, 6, "", ("127.0.0.1", 0)) for f in families]
        monkeypatch.setattr(socket, "getaddrinfo", lambda *_, **__: found)
        monkeypatch.setattr(socket, "socket", without_ipv6)
        connect("worker", listening.getsockname()[1], Deadline(SETUP_SECONDS)).close()
        monkeypatch.undo()
