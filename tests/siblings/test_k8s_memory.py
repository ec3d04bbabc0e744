"""What an API server's answer can cost in memory, measured in a process that does nothing else."""

from __future__ import annotations

import socket
import subprocess
import sys
import threading
import zlib
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

from stage.patience import SETUP_SECONDS
from tovarincore._k8s_console_client import transport

MEGABYTE = 1 << 20
MOST_MEGABYTES = transport._LONGEST_ANSWER_BYTES // MEGABYTE
ASKED = """
import sys
from pathlib import Path
from lightkube.resources.core_v1 import Pod
from tovarincore._k8s_console_client.api import NamespaceApi
from tovarincore._k8s_console_client.credentials import Access
from tovarincore._k8s_console_client.deadline import ApiDeadline
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.transport import Connection

def peak():
    lines = Path("/proc/self/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in lines if line.startswith("VmHWM")) // 1024

access = Access(server=sys.argv[1])
before = peak()
with Connection(access, ApiDeadline(float(sys.argv[2]), "a test"), lambda: access) as connection:
    try:
        told = sum(len(page) for page in NamespaceApi(connection, "n").pages(Pod, {}, 500))
    except KubernetesError as error:
        told = error
print(peak() - before, told)
"""


@contextmanager
def served(packed: bytes) -> Iterator[str]:
    """The address of a server that gives this answer, which is compressed, to one request."""
    head = f"HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: {len(packed)}\r\n\r\n"
    with socket.create_server(("127.0.0.1", 0)) as server:

        def serve() -> None:
            try:
                with server.accept()[0] as connection:
                    connection.recv(65536)
                    connection.sendall(head.encode() + packed)
            except OSError:
                # The client has read enough.
                return

        thread = threading.Thread(target=serve)
        thread.start()
        try:
            yield f"http://127.0.0.1:{server.getsockname()[1]}"
        finally:
            server.shutdown(socket.SHUT_RDWR)
            thread.join()


def squeezed(start: bytes, filling: bytes, megabytes: int, end: bytes) -> bytes:
    """A long answer, compressed a megabyte at a time."""
    squeeze = zlib.compressobj(1, zlib.DEFLATED, 31)
    piece = (filling * MEGABYTE)[:MEGABYTE]
    packed = [squeeze.compress(start)] + [squeeze.compress(piece) for _ in range(megabytes)]
    return b"".join([*packed, squeeze.compress(end), squeeze.flush()])


@pytest.mark.skipif(not Path("/proc/self/status").exists(), reason="a process's peak is read from /proc")
@pytest.mark.parametrize(
    ("parts", "told", "most_megabytes"),
    [
        ((b'{"items": []', b"", 0, b"}"), "0\n", 20),
        # The body once, without a copy.
        ((b'{"items": [', b" ", MOST_MEGABYTES - 1, b"]}"), "0\n", MOST_MEGABYTES + 30),
        ((b"", b"\0", MOST_MEGABYTES + 200, b""), "longer than 134217728 bytes", MOST_MEGABYTES + 30),
        # Each number would be an object of 72 bytes.
        ((b'{"items": [1', b",1", 16, b"]}"), "holds more than 8000000 values; lower page_size", 60),
    ],
    ids=["small", "as long as allowed", "a bomb", "millions of values"],
)
def test_an_answer_costs_little_more_than_its_bytes(
    parts: tuple[bytes, bytes, int, bytes], told: str, most_megabytes: int
) -> None:
    """Whether it is taken or refused."""
    with served(squeezed(*parts)) as address:
        asked = subprocess.run(
            [sys.executable, "-c", ASKED, address, str(SETUP_SECONDS)],
            capture_output=True,
            text=True,
            timeout=SETUP_SECONDS,
            check=True,
        )
    megabytes, _, answer = asked.stdout.partition(" ")
    assert told in answer
    assert int(megabytes) < most_megabytes
