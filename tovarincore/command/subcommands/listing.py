"""``list`` and ``show``: the nodes of a region."""

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import open_region
from tovarincore.command.context.invocation import Invocation, NodesCommand, pass_invocation, region_argument
from tovarincore.command.nodes.inventory import GONE, find_node, list_nodes, probe_nodes
from tovarincore.command.output.records import NODE_COLUMNS, node_document, node_row, ready_text
from tovarincore.command.output.tables import draw_pairs, draw_table
from tovarincore.fleet.ledger import Ledger

__all__ = ["list_command", "show"]

_MEBIBYTE = 1024 * 1024


@click.command("list", cls=NodesCommand)
@region_argument()
@click.option("--all", "everything", is_flag=True, help="Also nodes that are terminated or shutting down.")
@click.option("--no-probe", is_flag=True, help="Do not ask the workers whether they are ready.")
@pass_invocation
def list_command(invocation: Invocation, region: CloudRegion, everything: bool, no_probe: bool) -> None:
    """List your nodes. The workers of running ones are asked, all at once, for at most two seconds."""
    nodes = list_nodes(open_region(region))
    shown = [node for node in nodes if everything or node.state not in GONE]
    probes = {} if no_probe else probe_nodes(shown)
    hidden = len(nodes) - len(shown)
    invocation.emit(
        [node_document(node, probes.get(node.instance_id)) for node in shown],
        lambda: draw_table(
            NODE_COLUMNS,
            [node_row(node, probes.get(node.instance_id)) for node in shown],
            f"No nodes in the region {region.name}.",
        ),
    )
    if hidden:
        invocation.note(f"{hidden} terminated or shutting down: --all shows them")


@click.command(cls=NodesCommand)
@region_argument()
@click.argument("node")
@pass_invocation
def show(invocation: Invocation, region: CloudRegion, node: str) -> None:
    """Show one node, its load, and why its worker is not ready."""
    found = find_node(list_nodes(open_region(region)), node)
    probe = probe_nodes([found])[found.instance_id]
    launches = {entry.instance_id: entry.launched for entry in Ledger().entries()}
    launched = launches.get(found.instance_id)
    load = memory = None
    if found.cpu_percent is not None:
        load = f"{found.cpu_percent:g} %"
    if found.memory_used_bytes is not None and found.memory_total_bytes is not None:
        used, total = found.memory_used_bytes // _MEBIBYTE, found.memory_total_bytes // _MEBIBYTE
        memory = f"{used} of {total} MiB"
    invocation.emit(
        {**node_document(found, probe), "launched_with_this_command": launched},
        lambda: draw_pairs(
            [
                ("Name", found.name),
                ("Region", found.region.key),
                ("Instance id", found.instance_id),
                ("uuid", found.uuid),
                ("State", found.state.value),
                ("Worker", ready_text(probe)),
                ("Why not ready", probe.message),
                ("Type", found.instance_type_def.instance_type),
                ("Address", found.dns_address),
                ("Key pair", found.key_pair_name),
                ("Instance profile", found.instance_profile_name),
                ("Processor load", load),
                ("Memory in use", memory),
                ("Launched here", launched),
            ]
        ),
    )
