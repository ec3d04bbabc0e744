"""``orphans``: nodes that are listed under the user's name, but that this command has not launched."""

from datetime import datetime, timezone
from typing import Any

import click

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.cloud_node import AWSNodeManager, cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import (
    Invocation,
    NodesCommand,
    pass_invocation,
    region_argument,
    yes_option,
)
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import (
    GONE,
    Probe,
    find_node,
    list_own_nodes,
    matching_nodes,
    probe_nodes,
)
from tovarincore.command.output.records import NODE_COLUMNS, node_document, node_row
from tovarincore.command.output.tables import draw_table
from tovarincore.command.output.text import one_line
from tovarincore.command.subcommands.lifecycle import end_nodes
from tovarincore.fleet.ledger import Ledger

__all__ = ["orphans"]


@click.command(cls=NodesCommand)
@region_argument()
@click.option(
    "--end", "ended", metavar="NODE", multiple=True, help="Terminate this one of them, after asking."
)
@yes_option
@pass_invocation
def orphans(invocation: Invocation, region: CloudRegion, ended: tuple[str, ...], yes: bool) -> None:
    """List nodes under your user name that are not in the ledger of launches.

    The ledger, launches.jsonl beside the credential store, holds what this command has launched on this
    machine. A node that a program or another machine launched is an orphan too: end only what you know.
    """
    access = open_region(region)
    launched = {(entry.region, entry.instance_id) for entry in Ledger().entries()}
    found = [
        node
        for node in list_own_nodes(access)
        if node.state not in GONE and (region.key, node.instance_id) not in launched
    ]
    if ended:
        end_nodes(invocation, access, [_orphan(found, wanted) for wanted in ended], "orphan", yes)
        return
    ages = _launch_times(access, found)
    probes = probe_nodes(found)
    invocation.emit(
        [
            {**node_document(node, probes[node.instance_id]), "launched": _iso(ages.get(node.instance_id))}
            for node in found
        ],
        lambda: draw_table(
            (*NODE_COLUMNS[:-1], "age", NODE_COLUMNS[-1]),
            [_row(node, probes[node.instance_id], ages.get(node.instance_id)) for node in found],
            f"No orphans in the region {region.name}.",
        ),
    )
    if found:
        invocation.note("end one with: tovarin-nodes orphans REGION --end NODE")


def _orphan(found: list[CloudNode], wanted: str) -> CloudNode:
    if not matching_nodes(found, wanted):
        raise CommandFailure(
            f"{one_line(wanted)} is not among the orphans",
            "see: tovarin-nodes orphans REGION",
            ExitCode.NOT_FOUND,
        )
    return find_node(found, wanted)


def _launch_times(access: Access, nodes: list[CloudNode]) -> dict[str, datetime]:
    """Return when Amazon launched the nodes, which their records do not tell; other providers do not say."""
    provider = cloud_manager_glbl.get_node_manager(access.region)
    if not nodes or not isinstance(provider, AWSNodeManager):
        return {}
    client: Any = provider._get_client()
    filters = [{"Name": "tag:tovarin_username", "Values": [provider.username]}]
    response = client.describe_instances(Filters=filters)
    return {
        instance["InstanceId"]: instance["LaunchTime"]
        for reservation in response["Reservations"]
        for instance in reservation["Instances"]
    }


def _row(node: CloudNode, probe: Probe, launched: datetime | None) -> list[object]:
    *cells, address = node_row(node, probe)
    return [*cells, _age(launched), address]


def _iso(moment: datetime | None) -> str | None:
    return None if moment is None else moment.isoformat(timespec="seconds")


def _age(moment: datetime | None) -> str:
    if moment is None:
        return "not known"
    minutes = max(0, int((datetime.now(timezone.utc) - moment).total_seconds() // 60))
    if minutes < 60:
        return f"{minutes} min"
    if minutes < 48 * 60:
        return f"{minutes // 60} h"
    return f"{minutes // (24 * 60)} days"
