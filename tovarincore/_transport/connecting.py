"""Connects to a host with several addresses, of which some may swallow every packet."""

import errno
import math
import os
import select
import socket
from collections.abc import Mapping

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._transport.resolver import SocketAddress, resolve
from tovarincore.core_def import OPResultErrorCode

__all__ = ["connect", "wait_for"]

# Another address is tried beside one that has not answered by then (RFC 8305 recommends a quarter second).
_HEAD_START_SECONDS = 0.25


def connect(
    host: str,
    port: int,
    deadline: Deadline,
    *,
    correct: str = "correct it",
    look: str = "see whether something listens there",
) -> socket.socket:
    """Return a non-blocking socket, connected to the first address of a host that accepts.

    Addresses are tried in the resolver's order. One that refuses makes room at once; one that is silent goes
    on beside the next, so that no address uses up the time of the others.

    :param host: name or numeric address
    :param correct: what to do about a name that does not resolve
    :param look: what to do when no address accepts
    :raises Failure: no address, or none accepts (``CONNECTION_FAILED``), or not in time (``TIMEOUT``)
    """
    addresses = resolve(host, port, deadline, correct)
    deadline.enter(
        f"connecting to {host} port {port}", "see whether the host runs and a firewall drops the port"
    )
    race = _Race()
    try:
        for started, address in enumerate(addresses, 1):
            left = len(addresses) - started
            patience = min(_HEAD_START_SECONDS, deadline.remaining() / (left + 1)) if left else None
            winner = race.start(address) or race.wait(patience, deadline)
            if winner is not None:
                return winner
    finally:
        race.close()
    raise Failure(
        f"cannot connect to {host} port {port} ({race.failure}); {look}", OPResultErrorCode.CONNECTION_FAILED
    )


class _Race:
    """Connections on their way, of which the first to arrive is taken."""

    def __init__(self) -> None:
        self._running: dict[int, socket.socket] = {}
        # Its text alone: an exception kept here would keep its frames.
        self.failure = ""

    def start(self, address: SocketAddress) -> socket.socket | None:
        """Begin a connection; return its socket if it stands at once."""
        family, host, port = address
        try:
            connecting = socket.socket(family, socket.SOCK_STREAM)
        except OSError as error:
            self.failure = str(error)
            return None
        self._running[connecting.fileno()] = connecting
        try:
            connecting.setblocking(False)
            connecting.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            code = connecting.connect_ex((host, port))
        except OSError as error:
            self._drop(connecting, str(error))
            return None
        if code == errno.EINPROGRESS:
            return None
        return self._arrived(connecting, code)

    def wait(self, seconds: float | None, deadline: Deadline) -> socket.socket | None:
        """Return the first socket that is connected; ``None`` once none is left to wait for, or time is up.

        :param seconds: the longest wait; ``None`` waits until the deadline and then raises its failure
        """
        end = deadline.remaining() - seconds if seconds is not None else 0.0
        while self._running:
            left = deadline.remaining() - end
            if left <= 0:
                return None
            for connecting in wait_for(self._running, select.POLLOUT, left):
                code = connecting.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
                winner = self._arrived(connecting, code)
                if winner is not None:
                    return winner
        return None

    def close(self) -> None:
        """Close every connection that is still on its way."""
        for connecting in self._running.values():
            connecting.close()
        self._running.clear()

    def _arrived(self, connecting: socket.socket, code: int) -> socket.socket | None:
        if code:
            self._drop(connecting, f"[Errno {code}] {os.strerror(code)}")
            return None
        return self._running.pop(connecting.fileno())

    def _drop(self, connecting: socket.socket, failure: str) -> None:
        self.failure = failure
        del self._running[connecting.fileno()]
        connecting.close()


def wait_for(sockets: Mapping[int, socket.socket], events: int, seconds: float) -> list[socket.socket]:
    """Return those of some sockets, given by descriptor, that are ready; none when the time is over.

    :param events: ``select.POLLIN`` or ``select.POLLOUT``
    """
    # poll() and not select(): a descriptor above 1023 must do as well.
    poll = select.poll()
    for descriptor in sockets:
        poll.register(descriptor, events)
    # Rounded up: waiting never ends before the time is over.
    return [sockets[descriptor] for descriptor, _ in poll.poll(math.ceil(seconds * 1000))]
