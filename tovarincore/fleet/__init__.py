"""Many nodes and many regions at once, on top of the facade."""

from tovarincore.fleet.attempts import NotLaunched, Patience
from tovarincore.fleet.launching import LaunchReport, Place, launch
from tovarincore.fleet.ledger import Ledger, LedgerEntry
from tovarincore.fleet.lifecycle import ActionReport, NotDone, reboot, start, stop, terminate
from tovarincore.fleet.refreshing import Refreshed, refresh
from tovarincore.fleet.settling import settle
from tovarincore.fleet.temporary import FleetError, temporary_nodes
from tovarincore.fleet.waiting import Missed, Until, WaitReport, wait

__all__ = [
    "ActionReport",
    "FleetError",
    "LaunchReport",
    "Ledger",
    "LedgerEntry",
    "Missed",
    "NotDone",
    "NotLaunched",
    "Patience",
    "Place",
    "Refreshed",
    "Until",
    "WaitReport",
    "launch",
    "reboot",
    "refresh",
    "settle",
    "start",
    "stop",
    "temporary_nodes",
    "terminate",
    "wait",
]
