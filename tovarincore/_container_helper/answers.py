"""What an engine's answers say. Every part is checked: the engine is outside, whatever it is that answers."""

from __future__ import annotations

import logging
from collections.abc import Iterator
from typing import Any

from tovarincore._container_helper.engine import ContainerSummary, PortBinding
from tovarincore._container_helper.errors import unreadable_answer
from tovarincore._transport.gate import check_instance_id
from tovarincore._transport.masker import mask_start

_SHOWN_CHARACTERS = 60

_logger = logging.getLogger("tovarincore.container_helper")


def find_container_in(answer: object, name: str) -> ContainerSummary | None:
    """The container of that name in a list of containers. One that cannot be read is logged and skipped.

    Raises ContainerError (PROTOCOL_ERROR) when the one looked for may be among the skipped.
    """
    unreadable: list[str] = []
    for item in _list_of(answer, "the list of containers"):
        try:
            if name in _names(item):
                return _container(item, name)
        except _Unreadable as reason:
            unreadable.append(_skip(item, "container", reason))
    if unreadable:
        raise unreadable_answer(", ".join(unreadable))
    return None


def image_references_in(answer: object) -> Iterator[str]:
    """The names with tags in a list of images. An image that cannot be read is logged and skipped."""
    for item in _list_of(answer, "the list of images"):
        try:
            # Null for an image without a name.
            references = _get(item, "RepoTags", list, type(None)) or []
            yield from (_check(reference, "a name in RepoTags", str) for reference in references)
        except _Unreadable as reason:
            _skip(item, "image", reason)


def container_id_in(answer: object) -> str:
    """The id in the answer to a creation. Raises ContainerError (PROTOCOL_ERROR) when there is none."""
    try:
        return _container_id(answer)
    except _Unreadable as reason:
        raise unreadable_answer(f"the container just created, {reason}") from None


class _Unreadable(Exception):
    """A part of an answer is not of the form that engines give it; the text says which."""


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


def _skip(item: object, kind: str, reason: _Unreadable) -> str:
    """Log what is left out of a list; the text names it where it has a name."""
    name = item.get("Id") if isinstance(item, dict) else None
    shown = ascii(mask_start(name, _SHOWN_CHARACTERS)) if isinstance(name, str) else "without an id"
    text = f"{kind} {shown}: {reason}"
    _logger.warning("skipped in the container engine's list: %s", text)
    return text
