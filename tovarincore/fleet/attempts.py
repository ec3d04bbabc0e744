"""One node's launch: requests, looks at what came of them, repetitions, and lines in the ledger."""

import random
import threading
import time
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field, replace
from typing import Any
from uuid import uuid4

from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    InstanceTemplate,
    NodeState,
)
from tovarincore.cloud_node import CloudManager
from tovarincore.core_conf import ConfigError, log_manager_glbl
from tovarincore.core_def import OPResult
from tovarincore.fleet.failures import Failure, FailureKind, failure_of_error, failure_of_result
from tovarincore.fleet.ledger import Ledger
from tovarincore.fleet.sight import CannotTell, Sight

__all__ = ["Attempts", "NotLaunched", "Patience", "Site"]

_GONE = (NodeState.SHUTTING_DOWN, NodeState.TERMINATED)
_STOPPED = Failure(FailureKind.REFUSED, OPResult(error=True, msg="the launch was stopped before"))


@dataclass(frozen=True)
class Patience:
    """How long a launch goes on.

    :param seconds: longest time in which one node's request is repeated
    :param first_pause: seconds before the first repetition; each pause is twice as long as the one before
    :param longest_pause: seconds that a pause is not longer than
    :param unseen_seconds: how long a node may not show in listings although its request went well: EC2 and
        API servers answer from copies. So long is looked for it after an answer was lost.
    """

    seconds: float = 120.0
    first_pause: float = 1.0
    longest_pause: float = 20.0
    unseen_seconds: float = 15.0


@dataclass(frozen=True)
class NotLaunched:
    """A node that was not launched, or of which it is not known.

    :param name: its name
    :param uuid: its uuid; empty when no request was made for it
    :param why: for people
    :param known: it surely was not launched; else the ledger keeps its intent, for :func:`settle`
    :param result: the provider's last result
    :param error: what the provider raised last, if it raised
    """

    name: str
    uuid: str
    why: str
    known: bool
    result: OPResult
    error: Exception | None = None


@dataclass(frozen=True, eq=False)
class Site:
    """A region, type and image that are asked for, and what is known of asking there.

    :param region: the region
    :param instance_type: the type
    :param template: the image
    :param arguments: what else the facade is given
    """

    region: CloudRegion
    instance_type: CloudInstanceTypeDef
    template: InstanceTemplate
    arguments: dict[str, Any]
    closed: list[Failure] = field(default_factory=list)
    """Holds the reason once it is known that asking here is of no use."""

    @property
    def is_full(self) -> bool:
        """Whether that reason is want of capacity."""
        return any(failure.kind is FailureKind.CAPACITY for failure in self.closed)


