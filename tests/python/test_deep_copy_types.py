"""Hooks of classes and of instances: found whenever deepcopy would find them, also when they come late."""

from __future__ import annotations

import copy
import enum
from abc import ABC, abstractmethod
from dataclasses import dataclass
from typing import Any

import pytest

from tests import graphs
from tests.graphs import Colour, Plain, describe, numbered
from tests.python import _object_layer as layer
from tests.python.test_deep_copy import needs_native


def assert_copied_as_python_does(graph: Any) -> None:
    original = numbered(graph)
    expected = graphs.outcome(copy.deepcopy, graph, original)
    assert graphs.outcome(layer.native_deepcopy, graph, original) == expected


def fresh_class() -> Any:
    """A plain class that the native copy has already come to know."""

    class Late:
        def __init__(self) -> None:
            self.value = [1]

    for _ in range(3):
        layer.native_deepcopy([Late()])
    return Late


HOOKS = {
    "__deepcopy__": lambda self, memo: "hook",
    "__reduce_ex__": lambda self, protocol: (str, ("hook",)),
    "__reduce__": lambda self: (str, ("hook",)),
    "__getstate__": lambda self: {"value": "state"},
    "__setstate__": lambda self, state: self.__dict__.update(restored=state),
    "__getattr__": lambda self, name: (lambda memo: "hook") if name == "__deepcopy__" else None,
    "__new__": lambda cls, *given: object.__new__(cls),
    "__getnewargs__": lambda self: (),
}


@pytest.mark.parametrize("name", HOOKS)
def test_a_hook_set_on_a_known_class_is_found(name: str) -> None:
    """The class was copied natively before it got the hook."""
    late = fresh_class()
    instance = late()
    setattr(late, name, HOOKS[name])
    assert_copied_as_python_does([instance])


def test_a_slot_written_into_the_list_of_a_known_class_is_copied() -> None:
    """copyreg keeps that list on the class, where any program may write into it."""
    late = fresh_class()
    seen: list[str] = []

    def get(self: Any) -> str:
        seen.append("get")
        return "value"

    late.slot = property(get, lambda self, value: seen.append("set"))
    layer.native_deepcopy([late()])
    late.__slotnames__.append("slot")
    layer.native_deepcopy([late()])
    assert seen == ["get", "set"]


@pytest.mark.parametrize("name", HOOKS)
def test_a_hook_set_on_a_base_of_a_known_class_is_found(name: str) -> None:
    """Classes look into their bases."""

    class Base:
        pass

    class Derived(Base):
        pass

    for _ in range(3):
        layer.native_deepcopy(Derived())
    instance = Derived()
    instance.value = [1]  # type: ignore[attr-defined]
    setattr(Base, name, HOOKS[name])
    assert_copied_as_python_does([instance])


def test_a_property_in_the_place_of_the_class_or_the_dictionary_is_asked() -> None:
    """Both are read as attributes."""

    class OtherClass:
        @property
        def __class__(self) -> Any:  # type: ignore[override]
            return Plain

    class OtherDict:
        def __init__(self) -> None:
            self.value = [1]

        @property
        def __dict__(self) -> Any:  # type: ignore[override]
            return own

    class Stolen:
        __dict__ = Plain.__dict__["__dict__"]

    own: dict[str, Any] = {"value": "from a property"}
    for _ in range(3):
        for thing in (OtherClass(), OtherDict()):
            assert_copied_as_python_does([thing])
        stolen = Stolen()
        stolen.value = 1  # type: ignore[attr-defined]
        with pytest.raises(TypeError, match="descriptor '__dict__'"):
            layer.native_deepcopy(stolen)


@pytest.mark.parametrize(
    "name", ["__deepcopy__", "__reduce_ex__", "__reduce__", "__getstate__", "__other__", "__dict__"]
)
def test_a_hook_on_the_instance_is_found(name: str) -> None:
    """deepcopy asks the instance, not only its class."""
    instance = fresh_class()()
    instance.__dict__[name] = lambda *given: "hook" if name == "__deepcopy__" else (str, ("hook",))
    assert_copied_as_python_does([instance])


def test_a_hook_on_an_instance_is_found_beside_instances_without() -> None:
    """They share the table of their attributes' names."""
    late = fresh_class()
    instances = [late(), late(), late()]
    instances[1].__dict__["__deepcopy__"] = lambda memo: "hook"
    copied = layer.native_deepcopy(instances)
    assert copied[1] == "hook"
    assert type(copied[0]) is type(copied[2]) is late


def test_a_hook_of_a_new_class_of_the_instance_is_found() -> None:
    """`instance.__class__` may be assigned."""
    instance = fresh_class()()
    other = fresh_class()
    other.__deepcopy__ = HOOKS["__deepcopy__"]
    instance.__class__ = other
    assert layer.native_deepcopy([instance]) == ["hook"]


def test_a_hook_on_a_metaclass_does_not_concern_the_class() -> None:
    """Classes are their own copies, whatever their metaclass."""

    class Meta(type):
        def __deepcopy__(cls, memo: Any) -> str:
            return "hook"

    class Made(metaclass=Meta):
        pass

    assert layer.native_deepcopy([Made]) == [Made]
    assert_copied_as_python_does([Made()])


