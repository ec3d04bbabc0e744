"""``wait`` and ``watch``: following nodes."""

import time
from datetime import datetime
from typing import TYPE_CHECKING, Any

import click

from tovarincore import fleet
from tovarincore._transport.masker import mask
from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.access import open_region
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.numbers import Number, WholeNumber
from tovarincore.command.context.options import ListCommand, NodesCommand, view_of
from tovarincore.command.context.regions import region_and, regions_argument
from tovarincore.command.errors.explain import explain
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.nodes.activity import note_if_possible
from tovarincore.command.nodes.backoff import Backoff
from tovarincore.command.nodes.inventory import GONE, find_node, list_nodes
from tovarincore.command.nodes.probes import probe_nodes
from tovarincore.command.nodes.readiness import DEFAULT_WAIT_SECONDS, wait_until_ready
from tovarincore.command.nodes.regions import in_every_region
from tovarincore.command.nodes.waits import wait_for
from tovarincore.command.output import progress
from tovarincore.command.output.documents import node_document
from tovarincore.command.output.listings import choose, draw
from tovarincore.command.output.writer import terminal_width, write
from tovarincore.command.subcommands.listing import node_listing

if TYPE_CHECKING:
    from rich.live import Live

__all__ = ["wait", "watch"]

FLOOR_SECONDS = 5.0
"""Every refresh is a request to the provider and one to each worker."""
_MAY_PASS = (ExitCode.UNREACHABLE, ExitCode.BUSY)


@click.command(
    cls=NodesCommand,
    own_timeout=True,
    examples=("wait us-east-1 trainer-1 --timeout 300", "wait us-east-1 web-1 web-2 --for stopped"),
)
@region_and("nodes", many=True)
@click.option(
    "--for",
    "until",
    type=click.Choice(["ready", "running", "stopped", "terminated"]),
    default="ready",
    show_default=True,
    help="What to wait for; ready means that the worker answers.",
)
@click.option(
    "--timeout",
    type=Number(0, 86400),
    default=DEFAULT_WAIT_SECONDS,
    show_default=True,
    help="Longest time in seconds.",
)
@pass_invocation
def wait(
    invocation: Invocation, region: CloudRegion, nodes: tuple[str, ...], until: fleet.Until, timeout: float
) -> None:
    """Wait until a node's worker answers, and tell meanwhile why it does not; or wait for several nodes."""
    access = open_region(region)
    if len(nodes) == 1 and until == "ready":
        found, probe = wait_until_ready(invocation, access, nodes[0], timeout)
        invocation.emit("node", node_document(found, probe), lambda: invocation.say(f"{found.name} is ready"))
        return
    listed = list_nodes(access)
    named = {node.instance_id: node for node in (find_node(listed, name, region) for name in nodes)}
    wait_for(invocation, access, list(named.values()), until, timeout)


@click.command(cls=ListCommand, examples=("watch us-east-1 --every 30", "watch -A --json --count 3"))
@regions_argument
@click.option(
    "--every",
    type=Number(0, 86400),
    default=10.0,
    show_default=True,
    help=f"Seconds between two refreshes, at least {FLOOR_SECONDS:g}.",
)
@click.option("--count", type=WholeNumber(1), help="Stop after this many refreshes.")
@click.option("--all", "everything", is_flag=True, help="Also nodes that are terminated or shutting down.")
@pass_invocation
def watch(
    invocation: Invocation, regions: list[CloudRegion], every: float, count: int | None, everything: bool
) -> None:
    """List the nodes again and again until Ctrl-C. With --json each refresh is one line."""
    if every < FLOOR_SECONDS:
        invocation.note(f"note: refreshing every {FLOOR_SECONDS:g} seconds, which is the least")
    view = _Display(invocation, regions, everything)
    backoff = Backoff(max(every, FLOOR_SECONDS))
    try:
        # The first one fails as any command would, unless EC2 is only busy; later ones may be lost.
        pause = _refresh(view, backoff, (ExitCode.BUSY,))
        shown = 1
        while shown != count:
            time.sleep(pause)
            pause = _refresh(view, backoff, _MAY_PASS)
            shown += 1
    except KeyboardInterrupt:
        raise CommandFailure("interrupted: stopped watching", code=ExitCode.INTERRUPTED) from None
    finally:
        view.close()


def _refresh(view: "_Display", backoff: Backoff, may_pass: tuple[ExitCode, ...]) -> float:
    """Show one refresh, or why there is none; return the pause until the next one."""
    try:
        view.show(view.refresh())
    except Exception as error:
        failure = explain(error, view.only_region)
        if failure.code not in may_pass:
            raise
        view.complain(failure)
        return backoff.pause_after(failure)
    backoff.answered()
    return backoff.usual


class _Display:
    """Where the refreshes are shown: one table in place on a terminal, else one after the other."""

    def __init__(self, invocation: Invocation, regions: list[CloudRegion], everything: bool) -> None:
        self._invocation = invocation
        self._regions = regions
        self._everything = everything
        self._view = view_of(invocation)
        self._listing = node_listing(regions)
        self.only_region = regions[0] if len(regions) == 1 else None
        self._live: Live | None = None
        if invocation.form in ("table", "wide") and terminal_width() is not None:
            from rich import live
            from rich.console import Console

            progress.clear()
            self._live = live.Live(
                console=Console(highlight=False, markup=False, emoji=False), auto_refresh=False
            )
            self._live.start()

    def refresh(self) -> list[dict[str, Any]]:
        """Return the nodes as documents."""
        nodes, failure = in_every_region(self._invocation, self._regions, list_nodes)
        if failure is not None and not nodes:
            raise failure
        if failure is not None and not self._invocation.structured:
            self._invocation.note(failure.what)
        nodes = [node for node in nodes if self._everything or node.state not in GONE]
        probes = probe_nodes(nodes)
        note_if_possible(nodes)
        documents = [node_document(node, probes[node.instance_id]) for node in nodes]
        return choose(self._view, self._listing, documents)

    def show(self, documents: list[dict[str, Any]]) -> None:
        """Show one refresh."""
        if self._invocation.structured:
            self._invocation.emit_now({"kind": self._listing.kind, "items": documents})
            return
        lines, _ = draw(self._view, self._listing, documents, terminal_width())
        if self._invocation.form in ("table", "wide"):
            regions = ", ".join(region.key for region in self._regions)
            lines.insert(0, f"{regions} at {datetime.now():%H:%M:%S}")
        if self._live is None:
            write("\n".join(lines))
        else:
            from rich.text import Text

            self._live.update(Text.from_ansi(mask("\n".join(lines))), refresh=True)

    def complain(self, failure: CommandFailure) -> None:
        """Tell that a refresh did not work; the last one stays on the terminal."""
        self._invocation.report(failure)

    def close(self) -> None:
        """Leave the terminal as it was."""
        if self._live is not None:
            self._live.stop()
