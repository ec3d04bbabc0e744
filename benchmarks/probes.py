"""A refresh of 2,000 instances, 1,700 of them with workers whose ports are closed: time, and own CPU time."""

from __future__ import annotations

import os
import time
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Any

import tomli_w

from benchmarks.listing import CannedClient, described
from benchmarks.report import seconds
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
from tovarincore.core_conf import core_conf_glbl

INSTANCES, RUNNING = 2_000, 1_700
ROUNDS = 3
REGION = CloudRegion("eu-central-1", "AWS")
AUTH = AWSCloudAuth(aws_access_key_id="bench", aws_secret_access_key="bench")
# What is configured: stored regions, and address patterns that fit no node.
CONFIGURED = {
    "nothing": (0, 0),
    "31 stored regions": (31, 0),
    "300 patterns in `[worker_addresses]`": (0, 300),
    "both": (31, 300),
}


@contextmanager
def configured(port: int, regions: int, patterns: int) -> Iterator[None]:
    """Settings and a store of that size, for the body; the worker's port is one that nobody listens on."""
    with TemporaryDirectory() as folder:
        path, store = Path(folder, "core.toml"), Path(folder, "cloud.toml")
        settings: Mapping[str, Any] = {
            "worker": {"port": port},
            "worker_addresses": {f"other-{number}-*": "127.0.0.1:1" for number in range(patterns)},
        }
        path.write_text(tomli_w.dumps(settings), encoding="utf-8")
        path.chmod(0o600)
        os.environ.update(TOVARIN_CONF=str(path), TOVARIN_CLOUD_CONF=str(store))
        core_conf_glbl.reload()
        for number in range(regions):
            CloudConfManager().set_cloud_conf(
                CloudRegion(f"region-{number}", "AWS"), CloudConf(AUTH, "bench", f"worker-token-{number}")
            )
        # A store that has just been written is read again each time, until its clock has gone on.
        time.sleep(2.5)
        yield


def refreshes(client: CannedClient) -> tuple[float, float]:
    """The least of a few refreshes, as seconds by the clock and of this process's own processor time."""
    from tovarincore.cloud_node import AWSNodeManager

    manager = AWSNodeManager(REGION, auth=AUTH, username="bench")
    vars(manager)["_get_client"] = lambda: client
    taken = []
    for _ in range(ROUNDS):
        wall, own = time.perf_counter(), time.process_time()
        result = manager.refresh_node_list()
        taken.append((time.perf_counter() - wall, time.process_time() - own))
        assert result.success, result.traceback_text
        assert len(manager.get_node_list()) == INSTANCES
    return min(taken, key=lambda pair: pair[1])


def table() -> str:
    """All configurations as a Markdown table."""
    from stage.ports import refusing_port

    instances = [described(number) for number in range(INSTANCES)]
    for number, instance in enumerate(instances):
        # Numeric: the look-up of a name would be the resolver's time.
        instance["PublicDnsName"] = "127.0.0.1"
        if number >= RUNNING:
            instance["State"] = {"Code": 80, "Name": "stopped"}
    client = CannedClient({"Reservations": [{"Instances": [instance]} for instance in instances]})
    lines = ["| configured | time | own CPU | a probe |", "|---|---|---|---|"]
    before = dict(os.environ)
    try:
        with refusing_port() as port:
            for name, (regions, patterns) in CONFIGURED.items():
                with configured(port, regions, patterns):
                    wall, own = refreshes(client)
                lines.append(f"| {name} | {seconds(wall)} | {seconds(own)} | {seconds(own / RUNNING)} |")
    finally:
        os.environ.clear()
        os.environ.update(before)
        core_conf_glbl.reload()
    return "\n".join(lines)


if __name__ == "__main__":
    print(table())
