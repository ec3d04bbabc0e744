"""``types``: the instance types that nodes can have, and their sizes from EC2."""

import click

from tovarincore.cloud_def import CloudInstances, CloudRegion
from tovarincore.command.context.access import Access, open_region, require_amazon
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, view_of
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.nodes.types import describe_types, types_of, write_types
from tovarincore.command.output.documents import TYPE_COLUMNS, type_document
from tovarincore.command.output.listings import Listing

__all__ = ["types"]


@click.command(
    cls=ListCommand,
    examples=("types us-east-1 --filter 'instance_type=g4dn.*'", "types us-east-1 --update"),
)
@region_and()
@click.option(
    "--update", is_flag=True, help="Amazon: first take names and sizes from EC2 into your file of types."
)
@pass_invocation
def types(invocation: Invocation, region: CloudRegion, update: bool) -> None:
    """List the instance types that nodes can have.

    Amazon's are those that the product, your file of types and the SDK know, the last ones without sizes.
    --update writes what EC2 offers in the region into the file of the setting [cloud] instance_types_file, or
    instance_types.toml beside the settings; your comments and other entries stay.
    """
    if update:
        _update(invocation, region)
    found = types_of(open_region(region) if region.cloud != "AWS" else Access(region, None, None))
    invocation.emit_list(
        Listing("types", TYPE_COLUMNS, f"The region {region.name} offers no type."),
        [type_document(type_def) for type_def in found],
        view_of(invocation),
    )
    date = CloudInstances.get_data_date() if region.cloud == "AWS" else None
    if date is not None and not update:
        refresh = command_for(region, "types", "--update")
        invocation.note(f"sizes as of {date:%Y-%m-%d}; take them from EC2 with: {refresh}")


def _update(invocation: Invocation, region: CloudRegion) -> None:
    require_amazon(region, "only Amazon's types are kept in a file")
    described = describe_types(open_client(open_region(region)))
    path = CloudInstances.get_user_file()
    added = write_types(path, described)
    invocation.note(f"{len(described)} types of {region.name} written to {path}, {added} of them new there")
