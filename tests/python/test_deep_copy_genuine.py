"""The native copy serves only while copy, copyreg and the built-ins are as the interpreter brings them."""

from __future__ import annotations

import builtins
import copy
import copyreg
import subprocess
import sys
from typing import Any

import pytest

from tests.graphs import Plain, Record
from tests.python import _object_layer as layer
from tests.python.test_deep_copy import needs_native


@pytest.fixture(autouse=True)
def warm() -> None:
    """Let every type used here be known before it is tampered with."""
    for _ in range(3):
        layer.native_deepcopy([Record(a=Plain())])


@needs_native
def test_a_replaced_name_in_copy_does_not_matter(monkeypatch: pytest.MonkeyPatch) -> None:
    """`from copy import deepcopy` binds a function; who later replaces copy.deepcopy does not reach it."""
    monkeypatch.setattr(copy, "deepcopy", lambda value, memo=None: "replaced")
    assert layer.is_native(None)
    assert layer.native_deepcopy([[1]]) == [[1]]


def test_another_class_of_the_module_copyreg_is_noticed(monkeypatch: pytest.MonkeyPatch) -> None:
    """Its attributes may be properties then, which copying a plain object reads."""
    seen: list[str] = []

    class Module(type(copyreg)):  # type: ignore[misc]
        @property
        def __newobj__(self) -> Any:
            seen.append("read")
            return vars(self)["__newobj__"]

    monkeypatch.setattr(copyreg, "__class__", Module)
    layer.native_deepcopy([Record(a=1)])
    assert seen == ["read"]


def test_the_modules_own_name_is_called_when_it_is_replaced(monkeypatch: pytest.MonkeyPatch) -> None:
    """A test that replaces the module's `deepcopy` sees its function called with the value alone."""
    calls: list[Any] = []
    monkeypatch.setattr(layer, "deepcopy", lambda *given, **named: calls.append((given, named)) or "mine")
    value = [1]
    assert layer.native_deepcopy(value) == "mine"
    assert calls == [((value,), {})]


def test_a_deleted_name_is_a_name_error(monkeypatch: pytest.MonkeyPatch) -> None:
    """As for any name that a Python function uses."""
    monkeypatch.delattr(layer, "deepcopy")
    with pytest.raises(NameError, match="name 'deepcopy' is not defined"):
        layer.native_deepcopy([1])


@pytest.mark.parametrize("type_", [list, dict, tuple, str, int, type(None)], ids=lambda type_: type_.__name__)
def test_a_changed_dispatch_entry_of_a_built_in_is_honoured(
    type_: type, monkeypatch: pytest.MonkeyPatch
) -> None:
    """copy._deepcopy_dispatch decides, also for what is usually copied natively."""
    value = {list: [1], dict: {"a": 1}, tuple: ([],), str: "text", int: 7, type(None): None}[type_]
    monkeypatch.setitem(copy._deepcopy_dispatch, type_, lambda value, memo: "other")  # type: ignore[attr-defined]
    assert layer.native_deepcopy(value) == "other"
    if type_ is not dict:  # the state of an object is one, and cannot be restored from the other thing
        assert layer.native_deepcopy(Plain(a=value)).__dict__ == copy.deepcopy(Plain(a=value)).__dict__
    monkeypatch.undo()
    assert layer.native_deepcopy(value) == value


def test_an_added_dispatch_entry_of_a_class_is_honoured(monkeypatch: pytest.MonkeyPatch) -> None:
    """And no longer when it is gone."""
    monkeypatch.setitem(copy._deepcopy_dispatch, Record, lambda value, memo: "record")  # type: ignore[attr-defined]
    assert layer.native_deepcopy([Record()]) == ["record"]
    monkeypatch.undo()
    assert layer.native_deepcopy([Record()]) == [Record()]


def test_a_registered_reducer_is_honoured(monkeypatch: pytest.MonkeyPatch) -> None:
    """copyreg.dispatch_table, changed after the type was first copied."""
    monkeypatch.setitem(copyreg.dispatch_table, Record, lambda value: (str, ("reduced",)))
    assert layer.native_deepcopy([Record()]) == ["reduced"]
    monkeypatch.undo()
    assert layer.native_deepcopy([Record()]) == [Record()]


@pytest.mark.parametrize(
    "name", ["_deepcopy_list", "_deepcopy_dict", "_deepcopy_atomic", "_reconstruct", "_keep_alive"]
)
def test_a_replaced_helper_of_copy_ends_the_native_way(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """What they do cannot be known any more."""
    monkeypatch.setattr(copy, name, lambda *arguments, **named: None)
    assert not layer.is_native(None)


@needs_native
def test_a_helper_that_is_put_back_brings_the_native_way_back(monkeypatch: pytest.MonkeyPatch) -> None:
    """Only the content counts, not that it was once another."""
    monkeypatch.setattr(copy, "_keep_alive", lambda *arguments: None)
    monkeypatch.undo()
    assert layer.is_native(None)


@pytest.mark.parametrize("name", ["id", "getattr", "issubclass", "type"])
def test_a_built_in_shadowed_in_copy_or_replaced_ends_the_native_way(
    name: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    """deepcopy looks them up by name."""
    genuine = getattr(builtins, name)
    monkeypatch.setattr(copy, name, genuine, raising=False)
    assert not layer.is_native(None)
    monkeypatch.undo()
    monkeypatch.setattr(builtins, name, lambda *given: genuine(*given))
    native = layer.is_native(None)
    monkeypatch.undo()
    assert not native


@needs_native
def test_changed_code_of_deepcopy_ends_the_native_way(monkeypatch: pytest.MonkeyPatch) -> None:
    """The function is the same object, but does something else."""

    def other(x: Any, memo: Any = None, _nil: Any = []) -> str:  # noqa: B006
        return "other"

    monkeypatch.setattr(layer.deepcopy, "__code__", other.__code__)
    assert not layer.is_native(None)
    assert layer.native_deepcopy([1]) == "other"


PATCHED_BEFORE_THE_IMPORT = """
import copy
genuine = copy.deepcopy
def deepcopy(x, memo=None, _nil=[]):
    return "patched"
copy.deepcopy = {replacement}
from tests.python import _object_layer as layer
assert not layer.is_native(None)
assert layer.native_deepcopy([1]) == "patched"
"""


@pytest.mark.parametrize(
    "replacement",
    ["deepcopy", "__import__('functools').wraps(genuine)(deepcopy)", "lambda x, memo=None: deepcopy(x)"],
    ids=["function", "wrapped", "lambda"],
)
def test_a_deepcopy_that_was_patched_before_the_import_is_called(replacement: str) -> None:
    """The module binds what copy holds at that moment, and it is not the interpreter's."""
    program = PATCHED_BEFORE_THE_IMPORT.format(replacement=replacement)
    subprocess.run([sys.executable, "-c", program], check=True)
