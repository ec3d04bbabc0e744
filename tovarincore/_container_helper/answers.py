"""What an engine's answers say. Every part is checked: the engine is outside, whatever it is that answers."""

from __future__ import annotations

import logging
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

from tovarincore._container_helper.engine import ContainerSummary, PortBinding
from tovarincore._container_helper.errors import unreadable_answer
from tovarincore._transport.gate import check_instance_id
from tovarincore._transport.masker import mask_start

_SHOWN_CHARACTERS = 60
_NAMED_SKIPPED = 5

_logger = logging.getLogger("tovarincore.container_helper")


def find_container_in(answer: object, name: str) -> ContainerSummary | None:
    """The container of that name in a list of containers. What cannot be read is skipped and logged.

    Raises ContainerError (PROTOCOL_ERROR) when the one looked for may be among the skipped.
    """
    skipped = _Skipped("container")
    found = None
    for item in _list_of(answer, "the list of containers"):
        with skipped.unless_readable(item):
            if found is None and name in _names(item):
                found = _container(item, name)
    text = skipped.report()
    if found is None and text:
        raise unreadable_answer(text)
    return found


def image_references_in(answer: object) -> list[str]:
    """The names with tags in a list of images. What cannot be read is skipped and logged."""
    skipped = _Skipped("image")
    references: list[str] = []
    for item in _list_of(answer, "the list of images"):
        with skipped.unless_readable(item):
            # Null for an image without a name.
            names = _get(item, "RepoTags", list, type(None)) or []
            references += [_check(reference, "a name in RepoTags", str) for reference in names]
    skipped.report()
    return references


def container_id_in(answer: object) -> str:
    """The id in the answer to a creation. Raises ContainerError (PROTOCOL_ERROR) when there is none."""
    try:
        return _container_id(answer)
    except _Unreadable as reason:
        raise unreadable_answer(f"the container just created, {reason}") from None


class _Unreadable(Exception):
    """A part of an answer is not of the form that engines give it; the text says which."""


class _Skipped:
    """What is left out of a list: the first few by name, the others by number."""

    def __init__(self, kind: str) -> None:
        self._kind = kind
        self._named: list[str] = []
        self._count = 0

    @contextmanager
    def unless_readable(self, item: object) -> Iterator[None]:
        try:
            yield
        except _Unreadable as reason:
            self._count += 1
            if len(self._named) < _NAMED_SKIPPED:
                self._named.append(f"{self._kind} {_name_of(item)}: {reason}")

    def report(self) -> str:
        """Log what was skipped, if anything, and return the text."""
        others = self._count - len(self._named)
        text = ", ".join([*self._named, *([f"and {others} others"] if others else [])])
        if text:
            _logger.warning("skipped in the container engine's list: %s", text)
        return text


def _name_of(item: object) -> str:
    name = item.get("Id") if isinstance(item, dict) else None
    return ascii(mask_start(name, _SHOWN_CHARACTERS)) if isinstance(name, str) else "without an id"


def _container(item: object, name: str) -> ContainerSummary:
    labels = _get(item, "Labels", dict, type(None)) or {}
    return ContainerSummary(
        container_id=_container_id(item),
        name=name,
        status=_get(item, "State", str),
        labels={key: _check(value, "a label", str) for key, value in labels.items()},
        bindings=frozenset(_bindings(_get(item, "Ports", list, type(None)) or [])),
    )


def _container_id(item: object) -> str:
    try:
        return check_instance_id(_get(item, "Id", str))
    except ValueError as refused:
        raise _Unreadable(str(refused)) from None


def _names(item: object) -> set[str]:
    """A container's names; the engine puts a slash in front of them."""
    return {_check(name, "a name in Names", str).removeprefix("/") for name in _get(item, "Names", list)}


def _bindings(ports: list[Any]) -> Iterator[PortBinding]:
    """What is published of a container's ports; one that is merely exposed has no public number."""
    for port in ports:
        if _get(port, "Type", str) == "tcp" and _get(port, "PublicPort", int, type(None)):
            yield PortBinding(
                _get(port, "IP", str), _get(port, "PublicPort", int), _get(port, "PrivatePort", int)
            )


def _list_of(answer: object, what: str) -> list[Any]:
    try:
        found: list[Any] = _check(answer, what, list)
    except _Unreadable as reason:
        raise unreadable_answer(str(reason)) from None
    return found


def _get(item: object, key: str, *types: type) -> Any:
    """The value of a key, None when it is missing, if it is of one of the types."""
    return _check(_check(item, "an entry", dict).get(key), key, *types)


def _check(value: object, what: str, *types: type) -> Any:
    if not isinstance(value, types):
        raise _Unreadable(f"{what} is a {type(value).__name__}")
    return value
