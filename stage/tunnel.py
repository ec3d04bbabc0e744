"""An HTTP proxy that opens tunnels for those who log in."""

from __future__ import annotations

import base64
import socket
import threading


class TunnelProxy:
    """Context manager: a proxy on a loopback port.

    :param user: name that clients have to give
    :param password: its password
    """

    def __init__(self, user: str, password: str) -> None:
        self._login = base64.b64encode(f"{user}:{password}".encode())
        self._server = socket.create_server(("127.0.0.1", 0))
        self._threads = [threading.Thread(target=self._accept)]
        self._open: list[socket.socket] = []
        self.port: int = self._server.getsockname()[1]
        self.targets: list[str] = []
        """Where tunnels were opened to, as "host:port"."""

    def __enter__(self) -> TunnelProxy:
        self._threads[0].start()
        return self

    def __exit__(self, *exception: object) -> None:
        for each in [self._server, *self._open]:
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                continue
        for thread in self._threads:
            thread.join()
        for each in [self._server, *self._open]:
            each.close()

    def _accept(self) -> None:
        while True:
            try:
                connection = self._server.accept()[0]
            except OSError:
                # The end of the stage shuts the server down.
                return
            self._open.append(connection)
            self._start(self._serve, connection)

    def _start(self, *work: object) -> None:
        function, *arguments = work
        thread = threading.Thread(target=function, args=arguments)  # type: ignore[arg-type]
        self._threads.append(thread)
        thread.start()

    def _serve(self, connection: socket.socket) -> None:
        request = b""
        while b"\r\n\r\n" not in request:
            data = connection.recv(65536)
            if not data:
                return
            request += data
        if b"Basic " + self._login not in request:
            connection.sendall(b"HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 0\r\n\r\n")
            return
        target = request.split()[1].decode()
        self.targets.append(target)
        host, _, port = target.rpartition(":")
        peer = socket.create_connection((host, int(port)))
        self._open.append(peer)
        connection.sendall(b"HTTP/1.1 200 OK\r\n\r\n")
        self._start(_pass_on, connection, peer)
        _pass_on(peer, connection)


def _pass_on(source: socket.socket, sink: socket.socket) -> None:
    try:
        while data := source.recv(65536):
            sink.sendall(data)
        sink.shutdown(socket.SHUT_RDWR)
    except OSError:
        return
