"""Finds the address that the section [worker_addresses] gives for a node."""

import fnmatch
import re
from functools import cached_property

__all__ = ["WorkerAddresses"]


class WorkerAddresses:
    """The section's keys and what they stand for.

    :param addresses: key or pattern to host and port, in the order of the file
    """

    def __init__(self, addresses: dict[str, tuple[str, int]]) -> None:
        self._addresses = addresses

    def find(self, names: list[str]) -> tuple[str, int] | None:
        """Return what is given for a node, or ``None``.

        :param names: the node's names, the best first: the first that is a key wins, then the first pattern
            of the file that fits any of them
        """
        if not self._addresses:
            return None
        for name in names:
            if name in self._addresses:
                return self._addresses[name]
        fits = [
            int(match.lastgroup[1:])
            for name in names
            if (match := self._patterns.match(name)) and match.lastgroup
        ]
        return list(self._addresses.values())[min(fits)] if fits else None

    @cached_property
    def _patterns(self) -> re.Pattern[str]:
        """All patterns as one, in which the group that fits is named after the position of the key."""
        alternatives = [
            f"(?P<k{position}>{fnmatch.translate(key)})"
            for position, key in enumerate(self._addresses)
            if any(sign in key for sign in "*?[")
        ]
        # Without patterns: one that fits nothing.
        return re.compile("|".join(alternatives) or r"(?!)")
