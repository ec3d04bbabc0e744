"""The client of the workers' web-socket."""

from __future__ import annotations

import os
import threading
import time
from collections.abc import Callable
from types import TracebackType
from typing import TYPE_CHECKING, Any

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._webs_client.errors import ConnectionLost
from tovarincore.api_def import PingRequest, SystemStatRequest
from tovarincore.cloud_def import CloudNode
from tovarincore.core_conf import ConfigError
from tovarincore.core_def import OPResult, OPResultErrorCode

if TYPE_CHECKING:
    from tovarincore._webs_client.connection import Connection
    from tovarincore._webs_client.target import Target

__all__ = ["WebSocketClient"]

_MAX_TIMEOUT_SECONDS = 86400


class WebSocketClient:
    """Sends requests to the worker on a node.

    Making one opens and reads nothing: the first request reads the configuration and connects. The connection
    is kept for later requests, and opened again, once, by a request that finds it broken. Any thread may
    ask; requests of one client wait for each other, which counts as part of their time. A client that is
    simply dropped closes its connection.

    :param node: the node; its record receives what :meth:`refresh_system_stat` learns
    :param client_timeout_sec: longest time for one request in seconds, everything included: resolving,
        connecting, TLS, proxy, handshake, sending and receiving
    :raises ValueError: the time is not more than 0 and at most a day
    """

    def __init__(self, node: CloudNode, client_timeout_sec: float = 10.0) -> None:
        if not 0 < client_timeout_sec <= _MAX_TIMEOUT_SECONDS:
            raise ValueError(
                f"client_timeout_sec is {client_timeout_sec!r}; allowed is more than 0 and at most "
                f"{_MAX_TIMEOUT_SECONDS} seconds"
            )
        self.node = node
        self.client_timeout_sec = client_timeout_sec
        self.worker_id: str | None = None
        """Id of the worker that the client serves; its owner sets it, or the first reply tells."""
        self._connection: Connection | None = None
        self._lock = threading.Lock()
        self._process_id = os.getpid()

    def api_get_op_result(self, request: PingRequest | SystemStatRequest) -> OPResult:
        """Send a request and wait for the reply.

        :return: ``success``, or an error with a message and one of the codes ``TIMEOUT``,
            ``CONNECTION_FAILED``, ``UNAUTHENTICATED``, ``CERTIFICATE_INVALID`` and ``PROTOCOL_ERROR``;
            nothing that network or peer do raises
        :raises ConfigError: configuration or credential store cannot be used
        """
        return self._result_of(lambda: self._ask(request))

    def refresh_system_stat(self) -> OPResult:
        """Ask for the load of the worker's machine and write it into the node's record.

        The record stays as it is when the worker does not tell. ``system_stat_time`` is this machine's time.

        :return: as :meth:`api_get_op_result`
        :raises ConfigError: configuration or credential store cannot be used
        """

        def refresh() -> None:
            from tovarincore._webs_client.messages import read_system_stat

            cpu_percent, used, total = read_system_stat(self._ask(SystemStatRequest()))
            self.node.cpu_percent = cpu_percent
            self.node.memory_used_bytes = used
            self.node.memory_total_bytes = total
            self.node.system_stat_time = time.time()

        return self._result_of(refresh)

    def close(self) -> None:
        """Close the connection; a request under way in another thread is waited for. The next request opens
        another connection."""
        with self._own_lock():
            self._drop()

    def __enter__(self) -> WebSocketClient:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<WebSocketClient of node {self.node.name!r}, worker {self.worker_id!r}>"

    def _result_of(self, body: Callable[[], object]) -> OPResult:
        """The boundary: what a body raises leaves as a result, except for errors of the configuration."""
        # Programs that never speak to a worker save a third of the import. Done here: a package that
        # is missing must not look like the worker's fault, and the time is not the worker's.
        import tovarincore._webs_client.connection  # noqa: F401

        try:
            body()
        except Failure as failure:
            return failure.as_result(self._prefix())
        except ConfigError:
            raise
        except Exception as error:
            # Whatever a peer found to make us or a library stumble, callers are promised a result.
            return Failure(
                f"what answers there made the client stumble ({type(error).__name__}: {error}); see whether "
                "it is a worker of this product",
                OPResultErrorCode.PROTOCOL_ERROR,
            ).as_result(self._prefix())
        return OPResult(success=True)

    def _prefix(self) -> str:
        # The name comes from a tag, which may hold anything.
        name = str(self.node.name)
        return f"Worker of node {name if name.isprintable() else ascii(name)}: "

    def _ask(self, request: PingRequest | SystemStatRequest) -> dict[str, Any]:
        from tovarincore._webs_client.target import read_target

        deadline = Deadline(self.client_timeout_sec)
        target = read_target(self.node)
        deadline.enter("waiting for another thread's request", "use a client for each thread")
        lock = self._own_lock()
        if not lock.acquire(timeout=deadline.remaining()):
            raise deadline.expired()
        try:
            reply = self._exchange(request.kind, target, deadline)
        finally:
            lock.release()
        if self.worker_id is None:
            self.worker_id = reply.get("worker_id")
        return reply

    def _own_lock(self) -> threading.Lock:
        if self._process_id != os.getpid():
            # In a forked child the lock may stand as another thread of the parent held it.
            self._lock, self._process_id = threading.Lock(), os.getpid()
        return self._lock

    def _exchange(self, kind: str, target: Target, deadline: Deadline) -> dict[str, Any]:
        import secrets

        from tovarincore._webs_client.messages import read_reply, write_request

        request_id = secrets.token_hex(8)
        text = write_request(kind, request_id)
        answered = False
        try:
            answer = self._send(text, target, deadline)
            reply = read_reply(answer, kind, request_id, target)
            answered = True
        finally:
            # After a failure of any kind a late answer could be on its way: it would meet the next request.
            if not answered:
                self._drop()
        return reply

    def _send(self, text: str, target: Target, deadline: Deadline) -> str:
        kept = self._connection
        if kept is not None and kept.target == target and kept.process_id == os.getpid():
            try:
                return kept.exchange(text, deadline)
            except ConnectionLost:
                # It was broken since the last request, which is nobody's failure.
                pass
        from tovarincore._webs_client.connection import Connection

        self._drop()
        self._connection = Connection(target, deadline)
        return self._connection.exchange(text, deadline)

    def _drop(self) -> None:
        if self._connection is not None:
            self._connection.close()
            self._connection = None
