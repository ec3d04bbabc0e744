"""A region with what is stored for it."""

from dataclasses import dataclass

from tovarincore._transport.gate import RefusedName, check_user_name
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import CloudAuth, CloudRegion
from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["Access", "open_region", "require_amazon", "require_user_name"]


@dataclass(frozen=True)
class Access:
    """What the facade is given for a region.

    :param region: the region
    :param auth: stored credentials; ``None`` where the kind of region needs none
    :param user_name: the stored user name, in which nodes are launched and listed
    """

    region: CloudRegion
    auth: CloudAuth | None
    user_name: str | None


def open_region(region: CloudRegion) -> Access:
    """Return the region with its stored credentials.

    :raises CommandFailure: an Amazon region without any, or with a user name that EC2 would read as a pattern
    :raises ConfigError: the credential store cannot be used
    """
    conf = CloudConfManager().get_cloud_conf(region)
    if conf is not None:
        if region.cloud == "AWS":
            require_user_name(conf.user_name)
        return Access(region, conf.cloud_auth, conf.user_name)
    if region.cloud == "AWS":
        raise CommandFailure(
            f"no credentials are stored for the region {region.name}",
            "store them with: tovarin-nodes configure REGION --user-name NAME --profile PROFILE",
            ExitCode.NOT_CONFIGURED,
        )
    return Access(region, None, None)


def require_user_name(user_name: str) -> None:
    """Refuse a user name that would list the nodes of other users.

    EC2 reads the values of a filter as patterns: under the name ``*`` every user's nodes are listed.

    :raises CommandFailure: the name cannot be used
    """
    try:
        check_user_name(user_name)
    except RefusedName as error:
        raise CommandFailure(
            str(error),
            "store another one: tovarin-nodes configure REGION --user-name NAME",
            ExitCode.NOT_CONFIGURED,
        ) from error


def require_amazon(region: CloudRegion, what: str) -> None:
    """Refuse a region of another kind.

    :param what: what only Amazon has, for the error's text
    :raises CommandFailure: the region is not one of Amazon's
    """
    if region.cloud != "AWS":
        raise CommandFailure(
            f"{what}, and {region.key} is not one",
            "choose one of: tovarin-nodes regions",
            ExitCode.USAGE,
        )
