"""``wait`` and ``watch``: following nodes."""

import time
from datetime import datetime
from typing import TYPE_CHECKING

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import Access, open_region
from tovarincore.command.context.invocation import Invocation, NodesCommand, pass_invocation, region_argument
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.inventory import GONE, list_nodes, probe_nodes
from tovarincore.command.nodes.readiness import DEFAULT_WAIT_SECONDS, wait_until_ready
from tovarincore.command.output.records import NODE_COLUMNS, node_document, node_row
from tovarincore.command.output.tables import build_table, console, draw

if TYPE_CHECKING:
    from rich.console import RenderableType

__all__ = ["wait", "watch"]

FLOOR_SECONDS = 5.0
"""Every refresh is a request to the provider and one to each worker."""


@click.command(cls=NodesCommand)
@region_argument()
@click.argument("node")
@click.option(
    "--timeout",
    type=click.FloatRange(0, 86400),
    default=DEFAULT_WAIT_SECONDS,
    show_default=True,
    help="Longest time in seconds.",
)
@pass_invocation
def wait(invocation: Invocation, region: CloudRegion, node: str, timeout: float) -> None:
    """Wait until a node's worker answers, and tell meanwhile why it does not yet."""
    found, probe = wait_until_ready(invocation, open_region(region), node, timeout)
    invocation.emit(node_document(found, probe), lambda: invocation.say(f"{found.name} is ready"))


@click.command(cls=NodesCommand)
@region_argument()
@click.option(
    "--every",
    type=click.FloatRange(0, 86400),
    default=10.0,
    show_default=True,
    help=f"Seconds between two refreshes, at least {FLOOR_SECONDS:g}.",
)
@click.option("--count", type=click.IntRange(1), help="Stop after this many refreshes.")
@click.option("--all", "everything", is_flag=True, help="Also nodes that are terminated or shutting down.")
@pass_invocation
def watch(
    invocation: Invocation, region: CloudRegion, every: float, count: int | None, everything: bool
) -> None:
    """List the nodes again and again until Ctrl-C. With --json each refresh is one line."""
    access = open_region(region)
    if every < FLOOR_SECONDS:
        invocation.note(f"note: refreshing every {FLOOR_SECONDS:g} seconds, which is the least")
    pause = max(every, FLOOR_SECONDS)
    view = _View(invocation, access, everything)
    try:
        # The first one fails as any command would; a later lost answer is shown and watching goes on.
        view.show(view.refresh())
        shown = 1
        while shown != count:
            time.sleep(pause)
            try:
                view.show(view.refresh())
            except Exception as error:
                failure = explain(error)
                if failure.code is not ExitCode.UNREACHABLE:
                    raise
                view.complain(failure)
            shown += 1
    except KeyboardInterrupt:
        raise CommandFailure("interrupted: stopped watching", code=ExitCode.INTERRUPTED) from None
    finally:
        view.close()


class _View:
    """Where the refreshes are shown: one table in place on a terminal, else one after the other."""

    def __init__(self, invocation: Invocation, access: Access, everything: bool) -> None:
        self._invocation = invocation
        self._access = access
        self._everything = everything
        self._live = None
        if not invocation.json and console().is_terminal:
            from rich.live import Live

            self._live = Live(console=console(), auto_refresh=False)
            self._live.start()

    def refresh(self) -> list[tuple[dict[str, object], list[object]]]:
        """Return each node as a document and as a row."""
        nodes = [node for node in list_nodes(self._access) if self._everything or node.state not in GONE]
        probes = probe_nodes(nodes)
        return [
            (node_document(node, probes[node.instance_id]), node_row(node, probes[node.instance_id]))
            for node in nodes
        ]

    def show(self, nodes: list[tuple[dict[str, object], list[object]]]) -> None:
        """Show one refresh."""
        if self._invocation.json:
            import json

            click.echo(json.dumps([document for document, _ in nodes]))
            return
        moment = f"{self._access.region.key} at {datetime.now():%H:%M:%S}"
        rows = [row for _, row in nodes]
        self._draw(moment, build_table(NODE_COLUMNS, rows) if rows else "No nodes.")

    def complain(self, failure: CommandFailure) -> None:
        """Tell that a refresh did not work; the last one stays on the terminal."""
        self._invocation.report(failure)

    def close(self) -> None:
        """Leave the terminal as it was."""
        if self._live is not None:
            self._live.stop()

    def _draw(self, moment: str, table: "RenderableType") -> None:
        from rich.console import Group
        from rich.text import Text

        content = Group(Text(moment), table)
        if self._live is None:
            draw(content)
        else:
            self._live.update(content, refresh=True)
