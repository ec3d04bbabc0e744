"""The public surface, pinned in one text file: classes, bases, order, signatures, annotations, defaults."""

from __future__ import annotations

import inspect
import pydoc
import re
import typing
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

from tests.module.surface import CLASSES, surface

PINNED = Path(__file__).with_name("surface.txt")
FLUSH_DOCSTRING = """\
:param node_uuid: Node to flush workers
:param flush_all: If no node provided and need to flush all nodes
:return: IF a node is provided; worker_id's of flushed workers (so you can kill them)"""


def methods(cls: type) -> Iterator[tuple[str, Any]]:
    """Yield the functions that a class itself defines."""
    for name, member in vars(cls).items():
        function = member.__func__ if isinstance(member, staticmethod) else member
        if callable(function) and hasattr(function, "__annotations__"):
            yield name, function


def test_the_surface_is_the_pinned_one(cloud_node: ModuleType) -> None:
    """Printed and compared; `python -m tests.module.surface` prints it for a deliberate change."""
    assert surface(cloud_node) == PINNED.read_text()


def test_the_resolution_order_of_the_amazon_provider(cloud_node: ModuleType) -> None:
    """The node manager comes before the key-pair manager."""
    names = [cls.__name__ for cls in cloud_node.AWSNodeManager.__mro__]
    assert names == ["AWSNodeManager", "NodeManager", "CloudKeyPairManager", "ABC", "object"]


def test_every_parameter_is_positional_or_keyword(cloud_node: ModuleType) -> None:
    """None is keyword-only, none positional-only, none collects."""
    kinds = {
        parameter.kind
        for name in CLASSES
        for _, function in methods(getattr(cloud_node, name))
        for parameter in inspect.signature(function).parameters.values()
    }
    assert kinds == {inspect.Parameter.POSITIONAL_OR_KEYWORD}


def test_annotations_are_texts_and_the_two_forward_references_keep_their_quotes(
    cloud_node: ModuleType,
) -> None:
    """The names behind them are bound for type checkers alone."""
    manager = cloud_node.AWSNodeManager
    assert manager._create_session.__annotations__["return"] == "'Session'"
    assert manager._get_client.__annotations__["return"] == "'BaseClient'"
    values = [
        v
        for name in CLASSES
        for _, f in methods(getattr(cloud_node, name))
        for v in f.__annotations__.values()
    ]
    assert {type(value) for value in values} == {str}


def test_annotations_resolve_in_the_modules_namespace(cloud_node: ModuleType) -> None:
    """But for the two names that are bound for type checkers alone."""
    for name in CLASSES:
        for method, function in methods(getattr(cloud_node, name)):
            if method not in ("_create_session", "_get_client"):
                typing.get_type_hints(function)
    hints = typing.get_type_hints(cloud_node.NodeManager.set_node_list)
    assert typing.get_args(hints["node_list"]) == (cloud_node.CloudNode,)


def test_exactly_two_methods_are_static(cloud_node: ModuleType) -> None:
    """The session and the private choice of a template, under its mangled name."""
    static = {
        f"{name}.{member}"
        for name in CLASSES
        for member, value in vars(getattr(cloud_node, name)).items()
        if isinstance(value, staticmethod)
    }
    assert static == {
        "AWSNodeManager._create_session",
        "CloudManager._CloudManager__extract_instance_template",
    }


def test_the_flush_of_the_pool_explains_its_parameters(cloud_node: ModuleType) -> None:
    """In the words that callers of it know."""
    assert inspect.getdoc(cloud_node.CloudManager.flush_webs_client_pool) == FLUSH_DOCSTRING


def test_inspect_shows_every_argument(cloud_node: ModuleType) -> None:
    """By the older interface too."""
    spec = inspect.getfullargspec(cloud_node.NodeManager.change_node_state)
    assert spec.args == ["self", "instance_id", "node_state", "ready"]
    assert spec.defaults == (False,)
    assert (spec.varargs, spec.varkw, spec.kwonlyargs) == (None, None, [])


def test_bound_methods_show_their_signature_without_self(cloud_node: ModuleType) -> None:
    """As bound methods of plain Python do."""
    bound = cloud_node.cloud_manager_glbl.flush_webs_client_pool
    assert str(inspect.signature(bound)) == "(node_uuid, flush_all=False)"
    assert inspect.ismethod(bound)
    assert bound.__self__ is cloud_node.cloud_manager_glbl
    assert bound.__func__ is cloud_node.CloudManager.flush_webs_client_pool


@pytest.mark.parametrize("name", CLASSES)
def test_help_shows_every_public_method_with_its_signature(cloud_node: ModuleType, name: str) -> None:
    """Defaults and annotations included; newer interpreters break long ones over several lines."""

    def joined(text: str) -> str:
        return re.sub(r"[\s|]", "", text)

    text = joined(pydoc.plain(pydoc.render_doc(getattr(cloud_node, name))))
    for method, function in methods(getattr(cloud_node, name)):
        if not method.startswith("_"):
            assert joined(f"{method}{inspect.signature(function)}") in text


def test_the_type_of_every_class_is_that_of_its_bases(cloud_node: ModuleType) -> None:
    """ABCMeta for what derives from ABC, type for the facade."""
    kinds = {name: type(getattr(cloud_node, name)).__name__ for name in CLASSES}
    assert kinds == {**dict.fromkeys(CLASSES, "ABCMeta"), "CloudManager": "type"}
    assert {getattr(cloud_node, name).__module__ for name in CLASSES} == {cloud_node.__name__}
