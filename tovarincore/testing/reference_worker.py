"""A worker that answers pings and requests for system statistics, for demos, tests and the container image.

It stands on the standard library, ``websockets`` and ``tovarincore.core_def`` alone, and runs by itself::

    python -m tovarincore.testing.reference_worker --host 127.0.0.1 --port 8855

Listening on more than loopback takes a token: without one, anybody who reaches the port could use the worker.
"""

import argparse
import asyncio
import contextlib
import hmac
import http
import ipaddress
import json
import logging
import os
import signal
import socket
import ssl
import threading
from types import FrameType, TracebackType
from typing import Any

from websockets.asyncio.server import ServerConnection, serve
from websockets.exceptions import ConnectionClosed
from websockets.http11 import Request, Response

from tovarincore.core_def import CoreDef

__all__ = ["ReferenceWorker"]

_VERSION = 1
_MAX_REQUEST_BYTES = 65536

# Beside its own variable a worker heeds the one that gives clients their [worker] token.
_TOKEN_VARIABLES = (CoreDef.WORKER_TOKEN_VARIABLE, "TOVARIN_WORKER__TOKEN")

_logger = logging.getLogger("tovarincore.reference_worker")
# The library logs the headers of the handshake at DEBUG, the token among them. Outside of the hierarchy,
# no configuration can turn this logger on.
_silent = logging.Logger("reference-worker", level=logging.CRITICAL + 1)


