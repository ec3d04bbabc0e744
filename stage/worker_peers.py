"""Peers that a worker's client may meet instead of a worker, each a server on loopback."""

from __future__ import annotations

import json
import logging
import socket
import ssl
import struct
import threading
from collections.abc import Callable
from contextlib import suppress

from websockets.frames import Frame, Opcode
from websockets.http11 import Request
from websockets.server import ServerProtocol

__all__ = [
    "Conversation",
    "Peer",
    "answers_http",
    "answers_once",
    "answers_text",
    "closes_at_once",
    "drips_handshake",
    "drips_reply",
    "floods_messages",
    "floods_pings",
    "echoes",
    "never_replies",
    "proxies",
    "resets_after_request",
    "says_nothing",
    "sends_huge_frame",
]

_DRIP_SECONDS = 0.05
# So that what a test finds in the log is the client's.
_silent = logging.Logger("peer", level=logging.CRITICAL + 1)


class Conversation:
    """One accepted connection, as the behaviours below see it.

    :param connected: the connection
    :param stopping: set when the peer is to end
    """

    def __init__(self, connected: socket.socket, stopping: threading.Event) -> None:
        self.connected = connected
        self.stopping = stopping
        self.protocol = ServerProtocol(logger=_silent)

    def hold(self) -> None:
        """Keep the connection open and say nothing."""
        self.stopping.wait()

    def drip(self, data: bytes) -> None:
        """Send one byte after the other."""
        for code in data:
            self.connected.sendall(bytes([code]))
            if self.stopping.wait(_DRIP_SECONDS):
                return

    def request(self) -> Request:
        """Return the client's handshake."""
        event = self._next()
        assert isinstance(event, Request)
        return event

    def handshake_answer(self) -> bytes:
        """Read the client's handshake and return the right answer."""
        self.protocol.send_response(self.protocol.accept(self.request()))
        return b"".join(self.protocol.data_to_send())

    def open(self) -> None:
        """Shake hands as a worker does."""
        self.connected.sendall(self.handshake_answer())

    def message(self) -> str:
        """Return the client's next message."""
        while True:
            event = self._next()
            assert isinstance(event, Frame)
            if event.opcode is Opcode.TEXT:
                return bytes(event.data).decode()

    def reply(self, text: str) -> None:
        """Send a text message."""
        self.protocol.send_text(text.encode())
        self.connected.sendall(b"".join(self.protocol.data_to_send()))

    def _next(self) -> object:
        while not (events := self.protocol.events_received()):
            data = self.connected.recv(65536)
            if not data:
                raise ConnectionError("the client has gone")
            self.protocol.receive_data(data)
        return events[0]


Behaviour = Callable[[Conversation], None]


