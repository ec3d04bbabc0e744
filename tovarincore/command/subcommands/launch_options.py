"""What a launch is asked for: the options that ``launch``, ``try`` and ``doctor --launch`` share."""

import json
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import click

from tovarincore._config_files.names import nearest
from tovarincore.cloud_def import (
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudRegion,
    InstanceTemplate,
    InstanceTemplatePayType,
)
from tovarincore.command.context.access import Access
from tovarincore.command.context.completing import complete_images, complete_types
from tovarincore.command.context.numbers import WholeNumber
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.images import list_templates
from tovarincore.command.nodes.types import types_of
from tovarincore.command.nodes.user_data import require_fitting_user_data
from tovarincore.command.output.text import one_line

__all__ = ["LaunchRequest", "build_request", "find_type", "launch_options", "network_missing"]

# Whether the image is for machines with graphics processors, and how its use is paid for.
_PLANS = {
    "cpu-a": (False, InstanceTemplatePayType.PLAN_A),
    "gpu-a": (True, InstanceTemplatePayType.PLAN_A),
    "cpu-b": (False, InstanceTemplatePayType.PLAN_B),
    "gpu-b": (True, InstanceTemplatePayType.PLAN_B),
}
_OPTIONS = (
    click.option(
        "--type",
        "type_name",
        metavar="TYPE",
        help="Instance type, see the sub-command types.",
        shell_complete=complete_types,
    ),
    click.option(
        "--template",
        metavar="IMAGE",
        help="Image by id, name or version, see templates.",
        shell_complete=complete_images,
    ),
    click.option(
        "--plan",
        type=click.Choice(list(_PLANS)),
        help="Amazon: the default image of this plan, when no --template is given.  [default: cpu-a]",
    ),
    click.option(
        "--disk", type=WholeNumber(1, 16384), default=20, show_default=True, help="Root volume in GiB."
    ),
    click.option(
        "--key-pair", default="tovarin-key", show_default=True, help="Amazon: key pair put on the instance."
    ),
    click.option("--instance-profile", metavar="NAME", help="Amazon: IAM instance profile."),
    click.option(
        "--settings",
        type=click.Path(exists=True, dir_okay=False, path_type=Path),
        help="JSON file with what the node's preparation script is given.",
    ),
)


@dataclass(frozen=True)
class LaunchRequest:
    """What the facade is asked to launch."""

    type_def: CloudInstanceTypeDef
    config: CloudInstanceConfig


def launch_options(function: Callable[..., Any]) -> Callable[..., Any]:
    """Give a command the options of :func:`build_request`."""
    for option in reversed(_OPTIONS):
        function = option(function)
    return function


def build_request(
    access: Access,
    type_name: str | None = None,
    template: str | None = None,
    plan: str | None = None,
    name: str = "tovarin-node",
    disk: int = 20,
    key_pair: str = "tovarin-key",
    instance_profile: str | None = None,
    settings: Path | None = None,
) -> LaunchRequest:
    """Turn the options into what the facade is asked for.

    :raises CommandFailure: no such type or template, or a file that is not JSON
    """
    type_def = find_type(access, type_name)
    launch_settings = _read_settings(settings)
    if access.region.cloud == "AWS":
        require_fitting_user_data(launch_settings)
    config = CloudInstanceConfig(
        disk_size=disk,
        launch_instance_settings=launch_settings,
        instance_template=_find_template(access, template, plan),
        key_pair_name=key_pair,
        name=name,
        instance_profile_name=instance_profile,
    )
    return LaunchRequest(type_def, config)


def network_missing(region: CloudRegion) -> CommandFailure:
    """Return the failure for an account without a default network: a launch says only ``IndexError``."""
    return CommandFailure(
        f"the account has no default network (VPC) in the region {region.name} for the security group",
        "create one (aws ec2 create-default-vpc), or set [network] aws_custom_vpc and aws_custom_subnet",
        ExitCode.NOT_CONFIGURED,
    )


def find_type(access: Access, name: str | None) -> CloudInstanceTypeDef:
    """Return the type of a name.

    :raises CommandFailure: there is no such type, or one has to be given
    """
    region = access.region
    if region.cloud == "local":
        return CloudInstances.get_default_local_instance_type()
    if name is None:
        raise CommandFailure(
            "a launch in this region needs a type",
            f"give one with --type: {command_for(region, 'types')}",
            ExitCode.USAGE,
        )
    for known in types_of(access):
        if known.instance_type == name:
            return known
    near = nearest(name, [known.instance_type for known in types_of(access)])
    raise CommandFailure(
        f'the type "{one_line(name)}" is not in the list of instance types'
        + (f'; did you mean "{near}"?' if near else ""),
        f"choose one of: {command_for(region, 'types')}"
        + (
            f"; or refresh the list: {command_for(region, 'types', '--update')}"
            if region.cloud == "AWS"
            else ""
        ),
        ExitCode.NOT_FOUND,
    )


def _find_template(access: Access, wanted: str | None, plan: str | None) -> InstanceTemplate:
    region = access.region
    if wanted is None and region.cloud == "AWS":
        plan = plan or "cpu-a"
        for template in list_templates(access, is_public=True)[0]:
            if (template.is_gpu, template.product_pay_type) == _PLANS[plan]:
                return template
        raise _no_template(f"no public image for the plan {plan}", region)
    templates, left_out = list_templates(access, is_public=False)
    for template in templates:
        # Local images and those of a catalogue come with the one to be preferred first.
        if wanted in (None, template.instance_template_id, template.name, template.version):
            return template
    what = "no image" if wanted is None else f'no image "{one_line(wanted)}"'
    raise _no_template(what + (" of the accounts of [cloud] image_owners" if left_out else ""), region)


def _no_template(what: str, region: CloudRegion) -> CommandFailure:
    return CommandFailure(
        f"the region {region.name} offers {what}",
        f"choose with --template one of: {command_for(region, 'templates', '--private')}",
        ExitCode.NOT_FOUND,
    )


def _read_settings(path: Path | None) -> Any:
    if path is None:
        return {}
    try:
        return json.loads(path.read_bytes())
    except (OSError, ValueError, RecursionError) as error:
        # The file may hold secrets, so the parser's text, which quotes nothing of it, is all that is shown.
        raise CommandFailure(
            f"{path}: is not JSON: {one_line(error)}", "correct the file of --settings", ExitCode.USAGE
        ) from error
