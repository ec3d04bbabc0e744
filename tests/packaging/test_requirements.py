"""What is imported is declared, and what is installed is pinned with hashes."""

from __future__ import annotations

import ast
import re
import sys
from collections.abc import Iterator
from importlib.metadata import packages_distributions
from pathlib import Path
from typing import Any

import pytest
from packaging.requirements import Requirement

if sys.version_info >= (3, 11):
    import tomllib
else:
    import tomli as tomllib

ROOT = Path(__file__).parents[2]
REQUIREMENTS = ROOT / "requirements"
LOCK = REQUIREMENTS / "constraints.txt"
OURS = {"tovarincore", "stage", "demo", "tests", "benchmarks", "scripts"}
# Of the interpreter's own tests, and beside a file.
OTHERS = {"_testcapi", "settings_tables"}


def plain(name: str) -> str:
    """A package's name as indexes compare it."""
    return re.sub(r"[-_.]+", "-", name).lower()


def project() -> dict[str, Any]:
    """The table of the project."""
    table: dict[str, Any] = tomllib.loads((ROOT / "pyproject.toml").read_text(encoding="utf-8"))["project"]
    return table


def imported(folder: str) -> dict[str, str]:
    """The distributions that a folder's files import, each with one of the files."""
    found: dict[str, str] = {}
    distributions = packages_distributions()
    for path in (ROOT / folder).rglob("*.py"):
        for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
            names = []
            if isinstance(node, ast.Import):
                names = [alias.name for alias in node.names]
            elif isinstance(node, ast.ImportFrom) and node.module and not node.level:
                names = [node.module]
            for top in {name.partition(".")[0] for name in names} - OURS - OTHERS - sys.stdlib_module_names:
                if top != "tomllib":
                    found[plain(distributions.get(top, [top])[0])] = str(path.relative_to(ROOT))
    return found


def pins(path: Path) -> Iterator[tuple[str, str]]:
    """Names and versions that a file of requirements states."""
    for line in path.read_text(encoding="utf-8").splitlines():
        if stated := re.match(r"([\w.-]+)==([^\s;\\]+)", line):
            yield plain(stated[1]), stated[2]


def test_what_the_package_imports_is_declared() -> None:
    """Each distribution stands in pyproject.toml, as a dependency or in an extra."""
    table = project()
    texts = [*table["dependencies"], *sum(table["optional-dependencies"].values(), [])]
    declared = {plain(Requirement(text).name) for text in texts}
    assert {name: file for name, file in imported("tovarincore").items() if name not in declared} == {}


@pytest.mark.parametrize("folder", ["stage", "demo", "tests", "benchmarks", "scripts"])
def test_what_development_imports_is_pinned(folder: str) -> None:
    """Each stands in a file of requirements by its own name, not only because another brings it along."""
    pinned = {name for path in REQUIREMENTS.glob("*.txt") if path != LOCK for name, _ in pins(path)}
    assert {name: file for name, file in imported(folder).items() if name not in pinned} == {}


def test_each_pinned_version_is_locked_with_its_hashes() -> None:
    """`make lock` writes them, after a change of a version."""
    locked: dict[str, set[str]] = {}
    for name, version in pins(LOCK):
        locked.setdefault(name, set()).add(version)
    wanted = [pin for path in REQUIREMENTS.glob("*.txt") if path != LOCK for pin in pins(path)]
    assert [pin for pin in wanted if pin[1] not in locked.get(pin[0], set())] == []
    blocks = re.split(r"\n(?=\w)", LOCK.read_text(encoding="utf-8").partition("\n")[2])
    assert [block.splitlines()[0] for block in blocks if "--hash=sha256:" not in block] == []


def test_a_lower_bound_is_not_above_the_pinned_version() -> None:
    """The pinned set is one that the package allows."""
    table = project()
    pinned = dict(pins(LOCK))
    for text in [*table["dependencies"], *sum(table["optional-dependencies"].values(), [])]:
        requirement = Requirement(text)
        assert requirement.specifier.contains(pinned[plain(requirement.name)]), text
