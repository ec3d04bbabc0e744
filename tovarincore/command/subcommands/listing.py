"""``list`` and ``show``: the nodes of regions, and one of them."""

import click

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.command.context.access import open_region
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, NodesCommand, view_of
from tovarincore.command.context.regions import region_and, regions_argument
from tovarincore.command.nodes.inventory import GONE, find_node, list_nodes
from tovarincore.command.nodes.regions import in_every_region
from tovarincore.command.output.documents import NODE_COLUMNS, REGION_COLUMN, node_document
from tovarincore.command.output.listings import Listing
from tovarincore.command.output.tables import draw_pairs

__all__ = ["list_command", "node_listing", "show"]

_MEBIBYTE = 1024 * 1024


@click.command(
    "list",
    cls=ListCommand,
    examples=(
        "list us-east-1",
        "list -A --filter state=running --sort name -o wide",
        "list us-east-1 --no-probe -o name",
    ),
)
@regions_argument
@click.option("--all", "everything", is_flag=True, help="Also nodes that are terminated or shutting down.")
@click.option("--no-probe", is_flag=True, help="Do not ask the workers whether they are ready.")
@pass_invocation
def list_command(
    invocation: Invocation, regions: list[CloudRegion], everything: bool, no_probe: bool
) -> None:
    """List your nodes in one, several or all regions.

    The workers of running ones are asked whether they are ready, up to 256 at once, and each for at most two
    seconds.
    """
    nodes, failure = in_every_region(invocation, regions, list_nodes)
    shown = [node for node in nodes if everything or node.state not in GONE]
    probes = {}
    if not no_probe:
        from tovarincore.command.nodes.activity import note_if_possible
        from tovarincore.command.nodes.probes import probe_nodes

        probes = probe_nodes(shown)
        note_if_possible(shown)
    hidden = len(nodes) - len(shown)
    if failure is not None and not nodes and not invocation.structured:
        # That there are none is not known.
        raise failure
    invocation.emit_list(
        node_listing(regions),
        [node_document(node, probes.get(node.instance_id)) for node in shown],
        view_of(invocation),
    )
    if hidden:
        invocation.note(f"{hidden} terminated or shutting down: --all shows them")
    if failure is not None:
        raise failure


def node_listing(regions: list[CloudRegion]) -> Listing:
    """Return how nodes of these regions are listed."""
    if len(regions) == 1:
        return Listing("nodes", NODE_COLUMNS, f"No nodes in the region {regions[0].name}.")
    return Listing("nodes", (REGION_COLUMN, *NODE_COLUMNS), f"No nodes in {len(regions)} regions.")


@click.command(cls=NodesCommand, examples=("show us-east-1 trainer-1", "show local tovarin-worker -o json"))
@region_and("node")
@pass_invocation
def show(invocation: Invocation, region: CloudRegion, node: str) -> None:
    """Show one node, its load, and why its worker is not ready."""
    from tovarincore.command.nodes.probes import probe_nodes

    found = find_node(list_nodes(open_region(region)), node, region)
    probe = probe_nodes([found])[found.instance_id]
    document = node_document(found, probe)
    invocation.emit(
        "node",
        document,
        lambda: draw_pairs(
            [
                ("Name", found.name),
                ("Region", found.region.key),
                ("Instance id", found.instance_id),
                ("uuid", found.uuid),
                ("State", found.state.value),
                ("Worker", document["worker"]),
                ("Why not ready", probe.message),
                ("Type", found.instance_type_def.instance_type),
                ("Address", found.dns_address),
                ("Key pair", found.key_pair_name),
                ("Instance profile", found.instance_profile_name),
                ("Processor load", _load(found)),
                ("Memory in use", _memory(found)),
            ]
        ),
    )


def _load(node: CloudNode) -> str | None:
    return None if node.cpu_percent is None else f"{node.cpu_percent:g} %"


def _memory(node: CloudNode) -> str | None:
    if node.memory_used_bytes is None or node.memory_total_bytes is None:
        return None
    return f"{node.memory_used_bytes // _MEBIBYTE} of {node.memory_total_bytes // _MEBIBYTE} MiB"
