"""What the client of the workers' web-socket does at a fork and at the end of the process."""

import os
import subprocess
import sys
from pathlib import Path

from stage.patience import SETUP_SECONDS, in_time
from tovarincore.testing.reference_worker import ReferenceWorker

_ROOT = Path(__file__).resolve().parents[2]

_PREAMBLE = """
import os, socket, sys, threading, time
from stage.worker_timeouts import node_at
from tovarincore.api_def import PingRequest
from tovarincore.webs_client import WebSocketClient
client = WebSocketClient(node_at(sys.argv[1]), client_timeout_sec=float(sys.argv[2]))
"""

_FORK = """
assert client.api_get_op_result(PingRequest()).success
# As another thread would hold it at the moment of the fork.
client._lock.acquire()
child = os.fork()
if child == 0:
    status = 1
    try:
        status = 0 if client.api_get_op_result(PingRequest()).success else 2
        client.close()
    finally:
        os._exit(status)
client._lock.release()
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
kept = client._connection
assert client.api_get_op_result(PingRequest()).success
assert client._connection is kept
"""

_FORK_WITH_HANGING_RESOLVER = """
real = socket.getaddrinfo
socket.getaddrinfo = lambda *_, **__: threading.Event().wait()
assert not client.api_get_op_result(PingRequest()).success
child = os.fork()
if child == 0:
    status = 1
    try:
        socket.getaddrinfo = real
        status = 0 if client.api_get_op_result(PingRequest()).success else 2
    finally:
        os._exit(status)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
"""

_HANGING_RESOLVER = """
socket.getaddrinfo = lambda *_, **__: threading.Event().wait()
result = client.api_get_op_result(PingRequest())
print(result.error_code.name, flush=True)
"""

_OPEN_AT_THE_END = """
assert client.api_get_op_result(PingRequest()).success
in_a_cycle = [WebSocketClient(client.node)]
in_a_cycle.append(in_a_cycle)
assert in_a_cycle[0].api_get_op_result(PingRequest()).success
"""


def run(
    program: str, folder: Path, port: int, address: str = "127.0.0.1"
) -> subprocess.CompletedProcess[str]:
    """Run a program in a separate process, whose warnings are errors, with a worker at a port."""
    environment = {name: value for name, value in os.environ.items() if not name.startswith("TOVARIN_")}
    environment |= {
        "PYTHONPATH": str(_ROOT),
        "TOVARIN_CONF": os.devnull,
        "TOVARIN_CLOUD_CONF": str(folder / "cloud.toml"),
        "TOVARIN_WORKER__PORT": str(port),
    }
    # Forking with threads is what the tests are about; newer interpreters warn of it.
    warnings = ["-W", "error", "-W", "ignore:This process:DeprecationWarning"]
    return subprocess.run(
        [sys.executable, "-X", "dev", *warnings, "-c", _PREAMBLE + program, address, "1"],
        env=environment,
        capture_output=True,
        text=True,
        timeout=SETUP_SECONDS,
        check=False,
    )


def test_a_forked_child_connects_for_itself(tmp_path: Path) -> None:
    """It neither waits for its parent's threads nor disturbs its parent's connection."""
    with ReferenceWorker() as worker:
        child = run(_FORK, tmp_path, worker.port)
    assert (child.returncode, child.stderr) == (0, "")


def test_a_forked_child_resolves_for_itself(tmp_path: Path) -> None:
    """A look-up that hangs in the parent is none of the child's."""
    with ReferenceWorker() as worker:
        child = run(_FORK_WITH_HANGING_RESOLVER, tmp_path, worker.port, address="localhost")
    assert (child.returncode, child.stderr) == (0, "")


def test_a_process_ends_though_the_resolver_hangs(tmp_path: Path) -> None:
    """Its threads are not waited for."""
    with in_time():
        child = run(_HANGING_RESOLVER, tmp_path, 1, address="worker.example")
    assert (child.returncode, child.stdout, child.stderr) == (0, "TIMEOUT\n", "")


def test_clients_that_are_open_at_the_end_are_closed_quietly(tmp_path: Path) -> None:
    """Also those that only the collector finds."""
    with ReferenceWorker() as worker:
        child = run(_OPEN_AT_THE_END, tmp_path, worker.port)
    assert (child.returncode, child.stdout, child.stderr) == (0, "", "")
