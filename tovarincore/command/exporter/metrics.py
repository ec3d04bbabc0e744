"""What is known of nodes, as metrics."""

import threading
from collections import Counter
from collections.abc import Iterator

from prometheus_client import CollectorRegistry, Histogram
from prometheus_client import Counter as CounterMetric
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily, Metric
from prometheus_client.registry import Collector

from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.command.watching.looks import Look
from tovarincore.core_conf import ConfigError, log_manager_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["NodeMetrics"]

# A region whose workers are all silent takes multiples of two seconds.
_BUCKETS = (0.1, 0.25, 0.5, 1.0, 2.5, 5.0, 10.0, 20.0, 40.0, 80.0)
_NODE = ("region", "name", "instance_id")


class NodeMetrics(Collector):
    """Keeps the last look at each region, and makes metrics of it when somebody asks.

    :param ledger: where launches are noted; ``None`` means the user's own
    """

    def __init__(self, ledger: Ledger | None = None) -> None:
        self._ledger = Ledger() if ledger is None else ledger
        self._lock = threading.Lock()
        self._looks: dict[CloudRegion, Look] = {}
        self._refreshed: dict[CloudRegion, float] = {}
        self.registry = CollectorRegistry()
        self._seconds = Histogram(
            "tovarin_refresh_duration_seconds",
            "How long refreshes of a region took.",
            ("region",),
            registry=self.registry,
            buckets=_BUCKETS,
        )
        self._failures = CounterMetric(
            "tovarin_refresh_failures",
            "Refreshes of a region that failed, by the error's code.",
            ("region", "code"),
            registry=self.registry,
        )
        self.registry.register(self)

    def take(self, look: Look) -> None:
        """Keep a look, and count it."""
        with self._lock:
            self._looks[look.region] = look
            if not look.failure:
                self._refreshed[look.region] = look.at
        self._seconds.labels(look.region.key).observe(look.seconds)
        if look.failure:
            self._failures.labels(look.region.key, look.code).inc()

    def overdue(self, now: float, seconds: float) -> dict[CloudRegion, str]:
        """Return the regions that have not been refreshed for so long, and why.

        :param now: seconds since the epoch
        :param seconds: how long may be between two refreshes that went well
        """
        with self._lock:
            return {
                region: look.failure or "its refresh does not end"
                for region, look in self._looks.items()
                if now - self._refreshed.get(region, float("-inf")) > seconds
            }

    def describe(self) -> list[Metric]:
        """Return nothing: the registry need not ask before there is something."""
        return []

    def collect(self) -> Iterator[Metric]:
        """Make the metrics."""
        with self._lock:
            looks, refreshed = dict(self._looks), dict(self._refreshed)
        yield _counts(looks)
        yield _silent(looks)
        yield from _loads(looks)
        last = GaugeMetricFamily(
            "tovarin_refresh_last_success_timestamp_seconds",
            "When a region was last refreshed, in seconds since the epoch.",
            labels=("region",),
        )
        for region, moment in refreshed.items():
            last.add_metric((region.key,), moment)
        yield last
        yield from self._launches()

    def _launches(self) -> Iterator[Metric]:
        ended = CounterMetricFamily(
            "tovarin_launches", "Launches in the ledger, by what came of them.", labels=("region", "outcome")
        )
        still_open = GaugeMetricFamily(
            "tovarin_launches_open",
            "Requests in the ledger of which nobody knows what came of them.",
            labels=("region",),
        )
        try:
            outcomes = self._ledger.outcomes()
        except ConfigError as error:
            # The page still shows the nodes.
            log_manager_glbl.get_logger().warning("Launches are not counted: %s", error)
            return
        for (region, outcome), count in outcomes.items():
            if outcome == "open":
                still_open.add_metric((region,), count)
            else:
                ended.add_metric((region, outcome), count)
        yield ended
        yield still_open


def _counts(looks: dict[CloudRegion, Look]) -> Metric:
    metric = GaugeMetricFamily(
        "tovarin_nodes",
        "Nodes by the state that their provider reports, and by whether their workers answer.",
        labels=("region", "state", "ready"),
    )
    for region, look in looks.items():
        found = Counter((node.state, node.ready) for node in look.nodes)
        # Every state has its line from the start: a sum over none would be no sum.
        found.update(dict.fromkeys(((state, False) for state in NodeState), 0))
        found[NodeState.RUNNING, True] += 0
        for (state, ready), count in found.items():
            metric.add_metric((region.key, state.value, str(ready).lower()), count)
    return metric


def _silent(looks: dict[CloudRegion, Look]) -> Metric:
    metric = GaugeMetricFamily(
        "tovarin_workers_silent",
        "Workers of running nodes that do not answer, by the error's code.",
        labels=("region", "code"),
    )
    for region, look in looks.items():
        codes = Counter(
            result.error_code.value if result.error_code else "Failed" for result in look.silent.values()
        )
        for code, count in codes.items():
            metric.add_metric((region.key, code), count)
    return metric


def _loads(looks: dict[CloudRegion, Look]) -> Iterator[Metric]:
    load = GaugeMetricFamily(
        "tovarin_worker_load_ratio", "Load of a worker's processors, from 0 to 1.", labels=_NODE
    )
    used = GaugeMetricFamily(
        "tovarin_worker_memory_used_bytes", "Memory in use on a worker's machine.", labels=_NODE
    )
    size = GaugeMetricFamily(
        "tovarin_worker_memory_size_bytes", "Memory of a worker's machine.", labels=_NODE
    )
    for look in looks.values():
        for node in look.nodes:
            if not node.ready:
                continue
            labels = _labels(node)
            if node.cpu_percent is not None:
                load.add_metric(labels, node.cpu_percent / 100)
            if node.memory_used_bytes is not None:
                used.add_metric(labels, node.memory_used_bytes)
            if node.memory_total_bytes is not None:
                size.add_metric(labels, node.memory_total_bytes)
    yield from (load, used, size)


def _labels(node: CloudNode) -> tuple[str, str, str]:
    return node.region.key, node.name, node.instance_id
