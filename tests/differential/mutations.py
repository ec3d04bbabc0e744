"""Shows that the differential runs can fail: single-line mutations of the twin, each of which they
should find.

python -m tests.differential.mutations --count 80
"""

from __future__ import annotations

import argparse
import ast
import copy
import random
import sys
from dataclasses import dataclass
from itertools import islice, zip_longest
from types import ModuleType
from typing import Any, Callable, Iterator, Optional

from tests.differential.runner import Case, cases, run
from tests.twin import cloud_node as twin

Recorded = list[tuple[Case, list[tuple[str, ...]]]]
Change = Callable[[ast.AST], Optional[ast.AST]]


def _negate(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.If):
        node.test = ast.UnaryOp(ast.Not(), node.test)
        return node
    return None


def _other_constant(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.Constant) and not isinstance(node.value, ast.expr):
        if isinstance(node.value, bool):
            return ast.Constant(not node.value)
        if isinstance(node.value, int):
            return ast.Constant(node.value + 1)
        if isinstance(node.value, str):
            return ast.Constant(node.value + "?")
    return None


def _other_comparison(node: ast.AST) -> Optional[ast.AST]:
    others: dict[type, type] = {
        ast.Eq: ast.NotEq,
        ast.Is: ast.IsNot,
        ast.IsNot: ast.Is,
        ast.Gt: ast.LtE,
        ast.Lt: ast.GtE,
        ast.In: ast.NotIn,
    }
    if isinstance(node, ast.Compare) and type(node.ops[0]) in others:
        node.ops[0] = others[type(node.ops[0])]()
        return node
    return None


def _truth_for_identity(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.Compare) and isinstance(node.ops[0], (ast.Is, ast.IsNot)):
        test: ast.expr = node.left
        return ast.UnaryOp(ast.Not(), test) if isinstance(node.ops[0], ast.Is) else test
    return None


def _or_for_and(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.BoolOp):
        node.op = ast.Or() if isinstance(node.op, ast.And) else ast.And()
        return node
    return None


def _swapped_operands(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.Compare) and isinstance(node.ops[0], ast.Eq):
        if not isinstance(node.left, ast.Constant) and not isinstance(node.comparators[0], ast.Constant):
            node.left, node.comparators[0] = node.comparators[0], node.left
            return node
    return None


def _swapped_keywords(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.Call) and len(node.keywords) > 1:
        node.keywords[0], node.keywords[1] = node.keywords[1], node.keywords[0]
        return node
    return None


def _without_keyword(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.Call) and node.keywords:
        node.keywords.pop()
        return node
    return None


def _without_statement(node: ast.AST) -> Optional[ast.AST]:
    return ast.Pass() if isinstance(node, (ast.Expr, ast.Assign, ast.Break, ast.Return, ast.Assert)) else None


def _swapped_statements(node: ast.AST) -> Optional[ast.AST]:
    body = getattr(node, "body", None)
    if (
        isinstance(body, list)
        and len(body) > 1
        and all(isinstance(s, (ast.Expr, ast.Assign)) for s in body[:2])
    ):
        body[0], body[1] = body[1], body[0]
        return node
    return None


def _other_handler(node: ast.AST) -> Optional[ast.AST]:
    if isinstance(node, ast.ExceptHandler):
        node.type = (
            ast.Name("Exception", ast.Load()) if node.type is None else ast.Name("BaseException", ast.Load())
        )
        return node
    return None


CHANGES: tuple[Change, ...] = (
    _negate, _other_constant, _other_comparison, _truth_for_identity, _or_for_and, _swapped_operands,
    _swapped_keywords, _without_keyword, _without_statement, _swapped_statements, _other_handler,
)  # fmt: skip


@dataclass
class Mutation:
    text: str
    module: ast.Module


class _At(ast.NodeTransformer):
    """Applies one change to the node of a given rank."""

    def __init__(self, rank: int, change: Change) -> None:
        self.rank, self.change, self.seen, self.changed = rank, change, -1, False

    def visit(self, node: ast.AST) -> Any:
        self.seen += 1
        if self.seen == self.rank:
            changed = self.change(node)
            if changed is not None:
                self.changed = True
                return ast.copy_location(changed, node)
            return node
        return self.generic_visit(node)


