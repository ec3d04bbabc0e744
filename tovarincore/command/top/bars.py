"""Bars, short histories and ages as text: they are read without colours too."""

from collections.abc import Sequence
from datetime import datetime

__all__ = ["age_text", "bar", "history"]

_EIGHTHS = " ▏▎▍▌▋▊▉█"
_HEIGHTS = "▁▂▃▄▅▆▇█"


def bar(percent: float | None, width: int) -> str:
    """Return a bar with its number behind it; blanks where nothing is known.

    :param percent: 0 to 100
    :param width: columns of the bar alone; the number takes four more
    """
    if percent is None:
        return " " * (width + 4)
    within = min(100.0, max(0.0, percent))
    eighths = round(within / 100 * width * 8)
    whole, rest = divmod(eighths, 8)
    drawn = "█" * whole + (_EIGHTHS[rest] if rest else "")
    return f"{drawn:·<{width}}{within:3.0f}%"


def history(loads: Sequence[float], width: int) -> str:
    """Return the newest of the loads as columns of blocks, the newest at the right.

    :param loads: 0 to 100, the newest last
    :param width: columns
    """
    newest = loads[-width:] if width else ()
    drawn = "".join(_HEIGHTS[min(7, max(0, int(load / 100 * 8)))] for load in newest)
    return f"{drawn:>{width}}"


def age_text(launched: datetime | None, now: datetime) -> str:
    """Return how long ago a node was launched, in at most four characters; empty when nobody knows."""
    if launched is None:
        return ""
    seconds = max(0, int((now - launched).total_seconds()))
    for unit, size, most in (("s", 1, 100), ("m", 60, 100), ("h", 3600, 100)):
        if seconds // size < most:
            return f"{seconds // size}{unit}"
    return f"{seconds // 86400}d"
