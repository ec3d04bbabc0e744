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
        # Most nodes fit none: asking that first, without groups, takes a hundredth of the time.
        fits = [
            int(match.lastgroup[1:])
            for name in names
            if self._any_pattern.match(name) and (match := self._patterns.match(name)) and match.lastgroup
        ]
        return list(self._addresses.values())[min(fits)] if fits else None

    @cached_property
    def _any_pattern(self) -> re.Pattern[str]:
        """All patterns as one; without patterns, one that fits nothing."""
        return re.compile("|".join(self._translated.values()) or r"(?!)")

    @cached_property
    def _patterns(self) -> re.Pattern[str]:
        """All patterns as one, in which the group that fits is named after the position of the key."""
        named = (f"(?P<k{position}>{pattern})" for position, pattern in self._translated.items())
        return re.compile("|".join(named))

    @cached_property
    def _translated(self) -> dict[int, str]:
        """The keys that are patterns, as regular expressions, by their position."""
        return {
            position: fnmatch.translate(key)
            for position, key in enumerate(self._addresses)
            if any(sign in key for sign in "*?[")
        }
