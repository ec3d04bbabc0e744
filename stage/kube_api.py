"""A Kubernetes API server inside the process, which answers as it is told when a test wants it to fail."""

from __future__ import annotations

import json
import socket
import ssl
import threading
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import parse_qs, urlsplit

from stage.kube_server import KubeServer
from stage.kube_store import KIND_OF, KubeStore, Manifest, Refusal

ADMIN_TOKEN = "admin-token"
MANAGER_TOKEN = "manager-token"
POWERLESS_TOKEN = "powerless-token"
"""Tokens of a user who may do everything, of one with a node manager's rights, and of one without any."""

_VERBS = {"GET": "get", "POST": "create", "PATCH": "patch", "PUT": "update", "DELETE": "delete"}


@dataclass(frozen=True)
class Fault:
    """What happens to a request instead of, or after, being served.

    :param refusal: the answer
    :param body: an answer of another kind, with status 200
    :param status: another status for `body`
    :param delay: seconds to wait before the answer
    :param served: the request takes effect before the fault does
    :param hang_up: the connection is closed without an answer
    :param before: called when the request has arrived
    :param drip: seconds between the single bytes of the answer, header included
    :param headers: more headers of the answer
    """

    refusal: Refusal | None = None
    body: bytes | None = None
    status: int = 200
    delay: float = 0.0
    served: bool = False
    hang_up: bool = False
    drip: float = 0.0
    headers: Mapping[str, str] = field(default_factory=dict)
    before: Callable[[], None] | None = None


class KubeApi(KubeServer):
    """Context manager: an API server on a loopback port that stays the same over stops and starts.

    :param folder: an empty folder for its certificate
    """

    def __init__(self, folder: Path) -> None:
        super().__init__(folder)
        self.store = KubeStore()
        self.requests: list[str] = []
        """What was asked for, in order: "POST pods", with the sub-resource where there is one."""
        self.headers: list[tuple[str, str]] = []
        """The headers of the last request."""
        self.tokens = {ADMIN_TOKEN: "admin", MANAGER_TOKEN: "manager", POWERLESS_TOKEN: "powerless"}
        self._faults: dict[str, list[Fault | None]] = {}
        self._server: _Server | None = None
        self.released = threading.Event()
        """Ends the delays of faults."""
        self.running = threading.Event()
        self.running.set()

    def __enter__(self) -> KubeApi:
        self.start()
        return self

    def __exit__(self, *exception: object) -> None:
        self.stop()

    def start(self) -> None:
        """Accept connections."""
        self._server = _Server(self, self._port)
        self._port = self._server.server_port
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()

    def stop(self) -> None:
        """Refuse connections and break those that are open."""
        if self._server is not None:
            self._server.stopping.set()
            self.released.set()
            self.running.set()
            self._server.shutdown()
            self._server.server_close()
            self._server = None

    def pause(self) -> None:
        """Take no connection until `resume`; the system completes them anyway."""
        self.running.clear()

    def resume(self) -> None:
        """Answer again, also what came in meanwhile."""
        self.running.set()

    def fault(self, request: str, fault: Fault, *, skip: int = 0, times: int | None = 1) -> None:
        """Strike requests such as "POST secrets": after `skip` of them, `times` of them (`None`: all)."""
        self._faults[request] = [None] * skip + [fault] * (10_000 if times is None else times)

    def clear_faults(self) -> None:
        """Serve every request."""
        self._faults.clear()
        # Nobody waits for these answers any more.
        self.released.set()
        self.released = threading.Event()

    def take_fault(self, request: str) -> Fault | None:
        """Note a request and return what is to happen to it."""
        self.requests.append(request)
        faults = self._faults.get(request)
        return faults.pop(0) if faults else None


