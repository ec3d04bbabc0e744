"""Names for new nodes: not empty, and not those of other nodes."""

from collections.abc import Iterator
from itertools import count

from tovarincore._transport.gate import check_node_name
from tovarincore.command.context.access import Access
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import GONE, list_nodes
from tovarincore.command.output.text import one_line

__all__ = ["choose_name", "taken_names"]

_DEFAULT = "tovarin-node"


def choose_name(invocation: Invocation, access: Access, wanted: str | None, allow_same: bool) -> str:
    """Return the name of a node that is about to be launched.

    :param wanted: the name that was given; ``None`` takes the first free one of the default's
    :param allow_same: take the name even if another node has it
    :raises CommandFailure: another node has the name
    :raises RefusedName: no node can have this name
    """
    if wanted is not None:
        check_node_name(wanted)
    if access.region.cloud == "local" or allow_same:
        # The one local container has the name of the settings.
        return wanted or _DEFAULT
    taken = taken_names(invocation, access)
    if wanted is None:
        return next(name for name in _numbered() if name not in taken)
    if wanted in taken:
        raise CommandFailure(
            f'another of your nodes is named "{one_line(wanted)}"',
            "give another --name, or launch anyway with --same-name",
            ExitCode.USAGE,
        )
    return wanted


def taken_names(invocation: Invocation, access: Access) -> set[str]:
    """Return the names that the user's living nodes have; none, with a note, where they cannot be listed."""
    try:
        return {node.name for node in list_nodes(access) if node.state not in GONE}
    except Exception as error:
        # A right that launching itself does not need.
        what = explain(error, access.region).what
        invocation.note(f"note: whether the name is taken could not be looked up: {what}")
        return set()


def _numbered() -> Iterator[str]:
    return (_DEFAULT if number == 1 else f"{_DEFAULT}-{number}" for number in count(1))
