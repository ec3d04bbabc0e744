"""Every way a worker can fail, the result that the client gives and how long it takes.

python -m stage.worker_timeouts             prints the table that stands in docs/worker-timeouts.md
python -m stage.worker_timeouts --seconds 5 the same with another time limit

Exits with 1 when a result is not the expected one or comes too late.
"""

from __future__ import annotations

import argparse
import socket
import sys
import tempfile
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, ExitStack, contextmanager
from dataclasses import dataclass
from datetime import timedelta
from pathlib import Path
from typing import Any
from unittest import mock

from stage import worker_peers as peers
from stage.certificates import make_server_certificate
from stage.ports import refusing_port
from stage.settings import settings_of
from tovarincore.api_def import PingRequest
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing.reference_worker import ReferenceWorker
from tovarincore.webs_client import WebSocketClient

__all__ = ["LATE_SECONDS", "SCENARIOS", "Scenario", "measure", "node_at"]

LATE_SECONDS = 0.2
"""How long after the time limit a result may come, and how soon one must come that needs no waiting."""

Settings = dict[str, dict[str, Any]]


@dataclass(frozen=True)
class Scenario:
    """One way to fail.

    :param title: what the other side does
    :param code: the error code to expect, ``None`` for success
    :param surroundings: given a folder, starts the other side and gives the node's address and the settings
    """

    title: str
    code: OPResultErrorCode | None
    surroundings: Callable[[Path], AbstractContextManager[tuple[str, Settings]]]


def node_at(address: str) -> CloudNode:
    """Return the record of a node with this address."""
    return CloudNode(
        region=CloudRegion("eu-central-1", "AWS"),
        instance_id=f"i-{address}",
        instance_type_def=CloudInstances.get_default_local_instance_type(),
        name="node",
        dns_address=address,
    )


def measure(scenario: Scenario, seconds: float) -> tuple[OPResult, float]:
    """Return the result of a ping in a scenario, and the seconds that it took."""
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        with (
            scenario.surroundings(folder) as (address, settings),
            settings_of(folder, settings),
            WebSocketClient(node_at(address), client_timeout_sec=seconds) as client,
        ):
            start = time.monotonic()
            result = client.api_get_op_result(PingRequest())
            return result, time.monotonic() - start


def _peer(behaviour: Callable[[peers.Conversation], None]) -> Any:
    @contextmanager
    def surroundings(folder: Path) -> Iterator[tuple[str, Settings]]:
        with peers.Peer(behaviour) as peer:
            yield "127.0.0.1", {"worker": {"port": peer.port}}

    return surroundings


@contextmanager
def _tls_silence(folder: Path) -> Iterator[tuple[str, Settings]]:
    with peers.Peer(peers.says_nothing) as peer:
        yield "127.0.0.1", {"worker": {"scheme": "wss", "port": peer.port}}


def _certificate(name: str, *, trusted: bool, valid_for: timedelta = timedelta(days=1)) -> Any:
    @contextmanager
    def surroundings(folder: Path) -> Iterator[tuple[str, Settings]]:
        files = make_server_certificate(folder, name, valid_for=valid_for)
        with ReferenceWorker(ssl_context=files.server_context()) as worker:
            settings = {"scheme": "wss", "port": worker.port}
            yield "127.0.0.1", {"worker": settings | ({"ca_file": str(files.authority)} if trusted else {})}

    return surroundings


@contextmanager
def _wrong_token(folder: Path) -> Iterator[tuple[str, Settings]]:
    with ReferenceWorker(token="right") as worker:
        yield "127.0.0.1", {"worker": {"port": worker.port, "token": "wrong"}}


@contextmanager
def _healthy(folder: Path) -> Iterator[tuple[str, Settings]]:
    with ReferenceWorker() as worker:
        yield "127.0.0.1", {"worker": {"port": worker.port}}


@contextmanager
def _closed_port(folder: Path) -> Iterator[tuple[str, Settings]]:
    with refusing_port() as port:
        yield "127.0.0.1", {"worker": {"port": port}}


@contextmanager
def _full_backlog(folder: Path) -> Iterator[tuple[str, Settings]]:
    """The kernel answers no further SYN once the queue of connections is full, as a silent firewall does."""
    with socket.create_server(("127.0.0.1", 0), backlog=0) as listening, ExitStack() as stack:
        for _ in range(4):
            waiting = stack.enter_context(socket.socket())
            waiting.setblocking(False)
            waiting.connect_ex(listening.getsockname())
        yield "127.0.0.1", {"worker": {"port": listening.getsockname()[1]}}


