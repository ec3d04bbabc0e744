"""Attributes whose place is remembered: read, written and called exactly as the interpreter would."""

from __future__ import annotations

import gc
import sys
from typing import Any

import pytest

from tests.conftest import Child
from tests.python import _object_layer as layer
from tests.python.reading import ENOUGH, by_getattr, outcome


class Thing:
    def __init__(self, name: Any = "own") -> None:
        self.name = name


def read(thing: Any) -> Any:
    return layer.get_name(thing)


def known(kind: Any = Thing) -> Any:
    """An instance whose attribute has been read so often that its place is remembered."""
    thing = kind()
    for _ in range(ENOUGH):
        assert read(thing) == "own"
    return thing


def fresh() -> Any:
    return type("Fresh", (Thing,), {})


def test_a_changed_value_is_read() -> None:
    """The place is remembered, never the value."""
    thing = known()
    thing.name = "new"
    assert read(thing) == "new"
    assert read(Thing("other")) == "other"


def test_a_deleted_attribute_is_missing() -> None:
    """Or comes from the class, when that has one."""
    kind = fresh()
    thing = known(kind)
    del thing.name
    with pytest.raises(AttributeError, match="name"):
        read(thing)
    kind.name = "of the class"
    assert read(thing) == "of the class"
    assert read(known(kind)) == "own"


def test_instances_with_another_order_of_attributes_are_read_right() -> None:
    """They do not share the table of names."""

    class Odd:
        def __init__(self, first: bool) -> None:
            if first:
                self.other = "other"
            self.name = "own"

    for first in (True, False, True, False, False, True, True):
        assert read(Odd(first)) == "own"


@pytest.mark.parametrize("where", ["class", "base"])
def test_a_data_descriptor_that_comes_late_is_asked(where: str) -> None:
    """A property on the class goes before the instance's own attribute."""

    class Base:
        pass

    kind = type("Kind", (Base,), {"__init__": Thing.__init__})
    thing = known(kind)
    (kind if where == "class" else Base).name = property(lambda self: "computed")  # type: ignore[attr-defined]
    assert read(thing) == "computed"


def test_a_class_attribute_that_turns_into_a_data_descriptor_is_asked() -> None:
    """Its type may get a __set__ while the class stays as it is."""

    class Default:
        def __get__(self, instance: Any, owner: Any) -> str:
            return "described"

    kind = type("Kind", (Thing,), {"name": Default()})
    thing = known(kind)
    Default.__set__ = lambda *given: None  # type: ignore[attr-defined]
    assert read(thing) == "described"


def test_a_plain_object_on_the_class_that_turns_into_a_data_descriptor_is_asked() -> None:
    """Its type may get both methods."""

    class Default: ...

    kind = type("Kind", (Thing,), {"name": Default()})
    thing = known(kind)
    Default.__get__ = lambda *given: "described"  # type: ignore[attr-defined]
    Default.__set__ = lambda *given: None  # type: ignore[attr-defined]
    assert read(thing) == "described"


@pytest.mark.parametrize(
    "names",
    [
        {"name": property(lambda self: "asked")},
        {"__getattribute__": lambda self, name: "asked"},
        {"__getattr__": lambda self, name: "asked", "__getattribute__": lambda self, name: "asked"},
    ],
    ids=["property", "__getattribute__", "both"],
)
def test_what_goes_before_the_own_value_is_asked_each_time(names: dict[str, Any]) -> None:
    """However often it was."""
    thing = type("Asked", (), names)()
    object.__getattribute__(thing, "__dict__")["name"] = "own"
    assert {read(thing) for _ in range(ENOUGH)} == {"asked"}


@pytest.mark.parametrize("hook", ["__getattribute__", "__getattr__"])
def test_attribute_access_of_the_class_itself_is_called(hook: str) -> None:
    """Also when it is defined after the place was remembered."""
    kind = fresh()
    thing = known(kind)
    setattr(kind, hook, lambda self, name: "hooked")
    assert read(thing) == ("hooked" if hook == "__getattribute__" else "own")
    object.__delattr__(thing, "name")
    assert read(thing) == "hooked"


def test_a_new_class_of_the_instance_counts() -> None:
    """`thing.__class__` may be assigned."""
    thing = known()
    thing.__class__ = type("Other", (Thing,), {"name": property(lambda self: "computed")})
    assert read(thing) == "computed"


def test_a_replaced_dictionary_is_read() -> None:
    """And so is one that is emptied."""
    thing = known()
    thing.__dict__ = {"name": "replaced"}
    assert read(thing) == "replaced"
    thing.__dict__.clear()
    with pytest.raises(AttributeError):
        read(thing)


def test_a_class_that_is_gone_leaves_nothing_to_go_wrong() -> None:
    """The address of a class or of its table of names may be used again."""
    for number in range(300):
        kind = type("Short", (), {"__init__": lambda self, n=number: setattr(self, f"a{n % 3}", n)})
        thing = kind()
        thing.name = number  # type: ignore[attr-defined]
        assert [read(thing), read(thing), read(thing)] == [number] * 3


class Key(str):
    """A text among an instance's names that lies where "name" does, and is asked first."""

    answer: Any = False

    def __hash__(self) -> int:
        return hash("name")

    def __eq__(self, other: object) -> bool:
        self.log.append(str(other))  # type: ignore[attr-defined]
        if isinstance(self.answer, BaseException):
            raise self.answer
        return bool(self.answer)


