"""Whether nodes are the user's own, asked of the provider once more before they are changed."""

from collections.abc import Sequence

from tovarincore.cloud_def import CloudNode
from tovarincore.command.context.access import Access
from tovarincore.command.context.ec2_client import open_client
from tovarincore.command.context.sdk import TAG_USER_NAME, tags_of
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["require_own"]


def require_own(access: Access, nodes: Sequence[CloudNode]) -> None:
    """Compare the tag of each Amazon instance with the user name, letter by letter.

    The listing relies on EC2's own filter. What is stopped or ended deserves a second look,
    at exactly these ids.

    :raises CommandFailure: one of them is not the user's
    """
    if access.region.cloud != "AWS" or not nodes:
        return
    response = open_client(access).describe_instances(InstanceIds=[node.instance_id for node in nodes])
    owners = {
        instance["InstanceId"]: tags_of(instance).get(TAG_USER_NAME)
        for reservation in response["Reservations"]
        for instance in reservation["Instances"]
    }
    foreign = [node.instance_id for node in nodes if owners.get(node.instance_id) != access.user_name]
    if foreign:
        raise CommandFailure(
            f"{', '.join(foreign)}: not launched under the user name {access.user_name}; nothing was changed",
            f"list your nodes: {command_for(access.region, 'list')}",
            ExitCode.REFUSED,
        )
