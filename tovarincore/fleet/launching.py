"""Launching many nodes at once, of which none is lost and none is launched twice."""

import threading
import time
from collections.abc import Callable, Sequence
from contextlib import ExitStack
from dataclasses import dataclass, field
from typing import Any

from tovarincore._transport.gate import check_node_name
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    InstanceTemplate,
    NodeState,
)
from tovarincore.cloud_node import AWSNodeManager, CloudManager, cloud_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet.attempts import Attempts, NotLaunched, Patience, Site
from tovarincore.fleet.crew import work_through
from tovarincore.fleet.ledger import Ledger
from tovarincore.sdk_data import service_descriptions_shared

__all__ = ["LaunchReport", "Place", "launch", "node_names"]

_GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)


@dataclass(frozen=True)
class Place:
    """Where and as what a node may be launched when there is no capacity for what was asked for first.

    :param instance_type: the type; ``None`` means the one asked for first
    :param region: the region; ``None`` means the one asked for first
    :param template: the image; ``None`` means the one asked for first, which other Amazon regions do not have
    """

    instance_type: CloudInstanceTypeDef | None = None
    region: CloudRegion | None = None
    template: InstanceTemplate | None = None


@dataclass(frozen=True)
class LaunchReport:
    """What came of a launch.

    :param launched: the nodes that were launched, in the order of their names
    :param not_launched: those that were not, and why
    :param present: nodes that were there already, where that was asked for
    :param seconds: how long it took
    """

    launched: list[CloudNode] = field(default_factory=list)
    not_launched: list[NotLaunched] = field(default_factory=list)
    present: list[CloudNode] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def complete(self) -> bool:
        """Whether every node that was asked for is there."""
        return not self.not_launched


def launch(
    region: CloudRegion,
    count: int,
    instance_type: CloudInstanceTypeDef,
    config: CloudInstanceConfig,
    *,
    names: str | None = None,
    fallbacks: Sequence[Place] = (),
    at_once: int = 8,
    if_absent: bool = False,
    username: str | None = None,
    additional_params: str | None = None,
    startup_script: str | None = None,
    patience: Patience | None = None,
    ledger: Ledger | None = None,
    manager: CloudManager = cloud_manager_glbl,
    on_outcome: Callable[[CloudNode | NotLaunched], None] | None = None,
    cancel: threading.Event | None = None,
) -> LaunchReport:
    """Launch nodes side by side.

    The first launch in a region goes alone: it makes what all others need, such as the security group, and
    when it is refused the others are not tried. A request that EC2 throttles, or whose answer is lost, is
    repeated only after a listing has shown that no node carries its uuid. Each node has a line in the ledger
    before its request, and its id there after it. When this function is interrupted, it begins nothing more,
    waits for the requests under way and notes what came of them.

    The local container engine has one node at most, so ``count`` is 1 there.

    :param region: the region
    :param count: how many nodes
    :param instance_type: the type of all of them
    :param config: what all of them are launched with; its uuid and name stand for none of them
    :param names: pattern of the names, with ``{}`` for the number from 1 on, for example ``"web-{:02}"``;
        ``None`` means the name in ``config``, with the number behind it unless ``count`` is 1
    :param fallbacks: what is tried in turn when there is no capacity
    :param at_once: how many launches are under way at the same time
    :param if_absent: do not launch a node whose name a node of the region or of a fallback's already has;
        another such launch with the same ledger is waited for
    :param username: user for whom the nodes are tagged; ``None`` means the one that the region's provider has
    :param additional_params: as for the facade's ``launch_node``
    :param startup_script: as for the facade's ``launch_node``
    :param patience: how long requests are repeated
    :param ledger: where launches are noted; ``None`` means the user's own
    :param manager: the facade
    :param on_outcome: called in this thread with each node or failure as soon as it is there
    :param cancel: once it is set, no request begins any more; an interrupt sets it too
    :return: what was launched, what was not and why
    :raises ValueError: a number, name or fallback that cannot be used
    :raises ConfigError: the ledger cannot be used; nothing was launched
    :raises Exception: a region has no provider, or cannot be listed for ``if_absent``; nothing was launched
    """
    begin = time.monotonic()
    if count < 0 or at_once < 1:
        raise ValueError(f"count is {count} and at_once {at_once}; allowed are 0 or more, and 1 or more")
    wanted = node_names(config, count, names)
    places = [
        Place(place.instance_type or instance_type, place.region or region, place.template)
        for place in (Place(), *fallbacks)
    ]
    _check_places(places, region, count)
    ledger = Ledger() if ledger is None else ledger
    ledger.prepare()
    request: dict[str, Any] = {"additional_params": additional_params, "startup_script": startup_script}
    sites: list[Site] = []
    for place in places:
        assert place.region is not None and place.instance_type is not None
        # One after the other: two threads could make two providers for one region.
        provider = manager.get_node_manager(place.region)
        user = username
        if user is None and isinstance(provider, AWSNodeManager):
            user = provider.username
        template = place.template or config.instance_template
        sites.append(Site(place.region, place.instance_type, template, {**request, "username": user}))
    cancel = cancel or threading.Event()
    attempts = Attempts(sites, config, patience or Patience(), ledger, manager, cancel)
    present: list[CloudNode] = []
    with ExitStack() as stack:
        if if_absent:
            stack.enter_context(ledger.in_turn(cancel))
            present = _present(manager, [site.region for site in sites], wanted)
        if any(site.region.cloud == "AWS" for site in sites):
            stack.enter_context(service_descriptions_shared())
        there = {node.name for node in present}
        absent = [name for name in wanted if name not in there]
        results = work_through(absent, attempts.launch, at_once, cancel, on_outcome)
    return LaunchReport(
        [result for result in results if not isinstance(result, NotLaunched)],
        [result for result in results if isinstance(result, NotLaunched)],
        present,
        time.monotonic() - begin,
    )


