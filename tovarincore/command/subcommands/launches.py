"""``launch`` and ``try``: a new node, and whether there could be one."""

from pathlib import Path
from typing import Any

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.cloud_node import cloud_manager_glbl
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, NodesCommand, pass_invocation, region_argument
from tovarincore.command.errors.explain import failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.readiness import DEFAULT_WAIT_SECONDS, wait_until_ready
from tovarincore.command.output.records import node_document
from tovarincore.command.subcommands.launch_options import (
    LaunchRequest,
    build_request,
    launch_options,
    network_missing,
)
from tovarincore.core_conf import ConfigError
from tovarincore.fleet.ledger import Ledger

__all__ = ["launch", "try_command", "try_launch"]


@click.command(cls=NodesCommand)
@region_argument()
@launch_options
@click.option(
    "--startup-script",
    type=click.Path(exists=True, dir_okay=False, path_type=Path),
    help="Kubernetes: script that the worker's container runs when it starts.",
)
@click.option(
    "--params",
    metavar="JSON",
    help="Kubernetes: JSON object with node_selector, tolerations, env and more, see docs/kubernetes.md.",
)
@click.option("--wait", is_flag=True, help="Wait until the worker answers, as the sub-command wait does.")
@pass_invocation
def launch(
    invocation: Invocation,
    /,
    region: CloudRegion,
    startup_script: Path | None,
    params: str | None,
    wait: bool,
    **options: Any,
) -> None:
    """Launch a node under your user name and note it in the ledger.

    On Amazon this first makes the security group tovarin-security-group, or completes its rules, which open
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
    request = build_request(access, **options)
    script = None if startup_script is None else startup_script.read_text(encoding="utf-8")
    ledger = Ledger()
    ledger.prepare()
    try:
        node, result = cloud_manager_glbl.launch_node(
            region,
            access.auth,
            request.type_def,
            request.config,
            username=access.user_name,
            additional_params=params,
            startup_script=script,
        )
    except IndexError as error:
        raise network_missing() from error
    if node is None:
        raise failure_of(result, region)
    try:
        ledger.launched(node)
    except ConfigError as error:
        # The node is there all the same, and its id must not be lost.
        invocation.note(f"warning: the launch could not be noted, so orphans will list the node: {error}")
    probe = None
    if wait:
        invocation.note(f"launched {node.name} ({node.instance_id})")
        node, probe = wait_until_ready(invocation, access, node.instance_id, DEFAULT_WAIT_SECONDS, new=True)
    state = "ready" if probe else node.state.value.lower()
    text = f"{node.name} ({node.instance_id}) is {state}"
    invocation.emit(node_document(node, probe), lambda: invocation.say(text))
    if probe is None:
        invocation.note(f"wait for it with: tovarin-nodes wait REGION {node.instance_id}")


@click.command("try", cls=NodesCommand)
@region_argument()
@launch_options
@pass_invocation
def try_command(invocation: Invocation, /, region: CloudRegion, **options: Any) -> None:
    """Ask EC2 whether a launch would succeed, by a dry run: no instance is launched.

    A dry run still makes the security group tovarin-security-group and adds its missing rules. Only EC2 knows
    dry runs: the other providers would really launch, so there the command refuses.
    """
    access = open_region(region)
    refuse_real_launch(region)
    request = build_request(access, **options)
    invocation.note(
        "note: a dry run creates the security group tovarin-security-group and its missing rules; they stay"
    )
    try_launch(access, request)
    image = request.config.instance_template.name
    invocation.emit(
        {"would_launch": True, "instance_type": request.type_def.instance_type, "template": image},
        lambda: invocation.say(f"EC2 would launch a {request.type_def.instance_type} from {image}"),
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
        raise network_missing() from error
    if not result.success:
        raise failure_of(result, access.region)


def refuse_real_launch(region: CloudRegion) -> None:
    """Keep dry runs away from providers that would really launch.

    :raises CommandFailure: the region's provider has no dry run
    """
    if region.cloud != "AWS":
        kind = "the local container engine" if region.cloud == "local" else "Kubernetes"
        raise CommandFailure(
            f"{kind} knows no dry run: trying would really launch a node",
            "launch one with: tovarin-nodes launch REGION",
            ExitCode.USAGE,
        )
