"""Version order of image tags."""

from __future__ import annotations

import re
from collections.abc import Iterable

_VERSION = re.compile(r"v?(?P<numbers>\d+(?:\.\d+)*)(?P<suffix>.*)", re.DOTALL)
_NUMBER = re.compile(r"(\d+)")
# Above every part of a suffix: 1.2.0 is newer than 1.2.0-rc1.
_NO_SUFFIX = (2, 0, "")

_Part = tuple[int, int, str]


def newest_first(tags: Iterable[str]) -> list[str]:
    """The tags sorted by the version they name, newest first.

    Numbers compare as numbers (1.10 is newer than 1.9) and a version with a suffix comes before
    (is older than) the same version without, as semantic versioning has it. Tags that are no
    versions, such as "latest", come last, in alphabetical order.
    """
    known = set(tags)
    versions = {tag for tag in known if _VERSION.fullmatch(tag)}
    return [*sorted(versions, key=_version_key, reverse=True), *sorted(known - versions)]


def _version_key(tag: str) -> tuple[list[int], tuple[_Part, ...], str]:
    match = _VERSION.fullmatch(tag)
    assert match is not None
    numbers = [int(number) for number in match["numbers"].split(".")]
    while numbers[-1:] == [0]:
        numbers.pop()
    return numbers, _suffix_key(match["suffix"]), tag


def _suffix_key(suffix: str) -> tuple[_Part, ...]:
    if not suffix:
        return (_NO_SUFFIX,)
    return tuple(
        (0, int(part), "") if part.isdigit() else (1, 0, part) for part in _NUMBER.split(suffix) if part
    )
