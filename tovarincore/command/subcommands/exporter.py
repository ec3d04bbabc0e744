"""``exporter``: metrics for a monitoring system."""

import ipaddress
import time

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.numbers import Number, WholeNumber
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.context.regions import all_regions_argument
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.watching.looks import Lookout

__all__ = ["exporter"]

_DEFAULT_LISTEN = "127.0.0.1:9855"
_OVERDUE_ROUNDS = 3


@click.command(cls=NodesCommand, examples=("exporter", "exporter us-east-1 --every 60"))
@all_regions_argument
@click.option(
    "--listen",
    metavar="ADDRESS:PORT",
    default=_DEFAULT_LISTEN,
    show_default=True,
    help="Where to serve; the pages ask for no password.",
)
@click.option(
    "--every",
    type=Number(5, 3600),
    default=30.0,
    show_default=True,
    help="Seconds between the beginnings of two refreshes.",
)
@click.option("--count", type=WholeNumber(1), help="Stop after this many refreshes.")
@pass_invocation
def exporter(
    invocation: Invocation, regions: list[CloudRegion], listen: str, every: float, count: int | None
) -> None:
    """Serve metrics of nodes for Prometheus until Ctrl-C: /metrics, and /healthz.

    Without a region these are all that can be used. The nodes are refreshed in the background; a page shows
    what was found last.
    """
    from tovarincore.command.exporter.metrics import NodeMetrics
    from tovarincore.command.exporter.server import serving

    host, port = _address(listen)
    if not _is_loopback(host):
        invocation.note(f"note: everybody who reaches {host} can read the names and load of your nodes")
    if not regions:
        raise CommandFailure("no region can be used", "see: tovarin-nodes regions", ExitCode.NOT_CONFIGURED)
    metrics = NodeMetrics()
    lookout = Lookout(regions)
    with serving(host, port, metrics, _OVERDUE_ROUNDS * every) as opened:
        shown = f"[{host}]" if ":" in host else host
        number = f"{len(regions)} region" + ("s" if len(regions) > 1 else "")
        invocation.note(f"serving http://{shown}:{opened}/metrics for {number}, until Ctrl-C")
        done = 0
        try:
            while True:
                begin = time.monotonic()
                lookout.look(metrics.take)
                done += 1
                if done == count:
                    return
                time.sleep(max(0.0, begin + every - time.monotonic()))
        except KeyboardInterrupt:
            raise CommandFailure("interrupted: stopped serving", code=ExitCode.INTERRUPTED) from None


def _address(text: str) -> tuple[str, int]:
    host, colon, port = text.rpartition(":")
    if not colon or not port.isdigit() or int(port) > 65535:
        raise CommandFailure(
            f'"{text}" is no address to listen on', f"give one such as {_DEFAULT_LISTEN}", ExitCode.USAGE
        )
    return host.strip("[]"), int(port)


def _is_loopback(host: str) -> bool:
    try:
        return ipaddress.ip_address(host).is_loopback
    except ValueError:
        return host == "localhost"
