"""The types of the extension's methods for the API reference, from its stub.

The methods themselves carry few annotations, as the classes that they stand for do.
"""

import ast
import re
from pathlib import Path
from typing import Any

__all__ = ["typed_signatures"]

Signature = tuple[str, str | None]


def typed_signatures(stub: Path, module: str) -> dict[str, Signature]:
    """Return what stands behind the name of each method: parameters with types, and the result's type.

    :param stub: the stub's file
    :param module: the module that it describes
    :return: by full name of the method
    """
    tree = ast.parse(stub.read_text(encoding="utf-8"))
    aliases = {
        node.targets[0].id: ast.unparse(node.value)
        for node in tree.body
        if isinstance(node, ast.Assign) and isinstance(node.targets[0], ast.Name)
    }

    def spelled(text: str) -> str:
        return re.sub(r"\b_\w+", lambda match: aliases.get(match[0], match[0]), text)

    found: dict[str, Signature] = {}
    for owner in tree.body:
        if not isinstance(owner, ast.ClassDef):
            continue
        for method in owner.body:
            if isinstance(method, ast.FunctionDef):
                found[f"{module}.{owner.name}.{method.name}"] = (
                    f"({spelled(ast.unparse(_without_self(method)))})",
                    spelled(ast.unparse(method.returns)) if method.returns else None,
                )
    return found


def _without_self(method: ast.FunctionDef) -> Any:
    arguments = method.args
    if not any(isinstance(mark, ast.Name) and mark.id == "staticmethod" for mark in method.decorator_list):
        del (arguments.posonlyargs or arguments.args)[:1]
    return arguments