def node_names(config: CloudInstanceConfig, count: int, pattern: str | None) -> list[str]:
    """Return the names that :func:`launch` gives.

    :raises ValueError: the pattern is none, or a name cannot be used
    """
    if pattern is None:
        pattern = (config.name or "tovarin-node").replace("{", "{{").replace("}", "}}")
        pattern += "" if count == 1 else "-{}"
    try:
        texts = [pattern.format(number) for number in range(1, count + 1)]
    except (IndexError, KeyError, AttributeError, ValueError) as error:
        raise ValueError(f'"{pattern}" is no pattern of names; allowed is one like web-{{:02}}') from error
    names = [check_node_name(text) for text in texts]
    if len(set(names)) < count:
        raise ValueError(f'"{pattern}" gives several nodes one name; put {{}} where the number goes')
    return names


def _check_places(places: Sequence[Place], first: CloudRegion, count: int) -> None:
    for place in places:
        region = place.region or first
        if region.cloud == "local" and count > 1:
            raise ValueError("the local container engine has one node at most; count is 1 there")
        if region.cloud != first.cloud:
            raise ValueError(f"a fallback of {first.key} cannot be {region.key}, of another kind")
        if region.cloud == "AWS" and region != first and place.template is None:
            raise ValueError(f"the fallback {region.key} needs a template: images belong to one region")


def _present(manager: CloudManager, regions: Sequence[CloudRegion], names: Sequence[str]) -> list[CloudNode]:
    found: dict[str, CloudNode] = {}
    for region in dict.fromkeys(regions):
        nodes, result = manager.list_instances(region)
        if nodes is None:
            raise RuntimeError(f"{region.key} cannot be listed: {_text(result)}")
        for node in nodes:
            if node.state not in _GONE:
                found.setdefault(node.name, node)
    return [found[name] for name in names if name in found]


def _text(result: OPResult) -> str:
    return result.msg or "the provider gives no reason"
