"""``start``, ``stop``, ``reboot`` and ``terminate``."""

import logging
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import click

from tovarincore import fleet
from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, confirm, pass_invocation
from tovarincore.command.context.options import NodesCommand, yes_option
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import GONE
from tovarincore.command.nodes.ownership import require_own
from tovarincore.command.nodes.selection import Choice, choice_options, choose
from tovarincore.command.output.documents import node_document
from tovarincore.command.output.steps import steps

__all__ = ["end_nodes", "reboot", "start", "stop", "terminate"]

_logger = logging.getLogger("tovarincore.command")
_ANY = tuple(state for state in NodeState if state not in GONE)
_PAST = {"start": "started", "stop": "stopped", "reboot": "rebooted", "terminate": "terminated"}
_FEW = 3
"""So many nodes fit into a question; more are listed before it."""


@dataclass(frozen=True)
class Action:
    """What is done with nodes.

    :param verb: for questions
    :param doing: for what is going on then
    :param states: those that nodes that fit are in
    :param run: does it
    """

    verb: str
    doing: str
    states: tuple[NodeState, ...]
    run: Callable[..., fleet.ActionReport]


_START = Action("start", "starting", (NodeState.STOPPED,), fleet.start)
_STOP = Action("stop", "stopping", (NodeState.RUNNING, NodeState.STARTING), fleet.stop)
_REBOOT = Action("reboot", "rebooting", (NodeState.RUNNING,), fleet.reboot)
_TERMINATE = Action("terminate", "shutting down", _ANY, fleet.terminate)


@click.command(cls=NodesCommand, examples=("start us-east-1 trainer-1",))
@region_and("names", many=True, none=True)
@choice_options
@yes_option
@pass_invocation
def start(invocation: Invocation, /, region: CloudRegion, yes: bool, **options: Any) -> None:
    """Start stopped nodes. One that is named is started without a question."""
    _change(invocation, region, Choice(**options), yes, _START)


@click.command(cls=NodesCommand, examples=("stop us-east-1 trainer-1",))
@region_and("names", many=True, none=True)
@choice_options
@yes_option
@pass_invocation
def stop(invocation: Invocation, /, region: CloudRegion, yes: bool, **options: Any) -> None:
    """Stop nodes by force; their disks stay. One that is named is stopped without a question."""
    _change(invocation, region, Choice(**options), yes, _STOP)


@click.command(cls=NodesCommand, examples=("reboot us-east-1 trainer-1",))
@region_and("names", many=True, none=True)
@choice_options
@yes_option
@pass_invocation
def reboot(invocation: Invocation, /, region: CloudRegion, yes: bool, **options: Any) -> None:
    """Reboot nodes. One that is named is rebooted without a question."""
    _change(invocation, region, Choice(**options), yes, _REBOOT)


@click.command(cls=NodesCommand, examples=("terminate us-east-1 trainer-1 trainer-2",))
@region_and("names", many=True, none=True)
@choice_options
@click.option("--reason", metavar="TEXT", help="Kubernetes: kept on the pod while it ends.")
@yes_option
@pass_invocation
def terminate(
    invocation: Invocation, /, region: CloudRegion, reason: str | None, yes: bool, **options: Any
) -> None:
    """End nodes for good, disks included, after asking."""
    access, choice = open_region(region), Choice(**options)
    nodes = choose(invocation, access, choice, _TERMINATE.states)
    _end_nodes(invocation, access, nodes, reason, yes, choice)


def end_nodes(
    invocation: Invocation, access: Access, nodes: list[CloudNode], reason: str | None, yes: bool
) -> None:
    """Ask, then end each node; one that cannot be ended does not keep the others.

    :raises CommandFailure: the answer is no, or a node could not be ended or is not the user's
    """
    _end_nodes(invocation, access, nodes, reason, yes, Choice())


