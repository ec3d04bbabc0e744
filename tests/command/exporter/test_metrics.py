"""Metrics of nodes, and the pages that show them."""

from __future__ import annotations

import re
import urllib.error
import urllib.request
from collections.abc import Callable, Iterator

import pytest
from prometheus_client.parser import text_string_to_metric_families

from stage.ec2 import Ec2World
from tests.command.conftest import Run
from tests.command.watching.accounts import Account, opened_account
from tovarincore.cloud_def import CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.exporter.metrics import NodeMetrics
from tovarincore.command.exporter.server import serving
from tovarincore.command.watching.looks import Lookout
from tovarincore.fleet import Ledger
from tovarincore.testing.fakes import client_error

REGION = "AWS:eu-central-1"


@pytest.fixture
def region() -> Iterator[Account]:
    """A region of fakes."""
    with opened_account() as found:
        yield found


def get(port: int, path: str) -> tuple[int, str]:
    """Status and text of a page."""
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=30) as response:
            return response.status, response.read().decode()
    except urllib.error.HTTPError as error:
        with error:
            return error.code, error.read().decode()


def samples(port: int) -> Callable[..., float | None]:
    """A function that finds a sample by its name and labels."""
    status, text = get(port, "/metrics")
    assert status == 200
    found = {
        (sample.name, frozenset(sample.labels.items())): sample.value
        for family in text_string_to_metric_families(text)
        for sample in family.samples
    }

    def value(metric: str, /, **labels: str) -> float | None:
        return found.get((metric, frozenset(labels.items())))

    return value


def test_nodes_are_counted_by_state_and_readiness(region: Account) -> None:
    """Load and memory stand there for workers that answer; a silent one counts by the error's code."""
    nodes = region.launched(3)
    region.cloud.silent.add("web-2")
    cloud_manager_glbl.stop_node(region.region, None, nodes[2].instance_id)
    region.listed()
    metrics = NodeMetrics()
    Lookout([region.region]).look(metrics.take)
    with serving("127.0.0.1", 0, metrics, 60) as port:
        found = samples(port)
    assert found("tovarin_nodes", region=REGION, state="Running", ready="true") == 1
    assert found("tovarin_nodes", region=REGION, state="Running", ready="false") == 1
    assert found("tovarin_nodes", region=REGION, state="Stopped", ready="false") == 1
    assert found("tovarin_nodes", region=REGION, state="Terminated", ready="false") == 0
    assert found("tovarin_workers_silent", region=REGION, code="Timeout") == 1
    first = {"region": REGION, "name": "web-1", "instance_id": nodes[0].instance_id}
    assert found("tovarin_worker_load_ratio", **first) == 0.125
    assert found("tovarin_worker_memory_used_bytes", **first) == 1 << 30
    assert found("tovarin_worker_memory_size_bytes", **first) == 4 << 30
    second = {**first, "name": "web-2", "instance_id": nodes[1].instance_id}
    assert found("tovarin_worker_load_ratio", **second) is None
    assert found("tovarin_refresh_duration_seconds_count", region=REGION) == 1
    assert found("tovarin_launches_total", region=REGION, outcome="launched") == 3


def test_launches_are_counted_by_what_came_of_them(region: Account) -> None:
    """From the ledger: refused ones, and those of which nobody knows."""
    ledger = Ledger()
    for uuid in ("a", "b"):
        ledger.intend(REGION, uuid, "n", "t3.small")
    ledger.refused(REGION, "a")
    with serving("127.0.0.1", 0, NodeMetrics(), 60) as port:
        found = samples(port)
    assert found("tovarin_launches_total", region=REGION, outcome="refused") == 1
    assert found("tovarin_launches_open", region=REGION) == 1


def test_a_ledger_that_cannot_be_read_costs_the_counts_of_launches_alone(region: Account) -> None:
    """The page still shows the nodes."""
    region.launched(1)
    region.listed()
    metrics = NodeMetrics()
    Lookout([region.region]).look(metrics.take)
    Ledger().path.write_text("no ledger\n", encoding="utf-8")
    with serving("127.0.0.1", 0, metrics, 60) as port:
        found = samples(port)
    assert found("tovarin_nodes", region=REGION, state="Running", ready="true") == 1
    assert found("tovarin_launches_total", region=REGION, outcome="launched") is None


def test_a_failed_refresh_is_counted_and_keeps_what_was_known(region: Account) -> None:
    """Its code is a label; the nodes of the last refresh that went well stay."""
    region.launched(2)
    metrics = NodeMetrics()
    lookout = Lookout([region.region])
    lookout.look(metrics.take)
    region.cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")
    lookout.look(metrics.take)
    with serving("127.0.0.1", 0, metrics, 60) as port:
        found = samples(port)
    assert found("tovarin_refresh_failures_total", region=REGION, code="RequestLimitExceeded") == 1
    assert found("tovarin_nodes", region=REGION, state="Running", ready="true") == 2
    assert found("tovarin_refresh_duration_seconds_count", region=REGION) == 2


def test_health_is_lost_when_a_region_is_not_refreshed_any_more(region: Account) -> None:
    """The page says which region, and why; it is well again with the next refresh."""
    metrics = NodeMetrics()
    lookout = Lookout([region.region])
    lookout.look(metrics.take)
    with serving("127.0.0.1", 0, metrics, 3600) as port:
        assert get(port, "/healthz") == (200, "ok\n")
    region.cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")
    lookout.look(metrics.take)
    with serving("127.0.0.1", 0, metrics, -1) as port:
        status, text = get(port, "/healthz")
    assert status == 503
    assert text.startswith(f"{REGION}: ") and "slower" in text


def test_a_region_without_credentials_is_never_well(region: Account) -> None:
    """It cannot be opened: that is a failure at every look, and the others go on."""
    poor = CloudRegion("us-east-1", "AWS")
    metrics = NodeMetrics()
    Lookout([poor, region.region]).look(metrics.take)
    with serving("127.0.0.1", 0, metrics, 3600) as port:
        assert get(port, "/healthz") == (
            503,
            "AWS:us-east-1: no credentials are stored for the region us-east-1\n",
        )
        assert samples(port)("tovarin_refresh_failures_total", region=poor.key, code="NOT_CONFIGURED") == 1


def test_there_are_no_other_pages(region: Account) -> None:
    """The first page names the others."""
    with serving("127.0.0.1", 0, NodeMetrics(), 60) as port:
        status, text = get(port, "/")
        assert status == 200 and "/metrics" in text and "/healthz" in text
        assert get(port, "/etc/passwd")[0] == 404


def test_the_command_serves_until_it_is_told_to_stop(run: Run, ec2: Ec2World) -> None:
    """Without a region it takes all that can be used; on other addresses it says who can read it."""
    result = run("exporter", "us-east-1", "--listen", "127.0.0.1:0", "--count", "1")
    assert result.exit_code == 0
    assert re.fullmatch(
        r"serving http://127\.0\.0\.1:\d+/metrics for 1 region, until Ctrl-C\n", result.stderr
    )
    refused = run("exporter", "us-east-1", "--listen", "nowhere")
    assert refused.exit_code == 2
    assert "give one such as 127.0.0.1:9855" in refused.stderr
    open_to_all = run("exporter", "us-east-1", "--listen", "0.0.0.0:0", "--count", "1")
    assert "everybody who reaches 0.0.0.0 can read the names and load of your nodes" in open_to_all.stderr
