"""A stand-in for a container engine's interface: a Unix socket that gives prepared answers."""

from __future__ import annotations

import json
import tempfile
from collections.abc import Callable
from contextlib import ExitStack, suppress
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler
from pathlib import Path
from socketserver import ThreadingUnixStreamServer
from typing import Any
from urllib.parse import parse_qs, urlsplit

from stage.serving import serving

Answer = tuple[int, Any]


@dataclass(frozen=True)
class EngineRequest:
    """A request as it arrived: path without the version, query parameters and JSON body."""

    method: str
    path: str
    query: dict[str, str]
    body: Any


class _Server(ThreadingUnixStreamServer):
    daemon_threads = True
    api: EngineApi


class EngineApi:
    """Context manager that answers each request with what `answers` holds for its method and path.

    An answer is a status with a JSON value, or a function that writes to the connection by itself. Every
    answer carries `api_version`, unless that is None, as an engine's do.
    """

    def __init__(self) -> None:
        self.answers: dict[tuple[str, str], Answer | Callable[[Any], object]] = {
            ("GET", "/_ping"): (200, "OK"),
            ("GET", "/version"): (200, {"ApiVersion": "1.41"}),
        }
        self.api_version: str | None = "1.41"
        self.requests: list[EngineRequest] = []
        self.url = ""
        self._cleanup = ExitStack()

    def __enter__(self) -> EngineApi:
        # Not pytest's folder: the path of a Unix socket is short.
        folder = self._cleanup.enter_context(tempfile.TemporaryDirectory(prefix="tovarin-api-"))
        path = Path(folder) / "engine.sock"
        server = _Server(str(path), _Handler)
        server.api = self
        self._cleanup.enter_context(serving(server))
        self.url = f"unix://{path}"
        return self

    def __exit__(self, *exception: object) -> None:
        self._cleanup.close()


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server: _Server

    def do_GET(self) -> None:
        self._answer()

    def do_POST(self) -> None:
        self._answer()

    def do_DELETE(self) -> None:
        self._answer()

    def address_string(self) -> str:
        return "unix"

    def log_message(self, format: str, *args: Any) -> None:
        """Write nothing."""

    def _answer(self) -> None:
        url = urlsplit(self.path)
        path = url.path.removeprefix("/v1.41")
        content = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        query = {name: values[0] for name, values in parse_qs(url.query).items()}
        api = self.server.api
        is_json = self.headers.get("Content-Type") == "application/json"
        api.requests.append(
            EngineRequest(self.command, path, query, json.loads(content) if is_json and content else None)
        )
        answer = api.answers[self.command, path]
        if callable(answer):
            self.close_connection = True
            answer(self.wfile)
            return
        status, value = answer
        body = b"" if value is None else json.dumps(value).encode()
        self.send_response(status)
        if api.api_version is not None:
            self.send_header("Api-Version", api.api_version)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        # A client whose time is up has gone.
        with suppress(ConnectionError):
            self.wfile.write(body)
