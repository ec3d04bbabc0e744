"""Resolves names under a deadline, although the system's resolver cannot be interrupted."""

import ipaddress
import os
import socket
import threading
from collections import deque

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode

__all__ = ["SocketAddress", "resolve"]

# So many different names can hang before another one has to wait for the first of them to end.
_MAX_THREADS = 64

SocketAddress = tuple[socket.AddressFamily, str, int]
"""Family, numeric address and port."""


class _Lookup:
    """One name on its way to its addresses."""

    def __init__(self, host: str) -> None:
        self.host = host
        self.waiters = 0
        self.done = threading.Event()
        self.addresses: list[tuple[socket.AddressFamily, str]] = []
        self.failure = ""


class _Pool:
    """Looks names up on a bounded number of daemon threads, which end when nothing is left to look up.

    Daemon threads, since a process must not wait for a hanging resolver when it ends. Requests for the same
    name share one look-up, so that a name that hangs occupies one thread, however often it is asked for.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._lookups: dict[str, _Lookup] = {}
        self._queue: deque[_Lookup] = deque()
        self._threads = 0

    def look_up(self, host: str, deadline: Deadline) -> _Lookup:
        with self._lock:
            lookup = self._lookups.get(host)
            if lookup is None:
                # The thread first: where none can be started, nothing is left behind.
                self._start_thread()
                lookup = self._lookups[host] = _Lookup(host)
                self._queue.append(lookup)
            lookup.waiters += 1
        try:
            lookup.done.wait(deadline.remaining())
        finally:
            with self._lock:
                lookup.waiters -= 1
                if not lookup.waiters and lookup in self._queue:
                    self._queue.remove(lookup)
                    del self._lookups[host]
        if not lookup.done.is_set():
            raise deadline.expired()
        return lookup

    def _start_thread(self) -> None:
        if self._threads < _MAX_THREADS:
            threading.Thread(target=self._run, name="tovarin-resolver", daemon=True).start()
            self._threads += 1

    def _run(self) -> None:
        while True:
            with self._lock:
                if not self._queue:
                    self._threads -= 1
                    return
                lookup = self._queue.popleft()
            try:
                found = socket.getaddrinfo(lookup.host, None, type=socket.SOCK_STREAM)
                addresses = [(family, str(address[0])) for family, _, _, _, address in found]
                lookup.addresses = list(dict.fromkeys(addresses))
            except Exception as exc:
                lookup.failure = str(exc) or type(exc).__name__
            with self._lock:
                del self._lookups[lookup.host]
            lookup.done.set()


_pool = _Pool()


def _forget_threads() -> None:
    """Begin again in a forked child: it has no thread of its parent, but perhaps a lock that one held."""
    global _pool
    _pool = _Pool()


os.register_at_fork(after_in_child=_forget_threads)


def resolve(host: str, port: int, deadline: Deadline, remedy: str = "correct it") -> list[SocketAddress]:
    """Return the addresses of a host, in the order in which to try them.

    :param host: name or numeric address; the latter asks no resolver
    :param remedy: what to do about a name that does not resolve
    :raises Failure: no such name (``CONNECTION_FAILED``), or no answer in time (``TIMEOUT``)
    """
    try:
        numeric = ipaddress.ip_address(host)
    except ValueError:
        pass
    else:
        return [(socket.AF_INET if numeric.version == 4 else socket.AF_INET6, host, port)]
    deadline.enter(f"resolving {host}", "see whether this machine's name service answers")
    try:
        lookup = _pool.look_up(host, deadline)
    except RuntimeError as exc:
        if isinstance(exc, Failure):
            raise
        raise Failure(
            f"cannot start a thread to resolve {host}: {exc}", OPResultErrorCode.CONNECTION_FAILED
        ) from exc
    if not lookup.addresses:
        raise Failure(
            f"the name {host} does not resolve ({lookup.failure or 'it has no address'}); {remedy}",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    return [(family, address, port) for family, address in lookup.addresses]
