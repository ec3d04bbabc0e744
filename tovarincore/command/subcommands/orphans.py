"""``orphans``: nodes that are listed under the user's name, but that this command has not launched."""

from datetime import datetime

import click

from tovarincore import fleet
from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, view_of, yes_option
from tovarincore.command.context.regions import region_and
from tovarincore.command.context.sdk import TAG_USER_NAME
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import GONE, find_node, list_own_nodes, matching_nodes
from tovarincore.command.nodes.probes import probe_nodes
from tovarincore.command.output.documents import AGE_COLUMN, NODE_COLUMNS, node_document
from tovarincore.command.output.listings import Listing
from tovarincore.command.output.text import one_line
from tovarincore.command.subcommands.lifecycle import end_nodes
from tovarincore.fleet.ledger import Ledger

__all__ = ["orphans"]

_COLUMNS = (*NODE_COLUMNS[:5], AGE_COLUMN, *NODE_COLUMNS[5:])


@click.command(cls=ListCommand, examples=("orphans us-east-1", "orphans us-east-1 --end i-0123456789abcdef0"))
@region_and()
@click.option(
    "--end", "ended", metavar="NODE", multiple=True, help="Terminate this one of them, after asking."
)
@yes_option
@pass_invocation
def orphans(invocation: Invocation, region: CloudRegion, ended: tuple[str, ...], yes: bool) -> None:
    """List nodes under your user name that are not in the ledger of launches.

    The ledger, launches.jsonl beside the credential store, holds what this command has launched on this
    machine; launches of which it did not know what came are looked up first. A node that a program or
    another machine launched is an orphan too: end only what you know.
    """
    access = open_region(region)
    own = list_own_nodes(access)
    for node in fleet.settle([region]):
        invocation.note(f"{node.name} ({node.instance_id}) belongs to a launch that was cut short: noted")
    launched = {(entry.region, entry.instance_id) for entry in Ledger().entries()}
    found = [
        node for node in own if node.state not in GONE and (region.key, node.instance_id) not in launched
    ]
    if ended:
        end_nodes(invocation, access, [_orphan(found, wanted, region) for wanted in ended], "orphan", yes)
        return
    times = _launch_times(access, found)
    probes = probe_nodes(found)
    count = invocation.emit_list(
        Listing("orphans", _COLUMNS, f"No orphans in the region {region.name}."),
        [
            {**node_document(node, probes[node.instance_id]), "launched": _iso(times.get(node.instance_id))}
            for node in found
        ],
        view_of(invocation),
    )
    if count:
        invocation.note(f"end one with: {command_for(region, 'orphans', '--end', 'NODE')}")


def _orphan(found: list[CloudNode], wanted: str, region: CloudRegion) -> CloudNode:
    if not matching_nodes(found, wanted):
        raise CommandFailure(
            f"{one_line(wanted)} is not among the orphans",
            f"list them: {command_for(region, 'orphans')}",
            ExitCode.NOT_FOUND,
        )
    return find_node(found, wanted, region)


def _launch_times(access: Access, nodes: list[CloudNode]) -> dict[str, datetime]:
    """Return when Amazon launched the nodes, which their records do not tell; other providers do not say."""
    if not nodes or access.region.cloud != "AWS":
        return {}
    filters = [{"Name": f"tag:{TAG_USER_NAME}", "Values": [access.user_name]}]
    response = open_client(access).describe_instances(Filters=filters)
    return {
        instance["InstanceId"]: instance["LaunchTime"]
        for reservation in response["Reservations"]
        for instance in reservation["Instances"]
    }


def _iso(moment: datetime | None) -> str | None:
    return None if moment is None else moment.isoformat(timespec="seconds")
