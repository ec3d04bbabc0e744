"""Work in several regions at once, where one that fails does not keep the others."""

from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from typing import TypeVar

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import CommandFailure

__all__ = ["in_every_region"]

T = TypeVar("T")
R = TypeVar("R")

# Each makes a client of the SDK, one after the other, and waits three seconds at most for its turn.
_REGIONS_AT_ONCE = 4


def in_every_region(
    invocation: Invocation, regions: Sequence[CloudRegion], look: Callable[[Access], list[T]]
) -> tuple[list[T], CommandFailure | None]:
    """Collect what is found in each region, in the order of the regions.

    :param look: what is done in a region
    :return: all that was found, and the first failure, which names its region; the others are told as notes,
        in a document all of them
    :raises CommandFailure: there is one region alone, and it fails
    """
    if len(regions) == 1:
        return look(open_region(regions[0])), None
    # Opened here: what belongs to this run of the command is not seen by other threads.
    opened = [_guarded(open_region, region, region) for region in regions]

    def look_at(place: tuple[CloudRegion, Access | CommandFailure]) -> list[T] | CommandFailure:
        region, access = place
        return access if isinstance(access, CommandFailure) else _guarded(look, access, region)

    found: list[T] = []
    first: CommandFailure | None = None
    places = list(zip(regions, opened, strict=True))
    with ThreadPoolExecutor(min(len(regions), _REGIONS_AT_ONCE)) as executor:
        for region, outcome in zip(regions, executor.map(look_at, places), strict=True):
            if isinstance(outcome, CommandFailure):
                if first is not None or invocation.structured:
                    invocation.note(f"{region.key}: {outcome.what}")
                if first is None:
                    outcome.what = f"{region.key}: {outcome.what}"
                    first = outcome
            else:
                found += outcome
    return found, first


def _guarded(act: Callable[[T], R], subject: T, region: CloudRegion) -> R | CommandFailure:
    try:
        return act(subject)
    except Exception as error:
        return explain(error, region)
