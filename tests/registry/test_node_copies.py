"""What the registry hands out and takes in is copied as the standard library's deepcopy copies it."""

from __future__ import annotations

import collections
import copy
import copyreg
import datetime
import enum
import functools
import gc
import weakref
from collections.abc import Callable
from types import ModuleType
from typing import Any, NamedTuple

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from tests.fakes import AWS_REGION, CallLog, is_free, make_node
from tests.registry.conftest import provider_class
from tests.thorough import sized
from tovarincore.cloud_def import CloudNode, CloudRegion, InstanceTemplatePayType, NodeState


class Text(str):
    """A text of a derived class, with room for attributes."""


class Number(int):
    """A number of a derived class."""


class Slotted:
    """A record without a dictionary."""

    __slots__ = ("value",)


class WithState:
    """A record that tells what its copy is made of."""

    def __getstate__(self) -> dict[str, Any]:
        return {"saved": self.__dict__.get("value")}

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.value = state["saved"]


class OwnCopy(CloudNode):
    """A node that is copied its own way."""

    def __deepcopy__(self, memo: dict[int, Any]) -> OwnCopy:
        made = OwnCopy(self.region, self.instance_id, self.instance_type_def)
        memo[id(self)] = made
        made.name = copy.deepcopy(self.name, memo)
        made.uuid = "copied its own way"
        return made


class Pair(NamedTuple):
    """A tuple of a derived class."""

    left: Any
    right: Any


class Colour(enum.Flag):
    """An enum of another kind."""

    RED = enum.auto()
    BLUE = enum.auto()


ATOMS: list[Any] = [
    None, True, 7, 10**30, 1.5, 2j, "text", b"bytes", ..., NodeState.RUNNING, InstanceTemplatePayType.DEV,
    Colour.RED | Colour.BLUE, int, CloudNode, len, make_node, datetime.datetime(2024, 3, 1), Text("text"),
    Number(3), range(3), frozenset({1, 2}), NotImplemented,
]  # fmt: skip


def node_of(cls: type[CloudNode], parts: list[Any]) -> CloudNode:
    """Return a node with these things in its fields, and one attribute that no field is declared for."""
    a, b, c = (parts * 3)[:3] if parts else (None, "b", [])
    node = cls(AWS_REGION, "i", make_node().instance_type_def, uuid=a, name=b, worker_id_list=c)
    node.extra = a  # type: ignore[attr-defined]
    return node


def with_value(cls: type, parts: list[Any]) -> Any:
    """Return an object of this class with these things in it."""
    made = cls()
    made.value = list(parts)
    return made


MAKERS: dict[str, Callable[[list[Any]], Any]] = {
    "list": list,
    "tuple": tuple,
    "dict": lambda parts: dict(enumerate(parts)),
    "dict by text": lambda parts: {str(number): part for number, part in enumerate(parts)},
    "deque": collections.deque,
    "ordered": lambda parts: collections.OrderedDict(enumerate(parts)),
    "defaults": lambda parts: collections.defaultdict(list, enumerate(parts)),
    "bytearray": lambda parts: bytearray(len(parts)),
    "set": lambda parts: {*range(len(parts))},
    "pair": lambda parts: Pair(parts[0] if parts else 1, parts),
    "partial": lambda parts: functools.partial(print, *parts),
    "error": lambda parts: ValueError(*parts),
    "node": lambda parts: node_of(CloudNode, parts),
    "Amazon's node": lambda parts: node_of(type(make_node()), parts),
    "node of its own way": lambda parts: node_of(OwnCopy, parts),
    "region": lambda parts: CloudRegion("r", "AWS", title=parts),  # type: ignore[arg-type]
    "slotted": lambda parts: with_value(Slotted, parts),
    "with state": lambda parts: with_value(WithState, parts),
    "method": lambda parts: parts.append,
}
ORDER = [*MAKERS]


@st.composite
def graphs(draw: st.DrawFn) -> list[Any]:
    """Objects of which the later ones hold earlier ones, some twice, and some lists hold later ones."""
    objects: list[Any] = [draw(st.sampled_from(ATOMS)) for _ in range(2)]
    for _ in range(draw(st.integers(1, 8))):
        places = draw(st.lists(st.integers(0, len(objects) - 1), max_size=4))
        objects.append(MAKERS[draw(st.sampled_from(ORDER))]([objects[place] for place in places]))
    for made in objects:
        if type(made) is list and draw(st.booleans()):
            made.append(objects[draw(st.integers(0, len(objects) - 1))])
    return objects


