"""Words for errors: the nearest name to a misspelt one, and values as they may be shown."""

from collections.abc import Iterable

__all__ = ["did_you_mean", "nearest", "shown_value"]

_MOST_NAMES = 40


def did_you_mean(name: str, known: Iterable[str]) -> str:
    """Return the hint that follows "unknown ...": the nearest known name, or all of them.

    :param name: the name that was given
    :param known: the names that would have been right
    """
    names = sorted(known)
    near = nearest(name, names)
    if near:
        return f'did you mean "{near}"?'
    more = f" and {len(names) - _MOST_NAMES} more" if len(names) > _MOST_NAMES else ""
    return "known are: " + ", ".join(names[:_MOST_NAMES]) + more


def nearest(name: str, known: Iterable[str]) -> str | None:
    """Return the known name that a misspelt one most likely means; ``None`` if it resembles none.

    :param name: the name that was given; capital letters do not count
    :param known: the names that would have been right
    """
    # Imported here, as below: few programs make mistakes.
    import difflib

    folded = {text.casefold(): text for text in sorted(known)}
    found = difflib.get_close_matches(name.casefold(), folded, n=1)
    return folded[found[0]] if found else None


def shown_value(value: object) -> str:
    """Return a value of a configuration file for an error's text: short, however long or deep it is."""
    import reprlib

    short = reprlib.Repr()
    short.maxstring = short.maxother = 80
    return short.repr(value)
