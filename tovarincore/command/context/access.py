"""A region with what is stored for it."""

import importlib.util
from dataclasses import dataclass, field, replace

import click

from tovarincore._transport.gate import RefusedName, check_user_name
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudAuth, CloudRegion, CloudRegions, K8sRegion
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.context.sdk import Owners, prepare_sdk
from tovarincore.command.errors.advice import command_for, missing_kubeconfig
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.core_conf import core_conf_glbl

__all__ = [
    "Access",
    "open_region",
    "require_amazon",
    "require_user_name",
    "usable_regions",
    "why_not_usable",
]

_ENGINE_SECONDS = 2.0


@dataclass(frozen=True)
class Access:
    """What the facade is given for a region.

    :param region: the region
    :param auth: stored credentials; ``None`` where the kind of region needs none
    :param user_name: the stored user name, in which nodes are launched and listed
    :param owners: who launched the instances that EC2 has described in this run
    """

    region: CloudRegion
    auth: CloudAuth | None
    user_name: str | None
    owners: Owners = field(default_factory=dict, compare=False, repr=False)


class _Store(CloudConfManager):
    """The credential store as this run of the command sees it: with another profile, if one is asked for."""

    def __init__(self, profile: str) -> None:
        super().__init__()
        self._profile = profile

    def get_cloud_conf(self, region: CloudRegion) -> CloudConf | None:
        """Return what is stored for a region, on it the profile of this run."""
        conf = super().get_cloud_conf(region)
        if conf is None or region.cloud != "AWS" or not self._profile:
            return conf
        return replace(conf, cloud_auth=AWSCloudAuth(aws_profile=self._profile))


def open_region(region: CloudRegion) -> Access:
    """Return the region with its credentials, and let the facade use the same.

    :raises CommandFailure: an Amazon region without any, or with a user name that EC2 would read as a pattern
    :raises ConfigError: the credential store cannot be used
    """
    from tovarincore.cloud_node import cloud_manager_glbl

    store = _Store(_profile())
    conf = store.get_cloud_conf(region)
    configure = command_for(region, "configure", "--user-name", "NAME", "--profile", "PROFILE")
    if conf is not None:
        owners: Owners = {}
        if region.cloud == "AWS":
            require_user_name(conf.user_name, region)
            owners = prepare_sdk()
            # Some of its methods take no credentials, and look here for them.
            cloud_manager_glbl.cloud_conf_manager = store
        return Access(region, conf.cloud_auth, conf.user_name, owners)
    if region.cloud == "AWS":
        raise CommandFailure(
            f"no credentials are stored for the region {region.name}",
            f"store them with: {configure}",
            ExitCode.NOT_CONFIGURED,
        )
    return Access(region, None, None)


def require_user_name(user_name: str, region: CloudRegion) -> None:
    """Refuse a user name that would list the nodes of other users.

    EC2 reads the values of a filter as patterns: under the name ``*`` every user's nodes are listed.

    :raises CommandFailure: the name cannot be used
    """
    try:
        check_user_name(user_name)
    except RefusedName as error:
        raise CommandFailure(
            str(error),
            f"store another one: {command_for(region, 'configure', '--user-name', 'NAME')}",
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


def usable_regions(ask_engine: bool = True) -> list[CloudRegion]:
    """Return the regions that have what they need on this machine.

    :param ask_engine: as for :func:`why_not_usable`
    """
    return [region for region in CloudRegions.get_all() if not why_not_usable(region, ask_engine)]


def why_not_usable(region: CloudRegion, ask_engine: bool = True) -> str:
    """Return what a region lacks on this machine; empty when it lacks nothing.

    :param ask_engine: see whether this machine's container engine answers; no other service is asked
    """
    if region.cloud == "AWS":
        if not _is_installed("boto3"):
            return "the package boto3 is not installed"
        conf = CloudConfManager().get_cloud_conf(region)
        if conf is None:
            return "no credentials stored"
        return "" if conf.user_name else "no user name stored"
    if isinstance(region, K8sRegion):
        if not _is_installed("lightkube"):
            return "the package lightkube is not installed"
        return "the kubeconfig file is missing" if missing_kubeconfig(region) else ""
    if not _is_installed("docker"):
        return "the package docker is not installed"
    return _why_no_engine() if ask_engine else ""


def _why_no_engine() -> str:
    # Imported here: few commands ask for it.
    from tovarincore._container_helper.docker_engine import client_settings, open_docker_engine
    from tovarincore._container_helper.errors import ContainerError
    from tovarincore._container_helper.limit import TimeLimit
    from tovarincore._transport.deadline import run_within

    limit = TimeLimit(_ENGINE_SECONDS, "looking for the engine")
    try:
        run_within(limit, lambda: open_docker_engine(limit).close(), "engine-look")
    except ContainerError:
        return f"no container engine answers at {client_settings()['base_url']}"
    return ""


def _is_installed(package: str) -> bool:
    return importlib.util.find_spec(package) is not None


def _profile() -> str:
    context = click.get_current_context(silent=True)
    invocation = context.find_object(Invocation) if context is not None else None
    given = invocation.profile if invocation is not None else None
    return given or str(core_conf_glbl.command__profile)
