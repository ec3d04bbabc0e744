"""Attributes of classes themselves, whose place is remembered: read and called as the interpreter would."""

from __future__ import annotations

import enum
from typing import Any

import pytest

from tests.python import _object_layer as layer


def read(kind: Any) -> Any:
    return layer.get_name(kind)


def call(kind: Any) -> Any:
    return layer.call_method(kind, 1, 2)


class Meta(type):
    pass


def known(value: Any, *, base: type = object) -> Any:
    """A class whose attribute has been read so often that its place is remembered."""
    kind = Meta("Kind", (base,), {} if value is None else {"name": value})
    for _ in range(4):
        read(kind)
    return kind


def test_a_replaced_or_deleted_value_counts() -> None:
    """Also one of a base, and one that comes to hide it."""

    class Base:
        name = "of the base"

    kind = known("own", base=Base)
    kind.name = "new"
    assert read(kind) == "new"
    del kind.name
    assert read(kind) == "of the base"
    read(kind)
    Base.name = "changed"
    assert read(kind) == "changed"
    kind.name = "hides"
    assert read(kind) == "hides"
    del kind.name, Base.name
    with pytest.raises(AttributeError, match="name"):
        read(kind)


def test_members_of_an_enumeration_are_read() -> None:
    """Its metaclass has a __getattr__, which is asked for missing names only."""

    class State(enum.Enum):
        name_ = 1

    State.name = "plain"  # type: ignore[assignment]
    assert [read(State) for _ in range(4)] == ["plain"] * 4


@pytest.mark.parametrize("hook", ["__getattribute__", "__getattr__"])
def test_attribute_access_of_the_metaclass_is_called(hook: str) -> None:
    """Also when it is defined after the place was remembered."""
    kind = known("own")
    setattr(Meta, hook, lambda cls, name: "hooked")
    try:
        assert read(kind) == ("hooked" if hook == "__getattribute__" else "own")
        del kind.name
        assert read(kind) == "hooked"
    finally:
        delattr(Meta, hook)


def test_a_property_of_the_metaclass_goes_first() -> None:
    """A data descriptor there hides what the class has; a plain value there does not."""
    kind = known("own")
    Meta.name = property(lambda cls: "computed")  # type: ignore[attr-defined]
    try:
        assert read(kind) == "computed"
        Meta.name = "of the metaclass"  # type: ignore[attr-defined]
        assert [read(kind), read(kind), read(kind)] == ["own"] * 3
    finally:
        del Meta.name  # type: ignore[attr-defined]
    assert read(kind) == "own"


def test_another_metaclass_counts() -> None:
    """`cls.__class__` may be assigned."""
    kind = known("own")
    other = type("Other", (Meta,), {"name": property(lambda cls: "computed")})
    kind.__class__ = other
    assert read(kind) == "computed"


def test_a_value_that_turns_into_a_descriptor_is_asked() -> None:
    """Its class may get a __get__, or it may get another class; the class that holds it stays as it is."""

    class Value:
        pass

    class Described:
        def __get__(self, instance: Any, owner: Any) -> tuple[Any, Any]:
            return instance, owner

    first, second = Value(), Value()
    kind, other = known(first), known(second)
    assert read(kind) is first
    Value.__get__ = Described.__get__  # type: ignore[attr-defined]
    assert read(kind) == (None, kind)
    del Value.__get__  # type: ignore[attr-defined]
    assert [read(other) for _ in range(3)] == [second] * 3
    second.__class__ = Described  # type: ignore[assignment]
    assert read(other) == (None, other)


def test_a_static_method_gives_what_it_wraps_now() -> None:
    """Its __init__ can be called again."""
    method = staticmethod("wrapped")  # type: ignore[arg-type]
    kind = known(method)
    assert read(kind) == "wrapped"
    method.__init__("another")  # type: ignore[misc, arg-type]
    assert read(kind) == "another"


@pytest.mark.parametrize("other", [staticmethod(len), classmethod(len), 7], ids=["static", "class", "value"])
@pytest.mark.parametrize("held", [staticmethod(max), "value"], ids=["static", "value"])
def test_a_class_that_cannot_be_learnt_leaves_what_is_known_of_another(held: Any, other: Any) -> None:
    """Its metaclass has something under the name: what is remembered of the first class stays whole."""

    class Hiding(type):
        name = "of the metaclass"

    kind, hidden = known(held), Hiding("Hidden", (), {"name": other})
    for _ in range(4):
        assert read(hidden) == hidden.name
        assert read(kind) == kind.name


