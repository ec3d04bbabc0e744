"""Byte streams whose every wait ends at a deadline: a TCP connection, and TLS over any other stream."""

import select
import socket
import ssl
from typing import Protocol

from tovarincore._transport import connecting
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._webs_client.errors import ConnectionLost
from tovarincore.core_def import OPResultErrorCode

__all__ = ["CHUNK_BYTES", "Stream", "TcpStream", "TlsStream", "connect"]

# Small, because what arrived at once is worked through before the clock is looked at again: this many bytes
# of empty pings take some ten milliseconds.
CHUNK_BYTES = 4096


class Stream(Protocol):
    """What a web-socket connection runs over."""

    def send(self, data: bytes, deadline: Deadline) -> None:
        """Send everything.

        :raises Failure: at the deadline, or when the connection is lost (:class:`ConnectionLost`)
        """

    def receive(self, deadline: Deadline) -> bytes:
        """Return what has arrived, waiting for it if necessary; nothing at the end of the stream.

        :raises Failure: as :meth:`send`
        """

    def close(self) -> None:
        """Close at once; closing twice does no harm."""


class TcpStream:
    """A connected socket, which it owns and never lets block.

    :param connected: a non-blocking socket
    """

    def __init__(self, connected: socket.socket) -> None:
        self._socket = connected

    def send(self, data: bytes, deadline: Deadline) -> None:
        view = memoryview(data)
        while view:
            deadline.remaining()
            try:
                view = view[self._socket.send(view) :]
            except BlockingIOError:
                self._wait(select.POLLOUT, deadline)
            except OSError as exc:
                raise ConnectionLost(f"the connection broke while sending: {exc}") from exc

    def receive(self, deadline: Deadline) -> bytes:
        while True:
            deadline.remaining()
            try:
                return self._socket.recv(CHUNK_BYTES)
            except BlockingIOError:
                self._wait(select.POLLIN, deadline)
            except OSError as exc:
                raise ConnectionLost(f"the connection broke while receiving: {exc}") from exc

    def close(self) -> None:
        self._socket.close()

    def _wait(self, events: int, deadline: Deadline) -> None:
        connecting.wait_for({self._socket.fileno(): self._socket}, events, deadline.remaining())


class TlsStream:
    """TLS over another stream, which it owns.

    :param under: stream to the peer
    :param context: certificates and checks
    :param server_name: the name or address that the peer's certificate must carry
    :param deadline: the handshake happens here, until then
    :raises Failure: the certificate does not verify (``CERTIFICATE_INVALID``), or the peer does not
        speak TLS (``PROTOCOL_ERROR``)
    """

    def __init__(self, under: Stream, context: ssl.SSLContext, server_name: str, deadline: Deadline) -> None:
        self._under = under
        self._incoming = ssl.MemoryBIO()
        self._outgoing = ssl.MemoryBIO()
        try:
            self._tls = context.wrap_bio(self._incoming, self._outgoing, server_hostname=server_name)
        except ValueError as exc:
            raise Failure(
                f"{server_name} is not a name that a certificate can carry ({exc}); correct the node's"
                " address",
                OPResultErrorCode.CONNECTION_FAILED,
            ) from exc
        deadline.enter("waiting for the TLS handshake", "see whether the peer speaks TLS there")
        while True:
            try:
                self._tls.do_handshake()
            except ssl.SSLWantReadError:
                self._flush(deadline)
                self._feed(deadline)
            except ssl.SSLCertVerificationError as exc:
                raise Failure(
                    f"the certificate of {server_name} is not accepted ({exc.verify_message}); install a "
                    "certificate with this name, or name its issuer in [worker] ca_file",
                    OPResultErrorCode.CERTIFICATE_INVALID,
                ) from exc
            except ssl.SSLEOFError as exc:
                raise ConnectionLost("the connection ended during the TLS handshake") from exc
            except ssl.SSLError as exc:
                raise Failure(
                    f"the TLS handshake failed ({exc.reason or exc}); see whether the peer speaks TLS, and "
                    "whether [worker] scheme and port are right",
                    OPResultErrorCode.PROTOCOL_ERROR,
                ) from exc
            else:
                self._flush(deadline)
                return

    def send(self, data: bytes, deadline: Deadline) -> None:
        try:
            self._tls.write(data)
        except ssl.SSLError as exc:
            raise ConnectionLost(f"the TLS connection broke while sending: {exc.reason or exc}") from exc
        self._flush(deadline)

    def receive(self, deadline: Deadline) -> bytes:
        while True:
            try:
                return self._tls.read(CHUNK_BYTES)
            except ssl.SSLWantReadError:
                self._flush(deadline)
                self._feed(deadline)
            except (ssl.SSLZeroReturnError, ssl.SSLEOFError):
                return b""
            except ssl.SSLError as exc:
                raise ConnectionLost(f"the TLS connection broke: {exc.reason or exc}") from exc

    def close(self) -> None:
        self._under.close()

    def _flush(self, deadline: Deadline) -> None:
        if self._outgoing.pending:
            self._under.send(self._outgoing.read(), deadline)

    def _feed(self, deadline: Deadline) -> None:
        data = self._under.receive(deadline)
        if data:
            self._incoming.write(data)
        else:
            self._incoming.write_eof()


def connect(host: str, port: int, deadline: Deadline) -> TcpStream:
    """Connect to the first address of a host that accepts.

    :raises Failure: no address accepts (``CONNECTION_FAILED``), or not in time (``TIMEOUT``)
    """
    connected = connecting.connect(
        host,
        port,
        deadline,
        correct="correct the node's address or give one in [worker_addresses]",
        look="see whether the worker runs and listens there",
    )
    return TcpStream(connected)