class _Server(ThreadingHTTPServer):
    # Joined at the stop, so that no test leaves a connection open.
    daemon_threads = False

    def __init__(self, api: KubeApi, port: int) -> None:
        self.api = api
        self.stopping = threading.Event()
        self._connections: list[socket.socket] = []
        self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._tls.load_cert_chain(api.certificate.certificate, api.certificate.key)
        super().__init__(("127.0.0.1", port), _Handler)

    def get_request(self) -> tuple[socket.socket, tuple[str, int]]:
        connection, address = super().get_request()
        self.api.running.wait()
        connection = self._tls.wrap_socket(connection, server_side=True, do_handshake_on_connect=False)
        self._connections.append(connection)
        return connection, address

    def handle_error(self, request: object, client_address: object) -> None:
        """Say nothing: clients that hang up are what the tests are about."""

    def server_close(self) -> None:
        for connection in self._connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                continue
        super().server_close()


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True
    server: _Server

    def do_GET(self) -> None:
        self._answer()

    do_POST = do_PUT = do_PATCH = do_DELETE = do_GET

    def log_message(self, format: str, *args: object) -> None:
        """Write nothing."""

    def _answer(self) -> None:
        self.server.api.headers = list(self.headers.items())
        url = urlsplit(self.path)
        query = {key: values[0] for key, values in parse_qs(url.query).items()}
        length = int(self.headers.get("Content-Length") or 0)
        body = json.loads(self.rfile.read(length)) if length else {}
        parts = url.path.split("/")[3:]  # "", "api", "v1"
        namespace = parts.pop(1) if parts[0] == "namespaces" and len(parts) > 2 else ""
        if namespace:
            parts.pop(0)
        plural, name, part = [*parts, "", ""][:3]
        released = self.server.api.released
        fault = self.server.api.take_fault(" ".join(filter(None, (self.command, plural, part)))) or Fault()
        replaced = fault.refusal is not None or fault.body is not None or fault.hang_up
        code, answer = 200, b""
        if fault.before is not None:
            fault.before()
        if fault.delay and not fault.served:
            released.wait(fault.delay)
        if fault.served or not replaced:
            code, answer = self._serve(plural, namespace, name, part, query, body)
        if fault.refusal is not None:
            code, answer = fault.refusal.code, json.dumps(fault.refusal.status).encode()
        elif fault.body is not None:
            code, answer = fault.status, fault.body
        if fault.delay and fault.served:
            released.wait(fault.delay)
        if fault.hang_up or self.server.stopping.is_set():
            self.close_connection = True
            return
        self._write(code, answer, fault, released)

    def _write(self, code: int, answer: bytes, fault: Fault, released: threading.Event) -> None:
        kind = "text/html" if fault.body is not None else "application/json"
        headers = {"Content-Type": kind, "Content-Length": str(len(answer)), **fault.headers}
        lines = [f"HTTP/1.1 {code} -", *(f"{name}: {value}" for name, value in headers.items())]
        head = ("\r\n".join(lines) + "\r\n\r\n").encode()
        if not fault.drip:
            self.wfile.write(head + answer)
            return
        for byte in head + answer:
            self.wfile.write(bytes([byte]))
            if released.wait(fault.drip):
                return

    def _serve(
        self, plural: str, namespace: str, name: str, part: str, query: dict[str, str], body: Manifest
    ) -> tuple[int, bytes]:
        try:
            self._authorize(plural, namespace, name)
            return 201 if self.command == "POST" else 200, json.dumps(
                self._operate(plural, namespace, name, part, query, body)
            ).encode()
        except Refusal as refusal:
            return refusal.code, json.dumps(refusal.status).encode()

    def _authorize(self, plural: str, namespace: str, name: str) -> None:
        user = self.server.api.tokens.get((self.headers.get("Authorization") or "").removeprefix("Bearer "))
        if user is None:
            raise Refusal(401, "Unauthorized", "Unauthorized")
        if user == "powerless":
            verb = "list" if self.command == "GET" and not name else _VERBS[self.command]
            what = f'{plural} "{name}"' if name else plural
            raise Refusal(
                403,
                "Forbidden",
                f'{what} is forbidden: User "{user}" cannot {verb} resource "{plural}" in API group "" '
                f'in the namespace "{namespace}"',
            )

    def _operate(
        self, plural: str, namespace: str, name: str, part: str, query: dict[str, str], body: Manifest
    ) -> Manifest:
        store = self.server.api.store
        success = {"kind": "Status", "apiVersion": "v1", "status": "Success"}
        if plural not in KIND_OF:
            raise Refusal(404, "NotFound", "the server could not find the requested resource")
        if self.command == "POST" and part == "binding":
            store.bind(namespace, name, body["target"]["name"])
            return success
        if self.command == "POST":
            return store.create(plural, namespace, body)
        if self.command in ("PUT", "PATCH"):
            return store.change(plural, namespace, name, body, part or None)
        if self.command == "DELETE":
            grace = body.get("gracePeriodSeconds", query.get("gracePeriodSeconds"))
            uid = body.get("preconditions", {}).get("uid")
            store.delete(plural, namespace, name, None if grace is None else int(grace), uid)
            return success
        if name:
            return store.get(plural, namespace, name)
        items, token = store.page(
            plural,
            namespace,
            query.get("labelSelector", ""),
            int(query.get("limit", 0)),
            query.get("continue"),
        )
        metadata = {"resourceVersion": "1"} | ({"continue": token} if token else {})
        return {"kind": KIND_OF[plural] + "List", "apiVersion": "v1", "metadata": metadata, "items": items}
