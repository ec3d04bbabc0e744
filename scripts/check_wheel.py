"""Says what a wheel carries that it should not, or lacks: scripts/check_wheel.py WHEEL."""

import re
import sys
import zipfile
from pathlib import PurePosixPath

MANUAL = re.compile(r"tovarincore-[^/]*\.data/data/share/man/man1/tovarin-nodes\.1")
SOURCES = {".cpp", ".h", ".hpp", ".c", ".o", ".txt", ".cmake"}


def faults(names: list[str]) -> list[str]:
    """Return one line for each thing wrong with the list of files of a wheel."""
    found = []
    package = [
        PurePosixPath(name)
        for name in names
        if not name.endswith("/") and ".dist-info/" not in name and not MANUAL.fullmatch(name)
    ]
    modules = [path for path in package if path.suffix == ".so"]
    if [f"{path.parent}/{path.name.split('.')[0]}" for path in modules] != ["tovarincore/cloud_node"]:
        found.append(f"expected one built module, tovarincore/cloud_node, found {[str(m) for m in modules]}")
    for path in package:
        if path.parts[0] != "tovarincore":
            found.append(f"{path} is outside the package")
        if path.suffix in SOURCES or "cloud_node" in path.parts[:-1] or path.name == "cloud_node.py":
            found.append(f"{path} is a source of the module")
    for needed in ("__init__.py", "py.typed", "cloud_node.pyi"):
        if PurePosixPath("tovarincore", needed) not in package:
            found.append(f"tovarincore/{needed} is missing")
    if not any(path.match("tovarincore/data/*.toml") for path in package):
        found.append("tovarincore/data/*.toml is missing")
    if PurePosixPath("tovarincore/pages/command.md") not in package:
        found.append("tovarincore/pages/*.md is missing")
    if not any(MANUAL.fullmatch(name) for name in names):
        found.append("share/man/man1/tovarin-nodes.1 is missing")
    return found


def main() -> int:
    """Check the wheel named on the command line; the exit status is 1 when something is wrong with it."""
    with zipfile.ZipFile(sys.argv[1]) as wheel:
        found = faults(wheel.namelist())
    for fault in found:
        print(f"wheel: {fault}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
