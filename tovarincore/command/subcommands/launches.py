"""``launch`` and ``try``: a new node, and whether there could be one."""

import logging
from pathlib import Path
from typing import Any

import click

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.numbers import WholeNumber
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.names import choose_name
from tovarincore.command.nodes.readiness import DEFAULT_WAIT_SECONDS, wait_until_ready
from tovarincore.command.output.documents import node_document
from tovarincore.command.subcommands.launch_options import (
    LaunchRequest,
    build_request,
    find_type,
    launch_options,
    network_missing,
)
from tovarincore.command.subcommands.several import launch_several
from tovarincore.core_conf import ConfigError, core_conf_glbl
from tovarincore.fleet.ledger import Ledger

__all__ = ["launch", "open_rule_note", "try_command", "try_launch"]

_logger = logging.getLogger("tovarincore.command")


@click.command(
    cls=NodesCommand,
    examples=(
        "launch us-east-1 --type t3.small --name trainer-1 --wait",
        "launch local",
        'launch k8s:lab --type k8s.small --params \'{"env": {"A": "b"}}\'',
    ),
)
@region_and()
@launch_options
@click.option("--name", help="Name of the node.  [default: tovarin-node, with a number where it is taken]")
@click.option("--same-name", is_flag=True, help="Launch even if another of your nodes has this name.")
@click.option(
    "--startup-script",
    type=click.Path(exists=True, dir_okay=False, path_type=Path),
    help="Kubernetes: script that the worker's container runs when it starts.",
)
@click.option(
    "--params",
    metavar="JSON",
    help="Kubernetes: JSON object, as tovarin-nodes help kubernetes describes it.",
)
@click.option("--count", type=WholeNumber(1, 1000), help="So many, with {} in the name for the number.")
@click.option(
    "--at-once",
    type=WholeNumber(1, 64),
    default=8,
    show_default=True,
    help="Of several, how many launches are under way at the same time.",
)
@click.option("--if-absent", is_flag=True, help="Leave out names that one of your living nodes has.")
@click.option(
    "--or-type", "other_types", metavar="TYPE", multiple=True, help="Type to try when there is no capacity."
)
@click.option("--wait", is_flag=True, help="Wait until the worker answers, as the sub-command wait does.")
@pass_invocation
def launch(
    invocation: Invocation,
    /,
    region: CloudRegion,
    name: str | None,
    same_name: bool,
    startup_script: Path | None,
    params: str | None,
    count: int | None,
    at_once: int,
    if_absent: bool,
    other_types: tuple[str, ...],
    wait: bool,
    **options: Any,
) -> None:
    """Launch a node, or several, under your user name and note them in the ledger.

    On Amazon this first creates the security group tovarin-security-group, or completes its rules, which open
    the worker's port to every address. A local container and pods in Kubernetes have no disk or key pair:
    those options are not used there.
    """
    if region.cloud != "k8s" and (startup_script or params):
        raise CommandFailure(
            "--startup-script and --params are for Kubernetes regions; here they would not be used",
            "leave them out",
            ExitCode.USAGE,
        )
    access = open_region(region)
    if count is not None or if_absent or other_types:
        several = build_request(access, name=name or "tovarin-node", **options)
        if region.cloud == "AWS":
            invocation.note(open_rule_note("a launch"))
        launch_several(
            invocation,
            access,
            several,
            count or 1,
            at_once,
            if_absent,
            same_name,
            [find_type(access, other) for other in other_types],
            wait,
            additional_params=params,
            startup_script=None if startup_script is None else _read_script(startup_script),
        )
        return
    request = build_request(
        access, name=choose_name(invocation, access, name, allow_same=same_name), **options
    )
    script = None if startup_script is None else _read_script(startup_script)
    if region.cloud == "AWS":
        invocation.note(open_rule_note("a launch"))
    node = _launch(invocation, access, request, params, script)
    _logger.info("launched %s (%s) in %s", node.name, node.instance_id, region.key)
    probe = None
    if wait:
        if not invocation.structured:
            invocation.note(f"launched {node.name} ({node.instance_id})")
        node, probe = wait_until_ready(invocation, access, node.instance_id, DEFAULT_WAIT_SECONDS, new=True)
    state = "ready" if probe else node.state.value.lower()
    text = f"{node.name} ({node.instance_id}) is {state}"
    invocation.emit("node", node_document(node, probe), lambda: invocation.say(text))
    if probe is None:
        invocation.note(f"wait for it with: {command_for(region, 'wait', node.instance_id)}")


