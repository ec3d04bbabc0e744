"""A tree whose module is not built for the interpreter that imports it."""

import shutil
import subprocess
import sys
from importlib.machinery import EXTENSION_SUFFIXES
from pathlib import Path

from tovarincore import cloud_node

PACKAGE = Path(__file__).resolve().parents[2] / "tovarincore"


def import_in(tree: Path) -> str:
    """Import the module in a tree; return the last line that the interpreter said."""
    done = subprocess.run(
        [sys.executable, "-c", "import tovarincore.cloud_node"], cwd=tree, capture_output=True, text=True
    )
    return "" if done.returncode == 0 else done.stderr.splitlines()[-1]


def test_a_tree_without_the_built_module_says_what_to_do(tmp_path: Path) -> None:
    """The import fails with the version and the command, in place of an empty namespace."""
    built = shutil.ignore_patterns("*.so")
    shutil.copytree(PACKAGE, tmp_path / "tovarincore", ignore=built)
    said = import_in(tmp_path)
    version = f"CPython {sys.version_info[0]}.{sys.version_info[1]}"
    assert said.startswith(f"ImportError: tovarincore.cloud_node is not built for {version}")
    assert "make build" in said


def test_the_built_module_wins_over_the_file_that_stands_in_for_it() -> None:
    """Both lie in one folder, and the import system takes the built one."""
    assert cloud_node.__file__ is not None
    assert cloud_node.__file__.endswith(tuple(EXTENSION_SUFFIXES))
    assert (PACKAGE / "cloud_node.py").exists()
