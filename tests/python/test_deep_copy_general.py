"""The way with a real memo: what hooks see, what they change, and what then happens."""

from __future__ import annotations

import copy
from typing import Any

import pytest

from tests.graphs import Colour, Plain, Record
from tests.python import _object_layer as layer

# The general copy stands behind the native one, on the interpreters that have it.
BEHIND = {"general": layer.general_copy} if layer.is_native(None) else {}
COPIERS = {"native": layer.native_deepcopy, **BEHIND, "python": copy.deepcopy}
each_copier = pytest.mark.parametrize("copier", COPIERS.values(), ids=COPIERS.keys())


class Hook:
    """Calls a function when it is copied."""

    def __init__(self, call: Any) -> None:
        self.call = call

    def __deepcopy__(self, memo: Any) -> Any:
        return self.call(memo)


@each_copier
def test_a_hook_gets_a_real_memo_with_its_parents(copier: Any) -> None:
    """A dict, whose entry about itself is the list of the originals that are done."""
    seen: list[Any] = []
    done = [1]
    parent = Plain(done=done, state="x")
    graph = [done, parent]

    def look(memo: Any) -> None:
        seen.append(type(memo))
        seen.append(memo[id(graph)][0] == [1])
        seen.append(dict(vars(memo[id(parent)])))
        seen.append(list(memo[id(parent.__dict__)]))
        seen.append([thing is done for thing in memo[id(memo)]])

    parent.hook = Hook(look)
    copier(graph)
    assert seen == [dict, True, {}, ["done", "state"], [True]]


@each_copier
def test_what_a_hook_writes_into_the_memo_is_used(copier: Any) -> None:
    """For containers, objects, classes, members of enumerations and atomic values."""
    later: list[Any] = [[1], Record(), "some text", Colour.RED, 12345678]

    def write(memo: Any) -> str:
        for thing in later:
            memo[id(thing)] = "written"
        return "hook"

    assert copier([Hook(write), *later]) == ["hook"] + ["written"] * len(later)


@each_copier
def test_a_class_or_value_written_into_the_memo_changes_what_is_made_from_it(copier: Any) -> None:
    """They are the arguments of the reconstruction and go through the memo as well."""

    def write(memo: Any) -> str:
        memo[id(Record)] = Plain
        memo[id(Colour.RED._value_)] = Colour.MANY.value
        return "hook"

    copied = copier([Hook(write), Record(), Colour.RED])
    assert type(copied[1]) is Plain
    # Where the enumeration itself answers for its copies, a member is not made from its value.
    assert copied[2] is (Colour.RED if hasattr(Colour, "__deepcopy__") else Colour.MANY)


@each_copier
def test_a_hook_that_returns_none_is_asked_once(copier: Any) -> None:
    """The result is remembered like any other."""
    calls: list[Any] = []
    hook = Hook(calls.append)
    assert copier([hook, hook]) == [None, None]
    assert len(calls) == 1


@each_copier
def test_a_dictionary_changed_in_size_by_a_hook_is_an_error(copier: Any) -> None:
    """Also the one that holds an object's attributes."""
    graph: dict[str, Any] = {"later": 1}
    graph["hook"] = Hook(lambda memo: graph.update(more=1))
    graph["last"] = 1
    thing = Plain()
    thing.hook = Hook(lambda memo: setattr(thing, "more", 1))
    thing.last = 1
    for changing in (graph, thing):
        with pytest.raises(RuntimeError, match="dictionary changed size during iteration"):
            copier([changing])


@each_copier
def test_a_value_replaced_by_a_hook_before_its_turn_is_the_one_copied(copier: Any) -> None:
    """Values are read when their turn comes."""
    thing = Plain()
    thing.hook = Hook(lambda memo: setattr(thing, "later", "new"))
    thing.later = "old"
    graph: dict[str, Any] = {"hook": None, "later": "old"}
    graph["hook"] = Hook(lambda memo: graph.update(later="new"))
    assert copier([thing])[0].later == "new"
    assert copier(graph)["later"] == "new"


@each_copier
def test_a_list_changed_by_a_hook_is_walked_as_it_is(copier: Any) -> None:
    """Shortened or lengthened while it is copied."""
    longer: list[Any] = [None, 1]
    longer[0] = Hook(lambda memo: longer.append(2) if len(longer) < 3 else None)
    shorter: list[Any] = [None, 1, 2, 3]
    shorter[0] = Hook(lambda memo: shorter.__delitem__(slice(2, None)))
    assert copier(longer) == [None, 1, 2]
    assert copier(shorter) == [None, 1]


@each_copier
def test_temporaries_live_until_the_copy_ends(copier: Any) -> None:
    """A state made on the spot is kept, or its address would stand for the next one."""

    class Fresh:
        def __init__(self, number: int) -> None:
            self.number = number

        def __reduce_ex__(self, protocol: Any) -> Any:
            return Fresh, (0,), {"number": [self.number]}

    copied = copier([Fresh(number) for number in range(200)])
    assert [thing.number for thing in copied] == [[number] for number in range(200)]


@each_copier
def test_a_hook_may_spoil_the_list_of_the_kept(copier: Any) -> None:
    """The memo's entry about itself may be anything with an append; what it raises travels on."""
    kept: list[Any] = []

    class Keeper:
        def append(self, thing: Any) -> None:
            kept.append(thing)

    done = [1]

    def spoil(memo: Any) -> None:
        memo[id(memo)] = Keeper()

    copier([Hook(spoil), done])
    assert any(thing is done for thing in kept)

    def break_it(memo: Any) -> None:
        memo[id(memo)] = None

    with pytest.raises(AttributeError):
        copier([Hook(break_it), [1]])


@each_copier
def test_a_state_hook_that_comes_while_the_state_is_copied_is_called(copier: Any) -> None:
    """Whether there is a __setstate__ is asked when the state is there."""

    class Late:
        pass

    copier(Late())
    restored: list[Any] = []
    thing = Late()
    thing.hook = Hook(lambda memo: setattr(Late, "__setstate__", lambda self, state: restored.append(state)))  # type: ignore[attr-defined]
    copier([thing])
    assert len(restored) == 1


@each_copier
def test_a_dispatch_entry_that_a_hook_adds_is_honoured_from_then_on(
    copier: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    """In the middle of a list that is being copied."""

    def add(memo: Any) -> None:
        monkeypatch.setitem(copy._deepcopy_dispatch, list, lambda value, memo: "other")  # type: ignore[attr-defined]

    assert copier([[1], Hook(add), [1]]) == [[1], None, "other"]


@each_copier
def test_a_hook_may_take_the_original_away(copier: Any) -> None:
    """What is being copied lives on until it is done."""
    graph: list[Any] = [None, [[1], [2]]]

    def empty(memo: Any) -> None:
        inner.clear()
        graph.clear()

    inner = [Hook(empty), [3]]
    graph[0] = Plain(inner=inner)
    assert vars(copier(graph)[0]) == {"inner": [None]}


@each_copier
def test_the_caller_may_give_the_memo(copier: Any) -> None:
    """It is used and filled."""
    if copier is layer.general_copy:
        copier = layer.native_deepcopy
    known, graph = [1], [[2]]
    memo: dict[int, Any] = {id(known): "known"}
    copied = copier([known, graph], memo)
    assert copied == ["known", [[2]]]
    assert memo[id(graph)] is copied[1]
