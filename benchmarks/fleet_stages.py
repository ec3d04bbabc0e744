"""What the benchmarks of fleets work on; each stage runs in a process that is not measured."""

from __future__ import annotations

import multiprocessing
import os
import resource
import tempfile
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager, ExitStack, contextmanager
from dataclasses import dataclass, field
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any

from stage.ec2 import IMAGE_NAME
from stage.ec2_endpoint import Ec2Endpoint
from stage.kube_api import KubeApi
from stage.kube_real import KubeReal
from stage.kube_world import KubeWorld, kube_world
from stage.ports import free_port
from tovarincore.testing.reference_worker import ReferenceWorker

WORKERS = 1000


@dataclass(frozen=True)
class Stage:
    """What a measured process has to know of its stage.

    :param settings: sections of its settings file
    :param facts: what else the operation needs
    """

    settings: dict[str, Any] = field(default_factory=dict)
    facts: dict[str, Any] = field(default_factory=dict)


Act = Callable[[], None]
Opened = AbstractContextManager[tuple[Stage, Act]]
"""A stage, and what happens on it when the measured process has prepared itself."""


def _nothing() -> None:
    pass


@contextmanager
def some_silent() -> Iterator[tuple[Stage, Act]]:
    """A worker that answers, and one that accepts connections and says nothing."""
    with ReferenceWorker() as worker, ReferenceWorker(answer=False) as silent:
        addresses = {"silent-*": f"127.0.0.1:{silent.port}", "*": f"127.0.0.1:{worker.port}"}
        yield Stage({"worker_addresses": addresses}), _nothing


def loopback_address(number: int) -> str:
    """One of the machine's many loopback addresses."""
    return f"127.0.{1 + number // 250}.{1 + number % 250}"


@contextmanager
def live_workers() -> Iterator[tuple[Stage, Act]]:
    """1,000 workers, each with its own address, socket and thread."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, max(soft, 16384)), hard))
    port = free_port()
    with ExitStack() as stack:
        for number in range(WORKERS):
            stack.enter_context(ReferenceWorker(loopback_address(number), port))
        yield Stage({"kubernetes": {"worker_port": port}}), _nothing


@contextmanager
def ec2_account() -> Iterator[tuple[Stage, Act]]:
    """An empty account with an image; told to act, it runs 200 instances."""
    with Ec2Endpoint() as endpoint:
        endpoint.prepare_account([IMAGE_NAME])
        client = endpoint.client()
        image = client.describe_images(Owners=["self"])["Images"][0]["ImageId"]
        tags = [{"Key": "tovarin_username", "Value": "bench"}]

        def run_instances() -> None:
            client.run_instances(
                ImageId=image,
                InstanceType="t3.small",
                MinCount=200,
                MaxCount=200,
                TagSpecifications=[{"ResourceType": "instance", "Tags": tags}],
            )

        yield Stage(facts={"url": endpoint.url, "image": image}), run_instances


@contextmanager
def api_server() -> Iterator[tuple[Stage, Act]]:
    """A real kube-apiserver if its program is given, else an emulated one; told to act, it lets pods run."""
    program = os.environ.get("TOVARIN_KUBE_APISERVER", "")
    with ExitStack() as stack:
        folder = Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="tovarin-bench-")))
        (folder / "server").mkdir()
        server: KubeReal | KubeApi = (
            KubeReal(Path(program), folder / "server") if program else KubeApi(folder / "server")
        )
        stack.enter_context(server)
        worker = stack.enter_context(ReferenceWorker())
        world = stack.enter_context(kube_world(server, folder, {}))
        stage = Stage(
            {"worker_addresses": {"*": f"127.0.0.1:{worker.port}"}},
            {
                "namespace": world.namespace,
                "kubeconfig": str(world.kubeconfig),
                "server": "kube-apiserver" if program else "the emulated API server",
            },
        )
        yield stage, lambda: _let_run(world)


def _let_run(world: KubeWorld) -> None:
    for pod in world.pods():
        if pod.spec and pod.spec.nodeName:
            continue
        name = (pod.metadata.name if pod.metadata else None) or ""
        world.bind(name)
        world.set_status(name, "Running", ready="True", pod_ip="10.0.0.1")


@contextmanager
def opened(open_stage: Callable[[], Opened]) -> Iterator[tuple[Stage, Connection]]:
    """Run a stage in a separate process; gives what to know of it, and the line that tells it to act."""
    ours, theirs = multiprocessing.Pipe()
    process = multiprocessing.get_context("spawn").Process(target=_serve, args=(open_stage, theirs))
    process.start()
    theirs.close()
    try:
        yield ours.recv(), ours
    finally:
        ours.send("end")
        process.join()


def _serve(open_stage: Callable[[], Opened], connection: Connection) -> None:
    with open_stage() as (stage, act):
        connection.send(stage)
        while connection.recv() == "act":
            act()
            connection.send("done")
