"""The list of sub-commands, and errors as lines and exit codes."""

from __future__ import annotations

import json
import logging
import shlex
from pathlib import Path

import click
import pytest

from tests.command.conftest import Run, finish, start_command
from tests.conftest import Child
from tovarincore.command.app import SUBCOMMANDS, cli, run
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.errors.failures import EXIT_CODES, ExitCode
from tovarincore.command.subcommands import listing

COMMANDS = (
    "configure regions templates types list show launch try wait watch top exporter start stop reboot"
    " terminate keypair orphans history doctor config completion help"
)


def test_help_lists_every_sub_command_and_exit_code(run: Run) -> None:
    """A newcomer sees all that there is, in the order of a node's life, and what the codes mean."""
    result = run("--help")
    assert result.exit_code == 0
    assert list(SUBCOMMANDS) == COMMANDS.split()
    assert set(EXIT_CODES) == set(ExitCode)
    for code, text in EXIT_CODES.items():
        assert f"{int(code):>5}  {text}" in result.stdout


@pytest.mark.parametrize("name", COMMANDS.split())
def test_every_sub_command_takes_json_and_debug(run: Run, name: str) -> None:
    """Both options belong to each sub-command."""
    arguments = (
        [name, {"keypair": "create", "config": "set"}[name]] if name in ("keypair", "config") else [name]
    )
    text = run(*arguments, "--help").stdout
    assert "--json" in text
    assert "--debug" in text


def test_a_wrong_option_says_where_help_is(run: Run) -> None:
    """A usage error is a line and the command that explains the options."""
    result = run("list", "local", "--zzz")
    assert result.exit_code == 2
    assert result.stderr.splitlines() == [
        "error: No such option '--zzz'.",
        "  try: tovarin-nodes list --help",
    ]


@pytest.mark.parametrize("arguments", [["list", "nowhere", "--json"], ["--json", "list", "nowhere"]])
def test_errors_are_json_too(run: Run, no_account: Path, arguments: list[str]) -> None:
    """With --json standard output stays empty and standard error holds one object."""
    result = run(*arguments)
    assert (result.exit_code, result.stdout) == (2, "")
    assert json.loads(result.stderr) == {
        "version": 1,
        "kind": "error",
        "error": {
            "what": 'there is no region "nowhere"',
            "remedy": "list the regions with: tovarin-nodes regions",
            "exit_code": 2,
        },
        "notes": [],
    }


def test_an_error_that_nobody_expected_is_one_line(
    run: Run, no_account: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Even a defect shows no traceback, unless it is asked for."""

    def fail(access: object) -> None:
        raise KeyError("gone")

    monkeypatch.setattr(listing, "list_nodes", fail)
    result = run("list", "local")
    assert result.exit_code == 70
    assert result.stderr.splitlines() == [
        "error: tovarin-nodes met an error that it does not know: KeyError: 'gone'",
        "  try: run it again with --debug, and report what that shows",
    ]


def test_debug_shows_the_traceback_and_the_log(
    run: Run, no_account: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    """With --debug the lines follow the traceback; the logger is afterwards as it was."""

    def fail(access: object) -> None:
        logging.getLogger("tovarincore").debug("a line of the log")
        raise KeyError("gone")

    logger = logging.getLogger("tovarincore")
    before = (logger.level, list(logger.handlers))
    monkeypatch.setattr(listing, "list_nodes", fail)
    stderr = run("list", "local", "--debug").stderr
    assert "DEBUG tovarincore: a line of the log\n" in stderr
    assert "Traceback (most recent call last)" in stderr
    assert "error: tovarin-nodes met an error" in stderr
    assert (logger.level, logger.handlers) == before


def test_ctrl_c_is_one_line_and_130(run: Run, no_account: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """An interrupt in any command ends it in its own way."""

    def interrupt(access: object) -> None:
        raise KeyboardInterrupt

    monkeypatch.setattr(listing, "list_nodes", interrupt)
    result = run("list", "local")
    assert (result.exit_code, result.stdout, result.stderr) == (130, "", "error: interrupted\n")


def test_a_reader_that_stops_reading_is_no_error(no_account: Path) -> None:
    """A pipe that is closed early ends the command without a word."""
    process = start_command("types", "us-east-1")
    assert process.stdout is not None
    process.stdout.close()
    assert process.stderr is not None
    stderr = process.stderr.read()
    process.stderr.close()
    assert (process.wait(timeout=60), stderr) == (1, "")


def test_the_exit_code_reaches_the_shell(no_account: Path) -> None:
    """The process ends with the code that is documented."""
    assert finish(start_command("list", "us-east-1"))[0] == 4
    assert run(["--version"]) == 0


@pytest.mark.parametrize("group", [[], ["keypair"], ["config"]], ids=" ".join)
def test_without_a_sub_command_the_help_is_printed(run: Run, group: list[str]) -> None:
    """It is no error to ask what there is."""
    result = run(*group)
    assert (result.exit_code, result.stderr) == (0, "")
    assert result.stdout == run(*group, "--help").stdout


def test_a_misspelt_sub_command_gets_a_suggestion(run: Run) -> None:
    """The nearest name is offered, in the command and in its groups."""
    assert run("lits").stderr.startswith('error: there is no sub-command "lits"; did you mean "list"?\n')
    assert 'did you mean "create"?' in run("keypair", "cretae").stderr


def every_command() -> list[tuple[str, click.Command]]:
    """Each sub-command, those of groups too, with its whole name."""
    context = click.Context(cli)
    found = []
    for name in SUBCOMMANDS:
        command = cli.get_command(context, name)
        assert command is not None
        if isinstance(command, click.Group):
            found += [(f"{name} {inner}", member) for inner, member in command.commands.items()]
        else:
            found.append((name, command))
    return found


@pytest.mark.parametrize("name, command", every_command(), ids=lambda value: str(value))
def test_every_help_ends_with_examples_that_can_be_run(name: str, command: click.Command) -> None:
    """Each example is a line that the sub-command takes."""
    assert isinstance(command, NodesCommand)
    assert command.examples
    for line in command.examples:
        words = shlex.split(line.partition(" > ")[0])
        assert " ".join(words).startswith(name)
        command.make_context(name, words[len(name.split()) :], resilient_parsing=True)


def test_the_list_says_what_each_help_says(run: Run) -> None:
    """The lines of the list stand apart from the sub-commands, which it must not import."""
    for name, (_, text) in SUBCOMMANDS.items():
        assert text.endswith(".")
        assert name in run("--help").stdout
        summary = text.rstrip(".").partition(",")[0].split()
        said = " ".join(run(name, "--help").stdout.split())
        assert " ".join(summary[:2]) in said, name


def test_the_list_imports_no_sub_command(run_child: Child) -> None:
    """Help, and what a shell completes, are there at once."""
    code = (
        "import sys\n"
        "from tovarincore.command.main import main\n"
        "main(['--help'])\n"
        "late = {'boto3', 'rich', 'yaml', 'tomlkit', 'tovarincore.cloud_def', 'tovarincore.cloud_node'}\n"
        "late |= {'prometheus_client', 'textual'}\n"
        "assert not late & set(sys.modules), late & set(sys.modules)\n"
        "assert not [name for name in sys.modules if name.startswith('tovarincore.command.subcommands.')]\n"
    )
    done = run_child(code)
    assert (done.returncode, done.stderr) == (0, "")
