"""Scans pass over what plainly is something else, and over nothing of which they cannot be certain."""

from __future__ import annotations

from typing import Any

import pytest

from tests.python import _object_layer as layer
from tests.python.test_deep_copy import needs_native


class Record:
    def __init__(self, name: Any, ready: Any = False) -> None:
        self.name = name
        self.ready = ready


class Client:
    def __init__(self, name: Any) -> None:
        self.node = Record(name)


class Text(str):
    pass


class Equal:
    def __eq__(self, other: object) -> bool:
        return True

    __hash__ = None  # type: ignore[assignment]


NAMES = [
    "",
    "a",
    "b",
    "abcdefgh",
    "xbcdefgh",
    "abcdefghi",
    "prefix-00000001",
    "prefix-00000002",
    "\xe4bcdefgh",
    "\u20acuro",
]


@needs_native
@pytest.mark.parametrize("wanted", NAMES)
def test_other_texts_are_passed_over_up_to_the_equal_one(wanted: str) -> None:
    """Of any length and kind of character."""
    records = [Record("".join(name)) for name in NAMES]
    copied = "".join(list(wanted))
    assert layer.candidate(records, copied) == NAMES.index(wanted)
    assert layer.candidate_like(records, Record(copied)) == NAMES.index(wanted)
    assert layer.candidate([record for record in records if record.name != wanted], copied) == len(NAMES) - 1


@pytest.mark.parametrize("odd", [Text("a"), Text("z"), Equal(), None, 1, b"a"])
def test_a_value_that_is_no_plain_text_stops_the_scan(odd: Any) -> None:
    """Its comparison may be anybody's."""
    assert layer.candidate([Record("x"), Record("y"), Record(odd), Record("a")], "a") <= 2


@pytest.mark.parametrize("odd", [Text("a"), Equal(), None, 1])
def test_looking_for_something_that_is_no_plain_text_passes_over_nothing(odd: Any) -> None:
    """It may be equal to a text all the same."""
    assert layer.candidate([Record("x"), Record("a")], odd) == 0
    assert layer.candidate_like([Record("x"), Record("a")], Record(odd)) == 0
    assert layer.candidate_like([Record("x")], object()) == 0


def test_records_that_compute_the_value_stop_the_scan() -> None:
    """Properties, attribute access of their own, missing values."""

    class Computed:
        name = property(lambda self: "a")

    class Hooked(Record):
        def __getattribute__(self, name: str) -> Any:
            return "a"

    class Missing(Record):
        """A class of its own: its instances keep their attributes otherwise once one has lost some."""

    missing = Missing("x")
    del missing.name
    for odd in (Computed(), Hooked("x"), missing, object(), 5):
        assert layer.candidate([Record("x"), odd, Record("a")], "a") <= 1


def test_a_list_of_another_class_is_not_scanned() -> None:
    """Its iteration may be anything; so may another iterable's."""
    assert layer.candidate(type("Other", (list,), {})([Record("x")]), "a") == 0
    assert layer.candidate((Record("x"),), "a") == 0
    assert layer.not_false((Record("x"),)) == 0


@needs_native
def test_false_is_passed_over_and_everything_else_is_not() -> None:
    """Zero, an empty text and None are not looked at: they are left to the truth test."""
    records = [Record("x") for _ in range(4)]
    assert layer.not_false(records) == 4
    for value in (True, 0, "", None, [], Equal()):
        records[2].ready = value
        assert layer.not_false(records) == 2


def turns(clients: Any, name: Any) -> tuple[list[Any], list[Any]]:
    had_turns, others, variable = layer.candidates(clients, name)
    if isinstance(clients, list):
        assert variable is (clients[-1] if clients else None)  # as after Python's loop
    return had_turns, others


def test_elements_are_either_a_turn_or_put_aside_in_order() -> None:
    """Nothing is lost and nothing comes twice, for lists and for other iterables."""
    clients = [Client(name) for name in ["a", "b", "a", "c", Text("a"), "b", Text("d")]]
    had_turns, others = turns(clients, "a")
    assert [client for client in clients if client in had_turns or client in others] == clients
    assert len(had_turns) + len(others) == len(clients)
    assert all(client in had_turns for client in clients if client.node.name in ("a", "d"))
    assert others == sorted(others, key=clients.index)
    assert turns(tuple(clients), "a") == (clients, [])