def shape(thing: Any, originals: dict[int, Any], seen: dict[int, int]) -> Any:
    """Describe a graph: types, values, which parts are the same object, and which are an original's own."""
    if id(thing) in seen:
        return f"again {seen[id(thing)]}"
    seen[id(thing)] = len(seen)
    kept = id(thing) in originals
    if isinstance(thing, functools.partial):
        inside: Any = list(thing.args)
    elif isinstance(thing, dict):
        inside = [(repr(key), value) for key, value in thing.items()]
    elif isinstance(thing, (list, tuple, collections.deque)):
        inside = list(thing)
    elif isinstance(thing, BaseException):
        inside = list(thing.args)
    elif type(thing).__module__ == __name__ or isinstance(thing, (CloudNode, CloudRegion)):
        inside = (
            [getattr(thing, "value", None), *vars(thing).items()]
            if hasattr(thing, "__dict__")
            else [thing.value]
        )
    elif callable(thing) and hasattr(thing, "__self__") and isinstance(thing.__self__, list):
        inside = thing.__self__
    else:
        return type(thing).__name__, kept, repr(thing)
    if isinstance(inside, list):
        # The tuples made above are passing; what stands in them is not.
        inside = [
            (part[0], shape(part[1], originals, seen))
            if type(part) is tuple and len(part) == 2 and isinstance(part[0], str)
            else shape(part, originals, seen)
            for part in inside
        ]
    else:
        inside = shape(inside, originals, seen)
    return type(thing).__name__, kept, inside


def everything(thing: Any, found: dict[int, Any]) -> dict[int, Any]:
    """Collect a graph's objects by identity."""
    if id(thing) in found:
        return found
    found[id(thing)] = thing
    parts: list[Any] = []
    if isinstance(thing, dict):
        parts = list(thing.values())
    elif isinstance(thing, (list, tuple, collections.deque)):
        parts = list(thing)
    elif isinstance(thing, BaseException):
        parts = list(thing.args)
    elif isinstance(thing, functools.partial):
        parts = list(thing.args)
    if hasattr(thing, "__dict__") and not isinstance(thing, (type, ModuleType)) and not callable(thing):
        parts += vars(thing).values()
    if isinstance(thing, Slotted):
        parts.append(thing.value)
    for part in parts:
        everything(part, found)
    return found


@settings(
    max_examples=sized(60, 150),
    deadline=None,
    database=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture],
)
@given(graphs())
def test_any_graph_of_objects_is_copied_as_deepcopy_copies_it(
    cloud_node: ModuleType, log: CallLog, objects: list[Any]
) -> None:
    """Same types, same sharing, same cycles, and the same parts not copied at all; in and out."""
    manager = provider_class(cloud_node)(AWS_REGION)
    originals = everything(objects, {})
    expected = shape(copy.deepcopy(objects), originals, {})
    manager.set_node_list(objects)
    assert shape(manager._NodeManager__node_list, originals, {}) == expected
    manager._NodeManager__node_list = objects
    assert shape(manager.get_node_list(), originals, {}) == expected
    assert is_free(manager._NodeManager__node_list_lock)


@settings(
    max_examples=sized(40, 100),
    deadline=None,
    database=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture],
)
@given(graphs(), st.sampled_from([CloudNode, type(make_node()), OwnCopy]))
def test_any_node_is_copied_as_deepcopy_copies_it(
    cloud_node: ModuleType, log: CallLog, objects: list[Any], cls: type[CloudNode]
) -> None:
    """Stored, looked up, and handed out."""
    manager = provider_class(cloud_node)(AWS_REGION)
    node = node_of(cls, objects[-3:])
    node.ready = True
    originals = everything(node, {})
    expected = shape(copy.deepcopy(node), originals, {})
    manager.set_node(node)
    assert shape(manager._NodeManager__node_list[0], originals, {}) == expected
    manager._NodeManager__node_list = [node]
    assert shape(manager.find_node_by_instance_id("i"), originals, {}) == expected
    assert shape(manager.get_ready_node_next_in_line(), originals, {}) in (
        expected,
        shape(copy.deepcopy(node), originals, {}),
    )


