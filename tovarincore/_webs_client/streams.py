"""Byte streams whose every wait ends at a deadline: a TCP connection, and TLS over any other stream."""

import errno
import os
import select
import socket
import ssl
import time
from typing import Protocol

from tovarincore._webs_client.deadline import Deadline
from tovarincore._webs_client.errors import ConnectionLost, RequestFailed
from tovarincore._webs_client.resolver import SocketAddress, resolve
from tovarincore.core_def import OPResultErrorCode

__all__ = ["CHUNK_BYTES", "Stream", "TcpStream", "TlsStream", "connect"]

# Small, because what arrived at once is worked through before the clock is looked at again: this many bytes
# of empty pings take some ten milliseconds.
CHUNK_BYTES = 4096


class Stream(Protocol):
    """What a web-socket connection runs over."""

    def send(self, data: bytes, deadline: Deadline) -> None:
        """Send everything.

        :raises RequestFailed: at the deadline, or when the connection is lost (:class:`ConnectionLost`)
        """

    def receive(self, deadline: Deadline) -> bytes:
        """Return what has arrived, waiting for it if need be; nothing at the end of the stream.

        :raises RequestFailed: as :meth:`send`
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
                _wait(self._socket, select.POLLOUT, deadline.poll_timeout())
            except OSError as exc:
                raise ConnectionLost(f"the connection broke while sending: {exc}") from exc

    def receive(self, deadline: Deadline) -> bytes:
        while True:
            deadline.remaining()
            try:
                return self._socket.recv(CHUNK_BYTES)
            except BlockingIOError:
                _wait(self._socket, select.POLLIN, deadline.poll_timeout())
            except OSError as exc:
                raise ConnectionLost(f"the connection broke while receiving: {exc}") from exc

    def close(self) -> None:
        self._socket.close()


class TlsStream:
    """TLS over another stream, which it owns.

    :param under: stream to the peer
    :param context: certificates and checks
    :param server_name: the name or address that the peer's certificate must carry
    :param deadline: the handshake happens here, until then
    :raises RequestFailed: the certificate does not verify (``CERTIFICATE_INVALID``), or the peer does not
        speak TLS (``PROTOCOL_ERROR``)
    """

    def __init__(self, under: Stream, context: ssl.SSLContext, server_name: str, deadline: Deadline) -> None:
        self._under = under
        self._incoming = ssl.MemoryBIO()
        self._outgoing = ssl.MemoryBIO()
        try:
            self._tls = context.wrap_bio(self._incoming, self._outgoing, server_hostname=server_name)
        except ValueError as exc:
            raise RequestFailed(
                OPResultErrorCode.CONNECTION_FAILED,
                f"{server_name} is no name that a certificate can carry ({exc}); correct the node's address",
            ) from exc
        deadline.enter("waiting for the TLS handshake", "see whether the peer speaks TLS there")
        while True:
            try:
                self._tls.do_handshake()
            except ssl.SSLWantReadError:
                self._flush(deadline)
                self._feed(deadline)
            except ssl.SSLCertVerificationError as exc:
                raise RequestFailed(
                    OPResultErrorCode.CERTIFICATE_INVALID,
                    f"the certificate of {server_name} is not accepted ({exc.verify_message}); install a "
                    "certificate with this name, or name its issuer in [worker] ca_file",
                ) from exc
            except ssl.SSLEOFError as exc:
                raise ConnectionLost("the connection ended during the TLS handshake") from exc
            except ssl.SSLError as exc:
                raise RequestFailed(
                    OPResultErrorCode.PROTOCOL_ERROR,
                    f"the TLS handshake failed ({exc.reason or exc}); see whether the peer speaks TLS, and "
                    "whether [worker] scheme and port are right",
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

    Each address gets its share of the time that is left, so that one that swallows packets does not use up
    the time of the others.

    :raises RequestFailed: no address accepts (``CONNECTION_FAILED``), or not in time (``TIMEOUT``)
    """
    addresses = resolve(host, port, deadline)
    deadline.enter(
        f"connecting to {host} port {port}", "see whether the host runs and a firewall drops the port"
    )
    # Its text alone: an exception kept in a local variable keeps this frame, which keeps the exception.
    failure = ""
    for position, address in enumerate(addresses):
        seconds = deadline.remaining() / (len(addresses) - position)
        try:
            return TcpStream(_connect_to(address, seconds))
        except OSError as exc:
            failure = str(exc)
    # An address that did not answer in its share is no news when the time is over anyway.
    deadline.remaining()
    raise RequestFailed(
        OPResultErrorCode.CONNECTION_FAILED,
        f"cannot connect to {host} port {port} ({failure}); see whether the worker runs and listens there",
    )


def _connect_to(address: SocketAddress, seconds: float) -> socket.socket:
    family, host, port = address
    connecting = socket.socket(family, socket.SOCK_STREAM)
    try:
        connecting.setblocking(False)
        connecting.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        code = connecting.connect_ex((host, port))
        if code == errno.EINPROGRESS:
            end = time.monotonic() + seconds
            while not _wait(connecting, select.POLLOUT, max(0, int((end - time.monotonic()) * 1000) + 1)):
                if time.monotonic() >= end:
                    raise TimeoutError(errno.ETIMEDOUT, os.strerror(errno.ETIMEDOUT))
            code = connecting.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if code:
            raise OSError(code, os.strerror(code))
    except BaseException:
        connecting.close()
        raise
    return connecting


def _wait(waiting: socket.socket, events: int, milliseconds: int) -> bool:
    # poll() and not select(): a descriptor above 1023 must do as well.
    poll = select.poll()
    poll.register(waiting, events)
    return bool(poll.poll(milliseconds))
