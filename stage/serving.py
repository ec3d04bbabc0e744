"""Servers of the standard library's kind, served by a thread."""

from __future__ import annotations

import threading
from collections.abc import Iterator
from contextlib import contextmanager
from socketserver import BaseServer

# How often a server looks whether it shall end; a test waits so long for each server at its end.
_POLL_SECONDS = 0.02


@contextmanager
def serving(server: BaseServer) -> Iterator[None]:
    """Serve for as long as the body runs; then end the thread and close the socket."""
    thread = threading.Thread(target=server.serve_forever, args=(_POLL_SECONDS,), daemon=True)
    thread.start()
    try:
        yield
    finally:
        server.shutdown()
        thread.join()
        server.server_close()
