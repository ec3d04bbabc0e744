"""Loops pass over what plainly is something else, and over nothing of which they cannot be certain."""

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


def turns(elements: Any, wanted: Any, loop: Any = layer.turns_for_text) -> list[Any]:
    """The elements that have a turn, with a look at all that must hold of any loop."""
    had_turns, others, variable = loop(elements, *wanted)
    if isinstance(elements, list):
        assert variable is (elements[-1] if elements else None)  # as after Python's loop
        merged = iter(elements)
        assert all(any(one is each for each in merged) for one in others)  # in order
    assert len(had_turns) + len(others) == len(elements)
    return had_turns  # type: ignore[no-any-return]


class Owner:
    """Of a list that is searched by index."""

    def __init__(self, records: list[Any]) -> None:
        self.records = records


def first_like(owner: Owner, element: Any) -> int:
    """Where the search begins, when it has learnt of the owner's class."""
    for _ in range(3):
        begin: int = layer.first_like(owner, element)
    return begin


def first_turn(elements: list[Any], wanted: Any) -> int:
    had_turns = turns(elements, [wanted])
    return elements.index(had_turns[0]) if had_turns else len(elements)


@needs_native
@pytest.mark.parametrize("wanted", NAMES)
def test_other_texts_are_passed_over_up_to_the_equal_one(wanted: str) -> None:
    """Of any length and kind of character."""
    records = [Record("".join(name)) for name in NAMES]
    copied = "".join(list(wanted))
    assert turns(records, [copied]) == [records[NAMES.index(wanted)]]
    assert first_like(Owner(records), Record(copied)) == NAMES.index(wanted)
    assert turns([record for record in records if record.name != wanted], [copied]) == []


@pytest.mark.parametrize("odd", [Text("a"), Text("z"), Equal(), None, 1, b"a"])
def test_a_value_that_is_no_plain_text_has_its_turn(odd: Any) -> None:
    """Its comparison may be anybody's."""
    records = [Record("x"), Record("y"), Record(odd), Record("a")]
    assert {2, 3} <= {records.index(record) for record in turns(records, ["a"])}


@pytest.mark.parametrize("odd", [Text("a"), Equal(), None, 1])
def test_looking_for_something_that_is_no_plain_text_passes_over_nothing(odd: Any) -> None:
    """It may be equal to a text anyway."""
    assert first_turn([Record("x"), Record("a")], odd) == 0
    assert first_like(Owner([Record("x"), Record("a")]), Record(odd)) == 0
    assert first_like(Owner([Record("x")]), object()) == 0


def test_a_search_that_reads_its_list_at_each_turn_begins_at_the_first_where_that_is_noticed() -> None:
    """An owner with its own attribute access."""

    class Noticing(Owner):
        def __getattribute__(self, name: str) -> Any:
            return super().__getattribute__(name)

    assert first_like(Noticing([Record("x"), Record("a")]), Record("a")) == 0


def test_records_that_compute_the_value_have_their_turn() -> None:
    """Properties, their own attribute access, missing values."""

    class Computed:
        name = property(lambda self: "a")

    class Hooked(Record):
        def __getattribute__(self, name: str) -> Any:
            return "a"

    class Missing(Record):
        """A separate class: its instances keep their attributes otherwise once one has lost some."""

    missing = Missing("x")
    del missing.name
    for odd in (Computed(), Hooked("x"), missing, object(), 5):
        assert any(element is odd for element in turns([Record("x"), odd, Record("a")], ["a"]))


def test_a_class_whose_names_compare_is_left_to_the_interpreter() -> None:
    """Looking anything up in it may run code."""

    class Name(str):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            raise ValueError

    odd = type("Odd", (Record,), {Name("other"): 1})("x")
    assert any(element is odd for element in turns([Record("x"), odd], ["a"]))


def test_lists_of_another_class_and_other_iterables_are_not_walked() -> None:
    """Their iteration may be anything."""
    for iterable in (type("Other", (list,), {})([Record("x")]), (Record("x"),), iter([Record("x")])):
        had_turns, others, variable = layer.turns_for_text(iterable, "a")
        assert (len(had_turns), others, variable) == (1, [], had_turns[0])


@needs_native
def test_false_is_passed_over_and_everything_else_is_not() -> None:
    """Zero, an empty text and None are not looked at: they are left to the truth test."""
    records = [Record("x") for _ in range(4)]
    assert turns(records, [], layer.turns_for_truth) == []
    for value in (True, 0, "", None, [], Equal()):
        records[2].ready = value
        assert turns(records, [], layer.turns_for_truth) == [records[2]]


def test_an_attribute_of_an_attribute_is_walked_as_well() -> None:
    """Nothing is lost and nothing comes twice, for lists and for other iterables."""
    clients = [Client(name) for name in ["a", "b", "a", "c", Text("a"), "b", Text("d")]]
    had_turns = turns(clients, ["a"], layer.turns_for_text_behind)
    assert all(client in had_turns for client in clients if client.node.name in ("a", "d"))
    assert turns(tuple(clients), ["a"], layer.turns_for_text_behind) == clients
