"""``regions`` and ``templates``: what there is to choose from."""

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import open_region, why_not_usable
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import ListCommand, view_of
from tovarincore.command.context.regions import region_and
from tovarincore.command.output.documents import (
    REGION_COLUMNS,
    TEMPLATE_COLUMNS,
    region_document,
    template_document,
)
from tovarincore.command.output.listings import Listing

__all__ = ["regions", "templates"]


@click.command(cls=ListCommand, examples=("regions --usable", "regions --filter cloud=k8s -o name"))
@click.option("--usable", "--configured", is_flag=True, help="Only regions that can be used as things are.")
@pass_invocation
def regions(invocation: Invocation, usable: bool) -> None:
    """List the regions, and what those lack that cannot be used.

    Of all services only this machine's container engine is asked whether it answers. tovarin-nodes doctor
    asks the others, too.
    """
    from tovarincore.cloud_def import CloudRegions

    found = [region_document(region, why_not_usable(region)) for region in CloudRegions.get_all()]
    invocation.emit_list(
        Listing("regions", REGION_COLUMNS, "No region is known."),
        [region for region in found if region["usable"] or not usable],
        view_of(invocation),
    )


@click.command(cls=ListCommand, examples=("templates us-east-1 --private --sort -created",))
@region_and()
@click.option("--private", is_flag=True, help="Amazon: also the images that are not public.")
@pass_invocation
def templates(invocation: Invocation, region: CloudRegion, private: bool) -> None:
    """List the images that nodes can be launched from.

    On Amazon those of every account whose names fit; with the setting [cloud] image_owners those of its
    accounts alone.
    """
    from tovarincore.command.nodes.images import list_templates

    access = open_region(region)
    found, left_out = list_templates(access, is_public=not private)
    hint = " (--private lists images that are not public)" if region.cloud == "AWS" and not private else ""
    invocation.emit_list(
        Listing("templates", TEMPLATE_COLUMNS, f"The region {region.name} offers no image{hint}."),
        [template_document(template) for template in found],
        view_of(invocation),
    )
    if left_out:
        invocation.note(f"{left_out} of accounts that [cloud] image_owners does not name are left out")