def test_getattribute_is_asked() -> None:
    """A class with its own attribute access is never copied natively."""
    seen = []

    class Watching:
        def __getattribute__(self, name: str) -> Any:
            seen.append(name)
            return object.__getattribute__(self, name)

    watching = Watching()
    layer.native_deepcopy([watching])
    native = seen[:]
    seen.clear()
    copy.deepcopy([watching])
    assert native == seen != []


def test_names_of_attributes_that_are_no_texts_are_copied() -> None:
    """A __dict__ may hold any key."""
    instance = fresh_class()()
    instance.__dict__[(1, 2)] = [3]
    instance.__dict__[5] = "x"
    assert_copied_as_python_does([instance])


def test_the_slot_names_that_copyreg_leaves_on_a_class_are_left() -> None:
    """The first copy of an instance records the names of the slots on its class."""

    class New:
        pass

    layer.native_deepcopy(New())
    assert New.__dict__["__slotnames__"] == []


def test_an_instance_of_an_abstract_class_is_refused() -> None:
    """object.__new__ raises, as it does when deepcopy calls it."""

    class Abstract:
        pass

    made = Abstract()
    Abstract.__abstractmethods__ = frozenset({"x"})  # type: ignore[attr-defined]
    with pytest.raises(TypeError):
        layer.native_deepcopy([made])

    class Required(ABC):
        @abstractmethod
        def required(self) -> None: ...

    assert layer.native_deepcopy(Required) is Required


def test_a_finaliser_is_not_called_for_an_attempt_that_was_given_up() -> None:
    """Instances with __del__ are copied once, also beside something unusual."""
    ended = []

    class Ending:
        def __del__(self) -> None:
            ended.append(1)

    value = [Ending(), {1, 2}]
    layer.native_deepcopy(value)
    ended.clear()
    copied = layer.native_deepcopy(value)
    assert ended == []
    del copied
    assert ended == [1]


@pytest.mark.parametrize("thing", [*graphs.SLOTTED, *graphs.WITH_BUILT_IN_BASES])
def test_slots_and_built_in_bases_are_copied(thing: Any) -> None:
    """With and without content, alone and twice in one graph."""
    made = thing()
    if thing in graphs.SLOTTED:
        made.x = [made]
    assert_copied_as_python_does([made, made, [made]])


@pytest.mark.parametrize("frozen", [True, False])
def test_dataclasses_with_slots_by_hand_and_frozen_ones_are_copied(frozen: bool) -> None:
    """Frozen dataclasses refuse setattr, which copying does not use."""

    @dataclass(frozen=frozen)
    class Point:
        x: Any
        y: Any = 1

    assert_copied_as_python_does([Point([1]), Point((1, [2]))])


class Other(enum.Enum):
    A = "a"
    B = "b"


def test_members_of_enumerations_are_their_own_copies() -> None:
    """Plain, with equal values elsewhere, integer, flag and combined members."""
    members = [*Colour, graphs.Count.ONE, graphs.Bits.A, graphs.Bits.A | graphs.Bits.B, graphs.Custom.X]
    for member in members:
        assert layer.native_deepcopy(member) is copy.deepcopy(member)
    assert_copied_as_python_does(members)


@needs_native
def test_plain_members_take_the_way_without_python_code() -> None:
    """Once verified they cost next to nothing."""
    assert layer.plain_copy(Other.A) is Other.A


def test_a_changed_enumeration_is_found_out() -> None:
    """Hooks, another reduction, another value, another member under the value: after the member was known."""

    def known(members: str) -> Any:
        made = enum.Enum("Made", members)  # type: ignore[misc]
        for member in made:
            layer.native_deepcopy(member)
        return made

    plain = [known("A B") for _ in range(6)]
    plain[0].__reduce_ex__ = lambda self, protocol: (str, ("reduced",))
    plain[1].__deepcopy__ = lambda self, memo: "hook"
    plain[2].A.__dict__["__deepcopy__"] = lambda memo: "hook"
    plain[3].A._value_ = 2
    plain[4]._value2member_map_[1] = plain[4].B
    plain[5].__new__ = lambda cls, value: "made"
    for made in plain:
        expected = copy.deepcopy(made.A)
        assert layer.native_deepcopy(made.A) is expected or layer.native_deepcopy(made.A) == expected
    if not hasattr(enum.Enum, "__deepcopy__"):  # newer ones answer for their copies before they are reduced
        assert layer.native_deepcopy(plain[0].A) == "reduced"
        assert layer.native_deepcopy(plain[3].A) is plain[3].B


def test_a_changed_metaclass_of_enumerations_is_found_out(monkeypatch: pytest.MonkeyPatch) -> None:
    """Members are found by calling the class."""
    layer.native_deepcopy(Other.A)
    monkeypatch.setattr(enum.EnumMeta, "__call__", lambda cls, *given, **named: "called")
    native = layer.native_deepcopy(Other.A)
    expected = copy.deepcopy(Other.A)
    monkeypatch.undo()
    assert native == expected


def test_a_member_with_a_changeable_value_is_copied_by_way_of_its_value() -> None:
    """Its value is copied and looked up again."""
    assert layer.native_deepcopy(Colour.LIST) is Colour.LIST
    assert describe(layer.native_deepcopy([Colour.LIST]), {}) == describe(copy.deepcopy([Colour.LIST]), {})
