"""Many nodes and many regions at once, on top of the facade."""

from tovarincore.fleet.attempts import NotLaunched, Patience
from tovarincore.fleet.launching import LaunchReport, Place, launch
from tovarincore.fleet.ledger import Ledger, LedgerEntry
from tovarincore.fleet.refreshing import Refreshed, refresh

__all__ = [
    "LaunchReport",
    "Ledger",
    "LedgerEntry",
    "NotLaunched",
    "Patience",
    "Place",
    "Refreshed",
    "launch",
    "refresh",
]
