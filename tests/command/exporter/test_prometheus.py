"""A real Prometheus scrapes the exporter; its own tool finds nothing to say about the metrics.

`scripts/fetch_prometheus` fetches both from Debian's packages.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import time
import urllib.parse
import urllib.request
from collections.abc import Iterator
from pathlib import Path

import pytest

from stage.patience import SETUP_SECONDS
from stage.ports import free_port
from tests.command.exporter.test_metrics import get
from tests.command.watching.accounts import Account, opened_account
from tovarincore.command.exporter.metrics import NodeMetrics
from tovarincore.command.exporter.server import serving
from tovarincore.command.watching.looks import Lookout
from tovarincore.testing.fakes import client_error

DASHBOARD = Path(__file__).parents[3] / "docs" / "grafana-dashboard.json"


def program(name: str) -> str:
    """The path of a program of Prometheus; the test is skipped where there is none."""
    cache = Path(os.environ.get("XDG_CACHE_HOME", Path.home() / ".cache")) / "tovarin" / "prometheus"
    found = shutil.which(name, path=os.pathsep.join([str(cache), os.environ.get("PATH", os.defpath)]))
    if found is None:
        pytest.skip(f"{name} is not there; on Debian scripts/fetch_prometheus fetches it")
    return found


@pytest.fixture
def exported() -> Iterator[int]:
    """The port of an exporter that has something for each metric."""
    with opened_account() as region:
        metrics = NodeMetrics()
        _fill(region, metrics)
        with serving("127.0.0.1", 0, metrics, 3600) as port:
            yield port


def _fill(region: Account, metrics: NodeMetrics) -> None:
    region.launched(3)
    region.cloud.silent.add("web-2")
    lookout = Lookout([region.region])
    lookout.look(metrics.take)
    region.cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")
    lookout.look(metrics.take)


def test_the_tool_of_prometheus_has_nothing_to_say(exported: int) -> None:
    """Names, units and help texts are as its conventions want them."""
    tool = program("promtool")
    _, text = get(exported, "/metrics")
    done = subprocess.run(
        [tool, "check", "metrics"], input=text, text=True, capture_output=True, timeout=SETUP_SECONDS
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_prometheus_scrapes_the_exporter(exported: int, tmp_path: Path) -> None:
    """What it answers to the dashboard's questions is what the exporter knows."""
    server, port = program("prometheus"), free_port()
    configuration = tmp_path / "prometheus.yml"
    target = {"targets": [f"127.0.0.1:{exported}"]}
    job = {"job_name": "nodes", "scrape_interval": "1s", "static_configs": [target]}
    configuration.write_text(json.dumps({"scrape_configs": [job]}))
    with open(tmp_path / "log", "w") as log:
        process = subprocess.Popen(
            [
                server,
                f"--config.file={configuration}",
                f"--storage.tsdb.path={tmp_path / 'data'}",
                f"--web.listen-address=127.0.0.1:{port}",
            ],
            stdout=log,
            stderr=log,
            cwd=tmp_path,
        )
    try:
        ready = asked_until(port, 'sum(tovarin_nodes{ready="true"})')
        assert ready == [2.0]
        assert asked_until(port, 'tovarin_refresh_failures_total{code="RequestLimitExceeded"}') == [1.0]
        for question in questions():
            assert asked_until(port, question) != [], question
    finally:
        process.kill()
        process.wait()


def asked_until(port: int, question: str) -> list[float]:
    """What Prometheus answers to a query, once it answers and knows something."""
    end = time.monotonic() + SETUP_SECONDS
    address = f"http://127.0.0.1:{port}/api/v1/query?{urllib.parse.urlencode({'query': question})}"
    while True:
        values: list[float] = []
        try:
            with urllib.request.urlopen(address, timeout=10) as response:
                result = json.load(response)["data"]["result"]
                values = [float(entry["value"][1]) for entry in result]
        except OSError:
            pass
        if values or time.monotonic() > end:
            return values
        time.sleep(0.2)


def questions() -> list[str]:
    """The queries of the dashboard, with its variable filled in."""
    panels = json.loads(DASHBOARD.read_text(encoding="utf-8"))["panels"]
    found = [target["expr"] for panel in panels for target in panel["targets"]]
    assert found
    return [text.replace("$region", ".*").replace("$__rate_interval", "5m") for text in found]