def test_a_copier_registered_for_a_class_is_asked(manager: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    """Through copyreg, as late as after the first copy."""
    manager.set_node(make_node())
    monkeypatch.setitem(copyreg.dispatch_table, type(make_node()), lambda node: (str, ("reduced",)))
    assert manager.get_node_list() == ["reduced"]
    monkeypatch.delitem(copyreg.dispatch_table, type(make_node()))
    monkeypatch.setitem(copyreg.dispatch_table, CloudRegion, lambda region: (str, ("reduced",)))
    assert manager.get_node_list()[0].region == "reduced"


@pytest.mark.parametrize("owner", ["node", "region", "state", "value"])
@pytest.mark.parametrize("hook", ["__deepcopy__", "__reduce_ex__"])
def test_a_hook_added_to_a_class_later_is_asked(
    manager: Any, monkeypatch: pytest.MonkeyPatch, owner: str, hook: str
) -> None:
    """To a node's class, its region's, its state's or that of anything in it."""
    manager.set_node(make_node(worker_id_list=[Text("w")]))
    manager.get_node_list()
    cls = {"node": type(make_node()), "region": CloudRegion, "state": NodeState, "value": Text}[owner]

    def asked(self: Any, argument: Any) -> Any:
        return "asked" if hook == "__deepcopy__" else (str, ("asked",))

    before = copy.deepcopy(make_node(worker_id_list=[Text("w")]))
    monkeypatch.setattr(cls, hook, asked, raising=False)
    (got,) = manager.get_node_list()
    expected = copy.deepcopy(before)
    assert repr(got) == repr(expected)
    assert "asked" in repr(got) or hook == "__reduce_ex__"


def test_an_instance_with_a_hook_of_its_own_is_copied_by_its_class(manager: Any) -> None:
    """deepcopy finds the hook on the object: whatever it does there, so does the registry."""
    node = make_node()
    node.__deepcopy__ = lambda memo: "by the instance"  # type: ignore[attr-defined]
    manager._NodeManager__node_list = [node]
    assert manager.get_node_list() == copy.deepcopy([node])


@pytest.mark.parametrize("attribute", ["_deepcopy_dispatch", "_reconstruct", "_keep_alive"])
def test_a_part_of_the_copy_module_replaced_takes_effect(
    manager: Any, monkeypatch: pytest.MonkeyPatch, attribute: str
) -> None:
    """Those who patch the standard library's own parts get what they ask for."""
    manager.set_node(make_node())
    if attribute == "_deepcopy_dispatch":
        monkeypatch.setitem(getattr(copy, attribute), list, lambda given, memo: "dispatched")
        assert manager.get_node_list() == copy.deepcopy([1]) == "dispatched"
    else:
        calls: list[Any] = []
        genuine = getattr(copy, attribute)

        def counted(*arguments: Any, **keywords: Any) -> Any:
            calls.append(1)
            return genuine(*arguments, **keywords)

        monkeypatch.setattr(copy, attribute, counted)
        copy.deepcopy(manager._NodeManager__node_list)
        by_hand = len(calls)
        manager.get_node_list()
        assert len(calls) == 2 * by_hand > 0


def test_classes_with_odd_construction_are_rebuilt_without_their_constructor(manager: Any) -> None:
    """As copying through __reduce_ex__ does: __new__ is called, __init__ is not."""
    called: list[str] = []

    class Odd(CloudNode):
        def __new__(cls, *arguments: Any, **keywords: Any) -> Any:
            called.append("new")
            return super().__new__(cls)

        def __init__(self, *arguments: Any, **keywords: Any) -> None:
            called.append("init")
            super().__init__(*arguments, **keywords)

        def __setattr__(self, name: str, value: Any) -> None:
            called.append(f"set {name}")
            super().__setattr__(name, value)

    node = Odd(AWS_REGION, "i", make_node().instance_type_def)
    called.clear()
    copy.deepcopy(node)
    expected = list(called)
    called.clear()
    manager._NodeManager__node_list = [node]
    manager.get_node_list()
    assert called == expected


class OwnHook:
    """A value whose copy takes its own code."""

    def __deepcopy__(self, memo: dict[int, Any]) -> OwnHook:
        return self


def test_a_copy_keeps_nothing_of_a_record_that_refers_to_itself(cloud_node: ModuleType) -> None:
    """Not until the next collection either: what the record let go of is finalised at once."""
    Record = type("Record", (), {})
    manager = provider_class(cloud_node)(AWS_REGION)

    def record() -> Any:
        made: Any = Record()
        made.own, made.hook, made.mark = made, OwnHook(), Record()
        return made

    copy.deepcopy(Record())  # from now on it is known that the class has no slots
    for _ in range(3):
        original = record()
        manager._NodeManager__node_list = [original]
        gc.collect()
        gc.disable()
        try:
            manager.get_node_list()
            mark = weakref.ref(original.mark)
            del original.mark
            assert mark() is None
        finally:
            gc.enable()
