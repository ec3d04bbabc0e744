"""Operations on many nodes: the facade's calls one after the other beside `tovarincore.fleet`, in one run.

Each side runs in a process that does nothing else, on a stage that no other side has touched; listings of the
refreshes come from memory, all else goes through sockets on loopback.
"""

from __future__ import annotations

import multiprocessing
import resource
import tempfile
import time
from collections.abc import Callable, Sequence
from copy import deepcopy
from dataclasses import dataclass, field, replace
from datetime import datetime
from multiprocessing.connection import Connection
from pathlib import Path
from unittest.mock import patch
from uuid import uuid4

from benchmarks import fleet_stages as stages
from benchmarks.fleet_stages import Opened, Stage
from benchmarks.report import ratio, seconds
from stage.ec2 import IMAGE_NAME
from stage.ec2_endpoint import ACCESS_KEY_ID, REGION_NAME, SECRET_ACCESS_KEY
from stage.settings import settings_of
from tovarincore import cloud_node, fleet
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    InstanceTemplate,
    InstanceTemplatePayType,
    K8sRegion,
    NodeState,
)
from tovarincore.cloud_node import CloudManager
from tovarincore.core_def import OPResult

PODS = 500
POD_SIZE = CloudInstanceTypeDef("k8s.small", 1, 2048)


@dataclass(frozen=True)
class Cost:
    """What one side took.

    :param seconds: on the clock
    :param cpu_seconds: of the processors, in this process
    :param peak_bytes: most memory that the process has held
    :param outcome: what came of it, in a few words
    """

    seconds: float
    cpu_seconds: float
    peak_bytes: int
    outcome: str


@dataclass
class Run:
    """One side of one benchmark, in its own process.

    :param stage: what it works on
    :param line: to the stage
    :param together: the side of `tovarincore.fleet`
    """

    stage: Stage
    line: Connection
    together: bool
    costs: dict[str, Cost] = field(default_factory=dict)

    def act(self) -> None:
        """Let happen on the stage what happens there between two operations."""
        self.line.send("act")
        self.line.recv()

    def measure(self, name: str, operation: Callable[[], str]) -> None:
        """Do something, and note what it took and what came of it."""
        begin, begin_cpu = time.perf_counter(), time.process_time()
        outcome = operation()
        taken, taken_cpu = time.perf_counter() - begin, time.process_time() - begin_cpu
        peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024
        self.costs[name] = Cost(taken, taken_cpu, peak, outcome)


@dataclass
class Fleet:
    """Nodes of one region, and what is done with all of them on either side."""

    region: CloudRegion
    size: CloudInstanceTypeDef = POD_SIZE
    config: CloudInstanceConfig | None = None
    manager: CloudManager = field(default_factory=CloudManager)
    nodes: list[CloudNode] = field(default_factory=list)

    def refresh(self, together: bool) -> str:
        """Refresh the region."""
        if together:
            result = fleet.refresh([self.region], manager=self.manager)[0].result
        else:
            result = self.manager.refresh_node_list(self.region)
        assert result.success, result
        listed = self.manager.get_node_list(self.region)
        return f"{sum(node.ready for node in listed)} of {len(listed)} ready"

    def launch(self, count: int, together: bool) -> str:
        """Launch so many nodes."""
        assert self.config is not None
        if together:
            report = fleet.launch(
                self.region, count, self.size, self.config, names="web-{}", manager=self.manager
            )
            self.nodes = report.launched
        else:
            for number in range(1, count + 1):
                config = replace(self.config, uuid=str(uuid4()), name=f"web-{number}")
                node, _ = self.manager.launch_node(self.region, None, self.size, config, username="bench")
                self.nodes += [] if node is None else [node]
        return f"{len(self.nodes)} launched, {count - len(self.nodes)} failed"

    def terminate(self, together: bool) -> str:
        """End all of them."""
        if together:
            ended = len(fleet.terminate(self.nodes, manager=self.manager).done)
        else:
            results = [
                self.manager.terminate_node(self.region, None, node.instance_id) for node in self.nodes
            ]
            ended = sum(result.success for result in results)
        return f"{ended} of {len(self.nodes)} ended"


def refresh_silent(run: Run) -> None:
    """200 nodes, 20 of which accept connections and say nothing."""
    names = [f"silent-{number}" if number % 10 == 0 else f"web-{number}" for number in range(200)]
    _refresh(run, "refresh of 200 nodes, 20 of them silent", [_running(name, "127.0.0.1") for name in names])


def refresh_live(run: Run) -> None:
    """1,000 workers, each at its own address."""
    nodes = [_running(f"web-{number}", stages.loopback_address(number)) for number in range(stages.WORKERS)]
    _refresh(run, f"refresh of {len(nodes):,} live workers", nodes)


def refresh_small(run: Run) -> None:
    """A few nodes whose workers answer at once, again and again: what starting threads for them costs."""
    for count in (1, 5, 20):
        nodes = [_running(f"web-{number}", "127.0.0.1") for number in range(count)]
        _refresh(run, f"50 refreshes of {count} {'node' if count == 1 else 'nodes'}", nodes, 50)


