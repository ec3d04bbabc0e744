"""Many nodes and many regions at once, on top of the facade."""

from tovarincore.fleet.ledger import Ledger, LedgerEntry

__all__ = ["Ledger", "LedgerEntry"]