@contextmanager
def _unresolvable(folder: Path) -> Iterator[tuple[str, Settings]]:
    # No real name service is asked, since there may be none.
    failure = socket.gaierror(socket.EAI_NONAME, "Name or service not known")
    with mock.patch("socket.getaddrinfo", side_effect=failure):
        yield "worker.example.invalid", {}


@contextmanager
def _hanging_resolver(folder: Path) -> Iterator[tuple[str, Settings]]:
    released = threading.Event()

    def hang(*arguments: object, **named: object) -> object:
        released.wait()
        raise socket.gaierror(socket.EAI_AGAIN, "Temporary failure in name resolution")

    with mock.patch("socket.getaddrinfo", side_effect=hang):
        try:
            yield "worker.example.invalid", {}
        finally:
            released.set()


@contextmanager
def _hanging_proxy(folder: Path) -> Iterator[tuple[str, Settings]]:
    with peers.Peer(peers.says_nothing) as peer:
        proxy = {"enabled": True, "http": f"http://127.0.0.1:{peer.port}"}
        yield "127.0.0.1", {"proxy": proxy, "worker": {"use_proxy": True}}


_CODE = OPResultErrorCode
SCENARIOS = (
    Scenario("is healthy", None, _healthy),
    Scenario("accepts and says nothing", _CODE.TIMEOUT, _peer(peers.says_nothing)),
    Scenario("drips the handshake", _CODE.TIMEOUT, _peer(peers.drips_handshake)),
    Scenario("never replies", _CODE.TIMEOUT, _peer(peers.never_replies)),
    Scenario("drips the reply", _CODE.TIMEOUT, _peer(peers.drips_reply)),
    Scenario("floods pings", _CODE.TIMEOUT, _peer(peers.floods_pings)),
    Scenario("floods empty pieces of a message", _CODE.TIMEOUT, _peer(peers.floods_messages)),
    Scenario("sends a frame of 100 MB", _CODE.PROTOCOL_ERROR, _peer(peers.sends_huge_frame)),
    Scenario("says nothing in the TLS handshake", _CODE.TIMEOUT, _tls_silence),
    Scenario(
        "has a certificate of an unknown issuer",
        _CODE.CERTIFICATE_INVALID,
        _certificate("127.0.0.1", trusted=False),
    ),
    Scenario(
        "has a certificate for another name",
        _CODE.CERTIFICATE_INVALID,
        _certificate("other.example", trusted=True),
    ),
    Scenario(
        "has an expired certificate",
        _CODE.CERTIFICATE_INVALID,
        _certificate("127.0.0.1", trusted=True, valid_for=timedelta(hours=-1)),
    ),
    Scenario("wants another token", _CODE.UNAUTHENTICATED, _wrong_token),
    Scenario("port is closed", _CODE.CONNECTION_FAILED, _closed_port),
    Scenario("host does not answer at all", _CODE.TIMEOUT, _full_backlog),
    Scenario("name does not resolve", _CODE.CONNECTION_FAILED, _unresolvable),
    Scenario("name service hangs", _CODE.TIMEOUT, _hanging_resolver),
    Scenario("proxy hangs", _CODE.TIMEOUT, _hanging_proxy),
)


def is_right(
    scenario: Scenario, result: OPResult, took: float, seconds: float, late_seconds: float = LATE_SECONDS
) -> bool:
    """Tell whether a result is the expected one and in time.

    :param late_seconds: by how much the machine may miss the limit, or the moment
    """
    if result.success is not (scenario.code is None) or result.error_code is not scenario.code:
        return False
    if scenario.code is OPResultErrorCode.TIMEOUT:
        return seconds <= took <= seconds + late_seconds
    return took <= late_seconds


def main() -> int:
    """Print the table."""
    parser = argparse.ArgumentParser(description="Shows how each failure of a worker is reported, and when.")
    parser.add_argument("--seconds", type=float, default=2.0, help="time limit of a request (%(default)s)")
    seconds = parser.parse_args().seconds
    print("| The worker, its host or the way to it | Time | Result | Message |\n|---|---:|---|---|")
    wrong = 0
    for scenario in SCENARIOS:
        result, took = measure(scenario, seconds)
        name = result.error_code.name if result.error_code is not None else "success"
        if not is_right(scenario, result, took, seconds):
            wrong += 1
            name += " (wrong)"
        msg = (result.msg or "").partition(": ")[2].replace("|", "\\|")
        print(f"| {scenario.title} | {took:.2f} s | {name} | {msg} |", flush=True)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