def _refresh(run: Run, name: str, nodes: Sequence[CloudNode], times: int = 1) -> None:
    class Console:
        """A cluster whose listing is in memory."""

        def __init__(self, region: CloudRegion) -> None:
            pass

        def get_cloud_nodes(self) -> tuple[list[CloudNode], OPResult]:
            """Return new records each time, as a provider does."""
            return deepcopy(list(nodes)), OPResult(success=True)

    with patch.object(cloud_node, "K8sConsoleClient", Console):
        listed = Fleet(nodes[0].region)
        run.measure(name, lambda: [listed.refresh(run.together) for _ in range(times)][-1])


def _running(name: str, address: str) -> CloudNode:
    region = K8sRegion("bench")
    return CloudNode(region, name, POD_SIZE, name, name, dns_address=address, state=NodeState.RUNNING)


def launch_32(run: Run) -> None:
    """A launch in an empty account, security group included."""
    run.measure("launch of 32 on EC2", lambda: _on_ec2(run.stage).launch(32, run.together))


def terminate_200(run: Run) -> None:
    """The end of nodes that somebody has launched."""
    nodes = _on_ec2(run.stage)
    run.act()
    listed, _ = nodes.manager.list_instances(nodes.region)
    nodes.nodes = listed or []
    run.measure("terminate of 200 on EC2", lambda: nodes.terminate(run.together))


def _on_ec2(stage: Stage) -> Fleet:
    region = CloudRegion(REGION_NAME, "AWS")
    auth = AWSCloudAuth(aws_access_key_id=ACCESS_KEY_ID, aws_secret_access_key=SECRET_ACCESS_KEY)
    CloudConfManager().set_cloud_conf(region, CloudConf(auth, "bench"))
    template = InstanceTemplate.create_from(
        image_template_id=stage.facts["image"],
        image_template_name=IMAGE_NAME,
        creation_date=datetime(2024, 3, 1),
        region=region,
    )
    assert template is not None
    config = CloudInstanceConfig(20, {"idle_minutes": 30}, template)
    return Fleet(region, CloudInstances.instance_type_list[0], config)


def pods(run: Run) -> None:
    """Pods through their life."""
    name = run.stage.facts["namespace"]
    region = K8sRegion(name=name, namespace=name, kubeconfig=run.stage.facts["kubeconfig"])
    template = InstanceTemplate(
        instance_template_id="registry.example/worker:1.2.3",
        name="worker",
        product_pay_type=InstanceTemplatePayType.DEV,
        created_date=datetime(2026, 1, 1),
        region=region,
        version="1.2.3",
    )
    nodes = Fleet(region, POD_SIZE, CloudInstanceConfig(20, {}, template))
    where = run.stage.facts["server"]
    run.measure(f"launch of {PODS} pods on {where}", lambda: nodes.launch(PODS, run.together))
    run.act()
    run.measure(f"refresh of {PODS} pods on {where}", lambda: nodes.refresh(run.together))
    run.measure(f"terminate of {PODS} pods on {where}", lambda: nodes.terminate(run.together))


BENCHMARKS: list[tuple[Callable[[], Opened], Callable[[Run], None]]] = [
    (stages.some_silent, refresh_small),
    (stages.some_silent, refresh_silent),
    (stages.live_workers, refresh_live),
    (stages.ec2_account, launch_32),
    (stages.ec2_account, terminate_200),
    (stages.api_server, pods),
]


def _one_side(operate: Callable[[Run], None], run: Run, connection: Connection) -> None:
    """The measured process."""
    variables = {"AWS_ENDPOINT_URL_EC2": run.stage.facts["url"]} if "url" in run.stage.facts else {}
    with (
        tempfile.TemporaryDirectory(prefix="tovarin-bench-") as folder,
        settings_of(Path(folder), run.stage.settings, **variables),
    ):
        operate(run)
    connection.send(run.costs)


def measured(
    open_stage: Callable[[], Opened], operate: Callable[[Run], None], together: bool
) -> dict[str, Cost]:
    """One side of a benchmark on a fresh stage, in a fresh process."""
    context = multiprocessing.get_context("spawn")
    with stages.opened(open_stage) as (stage, line):
        ours, theirs = context.Pipe()
        process = context.Process(target=_one_side, args=(operate, Run(stage, line, together), theirs))
        process.start()
        theirs.close()
        try:
            costs: dict[str, Cost] = ours.recv()
        finally:
            process.join()
        return costs


def table(pattern: str = "") -> str:
    """Both sides as a Markdown table."""
    lines = [
        "| operation | one after the other | CPU, peak memory | together | CPU, peak memory | ratio |",
        "|---|---|---|---|---|---|",
    ]
    for open_stage, operate in BENCHMARKS:
        if pattern not in operate.__name__:
            continue
        alone, together = (measured(open_stage, operate, side) for side in (False, True))
        for name, cost in alone.items():
            other = together[name]
            cells = [name, *_cells(cost), *_cells(other), ratio(cost.seconds / other.seconds)]
            lines.append(f"| {' | '.join(cells)} |")
    return "\n".join(lines)


def _cells(cost: Cost) -> list[str]:
    return [
        f"{seconds(cost.seconds)}, {cost.outcome}",
        f"{seconds(cost.cpu_seconds)}, {cost.peak_bytes / 2**20:.0f} MiB",
    ]