@pytest.mark.parametrize("on_class", [False, True])
@pytest.mark.parametrize("own", [False, True])
@pytest.mark.parametrize("answer", [False, True, ValueError("compared"), AttributeError("compared")], ids=str)
def test_another_key_is_compared_as_often_as_in_python(answer: Any, own: bool, on_class: bool) -> None:
    """And its answer counts, or its error."""
    thing = known(type("Fresh", (Thing,), {"name": "of the class"} if on_class else {}))

    def seen(read: Any) -> Any:
        key = Key("other")
        log: list[str] = []
        key.log = log  # type: ignore[attr-defined]
        names = {key: "of the key"}
        if own:
            names["name"] = "own"
        log.clear()
        thing.__dict__ = names
        key.answer = answer
        return outcome(read, thing), log

    assert seen(read) == seen(by_getattr)


def test_a_comparison_may_replace_the_dictionary_that_is_searched() -> None:
    """The value found is held before the dictionary goes."""

    class Replacing(Key):
        def __eq__(self, other: object) -> bool:
            self.thing.__dict__ = {}  # type: ignore[attr-defined]
            return True

        __hash__ = Key.__hash__

    thing = known()
    key = Replacing("other")
    key.thing = thing  # type: ignore[attr-defined]
    thing.__dict__ = {key: ["of", "the key"]}
    assert read(thing) == ["of", "the key"]


@pytest.mark.skipif(sys.version_info < (3, 11), reason="instances of 3.10 have a dictionary from the start")
@pytest.mark.skipif(
    sys.version_info >= (3, 13) and not layer.is_native(None),
    reason="without the fast half it makes one from 3.13 on, where the order of finalisers stays the same",
)
def test_a_read_makes_no_dictionary() -> None:
    """The collector would meet the values in another order, and run their finalisers so."""
    thing = known()
    assert [each for each in gc.get_referents(thing) if type(each) is dict] == []


COLLECTING = """
import gc
from tests.python import _object_layer as layer
class Thing:
    def __init__(self):
        self.name, self.other = "own", [1]
class Mortal:
    def __del__(self):
        self.thing.__dict__
for _ in range(70):
    layer.get_name(Thing())
for number in range(60):
    things = [Thing() for _ in range(50)]
    for thing in things:
        mortal = Mortal()
        mortal.own, mortal.thing = mortal, thing
        del mortal
        gc.set_threshold(gc.get_count()[0] + number % 3)
        layer.get_name(thing)
        gc.set_threshold(700)
    things.clear()
    gc.collect()
print("as it should be")
"""


def test_a_collection_during_a_read_may_ask_for_the_dictionary(run_child: Child) -> None:
    """CPython 3.11 gives the instance two where that happens while it makes the first."""
    child = run_child(COLLECTING, PYTHONMALLOC="debug")
    assert (child.returncode, child.stdout) == (0, "as it should be\n"), child.stderr[-3000:]


class Calling:
    def method(self, *given: Any, **named: Any) -> Any:
        return "class", given, named


def test_a_method_is_called_as_the_class_has_it() -> None:
    """Replaced on class or instance, a static method, or deleted: what is there at the call counts."""
    kind = type("Kind", (Calling,), {})
    thing = kind()
    for _ in range(ENOUGH):
        assert layer.call_method(thing, 1, 2) == ("class", (1,), {"second": 2})
    thing.method = lambda *given, **named: "instance"
    assert layer.call_method(thing, 1, 2) == "instance"
    assert layer.call_method(kind(), 1, 2) == ("class", (1,), {"second": 2})
    del thing.method
    kind.method = lambda self, *given, **named: "replaced"
    assert layer.call_method(thing, 1, 2) == "replaced"
    kind.method = staticmethod(lambda *given, **named: ("static", given))
    assert layer.call_method(thing, 1, 2) == ("static", (1,))
    del kind.method
    assert layer.call_method(thing, 1, 2)[0] == "class"


def test_an_instance_that_hides_a_method_is_found_among_those_that_do_not() -> None:
    """They share the table of names, which grows by the name of the method."""
    things = [Calling() for _ in range(6)]
    for thing in things:
        thing.other = 1  # type: ignore[attr-defined]
        layer.call_method(thing, 1, 2)
    things[3].method = lambda *given, **named: "hidden"  # type: ignore[method-assign]
    answers = [layer.call_method(thing, 1, 2) for thing in [*things, *things]]
    assert [answer == "hidden" for answer in answers] == [False, False, False, True, False, False] * 2


def test_a_global_name_is_looked_up_anew_when_the_module_or_the_built_ins_change(
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """Set, replaced, deleted, and found in the built-ins behind a deleted one."""
    import builtins

    for value in (1, 2, None):
        monkeypatch.setattr(layer, "a_global_of_the_test", value, raising=False)
        assert [layer.read_global(None), layer.read_global(None)] == [value, value]
    monkeypatch.setattr(builtins, "a_global_of_the_test", "built in", raising=False)
    assert layer.read_global(None) is None
    monkeypatch.delattr(layer, "a_global_of_the_test")
    assert layer.read_global(None) == "built in"
    monkeypatch.delattr(builtins, "a_global_of_the_test")
    with pytest.raises(NameError):
        layer.read_global(None)
    monkeypatch.undo()
    with pytest.raises(NameError):
        layer.read_global(None)
