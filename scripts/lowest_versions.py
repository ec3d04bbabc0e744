"""Prints the lowest version of each dependency that pyproject.toml allows: `name==version`, one a line."""

from __future__ import annotations

import sys
from pathlib import Path

from packaging.markers import default_environment
from packaging.requirements import Requirement

if sys.version_info >= (3, 11):
    import tomllib
else:
    import tomli as tomllib


def lowest(text: str) -> str | None:
    """The lowest version that a requirement allows, or None where it does not apply to this interpreter."""
    requirement = Requirement(text)
    if requirement.marker and not requirement.marker.evaluate(dict(default_environment())):
        return None
    bounds = [each.version for each in requirement.specifier if each.operator == ">="]
    if len(bounds) != 1:
        raise SystemExit(f"pyproject.toml: {text!r} has no lower bound, or more than one")
    return f"{requirement.name}=={bounds[0]}"


def main() -> None:
    """Print them for the package and all its extras."""
    project = tomllib.loads(Path("pyproject.toml").read_text(encoding="utf-8"))["project"]
    groups = [project["dependencies"], *project["optional-dependencies"].values()]
    for found in sorted({lowest(text) for group in groups for text in group} - {None}):  # type: ignore[type-var]
        print(found)


if __name__ == "__main__":
    main()