def test_a_class_method_is_called_with_the_class() -> None:
    """That of the call, not of the class that holds it; what it wraps at the call; any callable."""

    class Base:
        @classmethod
        def method(cls, *given: Any, **named: Any) -> Any:
            return cls, given, named

    class Derived(Base):
        pass

    for kind in (Base, Base, Base, Derived, Derived, Derived, Base, Derived):
        assert call(kind) == (kind, (1,), {"second": 2})
    wrapper = vars(Base)["method"]
    wrapper.__init__(lambda cls, *given, **named: ("again", cls))
    assert call(Derived) == ("again", Derived)
    wrapper.__init__(dict)
    with pytest.raises(TypeError):
        call(Derived)
    Base.method = staticmethod(lambda *given, **named: ("static", given))  # type: ignore[assignment]
    assert call(Derived) == ("static", (1,))
    Derived.method = lambda *given, **named: ("function", given)  # type: ignore[assignment]
    assert call(Derived) == ("function", (1,))


def test_a_static_method_is_called_without_the_class() -> None:
    """What it wraps at the call; another kind of attribute under the name counts at once."""

    class Kind:
        @staticmethod
        def method(*given: Any, **named: Any) -> Any:
            return given, named

    for _ in range(4):
        assert call(Kind) == ((1,), {"second": 2})
    vars(Kind)["method"].__init__(lambda *given, **named: "again")
    assert call(Kind) == "again"
    vars(Kind)["method"].__init__("a text")
    with pytest.raises(TypeError, match="'str' object is not callable"):
        call(Kind)
    Kind.method = classmethod(lambda cls, *given, **named: cls)  # type: ignore[assignment]
    assert [call(Kind) for _ in range(4)] == [Kind] * 4
    Kind.method = lambda *given, **named: "function"  # type: ignore[assignment]
    assert call(Kind) == "function"
    del Kind.method
    with pytest.raises(AttributeError, match="method"):
        call(Kind)


def test_the_static_method_of_the_call_outlives_a_change_by_its_arguments() -> None:
    """It is looked up before the arguments, as in Python."""

    class Kind:
        @staticmethod
        def method(*given: Any, **named: Any) -> Any:
            return "first"

    def argument() -> None:
        Kind.method = staticmethod(lambda *given, **named: "second")  # type: ignore[assignment]

    for _ in range(4):
        assert call(Kind) == "first"
    assert layer.call_method_of_answers(Kind, argument) == "first"
    assert call(Kind) == "second"


def test_a_class_that_computes_the_attribute_is_asked_each_time() -> None:
    """Also when it has been given up, and until it holds a plain value."""

    class Computed:
        def __get__(self, instance: Any, owner: Any) -> Any:
            asked.append(owner)
            return len(asked)

    asked: list[Any] = []
    kind = type("Kind", (), {"name": Computed()})
    assert [read(kind) for _ in range(5)] == [1, 2, 3, 4, 5]
    other = type("Other", (), {"name": "own"})
    assert [read(other) for _ in range(4)] == ["own"] * 4
    kind.name = "plain"
    assert [read(kind) for _ in range(4)] == ["plain"] * 4
    assert asked == [kind] * 5


def test_a_class_method_is_bound_to_instances_as_well() -> None:
    """A name may be called on classes and on their instances in turns."""

    class Kind:
        @classmethod
        def method(cls, *given: Any, **named: Any) -> Any:
            return cls

    thing = Kind()
    for caller in (Kind, thing, Kind, thing, thing, Kind, Kind):
        assert call(caller) is Kind


def test_classes_that_are_gone_leave_nothing_to_go_wrong() -> None:
    """The address of a class or of its value may be used again."""
    for number in range(300):
        kind = type("Short", (), {"name": [number]})
        assert [read(kind), read(kind), read(kind)] == [[number]] * 3


def test_of_many_classes_in_turns_each_gives_its_own() -> None:
    """One place is remembered for each name in the source."""
    kinds = [type(f"Kind{number}", (), {"name": number}) for number in range(5)]
    for kind in [*kinds, *kinds, *(kind for kind in kinds for _ in range(3))]:
        assert f"Kind{read(kind)}" == kind.__name__
