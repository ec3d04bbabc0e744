"""The start of the command, as separate processes."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

from tests.command.conftest import finish, start_command
from tests.conftest import ROOT

WITHOUT = (
    "import sys; sys.modules['{name}'] = None; from tovarincore.command.main import main; sys.exit(main())"
)


def without(name: str, *arguments: str) -> tuple[int, str, str]:
    """Run the command in a process that cannot import a package."""
    done = subprocess.run(
        [sys.executable, "-W", "error", "-c", WITHOUT.format(name=name), *arguments],
        env={**os.environ, "PYTHONPATH": str(ROOT)},
        capture_output=True,
        text=True,
        timeout=60,
    )
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize(
    "name, arguments", [("click", ["--help"]), ("yaml", ["regions", "-o", "yaml"])], ids=["click", "yaml"]
)
def test_a_missing_extra_gives_one_line_that_names_it(
    no_account: Path, name: str, arguments: list[str]
) -> None:
    """Without the optional packages the command says how they are installed, and nothing else."""
    code, stdout, stderr = without(name, *arguments)
    assert (code, stdout) == (4, "")
    assert len(stderr.splitlines()) == 1
    assert (
        f"tovarin-nodes needs the package {name}, which is not installed: pip install 'tovarincore[cli]'"
        in stderr
    )


@pytest.mark.parametrize(
    "name, arguments, extra",
    [("prometheus_client", ["exporter"], "metrics"), ("textual", ["top"], "top")],
    ids=["exporter", "top"],
)
def test_a_missing_extra_of_one_sub_command_is_named_by_it(
    no_account: Path, name: str, arguments: list[str], extra: str
) -> None:
    """The others need none of its packages."""
    code, stdout, stderr = without(name, *arguments)
    assert (code, stdout) == (4, "")
    assert stderr == (
        f"error: tovarin-nodes needs the package {name}, which is not installed:"
        f" pip install 'tovarincore[{extra}]'\n"
    )


def test_a_listing_needs_no_package_for_moving_tables(no_account: Path) -> None:
    """What draws in place is imported only when something is drawn in place."""
    code, stdout, stderr = without("rich", "regions", "--json")
    assert (code, stderr) == (0, "")
    assert '"key": "local:local"' in stdout


def test_the_package_runs_as_the_command(no_account: Path) -> None:
    """`python -m tovarincore` is the command under its own name."""
    code, stdout, stderr = finish(start_command("regions"))
    assert (code, stderr) == (0, "")
    heading, *rows = stdout.splitlines()
    assert heading.split() == ["NAME", "KIND", "TITLE", "USABLE"]
    # Whether it can be used depends on whether an engine runs on this machine.
    assert [row for row in rows if row.startswith("local ")]
