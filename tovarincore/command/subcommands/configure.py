"""``configure``: what is stored for a region."""

import click

from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion
from tovarincore.command.context.access import require_user_name
from tovarincore.command.context.invocation import Invocation, confirm, pass_invocation
from tovarincore.command.context.options import NodesCommand, yes_option
from tovarincore.command.context.regions import region_and
from tovarincore.command.context.secrets import ask_secret
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode

__all__ = ["configure"]


@click.command(
    cls=NodesCommand,
    examples=("configure us-east-1 --user-name ada --profile work", "configure k8s:lab --worker-token"),
)
@region_and(profile=False)
@click.option(
    "--user-name", help="Your name in the product; Amazon's nodes are launched and listed under it."
)
@click.option("--profile", help="Amazon: profile of your AWS configuration.")
@click.option("--key-id", help="Amazon: id of an access key; its secret is asked for.")
@click.option(
    "--session-token", is_flag=True, help="Amazon: ask for the session token of temporary credentials."
)
@click.option("--sdk", is_flag=True, help="Amazon: let the SDK look in its own places (variables, metadata).")
@click.option("--worker-token", is_flag=True, help="Ask for the token that the region's workers want.")
@click.option("--delete", "remove", is_flag=True, help="Forget what is stored, after asking.")
@yes_option
@pass_invocation
def configure(
    invocation: Invocation,
    region: CloudRegion,
    user_name: str | None,
    profile: str | None,
    key_id: str | None,
    session_token: bool,
    sdk: bool,
    worker_token: bool,
    remove: bool,
    yes: bool,
) -> None:
    """Store a region's credentials, or without options show what is stored; secrets are never shown.

    Secrets are asked for, or read from standard input, one per line, when that is not a terminal. What is not
    given stays as it is stored.
    """
    store = CloudConfManager()
    stored = store.get_cloud_conf(region)
    if remove:
        confirm(invocation, f"Forget what is stored for {region.key}?", yes)
        removed = store.delete_cloud_conf(region)
        text = "nothing is stored any more" if removed else "nothing was stored"
        document = {"region": region.key, "configured": False, "deleted": removed}
        invocation.emit("credentials", document, lambda: invocation.say(text))
        return
    if user_name is not None and region.cloud == "AWS":
        require_user_name(user_name, region)
    auth = _read_auth(invocation, region, profile, key_id, session_token, sdk)
    if user_name is not None or auth is not None or worker_token:
        conf = stored or CloudConf(AWSCloudAuth() if region.cloud == "AWS" else None, "")
        if region.cloud == "AWS" and stored is None and (auth is None or not user_name):
            raise CommandFailure(
                "an Amazon region needs a user name and one of --profile, --key-id and --sdk",
                command_for(region, "configure", "--user-name", "NAME", "--profile", "PROFILE"),
                ExitCode.USAGE,
            )
        conf.cloud_auth = auth or conf.cloud_auth
        conf.user_name = conf.user_name if user_name is None else user_name
        conf.worker_token = ask_secret(invocation, "Worker token") if worker_token else conf.worker_token
        store.set_cloud_conf(region, conf)
        invocation.note(f"stored in {store.path}")
        stored = conf
    _show(invocation, region, stored)


def _read_auth(
    invocation: Invocation,
    region: CloudRegion,
    profile: str | None,
    key_id: str | None,
    session_token: bool,
    sdk: bool,
) -> AWSCloudAuth | None:
    """Return the credentials that the options give, or ``None`` when they give none."""
    given = [name for name, value in (("--profile", profile), ("--key-id", key_id), ("--sdk", sdk)) if value]
    if (given or session_token) and region.cloud != "AWS":
        raise CommandFailure(
            f"the region {region.key} has no Amazon credentials",
            "only --user-name and --worker-token are for it",
            ExitCode.USAGE,
        )
    if len(given) > 1:
        raise CommandFailure(f"{' and '.join(given)} exclude each other", "give one of them", ExitCode.USAGE)
    if session_token and not key_id:
        raise CommandFailure("a session token goes with an access key", "give --key-id too", ExitCode.USAGE)
    if profile:
        return AWSCloudAuth(aws_profile=profile)
    if key_id:
        return AWSCloudAuth(
            aws_access_key_id=key_id,
            aws_secret_access_key=ask_secret(invocation, "Secret access key"),
            aws_session_token=ask_secret(invocation, "Session token") if session_token else None,
        )
    return AWSCloudAuth() if sdk else None


def _show(invocation: Invocation, region: CloudRegion, conf: CloudConf | None) -> None:
    document: dict[str, object] = {"region": region.key, "configured": conf is not None}
    if conf is not None:
        document |= {
            "user_name": conf.user_name,
            "credentials": _credentials_text(conf),
            "worker_token": bool(conf.worker_token),
        }

    def draw() -> None:
        if conf is None:
            invocation.say(f"Nothing is stored for {region.key}.")
            return
        token = "worker token stored" if conf.worker_token else "no worker token stored"
        invocation.say(f"{region.key}: user name {conf.user_name or '-'}; {_credentials_text(conf)}; {token}")

    invocation.emit("credentials", document, draw)


def _credentials_text(conf: CloudConf) -> str:
    auth = conf.cloud_auth
    if not isinstance(auth, AWSCloudAuth):
        return "no credentials needed"
    if auth.aws_profile:
        return f"profile {auth.aws_profile}"
    if auth.aws_access_key_id:
        return f"access key ...{auth.aws_access_key_id[-4:]}" + (
            " with a session token" if auth.aws_session_token else ""
        )
    return "the SDK's own places"
