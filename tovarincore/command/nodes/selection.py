"""Which nodes of a region a command is to work on: named ones, or those that fit."""

from collections.abc import Callable, Container
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from fnmatch import fnmatchcase
from typing import Any

import click

from tovarincore.cloud_def import CloudNode, NodeState
from tovarincore.command.context.access import Access
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.context.numbers import WholeNumber
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.activity import LONGEST_GAP, idle_since, note_activity
from tovarincore.command.nodes.ages import DURATION, launch_times
from tovarincore.command.nodes.inventory import GONE, find_node, list_nodes, list_own_nodes
from tovarincore.command.nodes.probes import probe_nodes
from tovarincore.fleet.ledger import Ledger

__all__ = ["Choice", "choose", "choice_options"]

_OPTIONS = (
    click.option("--all", "everything", is_flag=True, help="All nodes that were launched from here."),
    click.option("--match", metavar="PATTERN", help="Those whose name fits, for example 'web-*'."),
    click.option(
        "--idle", type=DURATION, help="Those whose load was below 5 % at every look for so long, as in 30m."
    ),
    click.option("--older-than", type=DURATION, help="Those that were launched longer ago, as in 12h."),
    click.option(
        "--strangers", is_flag=True, help="Also nodes that were not launched from here, of your user name."
    ),
    click.option("--dry-run", is_flag=True, help="Only list what would be done."),
    click.option(
        "--at-once",
        type=WholeNumber(1, 64),
        default=16,
        show_default=True,
        help="Most requests at the same time.",
    ),
)


@dataclass(frozen=True)
class Choice:
    """What the options ask for.

    :param names: names, ids or uuids
    :param everything: all of them
    :param match: pattern of names
    :param idle: least time without work
    :param older_than: least age
    :param strangers: also nodes that are not in the ledger
    :param dry_run: only to be listed
    :param at_once: most requests at the same time
    """

    names: tuple[str, ...] = ()
    everything: bool = False
    match: str | None = None
    idle: timedelta | None = None
    older_than: timedelta | None = None
    strangers: bool = False
    dry_run: bool = False
    at_once: int = 16

    @property
    def by_name(self) -> bool:
        """Whether the nodes are named one by one."""
        return bool(self.names)


def choice_options(function: Callable[..., Any]) -> Callable[..., Any]:
    """Give a command the arguments of :class:`Choice`."""
    for option in reversed(_OPTIONS):
        function = option(function)
    return function


def choose(
    invocation: Invocation, access: Access, choice: Choice, states: Container[NodeState]
) -> list[CloudNode]:
    """Return the nodes that are meant, in the order of the listing or of the names.

    A node that is named is meant whoever launched it, and whatever its state. Of the others only those are
    meant that the ledger knows, unless strangers are asked for, and that are in one of the states.

    :raises CommandFailure: nothing is asked for, or a name means no node or several
    :raises ConfigError: the ledger cannot be used
    """
    fitting = (choice.everything or None, choice.match, choice.idle, choice.older_than)
    if choice.by_name == any(wish is not None for wish in fitting):
        raise CommandFailure(
            "say which nodes are meant, by name or by what they have in common, but not both",
            "name them, or give --all, --match, --idle or --older-than",
            ExitCode.USAGE,
        )
    if choice.by_name:
        listed = list_nodes(access)
        named = [find_node(listed, name, access.region) for name in choice.names]
        return list({node.instance_id: node for node in named}.values())
    nodes = [node for node in list_own_nodes(access) if node.state in states and node.state not in GONE]
    if choice.match is not None:
        nodes = [node for node in nodes if fnmatchcase(node.name, choice.match)]
    ledger = Ledger()
    ledger.settle(nodes)
    entries = ledger.entries()
    if not choice.strangers:
        known = {(entry.region, entry.instance_id) for entry in entries}
        own = [node for node in nodes if (access.region.key, node.instance_id) in known]
        left_out = len(nodes) - len(own)
        if left_out:
            invocation.note(f"{left_out} not launched from here, left out: --strangers takes them too")
        nodes = own
    now = datetime.now(timezone.utc)
    if choice.older_than is not None:
        times = launch_times(access, nodes, entries)
        nodes = [node for node in nodes if now - times.get(node.instance_id, now) > choice.older_than]
    return nodes if choice.idle is None else _idle(invocation, access, nodes, now - choice.idle)


def _idle(invocation: Invocation, access: Access, nodes: list[CloudNode], since: datetime) -> list[CloudNode]:
    probe_nodes(nodes)
    note_activity(nodes)
    begun = {node.instance_id: idle_since(node) for node in nodes}
    found = [node for node in nodes if (begun[node.instance_id] or datetime.now(timezone.utc)) <= since]
    if not found and any(begun.values()):
        minutes = int(LONGEST_GAP.total_seconds() // 60)
        invocation.note(
            "no idle node has been looked at for that long, with a look at least every"
            f" {minutes} minutes: repeat {command_for(access.region, 'stop', '--idle', '0s', '--dry-run')}"
        )
    return found
