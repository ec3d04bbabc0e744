"""``history``: what was launched from this machine."""

import click

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.numbers import WholeNumber
from tovarincore.command.context.options import ListCommand, view_of
from tovarincore.command.context.regions import region_and
from tovarincore.command.errors.advice import command_for
from tovarincore.command.output.listings import Listing
from tovarincore.command.output.tables import Column
from tovarincore.fleet.ledger import Ledger, LedgerEntry

__all__ = ["history"]

_COLUMNS = (
    Column("name", "name"),
    Column("launched", "launched"),
    Column("region", "region", 1),
    Column("outcome", "outcome", 2),
    Column("instance_id", "instance id", 3),
    Column("instance_type", "type", 4),
    Column("uuid", "uuid", wide=True),
)


@click.command(cls=ListCommand, examples=("history", "history us-east-1 --filter outcome=open"))
@region_and(optional=True, profile=False)
@click.option("--count", type=WholeNumber(1), help="Only the last ones.")
@pass_invocation
def history(invocation: Invocation, region: CloudRegion | None, count: int | None) -> None:
    """List what was launched from this machine, oldest first, from the ledger launches.jsonl.

    An outcome that is open belongs to a request that was cut short: whether there is a node is not known.
    """
    ledger = Ledger()
    entries = [(entry, "launched") for entry in ledger.entries()]
    entries += [(entry, "open") for entry in ledger.open_intents()]
    entries.sort(key=lambda pair: pair[0].launched)
    chosen = [pair for pair in entries if region is None or pair[0].region == region.key]
    shown = [_document(entry, outcome) for entry, outcome in chosen[-(count or 0) :]]
    invocation.emit_list(
        Listing("launches", _COLUMNS, "Nothing was launched from this machine."), shown, view_of(invocation)
    )
    if any(item["outcome"] == "open" for item in shown):
        invocation.note(f"look whether open requests left a node: {command_for(region, 'orphans')}")


def _document(entry: LedgerEntry, outcome: str) -> dict[str, str | None]:
    return {
        "region": entry.region,
        "launched": entry.launched,
        "outcome": outcome,
        "instance_id": entry.instance_id or None,
        "name": entry.name,
        "instance_type": entry.instance_type,
        "uuid": entry.uuid,
    }