class ReferenceWorker:
    """A worker on this machine, serving from a thread between ``with`` and its end.

    :param host: address to listen on
    :param port: port to listen on, 0 for a free one
    :param token: bearer token that clients must send; ``None`` or empty to ask for none, on loopback only
    :param answer: ``False`` for a worker that accepts connections and never says anything
    :param worker_id: id that it reports
    :param ssl_context: certificate to serve with; ``None`` serves without TLS
    :raises ValueError: no token for an address that others than this machine can reach
    """

    def __init__(
        self,
        host: str = "127.0.0.1",
        port: int = 0,
        token: str | None = None,
        answer: bool = True,
        worker_id: str = "worker-1",
        ssl_context: ssl.SSLContext | None = None,
    ) -> None:
        if not token and not _is_loopback(host):
            raise ValueError(
                f'a worker that listens on "{host}" needs a token, or anybody who reaches the port could use '
                f"it: set the variable {CoreDef.WORKER_TOKEN_VARIABLE} (launched from here, a container gets "
                "it from [worker] token or the token stored for the region), or listen on 127.0.0.1"
            )
        self.host = host
        self.port = port
        """The port that it listens on; 0 is replaced by the real one at the start."""
        self.worker_id = worker_id
        self._token = token or None
        self._answer = answer
        self._ssl_context = ssl_context
        self._requests = 0
        self._load = _ProcessorLoad()
        self._listening: socket.socket | None = None

    @property
    def requests(self) -> int:
        """How many requests have been answered or refused."""
        return self._requests

    def start(self) -> None:
        """Listen and serve in a thread.

        :raises OSError: the address cannot be listened on
        """
        family = socket.AF_INET6 if ":" in self.host else socket.AF_INET
        self._listening = socket.create_server((self.host, self.port), family=family, backlog=128)
        self.port = self._listening.getsockname()[1]
        self._loop = asyncio.new_event_loop()
        # What asyncio reports by itself are clients that leave in the middle of a handshake.
        self._loop.set_exception_handler(lambda _, context: _logger.debug("%s", context["message"]))
        self._stopping = asyncio.Event()
        self._thread = threading.Thread(target=self._run, name="reference-worker", daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Close every connection and stop listening."""
        self._loop.call_soon_threadsafe(self._stopping.set)
        self._thread.join()

    def __enter__(self) -> "ReferenceWorker":
        self.start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.stop()

    def _run(self) -> None:
        with contextlib.closing(self._loop):
            self._loop.run_until_complete(self._serve_until_stopped())

    async def _serve_until_stopped(self) -> None:
        async with serve(
            self._answer_requests,
            sock=self._listening,
            ssl=self._ssl_context,
            process_request=self._admit,
            max_size=_MAX_REQUEST_BYTES,
            compression=None,
            open_timeout=None,
            server_header=None,
            logger=_silent,
        ) as server:
            await self._stopping.wait()
            # The server's own end waits for closing handshakes, and without end for clients that have not
            # sent their opening one.
            for connection in server.connections:
                connection.transport.abort()
            answering = asyncio.all_tasks() - {asyncio.current_task()}
            for task in answering:
                task.cancel()
            await asyncio.gather(*answering, return_exceptions=True)

    async def _admit(self, connection: ServerConnection, request: Request) -> Response | None:
        if not self._answer:
            # Without an answer there is not even a handshake.
            await self._stopping.wait()
            return connection.respond(http.HTTPStatus.SERVICE_UNAVAILABLE, "stopping\n")
        if self._token is not None:
            given = request.headers.get_all("Authorization")
            wanted = f"Bearer {self._token}"
            if len(given) != 1 or not _is_equal(given[0], wanted):
                return connection.respond(
                    http.HTTPStatus.UNAUTHORIZED, "the bearer token is missing or wrong\n"
                )
        return None

    async def _answer_requests(self, connection: ServerConnection) -> None:
        with contextlib.suppress(ConnectionClosed):
            async for message in connection:
                await connection.send(json.dumps(self._reply_to(message)))

    def _reply_to(self, message: str | bytes) -> dict[str, Any]:
        self._requests += 1
        try:
            request = json.loads(message)
        except (ValueError, RecursionError):
            return _refusal(None, "bad_request", "the message is not JSON")
        if not isinstance(request, dict) or not isinstance(request.get("id"), str):
            return _refusal(None, "bad_request", 'the message is not an object with a text "id"')
        request_id = request["id"]
        if request.get("v") != _VERSION:
            return _refusal(request_id, "unknown_version", f"this worker speaks version {_VERSION}")
        kind = request.get("kind")
        reply = {"v": _VERSION, "id": request_id, "kind": kind, "worker_id": self.worker_id}
        if kind == "ping":
            return reply
        if kind == "system_stat":
            total, available = _memory_bytes()
            reply["stat"] = {
                "cpu_percent": self._load.percent(),
                "memory_used_bytes": total - available,
                "memory_total_bytes": total,
            }
            return reply
        return _refusal(request_id, "unknown_kind", "this worker answers ping and system_stat")


def _is_loopback(host: str) -> bool:
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        # Any other name may lead anywhere, and the empty one means every interface.
        return host == "localhost"


def _is_equal(given: str, wanted: str) -> bool:
    # Bytes that are not ASCII come as surrogates; comparing takes as long wherever the first difference is.
    return hmac.compare_digest(given.encode(errors="surrogateescape"), wanted.encode())


def _refusal(request_id: str | None, code: str, message: str) -> dict[str, Any]:
    return {"v": _VERSION, "id": request_id, "kind": "error", "error": {"code": code, "message": message}}


class _ProcessorLoad:
    """Load of all processors since the last time it was asked for, from ``/proc/stat``."""

    def __init__(self) -> None:
        self._last = _processor_ticks()
        self._percent = 0.0

    def percent(self) -> float:
        now = _processor_ticks()
        busy, every = now[0] - self._last[0], now[1] - self._last[1]
        # The kernel counts in hundredths of a second: within one there is nothing new to say.
        if every > 0:
            self._last = now
            self._percent = round(min(100.0, max(0.0, 100.0 * busy / every)), 1)
        return self._percent


def _processor_ticks() -> tuple[int, int]:
    """Return busy and all ticks of the processors; zeros where there is no ``/proc``."""
    try:
        with open("/proc/stat", encoding="ascii") as file:
            ticks = [int(text) for text in file.readline().split()[1:9]]
    except OSError:
        return 0, 0
    # user nice system idle iowait irq softirq steal (proc_stat(5)); waiting for a disk is not work.
    return sum(ticks) - ticks[3] - ticks[4], sum(ticks)


def _memory_bytes() -> tuple[int, int]:
    """Return the memory of the machine and what of it is available, in bytes."""
    try:
        with open("/proc/meminfo", encoding="ascii") as file:
            fields = dict(line.split(":", 1) for line in file)
        total, available = (int(fields[name].split()[0]) * 1024 for name in ("MemTotal", "MemAvailable"))
    except (OSError, KeyError):
        page = os.sysconf("SC_PAGE_SIZE")
        total, available = (os.sysconf(name) * page for name in ("SC_PHYS_PAGES", "SC_AVPHYS_PAGES"))
    return total, available


def main() -> None:
    """Serve until the process is told to end."""
    parser = argparse.ArgumentParser(description="A worker that answers pings and system statistics.")
    parser.add_argument("--host", default="127.0.0.1", help="address to listen on (%(default)s)")
    parser.add_argument(
        "--port", type=int, default=8855, help="port to listen on, 0 for a free one (%(default)s)"
    )
    parser.add_argument(
        "--token",
        default=next(filter(None, map(os.environ.get, _TOKEN_VARIABLES)), None),
        help=f"bearer token to ask for; default is the variable {' or else '.join(_TOKEN_VARIABLES)}",
    )
    parser.add_argument("--worker-id", default="worker-1", help="id that it reports (%(default)s)")
    options = parser.parse_args()
    try:
        worker = ReferenceWorker(options.host, options.port, options.token, worker_id=options.worker_id)
    except ValueError as error:
        parser.error(str(error))
    ended = threading.Event()

    def end(number: int, frame: FrameType | None) -> None:
        ended.set()

    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end)
    with worker:
        print(f"listening on {worker.host} port {worker.port}", flush=True)
        ended.wait()


if __name__ == "__main__":
    main()
