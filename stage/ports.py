"""Loopback ports: one for a server that cannot choose its own, one that nobody answers on."""

from __future__ import annotations

import random
import socket
from collections.abc import Iterator
from contextlib import contextmanager

HOST = "127.0.0.1"
# Below the range from which systems hand out ports: no connection that another program makes takes one.
_RANGE = range(20000, 32000)
_draw = random.SystemRandom()


def free_port() -> int:
    """A loopback port that nobody listens on; stays free unless somebody asks for this very one."""
    while True:
        port = _draw.choice(_RANGE)
        with socket.socket() as probe:
            try:
                probe.bind((HOST, port))
            except OSError:
                continue
            return port


@contextmanager
def refusing_port() -> Iterator[int]:
    """Give a port that nothing listens on, and that nobody else gets meanwhile."""
    with socket.socket() as bound:
        bound.bind((HOST, 0))
        yield bound.getsockname()[1]
