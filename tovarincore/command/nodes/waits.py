"""Waiting for several nodes, or for another state than readiness."""

from collections.abc import Sequence
from typing import Any

from tovarincore import fleet
from tovarincore.cloud_def import CloudNode
from tovarincore.command.context.access import Access
from tovarincore.command.context.invocation import Invocation
from tovarincore.command.errors.advice import command_for
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.probes import Probe
from tovarincore.command.output.documents import node_document
from tovarincore.command.output.steps import steps

__all__ = ["wait_for"]


def wait_for(
    invocation: Invocation,
    access: Access,
    nodes: Sequence[CloudNode],
    until: fleet.Until,
    seconds: float,
    done: str = "",
) -> None:
    """Wait until all nodes are where they should be, tell of each, and give their documents.

    :param until: what is waited for
    :param seconds: longest time
    :param done: what was done with them before, for an interrupt's text
    :raises CommandFailure: a node does not get there, or not in time, or Ctrl-C was pressed
    """
    told: set[str] = set()
    try:
        with steps(invocation, f"waiting until {until}", len(nodes), invocation.say) as step:

            def tell(report: fleet.WaitReport) -> None:
                for node in report.reached:
                    if node.instance_id not in told:
                        told.add(node.instance_id)
                        step(f"{node.name} ({node.instance_id}) is {until}")

            report = fleet.wait(nodes, until, seconds, on_look=tell)
    except KeyboardInterrupt:
        raise CommandFailure(
            f"interrupted: stopped waiting for {len(nodes) - len(told)} of {len(nodes)} nodes{done};"
            " they themselves go on",
            code=ExitCode.INTERRUPTED,
        ) from None
    invocation.emit_items("nodes", _documents(report, until))
    for missed in report.missed:
        invocation.note(f"{missed.node.name} ({missed.node.instance_id}) is not {until}: {missed.why}")
    if report.missed:
        in_time = report.seconds < seconds
        raise CommandFailure(
            f"{len(report.missed)} of {len(nodes)} nodes "
            + (f"do not get {until} any more" if in_time else f"were not {until} within {seconds:g} seconds"),
            f"look at them: {command_for(access.region, 'list', '--all')}",
            ExitCode.FAILED if in_time else ExitCode.TIMED_OUT,
        )


def _documents(report: fleet.WaitReport, until: fleet.Until) -> list[dict[str, Any]]:
    asked = until == "ready"
    found = [node_document(node, Probe(True) if asked else None) for node in report.reached]
    return found + [
        node_document(missed.node, Probe(False, "not ready", missed.why) if asked else None)
        for missed in report.missed
    ]
