"""When nodes were launched."""

import re
from collections.abc import Sequence
from datetime import datetime, timedelta

import click

from tovarincore.cloud_def import CloudNode
from tovarincore.command.context.access import Access
from tovarincore.command.context.ec2_client import open_client
from tovarincore.fleet.ledger import LedgerEntry

__all__ = ["DURATION", "launch_times"]

_UNITS = {"s": "seconds", "m": "minutes", "h": "hours", "d": "days"}
_IDS_AT_ONCE = 200


class _Duration(click.ParamType[timedelta]):
    """A time such as ``30m`` or ``12h``."""

    name = "TIME"

    def convert(
        self, value: object, parameter: click.Parameter | None, context: click.Context | None
    ) -> timedelta:
        """Return the time that a text means."""
        if isinstance(value, timedelta):
            return value
        match = re.fullmatch(r"(\d{1,6})([smhd])", str(value))
        if match is None:
            self.fail(f'"{value}" is no time; give a number and s, m, h or d, as in 30m', parameter, context)
        return timedelta(**{_UNITS[match[2]]: int(match[1])})


DURATION = _Duration()


def launch_times(
    access: Access, nodes: Sequence[CloudNode], ledger: Sequence[LedgerEntry] = ()
) -> dict[str, datetime]:
    """Return by instance id when nodes were launched, as far as somebody knows.

    The ledger knows what was launched from here, and Amazon knows its instances; other providers do not say.

    :param access: the nodes' region
    :param nodes: the nodes
    :param ledger: launches that are asked first
    :raises Exception: whatever the SDK raises
    """
    noted = {(entry.region, entry.instance_id): entry.launched for entry in ledger}
    found = {
        node.instance_id: datetime.fromisoformat(noted[access.region.key, node.instance_id])
        for node in nodes
        if (access.region.key, node.instance_id) in noted
    }
    unknown = [node.instance_id for node in nodes if node.instance_id not in found]
    if access.region.cloud == "AWS" and unknown:
        client = open_client(access)
        for start in range(0, len(unknown), _IDS_AT_ONCE):
            response = client.describe_instances(InstanceIds=unknown[start : start + _IDS_AT_ONCE])
            found |= {
                instance["InstanceId"]: instance["LaunchTime"]
                for reservation in response["Reservations"]
                for instance in reservation["Instances"]
            }
    return found
