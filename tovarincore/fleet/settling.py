"""Finding out what came of launches that were cut short."""

from collections.abc import Iterable
from datetime import datetime, timedelta, timezone

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.cloud_node import CloudManager, cloud_manager_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["settle"]

_FORGOTTEN_AFTER = timedelta(hours=1)
"""EC2 lists a terminated instance for about that long: one that is not listed by then runs nowhere."""


def settle(
    regions: Iterable[CloudRegion],
    *,
    ledger: Ledger | None = None,
    manager: CloudManager = cloud_manager_glbl,
) -> list[CloudNode]:
    """Note in the ledger those nodes whose launch was cut short before their id could be noted.

    A program that was killed, or lost its connection, leaves an intent in the ledger. A listed node that
    carries its uuid is the one that was launched. An intent of more than an hour ago that no node carries is
    closed.

    :param regions: the regions to look at; only those with open intents are listed
    :param ledger: the ledger; ``None`` means the user's own
    :param manager: the facade
    :return: the nodes that were found
    :raises ConfigError: the ledger cannot be used
    :raises RuntimeError: a provider reports that it cannot list a region
    :raises Exception: whatever a provider raises in the place of a listing
    """
    ledger = Ledger() if ledger is None else ledger
    intents = ledger.open_intents()
    old = datetime.now(timezone.utc) - _FORGOTTEN_AFTER
    found: list[CloudNode] = []
    for region in dict.fromkeys(regions):
        waiting = [intent for intent in intents if intent.region == region.key]
        if not waiting:
            continue
        nodes, result = manager.list_instances(region)
        if nodes is None:
            raise RuntimeError(f"{region.key} cannot be listed: {result.msg or 'no reason given'}")
        found += ledger.settle(nodes)
        listed = {node.uuid for node in nodes}
        for intent in waiting:
            if intent.uuid not in listed and datetime.fromisoformat(intent.launched) < old:
                ledger.refused(intent.region, intent.uuid)
    return found
