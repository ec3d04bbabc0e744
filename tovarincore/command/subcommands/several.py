"""Several launches at once, for ``launch --count``."""

from collections.abc import Container, Sequence
from typing import Any

from tovarincore import fleet
from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion
from tovarincore.command.context.access import Access
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.names import taken_names
from tovarincore.command.nodes.readiness import DEFAULT_WAIT_SECONDS
from tovarincore.command.nodes.waits import wait_for
from tovarincore.command.output.documents import node_document
from tovarincore.command.output.steps import steps
from tovarincore.command.output.text import one_line
from tovarincore.command.subcommands.launch_options import LaunchRequest, network_missing
from tovarincore.fleet.launching import node_names

__all__ = ["launch_several"]


def launch_several(
    invocation: Invocation,
    access: Access,
    request: LaunchRequest,
    count: int,
    at_once: int,
    if_absent: bool,
    same_names: bool,
    other_types: Sequence[CloudInstanceTypeDef],
    wait: bool,
    **arguments: Any,
) -> None:
    """Launch nodes side by side, and tell of each.

    :param same_names: launch also nodes whose names others have
    :param wait: wait until the workers answer, also of nodes that were there
    :raises CommandFailure: a node was not launched or does not become ready, or a name cannot be used
    """
    name = request.config.name or ""
    pattern = name if "{" in name else None
    try:
        names = node_names(request.config, count, pattern)
    except ValueError as error:
        raise CommandFailure(one_line(error), "see: tovarin-nodes launch --help", ExitCode.USAGE) from error
    if not (if_absent or same_names or access.region.cloud == "local"):
        _refuse_taken(names, taken_names(invocation, access))
    with (
        steps(invocation, "launching", count) as step,
        invocation.changing(
            "nodes may have been launched anyway, and the ledger has all of them",
            f"list them: {command_for(access.region, 'list')}; go on with the same launch and --if-absent",
        ),
    ):

        def tell(outcome: CloudNode | fleet.NotLaunched) -> None:
            if isinstance(outcome, fleet.NotLaunched):
                invocation.note(f"{outcome.name} was not launched: {outcome.why}")
            else:
                step(f"launched {outcome.name} ({outcome.instance_id})")

        try:
            report = fleet.launch(
                access.region,
                count,
                request.type_def,
                request.config,
                names=pattern,
                fallbacks=[fleet.Place(other) for other in other_types],
                at_once=at_once,
                if_absent=if_absent,
                username=access.user_name,
                on_outcome=tell,
                **arguments,
            )
        except ValueError as error:
            remedy = "see: tovarin-nodes launch --help"
            raise CommandFailure(one_line(error), remedy, ExitCode.USAGE) from error
    counts = [f"{len(report.launched)} launched"]
    counts += [f"{len(report.present)} there already"] if report.present else []
    counts += [f"{len(report.not_launched)} not launched"] if report.not_launched else []
    nodes = [*report.present, *report.launched]
    invocation.emit_items("nodes", [node_document(node) for node in nodes])
    if not invocation.structured:
        invocation.say(", ".join(counts))
    if wait and nodes:
        wait_for(invocation, access, nodes, "ready", DEFAULT_WAIT_SECONDS, " that were launched")
    for missing in report.not_launched:
        raise _failure_of(missing, access.region)


def _refuse_taken(names: Sequence[str], taken: Container[str]) -> None:
    same = [name for name in names if name in taken]
    if same:
        others = f" and {len(same) - 1} more" if len(same) > 1 else ""
        raise CommandFailure(
            f'others of your nodes are named "{one_line(same[0])}"{others}; nothing was launched',
            "launch what is missing with --if-absent, give another --name, or launch anyway with --same-name",
            ExitCode.USAGE,
        )


def _failure_of(missing: fleet.NotLaunched, region: CloudRegion) -> CommandFailure:
    if not missing.known:
        return CommandFailure(
            f"{missing.name} may have been launched: {missing.why}",
            f"list your nodes: {command_for(region, 'list', '--all')}",
            ExitCode.UNREACHABLE,
        )
    if isinstance(missing.error, IndexError):
        return network_missing(region)
    if missing.error is not None:
        return explain(missing.error, region)
    return failure_of(missing.result, region)
