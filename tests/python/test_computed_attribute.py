"""Attributes that a property computes: read, and failing, as `getattr` does it."""

from __future__ import annotations

import sys
from typing import Any, Callable

import pytest

from tests.python import _object_layer as layer
from tests.python.reading import ENOUGH, by_getattr, outcome


def raising(error: Callable[[], BaseException]) -> Callable[[Any], Any]:
    def compute(self: Any) -> Any:
        raise error()

    return compute


def instance(compute: Callable[[Any], Any]) -> Any:
    return type("Computing", (), {"name": property(compute)})()


def known(compute: Callable[[Any], Any]) -> Any:
    """An instance whose property has been read so often that it is remembered."""
    thing = instance(compute)
    for _ in range(ENOUGH):
        outcome(layer.get_name, thing)
    return thing


class Stubborn(AttributeError):
    def __setattr__(self, name: str, value: Any) -> None:
        raise KeyError(name)


class Unmade(AttributeError):
    def __init__(self) -> None:
        raise LookupError("made too late")


COMPUTING: dict[str, Callable[[Any], Any]] = {
    "a value": lambda self: ["computed", type(self).__name__],
    "an error": raising(lambda: ValueError("computed")),
    "an attribute error": raising(lambda: AttributeError("computed")),
    "one without arguments": raising(AttributeError),
    "one of another object": lambda self: sys.nothing,  # type: ignore[attr-defined]
    "one of another attribute": lambda self: self.nothing,
    "one with a name": raising(lambda: AttributeError("computed", name="other")),
    "one with an object": raising(lambda: AttributeError("computed", obj=3)),
    "one that takes no names": raising(Stubborn),
    "one that cannot be made": lambda self: raise_class(Unmade),
    "an exit": raising(lambda: SystemExit(3)),
}


def raise_class(error: Any) -> Any:
    raise error


@pytest.mark.parametrize("compute", COMPUTING.values(), ids=COMPUTING.keys())
def test_a_property_computes_and_fails_as_it_does_in_python(compute: Callable[[Any], Any]) -> None:
    """With the names that an AttributeError is told on its way."""
    thing = known(compute)
    assert outcome(layer.get_name, thing) == outcome(by_getattr, thing)
    assert outcome(layer.get_name, instance(compute)) == outcome(by_getattr, instance(compute))


def test_a_property_is_asked_anew_at_each_read() -> None:
    """Nothing of what it computed is kept."""
    thing = known(lambda self: self.count)
    thing.count = 1
    assert layer.get_name(thing) == 1
    thing.count = 2
    assert layer.get_name(thing) == 2


def test_a_replaced_function_of_a_property_is_called() -> None:
    """`property.__init__` may be called again."""
    thing = known(lambda self: "first")
    type(thing).name.__init__(lambda self: "second")
    assert layer.get_name(thing) == "second"
    type(thing).name.__init__()
    assert outcome(layer.get_name, thing) == outcome(by_getattr, thing)


@pytest.mark.parametrize("replaced", ["class", "value", "hook", "subclass"])
def test_a_property_that_is_gone_is_not_asked(replaced: str) -> None:
    """The class may lose it, or get another way to read attributes."""
    thing = known(lambda self: "computed")
    kind = type(thing)
    if replaced == "class":
        thing.__class__ = type("Other", (), {"name": "of the class"})
    elif replaced == "value":
        kind.name = "of the class"
    elif replaced == "hook":
        kind.__getattribute__ = lambda self, name: "of the class"
    else:
        kind.name = type("Own", (property,), {"__get__": lambda *given: "of the class"})()
    assert layer.get_name(thing) == "of the class"


def test_a_property_may_take_itself_from_its_class() -> None:
    """It is held while it computes."""

    def compute(self: Any) -> str:
        del type(self).name
        return "the last time"

    def kept(self: Any) -> Any:
        return compute(self) if self.last else "computed"

    thing = instance(kept)
    thing.last = False
    for _ in range(ENOUGH):
        assert layer.get_name(thing) == "computed"
    thing.last = True
    del kept
    assert layer.get_name(thing) == "the last time"
    with pytest.raises(AttributeError):
        layer.get_name(thing)


def test_an_attribute_of_the_instance_gives_way_to_the_property() -> None:
    """As to every data descriptor; setting it is the property's business."""
    thing = known(lambda self: "computed")
    vars(thing)["name"] = "own"
    assert layer.get_name(thing) == "computed"
