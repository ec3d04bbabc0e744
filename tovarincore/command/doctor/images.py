"""What ``doctor`` looks at of the images: that there are some, and whose they are."""

from collections.abc import Iterator
from typing import Any

from tovarincore.command.context.access import Access
from tovarincore.command.doctor.verdicts import Verdict, ok, warn
from tovarincore.command.errors.advice import command_for
from tovarincore.command.nodes.images import IMAGE_FILTER, list_templates, pinned_owners

__all__ = ["check_images"]


def check_images(client: Any, access: Access) -> Iterator[Verdict]:
    """Look at the images that launches choose from; verdicts have no subject yet.

    :param client: EC2 client of the region
    """
    templates, left_out = list_templates(access, is_public=True)
    other = f", {left_out} of other accounts left out" if left_out else ""
    if templates:
        yield ok("", f"{len(templates)} public images{other}")
    else:
        yield warn(
            "",
            f"no public image{other}",
            f"choose one with --template: {command_for(access.region, 'templates', '--private')}",
        )
    if pinned_owners():
        return
    wanted = {template.instance_template_id for template in templates}
    own = _owners(client, wanted, Owners=["self"])
    strangers = sorted(_owners(client, wanted) - own)
    if strangers:
        yield warn(
            "",
            f"images come from accounts that are not named in the settings: {', '.join(strangers)};"
            " anybody can publish an image of the product's names",
            "name those that you trust: tovarin-nodes config set cloud.image_owners " + ",".join(strangers),
        )


def _owners(client: Any, wanted: set[str], **arguments: Any) -> set[str]:
    images = client.describe_images(Filters=[IMAGE_FILTER], **arguments)["Images"]
    return {str(image.get("OwnerId")) for image in images if image["ImageId"] in wanted}
