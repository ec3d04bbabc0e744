"""``types``: the instance types that nodes can have."""

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, view_of
from tovarincore.command.context.regions import region_and
from tovarincore.command.nodes.types import types_of
from tovarincore.command.output.documents import TYPE_COLUMNS, type_document
from tovarincore.command.output.listings import Listing

__all__ = ["types"]


@click.command(cls=ListCommand)
@region_and()
@pass_invocation
def types(invocation: Invocation, region: CloudRegion) -> None:
    """List the instance types that nodes can have."""
    found = types_of(open_region(region) if region.cloud != "AWS" else Access(region, None, None))
    invocation.emit_list(
        Listing("types", TYPE_COLUMNS, f"The region {region.name} offers no type."),
        [type_document(type_def) for type_def in found],
        view_of(invocation),
    )
