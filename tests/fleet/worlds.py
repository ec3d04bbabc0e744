"""Regions with nodes and workers that behave as a test wants, in memory."""

from __future__ import annotations

import threading
import time
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from copy import deepcopy
from dataclasses import dataclass, field
from unittest.mock import patch

from hypothesis import strategies as st

from stage.patience import SETUP_SECONDS
from tovarincore import cloud_node
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion, K8sRegion, NodeState
from tovarincore.cloud_node import CloudManager
from tovarincore.core_def import OPResult, OPResultErrorCode

SIZE = CloudInstanceTypeDef("k8s.small", cpu_count=1, memory_mib=2048)
FAILURE = OPResult(error=True, error_code=OPResultErrorCode.TIMEOUT, msg="no answer within 2 s")
Listing = Callable[[], object]


@dataclass
class World:
    """What providers list and how workers answer; counts what is going on at the same time.

    :param listings: by name of the region, what its provider does when it is asked
    :param workers: by instance id, how much time a worker takes and what its load is; ``None`` for one that
        is silent, an exception for one whose client fails
    :param at_once: how many things have to go on at the same time before a slow one ends: threads of a busy
        machine begin late
    """

    listings: dict[str, Listing] = field(default_factory=dict)
    workers: dict[str, tuple[float, float] | BaseException | None] = field(default_factory=dict)
    pinged: list[str] = field(default_factory=list)
    silent_seconds: float = 0.0
    most_at_once: Counter[str] = field(default_factory=Counter)
    at_once: int = 0

    def __post_init__(self) -> None:
        self._lock = threading.Lock()
        self._now = Counter[str]()

    def take(self, seconds: float) -> None:
        """Take time."""
        time.sleep(seconds)
        end = time.monotonic() + SETUP_SECONDS
        while max(self.most_at_once.values()) < self.at_once and time.monotonic() < end:
            time.sleep(0.005)

    @contextmanager
    def counted(self, kind: str) -> Iterator[None]:
        """Count the body among what goes on of its kind."""
        with self._lock:
            self._now[kind] += 1
            self.most_at_once[kind] = max(self.most_at_once[kind], self._now[kind])
        try:
            yield
        finally:
            with self._lock:
                self._now[kind] -= 1


def world_client(world: World) -> type:
    """The web-socket client of a world's workers."""

    class Client:
        def __init__(self, node: CloudNode, client_timeout_sec: float) -> None:
            assert client_timeout_sec == 2
            self.node = node
            self.behaviour = world.workers.get(node.instance_id)

        def api_get_op_result(self, request: object) -> OPResult:
            """Answer the ping."""
            world.pinged.append(self.node.instance_id)
            with world.counted("pings"):
                if isinstance(self.behaviour, BaseException):
                    raise self.behaviour
                world.take(self.behaviour[0] if self.behaviour else world.silent_seconds)
            return OPResult(success=True) if self.behaviour else deepcopy(FAILURE)

        def refresh_system_stat(self) -> OPResult:
            """Tell the load."""
            assert isinstance(self.behaviour, tuple)
            self.node.cpu_percent = self.behaviour[1]
            return OPResult(success=True)

    return Client


@contextmanager
def placed(world: World) -> Iterator[None]:
    """Let facades that are made in the body work on a world."""

    class Console:
        def __init__(self, region: CloudRegion) -> None:
            self.region = region

        def get_cloud_nodes(self) -> object:
            """List the nodes, as new records each time."""
            with world.counted("listings"):
                return deepcopy(world.listings[self.region.name]())

    with (
        patch.object(cloud_node, "K8sConsoleClient", Console),
        patch.object(cloud_node, "WebSocketClient", world_client(world)),
    ):
        yield


def node_of(region: CloudRegion, instance_id: str, state: NodeState = NodeState.RUNNING) -> CloudNode:
    """A node as its provider lists it."""
    return CloudNode(region, instance_id, SIZE, f"uuid-of-{instance_id}", instance_id, state=state)


def listing_of(nodes: list[CloudNode]) -> Listing:
    """A provider that lists these nodes."""
    return lambda: (nodes, OPResult(success=True))


def raising(error: BaseException) -> Listing:
    """A provider that fails."""

    def fail() -> object:
        raise error

    return fail


@dataclass
class RandomRegion:
    """One region of a random world.

    :param region: the region
    :param before: what its registry holds
    :param listing: what its provider does
    """

    region: CloudRegion
    before: list[CloudNode]
    listing: Listing


@st.composite
def _nodes(draw: st.DrawFn, region: CloudRegion, before: bool) -> list[CloudNode]:
    # Few ids, so that they meet: in both lists, and twice in one.
    ids = draw(st.lists(st.sampled_from(["a", "b", "c", "d", "e", "f"]), max_size=6))
    nodes = []
    for instance_id in ids:
        node = node_of(region, instance_id, draw(st.sampled_from([NodeState.RUNNING, *NodeState])))
        node.ready = draw(st.booleans())
        node.dns_address = draw(st.sampled_from(["", "10.0.0.1"]))
        node.worker_id_list = draw(st.lists(st.sampled_from(["w1", "w2"]), max_size=2))
        node.cpu_percent = draw(st.sampled_from([None, 7.0])) if before else None
        nodes.append(node)
    # And now and then the very same record twice.
    twice: bool = draw(st.booleans())
    if nodes and twice:
        nodes.append(nodes[0])
    return nodes


@st.composite
def random_regions(draw: st.DrawFn) -> list[RandomRegion]:
    """Up to three regions with what their registries hold and what their providers do."""
    regions = []
    for number in range(draw(st.integers(0, 3))):
        region = K8sRegion(f"r{number}")
        failures: list[Listing] = [
            lambda: (None, deepcopy(FAILURE)),
            lambda: None,
            lambda: (1, 2, 3),
            lambda: ([None], OPResult(success=True)),
            raising(RuntimeError("the provider failed")),
            raising(KeyboardInterrupt()),
        ]
        listed = listing_of(draw(_nodes(region, before=False)))
        listing = draw(st.sampled_from([listed] * 12 + failures))
        regions.append(RandomRegion(region, draw(_nodes(region, before=True)), listing))
    return regions


def random_workers() -> st.SearchStrategy[dict[str, tuple[float, float] | BaseException | None]]:
    """Workers that answer, are silent, or whose client fails."""
    behaviour = st.one_of(
        st.tuples(st.just(0.0), st.sampled_from([0.0, 50.0])),
        st.none(),
        st.sampled_from([(0.0, 12.5)] * 9 + [OSError("no configuration"), SystemExit(1)]),
    )
    return st.dictionaries(st.sampled_from(["a", "b", "c", "d", "e", "f"]), behaviour)


def facade(regions: list[RandomRegion]) -> CloudManager:
    """A facade whose registries hold what the regions hold before."""
    manager = CloudManager()
    for entry in regions:
        manager.get_node_manager(entry.region).set_node_list(deepcopy(entry.before))
    return manager
