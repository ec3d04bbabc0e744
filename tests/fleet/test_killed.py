"""A launch whose program is killed in the middle: what is known afterwards, and what going on makes of it."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Mapping
from pathlib import Path

import pytest

from stage.ec2 import Ec2World
from stage.fault import Answer, FaultEndpoint
from tests.conftest import ROOT
from tovarincore.fleet import Ledger, Patience, launch, settle

COUNT = 20
PROGRAM = f"""
from stage.ec2_endpoint import REGION_NAME
from stage.sdk_once import sdk_read_once
from tovarincore import fleet
from tovarincore.cloud_def import CloudInstanceConfig, CloudInstances, CloudRegion, CpuPlanA
from tovarincore.cloud_node import cloud_manager_glbl

region = CloudRegion(REGION_NAME, "AWS")
with sdk_read_once():
    template = cloud_manager_glbl.get_default_instance_template(region, None, CpuPlanA())
    config = CloudInstanceConfig(20, {{}}, template)
    fleet.launch(region, {COUNT}, CloudInstances.instance_type_list[0], config, names="cold-{{:02}}")
"""


class Watched(FaultEndpoint):
    """Passes everything on, and tells of each request when it arrives and when it is served."""

    def __init__(self, upstream: str, tell: Callable[[str], None]) -> None:
        super().__init__(upstream)
        self.tell = tell

    def _pass_on(self, body: bytes, headers: Mapping[str, str]) -> Answer:
        action = body.decode().partition("Action=")[2].partition("&")[0]
        self.tell(f"{action} arrives")
        answer = super()._pass_on(body, headers)
        self.tell(f"{action} is served")
        return answer


def run_until(world: Ec2World, moment: str, number: int) -> int:
    """Run a launch of twenty in a separate process, kill it at a moment, and return its exit code."""
    lock = threading.Lock()
    started = threading.Event()
    seen = 0

    def tell(event: str) -> None:
        nonlocal seen
        started.wait(60)
        with lock:
            seen += event == moment
            if seen == number and event == moment:
                process.send_signal(signal.SIGKILL)
                process.wait()

    with Watched(world.endpoint.url, tell) as endpoint:
        process = subprocess.Popen(
            [sys.executable, "-c", PROGRAM],
            env={**os.environ, "PYTHONPATH": str(ROOT), "AWS_ENDPOINT_URL_EC2": endpoint.url},
        )
        started.set()
        with process:
            if moment == "id is noted":
                kill_when_noted(process, Ledger().path, number)
            return process.wait(120)


def kill_when_noted(process: subprocess.Popen[bytes], path: Path, number: int) -> None:
    """Kill a process once so many ids are in the ledger."""
    while process.poll() is None:
        if path.exists() and path.read_text().count('"launched", ') >= number:
            process.send_signal(signal.SIGKILL)
            return
        time.sleep(0.002)


late = pytest.mark.thorough(reason="kills later what is killed early, too")
MOMENTS = [
    ("CreateSecurityGroup is served", 1),
    ("AuthorizeSecurityGroupIngress arrives", 1),
    ("RunInstances arrives", 1),
    ("RunInstances is served", 1),
    ("id is noted", 1),
    ("RunInstances arrives", 6),
    ("RunInstances is served", 9),
    pytest.param("id is noted", 12, marks=late),
    pytest.param("RunInstances is served", 15, marks=late),
    pytest.param("RunInstances is served", 20, marks=late),
]


@pytest.mark.parametrize("moment, number", MOMENTS)
def test_a_killed_launch_leaves_no_instance_unknown(ec2: Ec2World, moment: str, number: int) -> None:
    """The ledger has the uuid of every instance, and its id once the region was looked at."""
    assert run_until(ec2, moment, number) == -signal.SIGKILL
    known = {entry.uuid for entry in (*Ledger().entries(), *Ledger().open_intents())}
    assert {tags["tovarin_uuid"] for tags in tags_of(ec2)} <= known
    settle([ec2.region], manager=ec2.manager)
    noted = {entry.instance_id for entry in Ledger().entries()}
    assert noted == {instance["InstanceId"] for instance in ec2.instances()}
    names = [tags["Name"] for tags in tags_of(ec2)]
    assert len(set(names)) == len(names)


@pytest.mark.parametrize("moment, number", [pytest.param(*MOMENTS[0], marks=late), MOMENTS[4], MOMENTS[8]])
def test_a_killed_launch_can_go_on(ec2: Ec2World, moment: str, number: int) -> None:
    """The same launch, repeated, makes what is missing and nothing twice."""
    run_until(ec2, moment, number)
    settle([ec2.region], manager=ec2.manager)
    noted = {entry.instance_id for entry in Ledger().entries()}
    report = launch(
        ec2.region,
        COUNT,
        ec2.type_def,
        ec2.config(),
        names="cold-{:02}",
        if_absent=True,
        patience=Patience(unseen_seconds=0.1),
        manager=ec2.manager,
    )
    assert report.complete
    assert {node.instance_id for node in report.present} == noted
    assert sorted(tags["Name"] for tags in tags_of(ec2)) == [f"cold-{n:02}" for n in range(1, COUNT + 1)]
    assert len(ec2.security_groups()) == 1


def tags_of(world: Ec2World) -> list[dict[str, str]]:
    """The tags of every instance."""
    return [{tag["Key"]: tag["Value"] for tag in entry["Tags"]} for entry in world.instances()]
