"""``top``: all nodes on the full screen."""

import sys

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.numbers import Number
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.context.regions import all_regions_argument
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output import progress
from tovarincore.command.watching.looks import Lookout

__all__ = ["top"]


@click.command(cls=NodesCommand, examples=("top", "top us-east-1 --every 30"))
@all_regions_argument
@click.option(
    "--every",
    type=Number(5, 3600),
    default=10.0,
    show_default=True,
    help="Seconds between the beginnings of two refreshes.",
)
@pass_invocation
def top(invocation: Invocation, regions: list[CloudRegion], every: float) -> None:
    """Show all nodes on the full screen, and work with them by keys.

    Without a region these are all that can be used. The nodes are refreshed in the background; the keys stand
    on the last line. What changes nodes asks first.
    """
    from tovarincore.command.top.app import TopApp

    if invocation.structured or not (sys.stdin.isatty() and sys.stdout.isatty()):
        raise CommandFailure(
            "top needs a terminal", "for a program there is: tovarin-nodes watch --json", ExitCode.USAGE
        )
    if not regions:
        raise CommandFailure("no region can be used", "see: tovarin-nodes regions", ExitCode.NOT_CONFIGURED)
    progress.clear()
    app = TopApp(Lookout(regions), every)
    app.run()
    if app.left_out:
        names = ", ".join(f"{node.name} ({node.instance_id})" for node in app.left_out)
        raise CommandFailure(
            f"top was quit before this was done with all nodes; left out: {names}",
            "look at them: tovarin-nodes list -A",
        )