class Peer:
    """Listens on a free port and lets a behaviour loose on every connection, each in a thread.

    :param behaviour: what is done with a connection; failures to send end it
    :param ssl_context: certificate to serve with
    """

    def __init__(self, behaviour: Behaviour, ssl_context: ssl.SSLContext | None = None) -> None:
        self._behaviour = behaviour
        self._ssl_context = ssl_context
        self._stopping = threading.Event()
        self._connected: list[socket.socket] = []
        self._threads: list[threading.Thread] = []

    @property
    def accepted(self) -> int:
        """How many connections there have been."""
        return len(self._connected)

    def __enter__(self) -> Peer:
        self._listening = socket.create_server(("127.0.0.1", 0))
        self.port: int = self._listening.getsockname()[1]
        self._start(self._accept)
        return self

    def __exit__(self, *_: object) -> None:
        self._stopping.set()
        for each in (self._listening, *self._connected):
            _shut_down(each)
        for thread in self._threads:
            thread.join()
        for each in (self._listening, *self._connected):
            each.close()

    def _start(self, target: Callable[..., None], *arguments: object) -> None:
        thread = threading.Thread(target=target, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()

    def _accept(self) -> None:
        while True:
            try:
                connected = self._listening.accept()[0]
            except OSError:
                return
            self._connected.append(connected)
            self._start(self._converse, len(self._connected) - 1)

    def _converse(self, position: int) -> None:
        try:
            if self._ssl_context is not None:
                self._connected[position] = self._ssl_context.wrap_socket(
                    self._connected[position], server_side=True
                )
            self._behaviour(Conversation(self._connected[position], self._stopping))
        except (OSError, AssertionError):
            # The client went away, as it should.
            pass
        finally:
            _shut_down(self._connected[position])


def _shut_down(sock: socket.socket) -> None:
    with suppress(OSError):
        sock.shutdown(socket.SHUT_RDWR)


def says_nothing(conversation: Conversation) -> None:
    """Accepts and says nothing."""
    conversation.hold()


def drips_handshake(conversation: Conversation) -> None:
    """Gives the right handshake, byte by byte."""
    conversation.drip(conversation.handshake_answer())


def never_replies(conversation: Conversation) -> None:
    """Shakes hands and takes requests, and that is all."""
    conversation.open()
    conversation.hold()


def drips_reply(conversation: Conversation) -> None:
    """Gives the right reply, byte by byte."""
    conversation.open()
    request = json.loads(conversation.message())
    conversation.protocol.send_text(json.dumps(request).encode())
    conversation.drip(b"".join(conversation.protocol.data_to_send()))


def floods_pings(conversation: Conversation) -> None:
    """Sends pings as fast as it can, reads nothing."""
    conversation.open()
    pings = b"\x89\x00" * 4096
    while not conversation.stopping.is_set():
        conversation.connected.sendall(pings)


def floods_messages(conversation: Conversation) -> None:
    """Sends one message without end, in empty pieces."""
    conversation.open()
    conversation.message()
    conversation.connected.sendall(b"\x01\x00")
    pieces = b"\x00\x00" * 4096
    while not conversation.stopping.is_set():
        conversation.connected.sendall(pieces)


def sends_huge_frame(conversation: Conversation) -> None:
    """Answers with one frame of 100 MB."""
    conversation.open()
    conversation.message()
    size = 100_000_000
    conversation.connected.sendall(b"\x81\x7f" + struct.pack("!Q", size))
    block = b"x" * 65536
    for _ in range(size // len(block)):
        conversation.connected.sendall(block)


def closes_at_once(conversation: Conversation) -> None:
    """Accepts and closes."""


def resets_after_request(conversation: Conversation) -> None:
    """Takes the request and resets the connection."""
    conversation.open()
    conversation.message()
    # Lingering for no time at all turns closing into a reset.
    conversation.connected.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    conversation.connected.close()


def answers_http(answer: bytes) -> Behaviour:
    """Answers the handshake with these bytes."""

    def behave(conversation: Conversation) -> None:
        conversation.request()
        conversation.connected.sendall(answer)

    return behave


def echoes(conversation: Conversation) -> None:
    """Answers each request with itself, which is the shortest right reply to a ping."""
    conversation.open()
    while True:
        conversation.reply(conversation.message())


def answers_once(conversation: Conversation) -> None:
    """Answers one request rightly, then closes."""
    conversation.open()
    conversation.reply(conversation.message())


def answers_text(reply: Callable[[dict[str, object]], bytes], opcode: int = 0x81) -> Behaviour:
    """Answers each request with the frame whose payload is made of it."""

    def behave(conversation: Conversation) -> None:
        conversation.open()
        while True:
            payload = reply(json.loads(conversation.message()))
            head = struct.pack("!BBQ", opcode, 127, len(payload))
            conversation.connected.sendall(head + payload)

    return behave


def proxies(heads: list[bytes], answer: bytes = b"HTTP/1.1 200 Connection established\r\n\r\n") -> Behaviour:
    """Answers CONNECT as given and, after a success, passes everything on; keeps what it was asked."""

    def behave(conversation: Conversation) -> None:
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            head += conversation.connected.recv(1)
        heads.append(head)
        conversation.connected.sendall(answer)
        if b" 200 " not in answer:
            return
        host, port = head.split()[1].rsplit(b":", 1)
        with socket.create_connection((host.strip(b"[]").decode(), int(port))) as worker:
            back = threading.Thread(target=_pass_on, args=(worker, conversation.connected), daemon=True)
            back.start()
            _pass_on(conversation.connected, worker)
            back.join()

    return behave


def _pass_on(source: socket.socket, destination: socket.socket) -> None:
    with suppress(OSError):
        while data := source.recv(65536):
            destination.sendall(data)
    _shut_down(destination)
