"""Launches on an EC2 endpoint on loopback, alone and together, with and without shared descriptions."""

from __future__ import annotations

import multiprocessing
import statistics
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from datetime import datetime
from multiprocessing.connection import Connection

from benchmarks.report import seconds
from stage.ec2_endpoint import ACCESS_KEY_ID, REGION_NAME, SECRET_ACCESS_KEY, Ec2Endpoint
from stage.settings import surroundings
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudRegion,
    InstanceTemplate,
)
from tovarincore.sdk_data import service_descriptions_shared

IMAGE_NAME = "TOVARIN_AI_CPU_PLAN_A_1.0.0"
AT_ONCE = (1, 5, 10, 20, 50)
ROUNDS = 3


def serve(connection: Connection) -> None:
    """The endpoint, in a separate process: its work is not the launch's."""
    with Ec2Endpoint() as endpoint:
        endpoint.prepare_account([IMAGE_NAME])
        images = endpoint.client().describe_images(Owners=["self"])["Images"]
        connection.send((endpoint.url, images[0]["ImageId"]))
        connection.recv()


@dataclass(frozen=True)
class Line:
    """Latencies of launches that began together, in seconds, and how many failed."""

    at_once: int
    median: float
    longest: float
    failed: int


@contextmanager
def account() -> Iterator[tuple[CloudRegion, AWSCloudAuth, str]]:
    """An EC2 endpoint in a separate process; gives region, credentials and the id of an image."""
    region = CloudRegion(REGION_NAME, "AWS")
    auth = AWSCloudAuth(aws_access_key_id=ACCESS_KEY_ID, aws_secret_access_key=SECRET_ACCESS_KEY)
    ours, theirs = multiprocessing.Pipe()
    server = multiprocessing.get_context("spawn").Process(target=serve, args=(theirs,))
    server.start()
    try:
        url, image_id = ours.recv()
        with surroundings(url, region, CloudConf(auth, "bench", ""), {}):
            yield region, auth, image_id
    finally:
        ours.send("end")
        server.join()


def config_of(region: CloudRegion, image_id: str) -> CloudInstanceConfig:
    """What a launch asks for."""
    template = InstanceTemplate.create_from(
        image_template_id=image_id,
        image_template_name=IMAGE_NAME,
        creation_date=datetime(2024, 3, 1),
        region=region,
    )
    assert template is not None
    return CloudInstanceConfig(20, {"idle_minutes": 30}, template)


def launches(at_once: int, region: CloudRegion, auth: AWSCloudAuth, image_id: str) -> Line:
    """Launch that many nodes at once, a few times."""
    from tovarincore.cloud_node import AWSNodeManager

    manager = AWSNodeManager(region, auth=auth, username="bench")
    taken: list[float] = []
    failed: list[str] = []

    def launch(barrier: threading.Barrier) -> None:
        config = config_of(region, image_id)
        barrier.wait()
        start = time.perf_counter()
        try:
            _, result = manager.launch_node(CloudInstances.instance_type_list[0], config, auth, "bench")
            problem = None if result.success else result.msg
        except TimeoutError:
            problem = "no lock within three seconds"
        taken.append(time.perf_counter() - start)
        if problem is not None:
            failed.append(problem)

    for _ in range(ROUNDS):
        barrier = threading.Barrier(at_once)
        threads = [threading.Thread(target=launch, args=(barrier,)) for _ in range(at_once)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    return Line(at_once, statistics.median(taken), max(taken), len(failed))


def measured(region: CloudRegion, auth: AWSCloudAuth, image_id: str) -> list[Line]:
    launches(1, region, auth, image_id)  # makes the security group, and reads what is read once
    return [launches(at_once, region, auth, image_id) for at_once in AT_ONCE]


def table() -> str:
    """Both ways as a Markdown table."""
    with account() as (region, auth, image_id):
        fresh = measured(region, auth, image_id)
        with service_descriptions_shared():
            shared = measured(region, auth, image_id)
    lines = [
        "| launches at once | fresh: median, longest | failed | shared: median, longest | failed |",
        "|---|---|---|---|---|",
    ]
    for one, other in zip(fresh, shared, strict=True):
        cells = [str(one.at_once)]
        for line in (one, other):
            cells.append(f"{seconds(line.median)}, {seconds(line.longest)}")
            cells.append(f"{line.failed} of {line.at_once * ROUNDS}")
        lines.append(f"| {' | '.join(cells)} |")
    return "\n".join(lines)