class Attempts:
    """What all launches of one call share.

    :param sites: where nodes are asked for, the first one first
    :param config: what nodes are launched with
    :param patience: how long requests are repeated
    :param ledger: where launches are noted
    :param manager: the facade
    :param cancel: once it is set, no request begins any more
    """

    def __init__(
        self,
        sites: Sequence[Site],
        config: CloudInstanceConfig,
        patience: Patience,
        ledger: Ledger,
        manager: CloudManager,
        cancel: threading.Event,
    ) -> None:
        self._sites = sites
        self._config = config
        self._patience = patience
        self._ledger = ledger
        self._manager = manager
        self._cancel = cancel
        regions = list(dict.fromkeys(site.region for site in sites))
        self._sights = {region: Sight(manager, region) for region in regions}
        self._alone = {region: threading.Lock() for region in regions}
        self._prepared: set[CloudRegion] = set()

    def launch(self, name: str) -> CloudNode | NotLaunched:
        """Launch one node, at the first site that has room for it."""
        outcome: CloudNode | NotLaunched | None = None
        for site in self._sites:
            outcome = self._launch_at(site, name)
            if not isinstance(outcome, NotLaunched) or not outcome.known or not site.is_full:
                break
        assert outcome is not None
        return outcome

    def _launch_at(self, site: Site, name: str) -> CloudNode | NotLaunched:
        config = self._config_for(site, name)
        region = site.region.key
        pause, end = self._patience.first_pause, time.monotonic() + self._patience.seconds
        failure: Failure | None = None
        while True:
            with self._turn(site.region):
                if site.closed or self._cancel.is_set():
                    return self._give_up(site, config, failure)
                if failure is None:
                    self._ledger.intend(region, config.uuid, name, site.instance_type.instance_type)
                answer = self._ask(site, config)
                self._learn(site, answer)
            if not isinstance(answer, Failure):
                return self._noted(answer, config.uuid)
            failure = answer
            try:
                found = self._look(site.region, config.uuid, failure, end)
            except CannotTell as blind:
                why = f"{failure.why}; whether it is there anyway cannot be told: {blind}"
                return NotLaunched(name, config.uuid, why, False, failure.result, failure.error)
            if found is not None and found.state not in _GONE:
                return self._noted(found, config.uuid)
            if found is None and failure.is_final or time.monotonic() + pause > end:
                return self._give_up(site, config, failure)
            if found is not None:
                # It came through and has ended already: the next one is another node.
                self._noted(found, config.uuid)
                config, failure = self._config_for(site, name), None
            self._cancel.wait(pause * random.uniform(0.5, 1.0))
            pause = min(2 * pause, self._patience.longest_pause)

    def _config_for(self, site: Site, name: str) -> CloudInstanceConfig:
        return replace(self._config, uuid=str(uuid4()), name=name, instance_template=site.template)

    @contextmanager
    def _turn(self, region: CloudRegion) -> Iterator[None]:
        """Let requests in a region go one at a time until one has made what all of them need."""
        if region not in self._prepared:
            with self._alone[region]:
                if region not in self._prepared:
                    yield
                    return
        yield

    def _ask(self, site: Site, config: CloudInstanceConfig) -> CloudNode | Failure:
        try:
            node, result = self._manager.launch_node(
                site.region, None, site.instance_type, config, **site.arguments
            )
        except Exception as error:
            return failure_of_error(error)
        return failure_of_result(result) if node is None else node

    def _learn(self, site: Site, answer: CloudNode | Failure) -> None:
        if not isinstance(answer, Failure):
            self._prepared.add(site.region)
        elif answer.kind is FailureKind.CAPACITY:
            # The provider comes to that last of all.
            self._prepared.add(site.region)
            site.closed.append(answer)
        elif answer.kind is FailureKind.REFUSED and site.region not in self._prepared:
            # The others ask for the same and would be refused too.
            site.closed.append(answer)

    def _look(self, region: CloudRegion, uuid: str, failure: Failure, end: float) -> CloudNode | None:
        """Return the node that a failed request has launched, or ``None`` when there is none.

        :raises CannotTell: nobody knows
        """
        if region.cloud == "local":
            # Asking the engine again gives the container that it has.
            return None
        since = time.monotonic()
        seen_by = since + (self._patience.unseen_seconds if failure.kind is FailureKind.UNKNOWN else 0.0)
        pause = self._patience.first_pause / 2
        while True:
            try:
                node = self._sights[region].find(uuid, since)
                if node is not None or time.monotonic() >= seen_by or self._cancel.is_set():
                    return node
            except CannotTell:
                if failure.is_final and failure.error is None:
                    return None
                if time.monotonic() >= end or self._cancel.is_set():
                    raise
            self._cancel.wait(pause)
            pause = min(2 * pause, self._patience.longest_pause)
            since = time.monotonic()

    def _noted(self, node: CloudNode, intent: str) -> CloudNode:
        try:
            self._ledger.launched(node, intent)
        except ConfigError as error:
            # The node is there anyway, and the ledger has the uuid that it carries.
            log_manager_glbl.get_logger().warning(f"The launch of {node.instance_id} is not noted: {error}")
        return node

    def _give_up(self, site: Site, config: CloudInstanceConfig, failure: Failure | None) -> NotLaunched:
        assert config.name is not None
        if failure is None:
            reason = site.closed[0] if site.closed else _STOPPED
            return NotLaunched(config.name, "", f"not tried: {reason.why}", True, reason.result, reason.error)
        known = failure.kind is not FailureKind.UNKNOWN
        if known:
            self._ledger.refused(site.region.key, config.uuid)
        return NotLaunched(config.name, config.uuid, failure.why, known, failure.result, failure.error)
