"""Words for errors: the nearest name to a misspelt one, and values as they may be shown."""

from collections.abc import Iterable

__all__ = ["did_you_mean", "shown_value"]


_MOST_NAMES = 40


def did_you_mean(name: str, known: Iterable[str]) -> str:
    """Return the hint that follows "unknown ...": the nearest known name, or the first of them.

    :param name: the name that was given
    :param known: the names that would have been right
    """
    # Imported here, as below: few programs make mistakes.
    import difflib

    names = sorted(known)
    nearest = difflib.get_close_matches(name, names, n=1)
    if nearest:
        return f'did you mean "{nearest[0]}"?'
    more = f" and {len(names) - _MOST_NAMES} more" if len(names) > _MOST_NAMES else ""
    return "known are: " + ", ".join(names[:_MOST_NAMES]) + more


def shown_value(value: object) -> str:
    """Return a value of a configuration file for an error's text: short, however long or deep it is."""
    import reprlib

    short = reprlib.Repr()
    short.maxstring = short.maxother = 80
    return short.repr(value)
