"""The pages of the exporter: metrics, health, and a first page that names both."""

import threading
import time
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from socketserver import ThreadingMixIn
from typing import Any
from wsgiref.simple_server import WSGIRequestHandler, WSGIServer, make_server

from prometheus_client import make_wsgi_app

from tovarincore.command.exporter.metrics import NodeMetrics

__all__ = ["pages", "serving"]

_Start = Callable[[str, list[tuple[str, str]]], Any]
_Application = Callable[[dict[str, Any], _Start], Iterable[bytes]]
_READ_SECONDS = 10.0
_FIRST_PAGE = """<!doctype html><title>tovarin-nodes exporter</title>
<p><a href="/metrics">Metrics</a> of the nodes, and the <a href="/healthz">health</a> of this exporter.</p>
"""


class _Server(ThreadingMixIn, WSGIServer):
    """Answers each request in a thread, which does not keep the program from its end."""

    daemon_threads = True


class _Handler(WSGIRequestHandler):
    """Waits for a request for a short time only, and writes no line for each."""

    timeout = _READ_SECONDS

    def log_message(self, format: str, *arguments: Any) -> None:
        """Write nothing."""


def pages(metrics: NodeMetrics, overdue_seconds: float) -> _Application:
    """Return the application that answers requests.

    :param metrics: what it shows
    :param overdue_seconds: a region is not well when it was last refreshed longer ago
    """
    show_metrics = make_wsgi_app(metrics.registry)

    def answer(environ: dict[str, Any], start_response: _Start) -> Iterable[bytes]:
        path = environ.get("PATH_INFO", "/")
        if path == "/metrics":
            shown: Iterable[bytes] = show_metrics(environ, start_response)
            return shown
        if path == "/healthz":
            late = metrics.overdue(time.time(), overdue_seconds)
            lines = [f"{region.key}: {why}" for region, why in late.items()] or ["ok"]
            status, kind, body = "503 Service Unavailable" if late else "200 OK", "plain", "\n".join(lines)
        elif path == "/":
            status, kind, body = "200 OK", "html", _FIRST_PAGE
        else:
            status, kind, body = "404 Not Found", "plain", "There are /metrics and /healthz."
        start_response(status, [("Content-Type", f"text/{kind}; charset=utf-8")])
        return [body.rstrip("\n").encode() + b"\n"]

    return answer


@contextmanager
def serving(host: str, port: int, metrics: NodeMetrics, overdue_seconds: float) -> Iterator[int]:
    """Answer requests while the body runs; gives the port that it listens on.

    :param host: address to listen on
    :param port: port to listen on, 0 for a free one
    :raises OSError: the address cannot be listened on
    """
    server = make_server(host, port, pages(metrics, overdue_seconds), _Server, _Handler)
    with server:
        thread = threading.Thread(
            target=server.serve_forever, args=(0.2,), name="tovarin-exporter", daemon=True
        )
        thread.start()
        try:
            yield server.server_port
        finally:
            server.shutdown()
            thread.join()
