"""Prints the module's surface as text: `python -m tests.module.surface > tests/module/surface.txt`."""

from __future__ import annotations

import inspect
from collections.abc import Iterator
from types import ModuleType
from typing import Any

CLASSES = (
    "NodeManager",
    "CloudKeyPairManager",
    "AWSNodeManager",
    "LocalContainerNodeManager",
    "K8sNodeManager",
    "CloudManager",
)
# What a class statement adds by itself, some of it only on newer interpreters.
_GIVEN = {
    "__module__", "__doc__", "__dict__", "__weakref__", "__abstractmethods__", "_abc_impl",
    "__slotnames__",  # left by copyreg on a class whose instance was copied
}  # fmt: skip
_GIVEN |= {"__firstlineno__", "__static_attributes__"}


def surface(module: ModuleType) -> str:
    """Return names, classes, bases, order, signatures, annotations, defaults and marks, one thing a line."""
    names = [name for name in vars(module) if not name.startswith("__")]
    lines = ["names:", *(f"    {name}" for name in names)]
    for name in CLASSES:
        lines += ["", *_class(getattr(module, name))]
    return "\n".join(lines) + "\n"


def _class(cls: type) -> Iterator[str]:
    bases = ", ".join(base.__name__ for base in cls.__bases__)
    yield f"class {cls.__qualname__}({bases}):"
    yield f"    metaclass: {type(cls).__name__}"
    yield f"    resolution: {', '.join(base.__name__ for base in cls.__mro__)}"
    yield f"    abstract: {', '.join(sorted(getattr(cls, '__abstractmethods__', ()))) or 'nothing'}"
    for name, member in vars(cls).items():
        if name not in _GIVEN:
            yield from _member(name, member)


def _member(name: str, member: Any) -> Iterator[str]:
    yield ""
    if isinstance(member, staticmethod):
        yield "    @staticmethod"
        member = member.__func__
    if not callable(member):
        yield f"    {name} = {member!r}"
        return
    if getattr(member, "__isabstractmethod__", False):
        yield "    @abstractmethod"
    yield f"    def {name}{inspect.signature(member)}"
    yield f"        name: {member.__name__}, {member.__qualname__}"
    yield f"        annotations: {member.__annotations__}"
    yield f"        defaults: {member.__defaults__}, {member.__kwdefaults__}"


if __name__ == "__main__":
    from tovarincore import cloud_node

    print(surface(cloud_node), end="")
