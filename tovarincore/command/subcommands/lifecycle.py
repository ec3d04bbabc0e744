"""``start``, ``stop``, ``reboot`` and ``terminate``."""

import logging
from collections.abc import Callable

import click

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, confirm, pass_invocation
from tovarincore.command.context.options import NodesCommand, yes_option
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import find_node, list_nodes
from tovarincore.command.nodes.ownership import require_own

__all__ = ["end_nodes", "reboot", "start", "stop", "terminate"]

_logger = logging.getLogger("tovarincore.command")


@click.command(cls=NodesCommand, examples=("start us-east-1 trainer-1",))
@region_and("node")
@pass_invocation
def start(invocation: Invocation, region: CloudRegion, node: str) -> None:
    """Start a stopped node."""

    def change(access: Access, found: CloudNode) -> None:
        cloud_manager_glbl.start_node(region, access.auth, found.instance_id)

    _change(invocation, region, node, "starting", change)


@click.command(cls=NodesCommand, examples=("stop us-east-1 trainer-1",))
@region_and("node")
@pass_invocation
def stop(invocation: Invocation, region: CloudRegion, node: str) -> None:
    """Stop a node by force; its disk stays."""

    def change(access: Access, found: CloudNode) -> None:
        cloud_manager_glbl.stop_node(region, access.auth, found.instance_id)

    _change(invocation, region, node, "stopping", change)


@click.command(cls=NodesCommand, examples=("reboot us-east-1 trainer-1",))
@region_and("node")
@pass_invocation
def reboot(invocation: Invocation, region: CloudRegion, node: str) -> None:
    """Reboot a node."""

    def change(access: Access, found: CloudNode) -> None:
        cloud_manager_glbl.start_node(region, access.auth, found.instance_id, reboot=True)

    _change(invocation, region, node, "rebooting", change)


def _change(
    invocation: Invocation,
    region: CloudRegion,
    wanted: str,
    doing: str,
    change: Callable[[Access, CloudNode], None],
) -> None:
    if region.cloud == "k8s":
        # The provider would do nothing and say nothing.
        raise CommandFailure(
            "nodes in Kubernetes cannot be started, stopped or rebooted",
            "terminate the node, and launch another one when it is needed",
            ExitCode.USAGE,
        )
    access = open_region(region)
    node = find_node(list_nodes(access), wanted, region)
    require_own(access, [node])
    with invocation.changing(
        f"{node.name} ({node.instance_id}) may be {doing} all the same",
        f"look at its state: {command_for(region, 'show', node.instance_id)}",
    ):
        change(access, node)
    _logger.info("%s %s (%s) in %s", doing, node.name, node.instance_id, region.key)
    invocation.emit(
        "change",
        {"region": region.key, "instance_id": node.instance_id, "name": node.name, "requested": doing},
        lambda: invocation.say(f"{node.name} ({node.instance_id}) is {doing}"),
    )


@click.command(cls=NodesCommand, examples=("terminate us-east-1 trainer-1 trainer-2",))
@region_and("nodes", many=True)
@click.option("--reason", metavar="TEXT", help="Kubernetes: kept on the pod while it ends.")
@yes_option
@pass_invocation
def terminate(
    invocation: Invocation, region: CloudRegion, nodes: tuple[str, ...], reason: str | None, yes: bool
) -> None:
    """End nodes for good, disks included, after asking."""
    access = open_region(region)
    listed = list_nodes(access)
    found = {node.instance_id: node for node in (find_node(listed, wanted, region) for wanted in nodes)}
    end_nodes(invocation, access, list(found.values()), reason, yes)


def end_nodes(
    invocation: Invocation, access: Access, nodes: list[CloudNode], reason: str | None, yes: bool
) -> None:
    """Ask, then end each node; one that cannot be ended does not keep the others.

    :raises CommandFailure: the answer is no, or a node could not be ended or is not the user's
    """
    require_own(access, nodes)
    names = ", ".join(f"{node.name} ({node.instance_id}, {node.state.value.lower()})" for node in nodes)
    confirm(invocation, f"Terminate {names} in {access.region.key}?", yes)
    documents: list[dict[str, object]] = []
    failures = []
    with invocation.changing(
        "nodes may have been terminated all the same",
        f"list your nodes: {command_for(access.region, 'list', '--all')}",
    ):
        for node in nodes:
            failure = _end(access, node, reason)
            document = {"region": access.region.key, "instance_id": node.instance_id, "name": node.name}
            documents.append(
                {
                    **document,
                    "terminated": failure is None,
                    "error": None if failure is None else failure.what,
                }
            )
            if failure is None:
                _tell(invocation, f"{node.name} ({node.instance_id}) is shutting down")
            else:
                failures.append(failure)
                if len(nodes) > 1:
                    invocation.note(f"{node.name} ({node.instance_id}) was not terminated: {failure.what}")
    invocation.emit_items("terminations", documents)
    if failures:
        raise failures[0]


def _end(access: Access, node: CloudNode, reason: str | None) -> CommandFailure | None:
    try:
        result = cloud_manager_glbl.terminate_node(access.region, access.auth, node.instance_id, reason)
        if not result.success:
            return failure_of(result, access.region)
    except Exception as error:
        return explain(error, access.region)
    _logger.info("terminated %s (%s) in %s", node.name, node.instance_id, access.region.key)
    return None


def _tell(invocation: Invocation, text: str) -> None:
    # At once and not at the end: Ctrl-C may come between two nodes.
    if not invocation.structured:
        invocation.say(text)