def _launch(
    invocation: Invocation, access: Access, request: LaunchRequest, params: str | None, script: str | None
) -> CloudNode:
    """Ask for the node between two lines of the ledger: a launch that is cut short leaves the first."""
    region, config, ledger = access.region, request.config, Ledger()
    ledger.prepare()
    ledger.intend(region.key, config.uuid, config.name or "", request.type_def.instance_type)
    with invocation.changing(
        "the node may have been launched anyway",
        f"look for it: {command_for(region, 'list')}; tovarin-nodes history shows the request as open",
    ):
        try:
            node, result = cloud_manager_glbl.launch_node(
                region,
                access.auth,
                request.type_def,
                config,
                username=access.user_name,
                additional_params=params,
                startup_script=script,
            )
            if node is None:
                raise failure_of(result, region)
        except Exception as error:
            failure = network_missing(region) if isinstance(error, IndexError) else explain(error, region)
            # A lost answer leaves it open whether there is a node.
            if failure.code is not ExitCode.UNREACHABLE:
                ledger.refused(region.key, config.uuid)
            raise failure from error
        try:
            ledger.launched(node, intent=config.uuid)
        except ConfigError as error:
            # The node is there anyway, and its id must not be lost.
            invocation.note(f"warning: the launch could not be noted, so orphans will list the node: {error}")
    return node


def _read_script(path: Path) -> str:
    try:
        return path.read_text(encoding="utf-8")
    except UnicodeDecodeError as error:
        raise CommandFailure(
            f"{path}: is not a text in UTF-8", "correct the file of --startup-script", ExitCode.USAGE
        ) from error


@click.command("try", cls=NodesCommand, examples=("try us-east-1 --type g4dn.xlarge --plan gpu-a",))
@region_and()
@launch_options
@pass_invocation
def try_command(invocation: Invocation, /, region: CloudRegion, **options: Any) -> None:
    """Ask EC2 whether a launch would succeed, by a dry run: no instance is launched.

    A dry run still creates the security group tovarin-security-group and adds its missing rules. Only EC2 has
    dry runs: the other providers would really launch, so there the command refuses.
    """
    access = open_region(region)
    refuse_real_launch(region)
    request = build_request(access, **options)
    invocation.note(open_rule_note("a dry run"))
    with invocation.changing("the security group may have been created anyway", ""):
        try_launch(access, request)
    image = request.config.instance_template.name
    invocation.emit(
        "trial",
        {"would_launch": True, "instance_type": request.type_def.instance_type, "template": image},
        lambda: invocation.say(f"EC2 would launch a {request.type_def.instance_type} from {image}"),
    )


def open_rule_note(what: str) -> str:
    """Return what people are told before anything completes the security group.

    :param what: what completes it
    """
    return (
        f"note: {what} opens port {core_conf_glbl.worker__port} to every address:"
        " a rule of tovarin-security-group, which stays"
    )


def try_launch(access: Access, request: LaunchRequest) -> None:
    """Make a dry run.

    :raises CommandFailure: the launch would not succeed
    """
    try:
        result = cloud_manager_glbl.try_launching_node(
            access.region, access.auth, request.type_def, request.config
        )
    except IndexError as error:
        raise network_missing(access.region) from error
    if not result.success:
        raise failure_of(result, access.region)


def refuse_real_launch(region: CloudRegion) -> None:
    """Keep dry runs away from providers that would really launch.

    :raises CommandFailure: the region's provider has no dry run
    """
    if region.cloud != "AWS":
        kind = "the local container engine" if region.cloud == "local" else "Kubernetes"
        raise CommandFailure(
            f"{kind} has no dry run: trying would really launch a node",
            f"launch one with: {command_for(region, 'launch')}",
            ExitCode.USAGE,
        )
