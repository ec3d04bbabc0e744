"""What the registry hands out and takes in is copied as the standard library's deepcopy copies it."""

from __future__ import annotations

import copy
import copyreg
import functools
import gc
import weakref
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import AWS_REGION, is_free, make_node
from tests.graphs import Text, numbered, outcome, random_graph
from tests.registry.conftest import provider_class
from tests.thorough import sized
from tovarincore.cloud_def import CloudNode, CloudRegion, NodeState


class OwnCopy(CloudNode):
    """A node that is copied its own way."""

    def __deepcopy__(self, memo: dict[int, Any]) -> OwnCopy:
        made = OwnCopy(self.region, self.instance_id, self.instance_type_def)
        memo[id(self)] = made
        made.name = copy.deepcopy(self.name, memo)
        made.uuid = "copied its own way"
        return made


def node_of(cls: type[CloudNode], parts: list[Any]) -> CloudNode:
    """Return a node with these things in its fields, and one attribute that no field is declared for."""
    a, b, c = (parts * 3)[:3] if parts else (None, "b", [])
    node = cls(AWS_REGION, "i", make_node().instance_type_def, uuid=a, name=b, worker_id_list=c)
    node.extra = a  # type: ignore[attr-defined]
    return node


KINDS: list[Callable[[list[Any]], Any]] = [
    lambda parts: functools.partial(print, *parts),
    lambda parts: ValueError(*parts),
    lambda parts: node_of(CloudNode, parts),
    lambda parts: node_of(type(make_node()), parts),
    lambda parts: node_of(OwnCopy, parts),
    lambda parts: CloudRegion("r", "AWS", title=parts),  # type: ignore[arg-type]
    lambda parts: parts.append,
    lambda parts: NodeState.RUNNING,
]


@pytest.mark.parametrize("first", range(0, sized(200, 1_000), 100))
def test_any_graph_of_objects_is_copied_as_deepcopy_copies_it(cloud_node: ModuleType, first: int) -> None:
    """Same types, sharing, cycles and errors, and the same parts not copied at all; in and out."""
    manager = provider_class(cloud_node)(AWS_REGION)

    def taken_in(objects: list[Any]) -> Any:
        manager.set_node_list(objects)
        return manager._NodeManager__node_list

    def handed_out(objects: list[Any]) -> Any:
        manager._NodeManager__node_list = objects
        return manager.get_node_list()

    for seed in range(first, first + 100):
        objects = random_graph(seed, KINDS)
        original = numbered(objects)
        expected = outcome(copy.deepcopy, objects, original)
        assert outcome(taken_in, objects, original) == expected, seed
        assert outcome(handed_out, objects, original) == expected, seed
        assert is_free(manager._NodeManager__node_list_lock)


@pytest.mark.parametrize("cls", [CloudNode, type(make_node()), OwnCopy])
def test_any_node_is_copied_as_deepcopy_copies_it(cloud_node: ModuleType, cls: type[CloudNode]) -> None:
    """Stored, looked up, and handed out."""
    manager = provider_class(cloud_node)(AWS_REGION)

    def stored(node: CloudNode) -> Any:
        manager.set_node_list([])
        manager.set_node(node)
        return manager._NodeManager__node_list[0]

    def found(node: CloudNode) -> Any:
        manager._NodeManager__node_list = [node]
        return manager.find_node_by_instance_id("i")

    def next_in_line(node: CloudNode) -> Any:
        manager._NodeManager__node_list = [node]
        return manager.get_ready_node_next_in_line()

    for seed in range(sized(100, 500)):
        node = node_of(cls, random_graph(seed, KINDS)[-3:])
        node.ready = True
        for copier in (stored, found, next_in_line):
            original = numbered(node)
            expected = outcome(copy.deepcopy, node, original)
            assert outcome(copier, node, original) == expected, (seed, copier.__name__)


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
