"""Attributes of modules, looked for in their dictionary at once: found as the interpreter finds them."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.python import _object_layer as layer


def made(**names: Any) -> ModuleType:
    module = ModuleType("made")
    vars(module).update(names)
    return module


def method(*given: Any, **named: Any) -> Any:
    return given, named


def test_names_are_read_and_functions_called_without_the_module() -> None:
    """Also in a module from which a name was deleted."""
    module = made(name="value", method=method, gone=1)
    for _ in range(3):
        assert layer.get_name(module) == "value"
        assert layer.call_method(module, 1, 2) == ((1,), {"second": 2})
    del module.gone
    assert layer.get_name(module) == "value"
    module.name = "other"
    assert layer.get_name(module) == "other"


def test_a_missing_name_is_asked_of_the_modules_own_function() -> None:
    """Or is an AttributeError that names the module."""
    module = made()
    with pytest.raises(AttributeError, match="module 'made' has no attribute 'name'"):
        layer.get_name(module)
    with pytest.raises(AttributeError, match="module 'made' has no attribute 'method'"):
        layer.call_method(module, 1, 2)
    vars(module)["__getattr__"] = lambda name: f"computed {name}"
    assert layer.get_name(module) == "computed name"


def test_a_module_of_another_class_is_asked_as_its_class_says() -> None:
    """A class may be given to a module that exists."""

    class Computing(ModuleType):
        name = property(lambda self: "computed")

    module = made(name="stored")
    assert layer.get_name(module) == "stored"
    module.__class__ = Computing
    assert layer.get_name(module) == "computed"


def test_keys_with_methods_of_their_own_are_compared() -> None:
    """A module's dictionary may hold anything."""
    seen: list[object] = []

    class Key(str):
        def __eq__(self, other: object) -> bool:
            seen.append(other)
            return str(self) == other

        __hash__ = str.__hash__

    module = made()
    vars(module)[Key("name")] = "found"
    assert layer.get_name(module) == "found"
    assert seen == ["name"]
