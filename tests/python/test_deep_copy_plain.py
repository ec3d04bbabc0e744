"""The way without Python code: aliasing, tuples, dictionaries, and giving up without a trace."""

from __future__ import annotations

import copy
import gc
from typing import Any

import pytest

from tests.graphs import Hooked, Plain, Record, describe, numbered
from tests.python import _object_layer as layer
from tests.python.test_deep_copy import needs_native

pytestmark = needs_native


@pytest.fixture(autouse=True)
def warm() -> None:
    """The first copy of a class is Python's, which notes its slots on it."""
    copy.deepcopy([Record(), Plain()])


def agree(graph: Any) -> None:
    original = numbered(graph)
    assert describe(layer.plain_copy(graph), original) == describe(copy.deepcopy(graph), original)


def test_the_same_object_twice_gives_one_copy() -> None:
    """Lists, dictionaries, objects, changed tuples."""
    shared: list[Any] = [[1], {"a": 1}, Record(), ([],)]
    agree([shared, list(shared), {"again": shared[0]}, Record(a=shared[2])])


def test_structures_that_contain_themselves_are_copied() -> None:
    """Through a list, a dictionary, an object, a tuple, and two objects that refer to each other."""
    through_list: list[Any] = []
    through_list.append(through_list)
    through_dict: dict[str, Any] = {}
    through_dict["self"] = through_dict
    through_object = Plain()
    through_object.self = through_object
    through_tuple: Any = ([],)
    through_tuple[0].append(through_tuple)
    one, two = Plain(), Plain()
    one.other, two.other = two, one
    for graph in (through_list, through_dict, through_object, through_tuple, [one, two]):
        agree(graph)
    copied = layer.plain_copy(through_tuple)
    assert copied[0][0] is copied is not through_tuple


def test_a_tuple_without_change_is_its_own_copy() -> None:
    """And one that holds a changed one is not."""
    unchanged = (1, "a", (None, True))
    changed = (unchanged, [])
    assert layer.plain_copy(unchanged) is unchanged
    assert layer.plain_copy(changed)[0] is unchanged
    assert layer.plain_copy(changed) is not changed


def test_a_dictionary_of_attributes_that_somebody_holds_is_copied_apart() -> None:
    """The copy of the dictionary is not the __dict__ of the copied object, wherever it comes."""
    thing = Plain(a=[1])
    for graph in ([thing, thing.__dict__], [thing.__dict__, thing]):
        agree(graph)
    copied = layer.plain_copy([thing, thing.__dict__])
    assert copied[0].__dict__ is not copied[1]
    assert copied[0].a is copied[1]["a"]
    thing.mine = thing.__dict__
    agree([thing])


def test_two_objects_with_one_dictionary_get_one_each() -> None:
    """As a reconstruction from the copied state gives it."""
    one, two = Plain(a=[1]), Plain()
    two.__dict__ = one.__dict__
    agree([one, two])
    one.inner = two
    agree([one])


def test_attributes_keep_their_order_and_names_with_any_kind_of_dictionary() -> None:
    """Key-sharing, resized, after a deletion, emptied, replaced, of another class."""
    resized = Plain(**{f"name{i}": [i] for i in range(40)})
    deleted = Plain(a=[1], b=[2], c=[3])
    del deleted.a
    emptied = Plain(a=1)
    emptied.__dict__.clear()
    replaced = Plain()
    replaced.__dict__ = {"z": [1], "y": [2]}
    agree([resized, deleted, emptied, replaced, Plain(), Record(1, [2], {"k": (3,)})])
    assert list(layer.plain_copy(deleted).__dict__) == ["b", "c"]


def test_a_changed_copy_leaves_the_original_as_it_was() -> None:
    """They share names, never values: also after one of them gets a new attribute or loses one."""
    original = Record(a=[1], b=2)
    copied = layer.plain_copy(original)
    copied.b, copied.new = 3, 4
    copied.a.append(5)
    del copied.c
    assert original == Record(a=[1], b=2)
    assert layer.plain_copy(original) == original
    assert vars(copied) == {"a": [1, 5], "b": 3, "new": 4}


@pytest.mark.parametrize("unusual", [{1}, Hooked(1), object(), bytearray(), Plain.method.__get__(Plain())])
def test_anything_unusual_makes_it_give_up(unusual: Any) -> None:
    """At any place."""
    for graph in (unusual, [unusual], (unusual,), {"a": unusual}, Record(a=unusual), [Record(), [unusual]]):
        assert layer.plain_copy(graph) is NotImplemented


def test_keys_that_could_run_python_code_make_it_give_up() -> None:
    """Their hash or comparison may be anybody's."""
    assert layer.plain_copy({(1, 2): 3}) is NotImplemented
    assert layer.plain_copy({Plain(): 3}) is NotImplemented


@needs_native
def test_no_collection_runs_in_the_middle() -> None:
    """Its finalisers could change the original or find half a copy. Afterwards the collector is as before."""
    graph = [Record(a=[i, [i]], b=(i, [i]), c=[{"k": [i]}]) for i in range(50)]
    collections = []

    def look(phase: str, info: dict[str, int]) -> None:
        collections.append(phase)

    threshold = gc.get_threshold()
    gc.collect()
    gc.callbacks.append(look)
    try:
        gc.set_threshold(50)
        copied = layer.plain_copy(graph)
        gc.set_threshold(*threshold)
        assert collections == []
        assert gc.isenabled()
        assert copied == graph
        assert layer.plain_copy([graph, object()]) is NotImplemented
        assert gc.isenabled()
        gc.disable()
        layer.plain_copy(graph)
        assert not gc.isenabled()
    finally:
        gc.enable()
        gc.set_threshold(*threshold)
        gc.callbacks.remove(look)


def test_code_run_by_a_collection_may_change_the_original() -> None:
    """It is not read through any pointer that the change has made invalid."""
    graph: list[Any] = []

    def change(phase: str, info: dict[str, int]) -> None:
        if phase == "start" and graph:
            del graph[len(graph) // 2 :]
            graph.extend([[object] for _ in range(3)])

    threshold = gc.get_threshold()
    gc.callbacks.append(change)
    gc.set_threshold(40)
    try:
        for _ in range(20):
            graph[:] = [Record(a=[i], b={"k": [i]}) for i in range(100)]
            assert type(layer.general_copy(graph)) is list
    finally:
        gc.callbacks.remove(change)
        gc.set_threshold(*threshold)


def test_a_class_that_follows_one_that_is_gone_is_looked_at_by_itself() -> None:
    """What is remembered of a class ends with it, also when the next class lies at its address."""
    for _ in range(200):
        thing = type("Gone", (), {})()
        thing.a = 1
        for _ in range(3):
            assert layer.native_deepcopy(thing).a == 1
        del thing
        gc.collect()
        hooked = type("Hooked", (), {})()
        hooked.__deepcopy__ = lambda memo: "by its hook"
        for _ in range(3):
            assert layer.native_deepcopy(hooked) == "by its hook"
        del hooked
        gc.collect()
