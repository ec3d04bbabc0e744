"""The images of a region: all that its provider finds, or those of the accounts that the settings name."""

from collections.abc import Iterable
from typing import Any

from tovarincore.cloud_def import InstanceTemplate
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.seen import IMAGES, remember
from tovarincore.command.errors.explain import failure_of
from tovarincore.core_conf import core_conf_glbl

__all__ = ["IMAGE_FILTER", "list_templates", "pinned_owners"]

IMAGE_FILTER: dict[str, Any] = {"Name": "name", "Values": ["TOVARIN_AI_*"]}
"""By which names EC2 is asked for the product's images."""


def pinned_owners() -> list[str]:
    """Return the accounts whose images are used alone; empty when everybody's are."""
    return [owner.strip() for owner in core_conf_glbl.cloud__image_owners.split(",") if owner.strip()]


def list_templates(access: Access, is_public: bool) -> tuple[list[InstanceTemplate], int]:
    """Return a region's images in its provider's order.

    :param is_public: on Amazon only those that everybody may use
    :return: the images, and how many of other accounts were left out
    :raises CommandFailure: the provider reports a failure
    """
    templates, result = cloud_manager_glbl.list_current_instance_templates(
        access.region, access.auth, is_public=is_public
    )
    if not result.success:
        raise failure_of(result, access.region)
    remember(IMAGES, access.region.key, (template.name for template in templates))
    owners = pinned_owners()
    if access.region.cloud != "AWS" or not owners:
        return templates, 0
    response = open_client(access).describe_images(Owners=owners, Filters=[IMAGE_FILTER])
    allowed = _ids(response["Images"])
    kept = [template for template in templates if template.instance_template_id in allowed]
    return kept, len(templates) - len(kept)


def _ids(images: Iterable[Any]) -> set[str]:
    return {image["ImageId"] for image in images}
