"""HTTP requests that end within a deadline, whatever the API server or the network does.

The time-outs of an HTTP client bound one connect, one read or one write. An answer that drips in byte by byte
never meets them, nor does a listing of many pages. So the deadline is kept where the bytes move: each read
and write on a socket may last until the end of the whole operation and no longer.
"""

import select
import socket
import ssl
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from types import TracebackType
from urllib.parse import unquote, urlencode, urlsplit

import httpcore2

from tovarincore._k8s_console_client.credentials import Access
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.failures import failure_of
from tovarincore._k8s_console_client.tls import tls_context
from tovarincore._transport.connecting import connect, wait_for
from tovarincore._transport.failure import Failure
from tovarincore._transport.inflating import read_body
from tovarincore._transport.telling import told
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Answer", "Connection"]

# A page of 10,000 pods of 6 KiB each stays below; nothing that the client asks for is larger.
_LONGEST_ANSWER_BYTES = 128 * 1024 * 1024
# Those have half as many. Two bytes of JSON can become a hundred in memory, as in a list of numbers.
_MOST_VALUES = 8_000_000
_SHORTEST_PAUSE_SECONDS = 0.2


@dataclass(frozen=True)
class Answer:
    """What an API server answered.

    :param status: HTTP status
    :param body: decompressed
    :param retry_after: seconds after which the server wants to be asked again, ``None`` when it does not say
    """

    status: int
    body: bytes
    retry_after: int | None = None


class Connection:
    """Sends requests over one connection, kept open between the requests of an operation.

    A context manager, closed at its end. Nothing is connected before the first request.

    :param access: how the server is reached, and as whom
    :param deadline: when the last byte has to be there
    :param renew: returns the access once more; asked when the server refuses the credentials (401), since
        they are short-lived and another process renews them
    :raises KubernetesError: the address or the certificates cannot be used
    """

    def __init__(self, access: Access, deadline: ApiDeadline, renew: Callable[[], Access]) -> None:
        self._access = access
        self._deadline = deadline
        self._renew = renew
        self._server = _parse_server(access.server)
        self._backend = _DeadlineBackend(deadline)
        self._pool = httpcore2.ConnectionPool(
            ssl_context=tls_context(access),
            max_connections=1,
            network_backend=self._backend,
            proxy=_proxy(access),
        )

    def __enter__(self) -> "Connection":
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._pool.close()

    def send(
        self,
        method: str,
        path: str,
        query: dict[str, str] | None = None,
        body: bytes | None = None,
        content_type: str = "application/json",
    ) -> Answer:
        """Send a request and return the answer with its whole body.

        A server that is busy or starting says when to ask again (``Retry-After``). It is asked again then, as
        long as that is before the deadline.

        :raises KubernetesError: there is no answer
        """
        target = path + (f"?{urlencode(query)}" if query else "")
        answer = self._send_once(method, target, body, content_type)
        if answer.status == 401:
            renewed = self._renew()
            if renewed.authorization != self._access.authorization:
                self._access = renewed
                answer = self._send_once(method, target, body, content_type)
        while self._is_worth_waiting_for(answer, method):
            answer = self._send_once(method, target, body, content_type)
        return answer

    def _is_worth_waiting_for(self, answer: Answer, method: str) -> bool:
        """Wait as long as the server asks for; return whether to ask again."""
        # With 429 nothing has been done. With 503 it may have been: a second POST could meet the first.
        busy = answer.status == 429 or (answer.status == 503 and method != "POST")
        if not busy or answer.retry_after is None:
            return False
        pause = max(answer.retry_after, _SHORTEST_PAUSE_SECONDS)
        if pause >= self._deadline.remaining():
            return False
        time.sleep(pause)
        return True

    def _send_once(self, method: str, target: str, body: bytes | None, content_type: str) -> Answer:
        scheme, host, port, prefix = self._server
        url = httpcore2.URL(scheme=scheme, host=host, port=port, target=(prefix + target).encode("ascii"))
        extensions = {"sni_hostname": self._access.server_name} if self._access.server_name else {}
        sent = self._backend.sent_bytes
        try:
            headers = [
                (name.encode("ascii"), value.encode()) for name, value in self._headers(body, content_type)
            ]
            with (
                told(f"{method} {target}", self._access.server, self._access.source) as answered,
                self._pool.stream(
                    method, url, headers=headers, content=body or b"", extensions=extensions
                ) as response,
            ):
                answered(response.status)
                received = {name.lower(): value for name, value in response.headers}
                encoding = received.get(b"content-encoding", b"").decode("ascii", "replace")
                content = read_body(
                    response.iter_stream(),
                    encoding,
                    _LONGEST_ANSWER_BYTES,
                    self._deadline,
                    "lower page_size in [kubernetes]",
                )
                _check_count_of_values(content)
        except Exception as error:
            raise failure_of(error, outcome_unknown=self._backend.sent_bytes > sent) from error
        wait = received.get(b"retry-after", b"").strip()
        return Answer(response.status, content, int(wait) if wait.isdigit() and len(wait) < 6 else None)

    def _headers(self, body: bytes | None, content_type: str) -> Iterable[tuple[str, str]]:
        _, host, port, _ = self._server
        name = host.decode("ascii")
        yield "Host", f"[{name}]:{port}" if ":" in name else f"{name}:{port}"
        yield "User-Agent", "tovarincore"
        yield "Accept", "application/json"
        if self._access.compress:
            yield "Accept-Encoding", "gzip"
        if self._access.authorization is not None:
            yield "Authorization", self._access.authorization
        yield from self._access.impersonation
        if body is not None:
            yield "Content-Type", content_type
            yield "Content-Length", str(len(body))


