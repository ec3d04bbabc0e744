"""Helps with misspelt names."""

import difflib
from collections.abc import Iterable

__all__ = ["did_you_mean"]

_MOST_NAMES = 40


def did_you_mean(name: str, known: Iterable[str]) -> str:
    """Return the hint that follows "unknown ...": the nearest known name, or the first of them.

    :param name: the name that was given
    :param known: the names that would have been right
    """
    names = sorted(known)
    nearest = difflib.get_close_matches(name, names, n=1)
    if nearest:
        return f'did you mean "{nearest[0]}"?'
    more = f" and {len(names) - _MOST_NAMES} more" if len(names) > _MOST_NAMES else ""
    return "known are: " + ", ".join(names[:_MOST_NAMES]) + more