def _functions(tree: ast.Module) -> Iterator[ast.FunctionDef]:
    for cls in tree.body:
        if isinstance(cls, ast.ClassDef):
            for function in cls.body:
                abstract = isinstance(function, ast.FunctionDef) and any(
                    isinstance(d, ast.Name) and d.id == "abstractmethod" for d in function.decorator_list
                )
                if isinstance(function, ast.FunctionDef) and not abstract:
                    yield function


def mutations(source: str, seed: int) -> Iterator[Mutation]:
    """Single changes of the methods' bodies, in random order; signatures and docstrings are pinned by
    other tests."""
    tree = ast.parse(source)
    places = [
        (index, statement_index, rank, change)
        for index, function in enumerate(_functions(tree))
        for statement_index, statement in enumerate(function.body)
        if not (isinstance(statement, ast.Expr) and isinstance(statement.value, ast.Constant))
        for rank in range(sum(1 for _ in ast.walk(statement)))
        for change in CHANGES
    ]
    random.Random(seed).shuffle(places)
    functions = list(_functions(tree))
    for index, statement_index, rank, change in places:
        statement = functions[index].body[statement_index]
        transformer = _At(rank, change)
        changed = transformer.visit(copy.deepcopy(statement))
        if not transformer.changed:
            continue
        before, after = ast.unparse(statement), ast.unparse(changed)
        if after != before:
            # Of the whole module only for a change that is one: most places have nothing to change.
            mutated = copy.deepcopy(tree)
            function = list(_functions(mutated))[index]
            function.body[statement_index] = changed
            ast.fix_missing_locations(mutated)
            yield Mutation(
                f"{function.name}, {change.__name__.strip('_')}:\n{_changed_lines(before, after)}", mutated
            )


def _changed_lines(before: str, after: str) -> str:
    pairs = zip_longest(before.splitlines(), after.splitlines(), fillvalue="")
    return "\n".join(f"    {a.strip()}  ->  {b.strip()}" for a, b in pairs if a != b)


def load(tree: ast.Module) -> ModuleType:
    module = ModuleType("tests.twin.cloud_node")
    exec(compile(tree, "mutant", "exec"), vars(module))
    return module


def recorded(programs: int) -> Recorded:
    """What the twin does in that many programs, most of them undisturbed."""
    some = (case for case in cases(twin, 1_000_000, programs, failures=3))
    return [(case, run(twin, case).events) for case in some]


def found_by(module: ModuleType, some: Recorded) -> Optional[Case]:
    """The first case on which the mutated twin does something else."""
    for case, events in some:
        try:
            if run(module, case).events != events:
                return case
        except Exception:  # a mutation may break the programs themselves, which is found as well
            return case
    return None


def main() -> int:
    parser = argparse.ArgumentParser(prog="python -m tests.differential.mutations", description=__doc__)
    parser.add_argument("--count", type=int, default=80, help="how many mutations to try")
    parser.add_argument("--programs", type=int, default=4000, help="the most programs to run on each")
    parser.add_argument("--seed", type=int, default=0, help="which mutations are drawn")
    options = parser.parse_args()
    with open(str(twin.__file__), encoding="utf-8") as file:
        drawn = list(islice(mutations(file.read(), options.seed), options.count))
    some = recorded(options.programs)
    missed = 0
    for number, mutation in enumerate(drawn, 1):
        case = found_by(load(mutation.module), some)
        if case is None:
            missed += 1
            print(f"missed: {mutation.text}", flush=True)
        elif number % 20 == 0:
            print(f"{number} mutations tried, {missed} missed", flush=True)
    print(
        f"{len(drawn)} mutations tried, {len(drawn) - missed} found ({100 * (1 - missed / len(drawn)):.1f} %)"
    )
    return 1 if missed > 0.05 * len(drawn) else 0


if __name__ == "__main__":
    sys.exit(main())
