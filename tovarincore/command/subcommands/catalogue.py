"""``regions``, ``templates`` and ``types``: what there is to choose from."""

import click

from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudInstances, CloudInstanceTypeDef, CloudRegion, CloudRegions
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, NodesCommand, pass_invocation, region_argument
from tovarincore.command.errors.explain import failure_of
from tovarincore.command.output.records import region_document, template_document, type_document
from tovarincore.command.output.tables import draw_table

__all__ = ["regions", "templates", "types", "types_of"]


@click.command(cls=NodesCommand)
@click.option("--configured", is_flag=True, help="Only regions that can be used as things are.")
@pass_invocation
def regions(invocation: Invocation, configured: bool) -> None:
    """List the regions; Amazon's need stored credentials before they can be used."""
    stored = CloudConfManager().list_regions()
    rows = [(region, region in stored or region.cloud != "AWS") for region in CloudRegions.get_all()]
    if configured:
        rows = [row for row in rows if row[1]]
    invocation.emit(
        [region_document(region, ready) for region, ready in rows],
        lambda: draw_table(
            ("name", "kind", "usable", "title"),
            [(region.name, region.cloud, "yes" if ready else "no", region.title) for region, ready in rows],
            "No region is known.",
        ),
    )


@click.command(cls=NodesCommand)
@region_argument()
@click.option("--private", is_flag=True, help="Amazon: also the images that are not public.")
@pass_invocation
def templates(invocation: Invocation, region: CloudRegion, private: bool) -> None:
    """List the images that nodes can be launched from."""
    access = open_region(region)
    found, result = cloud_manager_glbl.list_current_instance_templates(
        region, access.auth, is_public=not private
    )
    if not result.success:
        raise failure_of(result, region)
    hint = " (--private lists images that are not public)" if region.cloud == "AWS" and not private else ""
    invocation.emit(
        [template_document(template) for template in found],
        lambda: draw_table(
            ("name", "id", "version", "pay type", "for", "created"),
            [
                (
                    template.name,
                    template.instance_template_id,
                    template.version,
                    template.product_pay_type.value,
                    "GPU" if template.is_gpu else "CPU",
                    f"{template.created_date:%Y-%m-%d}",
                )
                for template in found
            ],
            f"The region {region.name} offers no image{hint}.",
        ),
    )


@click.command(cls=NodesCommand)
@region_argument()
@pass_invocation
def types(invocation: Invocation, region: CloudRegion) -> None:
    """List the instance types that nodes can have."""
    found = types_of(open_region(region) if region.cloud != "AWS" else Access(region, None, None))
    invocation.emit(
        [type_document(type_def) for type_def in found],
        lambda: draw_table(
            ("type", "processors", "memory (MiB)", "gpus", "gpu model"),
            [
                (
                    type_def.instance_type,
                    f"{type_def.cpu_count:g}" if type_def.cpu_count else None,
                    type_def.memory_mib or None,
                    type_def.gpu_count,
                    type_def.gpu_model,
                )
                for type_def in found
            ],
            f"The region {region.name} offers no type.",
        ),
    )


def types_of(access: Access) -> list[CloudInstanceTypeDef]:
    """Return the types of a region; Amazon's come from the list of known types, as its provider gives none.

    :raises CommandFailure: the provider reports a failure
    """
    if access.region.cloud == "AWS":
        return CloudInstances.instance_type_list
    found, result = cloud_manager_glbl.list_instance_types(access.region)
    if not result.success:
        raise failure_of(result, access.region)
    return found