def _check_count_of_values(content: bytes) -> None:
    # Each value but the outermost follows one of these, or a key that does.
    if len(content) > _MOST_VALUES and sum(map(content.count, (b",", b"[", b"{"))) > _MOST_VALUES:
        raise Failure(
            f"its answer holds more than {_MOST_VALUES} values; lower page_size in [kubernetes]",
            OPResultErrorCode.PROTOCOL_ERROR,
        )


def _parse_server(address: str) -> tuple[bytes, bytes, int, str]:
    """Return scheme, host, port and the start of every path."""
    try:
        parts = urlsplit(address)
        host = (parts.hostname or "").encode("idna" if not (parts.hostname or "").isascii() else "ascii")
        port = parts.port or {"https": 443, "http": 80}[parts.scheme]
        prefix = parts.path.rstrip("/")
        usable = bool(host) and parts.username is None and not parts.query and prefix.isascii()
    except (ValueError, KeyError):
        usable = False
    if not usable or not prefix.isprintable() or " " in prefix:
        raise KubernetesError(
            "The server's address in the kubeconfig cannot be used; it has to be like https://host:6443",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    return parts.scheme.encode(), host, port, prefix


def _proxy(access: Access) -> httpcore2.Proxy | None:
    if access.proxy is None:
        return None
    try:
        parts = urlsplit(access.proxy)
        host, port = parts.hostname or "", parts.port or 3128
        login = f"{unquote(parts.username or '')}:{unquote(parts.password or '')}".encode()
        if not host:
            raise ValueError
        url = httpcore2.URL(scheme=b"http", host=host.encode("ascii"), port=port, target=b"/")
    except ValueError:
        raise KubernetesError(
            "The proxy-url of the kubeconfig cannot be used; it has to be like http://host:3128",
            OPResultErrorCode.CONNECTION_FAILED,
        ) from None
    user, _, password = login.partition(b":")
    return httpcore2.Proxy(url, auth=(user, password) if user else None)


class _DeadlineBackend(httpcore2.NetworkBackend):
    """Opens connections on which every read and write ends by the deadline."""

    def __init__(self, deadline: ApiDeadline) -> None:
        self.deadline = deadline
        self.sent_bytes = 0

    def connect_tcp(
        self,
        host: str,
        port: int,
        timeout: float | None = None,
        local_address: str | None = None,
        socket_options: Iterable[httpcore2.SOCKET_OPTION] | None = None,
    ) -> httpcore2.NetworkStream:
        connected = connect(
            host,
            port,
            self.deadline,
            correct="correct the address in the kubeconfig",
            look="check the address in the kubeconfig, and whether the API server runs",
        )
        self.deadline.await_answer()
        return _DeadlineStream(connected, self)


class _DeadlineStream(httpcore2.NetworkStream):
    """A connection whose reads and writes end by the deadline; time-outs given to it are not looked at."""

    def __init__(self, connected: socket.socket, backend: _DeadlineBackend) -> None:
        self._socket = connected
        self._backend = backend

    def read(self, max_bytes: int, timeout: float | None = None) -> bytes:
        self._limit()
        try:
            return self._socket.recv(max_bytes)
        except TimeoutError as error:
            raise self._backend.deadline.expired() from error

    def write(self, buffer: bytes, timeout: float | None = None) -> None:
        view = memoryview(buffer)
        while view:
            self._limit()
            try:
                count = self._socket.send(view)
            except TimeoutError as error:
                raise self._backend.deadline.expired() from error
            except OSError as error:
                # By this one the library knows to look for an answer that came before the request's end.
                raise httpcore2.WriteError(str(error)) from error
            self._backend.sent_bytes += count
            view = view[count:]

    def start_tls(
        self, ssl_context: ssl.SSLContext, server_hostname: str | None = None, timeout: float | None = None
    ) -> httpcore2.NetworkStream:
        self._limit()
        try:
            self._socket = ssl_context.wrap_socket(self._socket, server_hostname=server_hostname)
        except BaseException as error:
            self.close()
            if isinstance(error, TimeoutError):
                raise self._backend.deadline.expired() from error
            raise
        return self

    def close(self) -> None:
        self._socket.close()

    def get_extra_info(self, info: str) -> object:
        if info == "ssl_object":
            return self._socket if isinstance(self._socket, ssl.SSLSocket) else None
        if info == "is_readable":
            # Bytes before the next request: the server has hung up.
            return bool(wait_for({self._socket.fileno(): self._socket}, select.POLLIN, 0))
        return None

    def _limit(self) -> None:
        self._socket.settimeout(self._backend.deadline.remaining())