def _end_nodes(
    invocation: Invocation,
    access: Access,
    nodes: list[CloudNode],
    reason: str | None,
    yes: bool,
    choice: Choice,
) -> None:
    if not _agreed(invocation, access, nodes, _TERMINATE, yes, choice.dry_run):
        return
    with invocation.changing(
        "nodes may have been terminated anyway",
        f"list your nodes: {command_for(access.region, 'list', '--all')}",
    ):
        failures = _run(invocation, nodes, _TERMINATE, choice.at_once, reason=reason)
    documents = [
        {
            "region": access.region.key,
            "instance_id": node.instance_id,
            "name": node.name,
            "terminated": node.instance_id not in failures,
            "error": failures[node.instance_id].what if node.instance_id in failures else None,
        }
        for node in nodes
    ]
    invocation.emit_items("terminations", documents)
    for failure in failures.values():
        raise failure


def _change(invocation: Invocation, region: CloudRegion, choice: Choice, yes: bool, action: Action) -> None:
    if region.cloud == "k8s":
        # The provider would do nothing and say nothing.
        raise CommandFailure(
            "nodes in Kubernetes cannot be started, stopped or rebooted",
            "terminate the node, and launch another one when it is needed",
            ExitCode.USAGE,
        )
    access = open_region(region)
    nodes = choose(invocation, access, choice, action.states)
    one_named = choice.by_name and len(nodes) == 1
    if not _agreed(invocation, access, nodes, action, yes or one_named, choice.dry_run):
        return
    names = ", ".join(f"{node.name} ({node.instance_id})" for node in nodes) if one_named else "nodes"
    with invocation.changing(
        f"{names} may be {action.doing} anyway",
        f"look at its state: {command_for(region, 'show', nodes[0].instance_id)}"
        if one_named
        else f"list your nodes: {command_for(region, 'list')}",
    ):
        failures = _run(invocation, nodes, action, choice.at_once, failures_told=not one_named)
    documents = [
        {
            "region": region.key,
            "instance_id": node.instance_id,
            "name": node.name,
            "requested": None if node.instance_id in failures else action.doing,
        }
        for node in nodes
    ]
    if not one_named:
        invocation.emit_items("changes", documents)
    elif not failures:
        invocation.emit("change", documents[0], lambda: None)
    for failure in failures.values():
        raise failure


def _agreed(
    invocation: Invocation, access: Access, nodes: list[CloudNode], action: Action, yes: bool, dry_run: bool
) -> bool:
    """Show what would be done, and ask; say whether it is to be done."""
    require_own(access, nodes)
    lines = [f"{node.name} ({node.instance_id}, {node.state.value.lower()})" for node in nodes]
    if dry_run or not nodes:
        invocation.emit_items("nodes", [node_document(node) for node in nodes])
        if not invocation.structured:
            for line in lines or [f"No nodes to {action.verb} in the region {access.region.name}."]:
                invocation.say(line)
        return False
    names = ", ".join(lines)
    if len(nodes) > _FEW:
        names = f"these {len(nodes)} nodes"
        if not yes and not invocation.structured:
            for line in lines:
                invocation.note(line)
    confirm(invocation, f"{action.verb.capitalize()} {names} in {access.region.key}?", yes)
    return True


def _run(
    invocation: Invocation,
    nodes: list[CloudNode],
    action: Action,
    at_once: int,
    failures_told: bool = True,
    **arguments: Any,
) -> dict[str, CommandFailure]:
    failures: dict[str, CommandFailure] = {}
    # A result for people goes to standard output at once: Ctrl-C may come between two nodes.
    with steps(invocation, action.doing, len(nodes), invocation.say) as step:

        def tell(outcome: CloudNode | fleet.NotDone) -> None:
            if not isinstance(outcome, fleet.NotDone):
                _logger.info("%s %s (%s)", action.doing, outcome.name, outcome.instance_id)
                step(f"{outcome.name} ({outcome.instance_id}) is {action.doing}")
                return
            failure = failures[outcome.node.instance_id] = _failure_of(outcome)
            if len(nodes) > 1 and failures_told:
                name = f"{outcome.node.name} ({outcome.node.instance_id})"
                invocation.note(f"{name} was not {_PAST[action.verb]}: {failure.what}")

        action.run(nodes, at_once=at_once, on_outcome=tell, **arguments)
    return failures


def _failure_of(outcome: fleet.NotDone) -> CommandFailure:
    if outcome.error is not None:
        return explain(outcome.error, outcome.node.region)
    return failure_of(outcome.result, outcome.node.region)
