"""Commands as a person would type them, for the remedies of failures."""

import shlex
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion

__all__ = ["command_for", "short_name"]


def short_name(region: "CloudRegion | None") -> str:
    """Return what a person types for a region: its name, or kind and name where the name means another.

    :param region: ``None`` where any region is meant; then it is the word that help texts use
    """
    if region is None:
        return "REGION"
    from tovarincore.cloud_def import CloudRegions

    return region.name if CloudRegions.find(region.name) == region else region.hash_key


def command_for(region: "CloudRegion | None", name: str, *words: str) -> str:
    """Return a command line: ``tovarin-nodes NAME REGION WORDS``.

    :param region: ``None`` where any region is meant
    :param name: the sub-command, for groups with the second one
    :param words: what follows the region
    """
    return shlex.join(["tovarin-nodes", *name.split(), short_name(region), *words])
