"""HTTP requests that end within a deadline, whatever the API server or the network does.

The time-outs of an HTTP client bound one connect, one read or one write. An answer that drips in byte by byte
never meets them, nor does a listing of many pages. So the deadline is kept where the bytes move: each read
and write on a socket may last until the end of the whole operation and no longer.
"""

import ipaddress
import socket
import ssl
import threading
from collections.abc import Callable, Iterable
from typing import Any

import httpcore2
import httpx2

from tovarincore._k8s_console_client.deadline import Deadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.core_def import OPResultErrorCode

__all__ = ["DeadlineTransport"]

# A page of 10,000 pods of 6 KiB each stays below; nothing that the client asks for is larger.
_LONGEST_ANSWER_BYTES = 256 * 1024 * 1024


class DeadlineTransport(httpx2.BaseTransport):
    """Sends requests over one connection, kept open between the requests of an operation.

    :param deadline: when the last byte has to be there
    :param tls: how servers with an ``https`` address are verified
    :param read_authorization: returns the ``Authorization`` header, or ``None`` for none; asked before the
        first request and once more when the server refuses what it gave (401), since tokens are short-lived
        and another process renews them
    """

    def __init__(
        self, deadline: Deadline, tls: ssl.SSLContext, read_authorization: Callable[[], str | None]
    ) -> None:
        self._read_authorization = read_authorization
        self._authorization = read_authorization()
        self._pool = httpcore2.ConnectionPool(
            ssl_context=tls, max_connections=1, network_backend=_DeadlineBackend(deadline)
        )

    def handle_request(self, request: httpx2.Request) -> httpx2.Response:
        """Send the request and return the answer with its whole body read."""
        response = self._send(request)
        if response.status_code == httpx2.codes.UNAUTHORIZED:
            authorization = self._read_authorization()
            if authorization != self._authorization:
                self._authorization = authorization
                return self._send(request)
        return response

    def close(self) -> None:
        """Close the connection."""
        self._pool.close()

    def _send(self, request: httpx2.Request) -> httpx2.Response:
        if self._authorization is not None:
            request.headers["Authorization"] = self._authorization
        url = httpcore2.URL(
            scheme=request.url.raw_scheme,
            host=request.url.raw_host,
            port=request.url.port,
            target=request.url.raw_path,
        )
        content = request.read()
        with self._pool.stream(request.method, url, headers=request.headers.raw, content=content) as response:
            body = bytearray()
            for chunk in response.iter_stream():
                body += chunk
                if len(body) > _LONGEST_ANSWER_BYTES:
                    raise KubernetesError(
                        "The Kubernetes API server's answer is too long; lower page_size in [kubernetes].",
                        OPResultErrorCode.PROTOCOL_ERROR,
                        outcome_unknown=True,
                    )
        headers = httpx2.Headers(response.headers)
        # The Kubernetes library looks for this header without asking whether it is there.
        headers.setdefault("Content-Type", "application/octet-stream")
        return httpx2.Response(response.status, headers=headers, content=bytes(body))


class _DeadlineBackend(httpcore2.NetworkBackend):
    """Opens connections on which every read and write ends by the deadline."""

    def __init__(self, deadline: Deadline) -> None:
        self._deadline = deadline
        self._sockets = httpcore2.SyncBackend()

    def connect_tcp(
        self,
        host: str,
        port: int,
        timeout: float | None = None,
        local_address: str | None = None,
        socket_options: Iterable[Any] | None = None,
    ) -> httpcore2.NetworkStream:
        failure: httpcore2.ConnectError | None = None
        for address in _resolve(host, port, self._deadline):
            try:
                stream = self._sockets.connect_tcp(
                    address, port, self._deadline.remaining(), local_address, socket_options
                )
            except httpcore2.ConnectError as error:
                failure = error
            else:
                return _DeadlineStream(stream, self._deadline)
        raise failure or httpcore2.ConnectError(f"{host} has no address")


class _DeadlineStream(httpcore2.NetworkStream):
    """A connection whose reads and writes end by the deadline; time-outs given to it are not looked at."""

    def __init__(self, stream: httpcore2.NetworkStream, deadline: Deadline) -> None:
        self._stream = stream
        self._deadline = deadline

    def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        return self._stream.read(max_bytes, self._deadline.remaining())

    def write(self, buffer: bytes, timeout: float | None = None) -> None:
        connection: socket.socket = self._stream.get_extra_info("socket")
        view = memoryview(buffer)
        while view:
            connection.settimeout(self._deadline.remaining())
            try:
                sent = connection.send(view)
            except TimeoutError as error:
                raise httpcore2.WriteTimeout(str(error)) from error
            except OSError as error:
                raise httpcore2.WriteError(str(error)) from error
            view = view[sent:]

    def start_tls(
        self, ssl_context: ssl.SSLContext, server_hostname: str | None = None, timeout: float | None = None
    ) -> httpcore2.NetworkStream:
        stream = self._stream.start_tls(ssl_context, server_hostname, self._deadline.remaining())
        return _DeadlineStream(stream, self._deadline)

    def close(self) -> None:
        self._stream.close()

    def get_extra_info(self, info: str) -> Any:
        return self._stream.get_extra_info(info)


def _resolve(host: str, port: int, deadline: Deadline) -> list[str]:
    """Return the addresses of a host.

    The system's look-up has no time-out of its own, so it runs on a daemon thread that is left behind at the
    deadline. Addresses need no look-up and no thread.
    """
    try:
        return [str(ipaddress.ip_address(host))]
    except ValueError:
        pass
    addresses: list[str] = []
    failures: list[Exception] = []

    def look_up() -> None:
        try:
            found = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
        except (OSError, UnicodeError) as error:
            failures.append(error)
        else:
            addresses.extend(dict.fromkeys(str(entry[4][0]) for entry in found))

    thread = threading.Thread(target=look_up, name="kubernetes-name-lookup", daemon=True)
    thread.start()
    thread.join(deadline.remaining())
    if thread.is_alive():
        raise httpcore2.ConnectTimeout(f"the look-up of {host} did not end")
    if failures:
        raise httpcore2.ConnectError(f"the name {host} does not resolve: {failures[0]}") from failures[0]
    return addresses
