"""One web-socket connection to a worker: the handshake, and one message for another."""

import logging
import os
from collections.abc import Iterator

from websockets.client import ClientProtocol
from websockets.exceptions import InvalidStatus, PayloadTooBig
from websockets.frames import Frame, Opcode
from websockets.protocol import State
from websockets.uri import WebSocketURI

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._webs_client.errors import ConnectionLost, not_ours, shown
from tovarincore._webs_client.proxy import open_tunnel
from tovarincore._webs_client.streams import Stream, TlsStream, connect
from tovarincore._webs_client.target import Target
from tovarincore.core_def import OPResultErrorCode

__all__ = ["Connection"]

# The library logs the headers of the handshake at DEBUG, the token among them. This logger is outside of the
# hierarchy, so that no configuration can turn it on.
_silent = logging.Logger("tovarincore.websocket", level=logging.CRITICAL + 1)


class Connection:
    """An open web-socket. It belongs to the process that opened it.

    :param target: where to connect to
    :param deadline: the connection is open by then
    :raises Failure: it cannot be opened; the text says why
    """

    def __init__(self, target: Target, deadline: Deadline) -> None:
        self.target = target
        self.process_id = os.getpid()
        self._stream = _open_stream(target, deadline)
        self._protocol = ClientProtocol(
            WebSocketURI(target.tls is not None, target.name, target.port, target.path, "", None, None),
            max_size=target.max_message_bytes,
            logger=_silent,
        )
        try:
            self._shake_hands(deadline)
        except BaseException:
            self.close()
            raise

    def exchange(self, text: str, deadline: Deadline) -> str:
        """Send a message and return the next one that the worker sends.

        :raises ConnectionLost: the connection ended before there was an answer
        :raises Failure: the answer is not a text message of the allowed size (``PROTOCOL_ERROR``), or
            is not there in time (``TIMEOUT``)
        """
        if self._protocol.state is not State.OPEN:
            raise ConnectionLost("the worker closed the connection after its last reply")
        self._protocol.send_text(text.encode())
        deadline.enter("waiting for the reply", "see the worker's log")
        payload = bytearray()
        for frame in self._frames(deadline):
            if frame.opcode is Opcode.BINARY:
                raise not_ours("it answered with a binary message")
            if frame.opcode in (Opcode.TEXT, Opcode.CONT):
                payload += frame.data
                if frame.fin:
                    break
        try:
            return payload.decode("utf-8")
        except UnicodeDecodeError as exc:
            raise not_ours("its answer is not UTF-8") from exc

    def close(self) -> None:
        """Close without waiting for the other side."""
        self._stream.close()
        # The parser's frame and the protocol refer to each other: finished, neither waits for the collector.
        self._protocol.parser.close()

    def __del__(self) -> None:
        # Only the descriptor is closed: nothing may be sent from here, and perhaps from a forked child.
        if hasattr(self, "_protocol"):
            self.close()

    def _shake_hands(self, deadline: Deadline) -> None:
        request = self._protocol.connect()
        if self.target.token:
            request.headers["Authorization"] = f"Bearer {self.target.token}"
        self._protocol.send_request(request)
        deadline.enter("waiting for the web-socket handshake", "see whether a worker listens there")
        while not self._protocol.events_received() and self._protocol.handshake_exc is None:
            self._receive(deadline)
        failure = self._protocol.handshake_exc
        if failure is None:
            return
        if isinstance(failure, InvalidStatus):
            raise _refused(failure.response.status_code)
        if self._protocol.reader.eof:
            raise ConnectionLost("the connection ended during the web-socket handshake")
        cause = failure.__cause__ or failure
        raise not_ours(f"its handshake is not a web-socket's ({self._shown(str(cause))})")

    def _frames(self, deadline: Deadline) -> Iterator[Frame]:
        while True:
            for event in self._protocol.events_received():
                assert isinstance(event, Frame)
                yield event
            if self._protocol.parser_exc is not None:
                raise self._broken(self._protocol.parser_exc)
            if self._protocol.close_rcvd is not None:
                reason = self._shown(self._protocol.close_rcvd.reason)
                raise ConnectionLost(
                    f"the worker closed the connection (code {self._protocol.close_rcvd.code}, {reason})"
                )
            self._receive(deadline)

    def _broken(self, failure: Exception) -> Failure:
        if isinstance(failure, EOFError):
            return ConnectionLost("the connection ended before the reply")
        if isinstance(failure, PayloadTooBig):
            return Failure(
                f"the worker sent a message of more than {self.target.max_message_bytes} bytes; see whether "
                "it is one of this product, or raise [worker] max_message_bytes",
                OPResultErrorCode.PROTOCOL_ERROR,
            )
        return not_ours(f"it broke the web-socket protocol ({self._shown(str(failure))})")

    def _shown(self, text: str) -> str:
        return shown(text, self.target.token)

    def _receive(self, deadline: Deadline) -> None:
        # What is to be sent goes first, pongs included; after a reply they wait for the next request.
        data = b"".join(self._protocol.data_to_send())
        if data:
            self._stream.send(data, deadline)
        data = self._stream.receive(deadline)
        if data:
            self._protocol.receive_data(data)
        else:
            self._protocol.receive_eof()


def _open_stream(target: Target, deadline: Deadline) -> Stream:
    first = target.proxy or target
    stream: Stream = connect(first.host, first.port, deadline)
    try:
        if target.proxy is not None:
            if target.proxy.tls is not None:
                stream = TlsStream(stream, target.proxy.tls, target.proxy.host, deadline)
            open_tunnel(stream, target, target.proxy.authorization, deadline)
        if target.tls is not None:
            stream = TlsStream(stream, target.tls, target.name, deadline)
    except BaseException:
        stream.close()
        raise
    return stream


def _refused(status: int) -> Failure:
    if status in (401, 403):
        return Failure(
            f"the worker refused the token (status {status}); store the region's worker_token, or set "
            "[worker] token",
            OPResultErrorCode.UNAUTHENTICATED,
        )
    if status >= 500:
        return Failure(
            f"the worker's server failed (status {status}); see its log",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    return not_ours(f"it answered [worker] path with status {status}")
