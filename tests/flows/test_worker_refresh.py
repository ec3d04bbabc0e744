"""Refreshing a list of nodes asks their workers over real web-sockets, whatever these do."""

from __future__ import annotations

import gc
import os
import subprocess
import sys
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest

from stage.patience import SLACK_SECONDS
from stage.ports import refusing_port
from stage.settings import settings_of
from tests.thorough import sized
from tovarincore import cloud_node
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, NodeState
from tovarincore.core_def import OPResult
from tovarincore.testing.reference_worker import ReferenceWorker

_PROBE_SECONDS = 2
_ROOT = Path(__file__).resolve().parents[2]


class ListedNodeManager(cloud_node.NodeManager):
    """A provider whose listing is given."""

    def __init__(self, names: list[str]) -> None:
        super().__init__(CloudRegion("eu-central-1", "AWS"))
        self.names = names

    def list_instances(self) -> tuple[list[CloudNode] | None, OPResult]:
        """Return fresh records, as a provider does."""
        nodes = [
            CloudNode(
                region=self.region,
                instance_id=f"i-{name}",
                instance_type_def=CloudInstances.get_default_local_instance_type(),
                name=name,
                uuid=f"uuid-{name}",
                dns_address="127.0.0.1",
                state=NodeState.RUNNING,
            )
            for name in self.names
        ]
        return nodes, OPResult(success=True)

    def _not_asked(self, *arguments: Any, **named: Any) -> Any:
        raise AssertionError("a refresh only lists")

    launch_node = start_node = stop_node = terminate_node = _not_asked
    list_instance_templates = list_instance_types = _not_asked


@contextmanager
def worker_process() -> Iterator[int]:
    """Run the reference worker as a program and give its port."""
    process = subprocess.Popen(
        [sys.executable, "-m", "tovarincore.testing.reference_worker", "--port", "0"],
        cwd=_ROOT,
        env={**os.environ, "PYTHONPATH": str(_ROOT)},
        stdout=subprocess.PIPE,
        text=True,
    )
    with process:
        try:
            assert process.stdout is not None
            yield int(process.stdout.readline().rsplit(" ", 1)[1])
        finally:
            process.terminate()


def open_descriptors() -> int:
    """Return how many files and sockets this process holds."""
    return len(os.listdir("/proc/self/fd"))


def resident_bytes() -> int:
    """Return how much memory this process occupies."""
    fields = Path("/proc/self/statm").read_text().split()
    return int(fields[1]) * os.sysconf("SC_PAGE_SIZE")


def test_five_hanging_workers_of_fifty_cost_two_seconds_each(tmp_path: Path) -> None:
    """The refresh ends ten seconds and a bit after its start, and knows who answered."""
    hanging = {f"hanging-{number}" for number in range(5)}
    names = [f"hanging-{number // 10}" if number % 10 == 3 else f"healthy-{number}" for number in range(50)]
    with ReferenceWorker() as healthy, ReferenceWorker(answer=False) as silent:
        addresses = {
            "healthy-*": f"127.0.0.1:{healthy.port}",
            "hanging-*": f"127.0.0.1:{silent.port}",
        }
        manager = ListedNodeManager(names)
        with settings_of(tmp_path, {"worker_addresses": addresses}):
            start = time.monotonic()
            result = manager.refresh_node_list()
            took = time.monotonic() - start
        assert healthy.requests == 2 * 45
    assert result == OPResult(success=True)
    assert len(hanging) * _PROBE_SECONDS <= took < len(hanging) * _PROBE_SECONDS + SLACK_SECONDS
    nodes = manager.get_node_list()
    assert [node.name for node in nodes] == names
    assert {node.name for node in nodes if not node.ready} == hanging
    for node in nodes:
        assert (node.memory_total_bytes is not None) is node.ready


def test_many_refreshes_leave_nothing_behind(tmp_path: Path) -> None:
    """Sockets are closed without the collector's help; memory, threads and descriptors stay as they were.

    The worker is another process, so that everything counted belongs to the client.
    """
    manager = ListedNodeManager(["healthy", "refusing"])
    rounds = sized(500, 1000)
    with worker_process() as port, refusing_port() as closed:
        addresses = {"healthy": f"127.0.0.1:{port}", "refusing": f"127.0.0.1:{closed}"}
        with settings_of(tmp_path, {"worker_addresses": addresses}):
            # The interpreter's free lists take some hundred rounds to fill.
            for _ in range(500):
                manager.refresh_node_list()
            gc.collect()
            descriptors, threads = open_descriptors(), threading.active_count()
            blocks, resident = sys.getallocatedblocks(), resident_bytes()
            gc.disable()
            try:
                for _ in range(rounds):
                    assert manager.refresh_node_list().success
                    assert open_descriptors() == descriptors
            finally:
                gc.enable()
            gc.collect()
    assert [node.ready for node in manager.get_node_list()] == [True, False]
    assert threading.active_count() == threads
    # One thing forgotten per refresh would be a block for each and more.
    assert sys.getallocatedblocks() - blocks < rounds // 2
    assert resident_bytes() - resident < 2_000_000


@pytest.mark.parametrize("answers", [True, False], ids=["answering", "hanging"])
def test_refresh_node_probes_one_worker(tmp_path: Path, answers: bool) -> None:
    """The caller's record learns that the worker is ready, the stored copy its statistics."""
    manager = ListedNodeManager(["node"])
    (node,) = manager.list_instances()[0] or []
    with ReferenceWorker(answer=answers) as worker:
        with settings_of(tmp_path, {"worker": {"port": worker.port}}):
            result = manager.refresh_node(node)
    assert result == OPResult(success=True)
    stored = manager.find_node_by_instance_id(node.instance_id)
    assert stored is not None
    assert (node.ready, stored.ready) == (answers, False)
    assert (stored.cpu_percent is not None) is answers
    assert node.cpu_percent is None
