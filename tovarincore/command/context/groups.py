"""Commands that consist of sub-commands: loaded when they are run, suggested when misspelt."""

from __future__ import annotations

from collections.abc import Mapping
from importlib import import_module
from typing import TYPE_CHECKING, Any

import click

from tovarincore.command.context.options import output_options
from tovarincore.command.errors.failures import CommandFailure, ExitCode

if TYPE_CHECKING:
    from click.shell_completion import CompletionItem

__all__ = ["NodesGroup"]


class NodesGroup(click.Group):
    """A group that prints its help when no sub-command is given.

    :param lazy: sub-commands by name, each as ``"module:attribute"`` and the line of help in the list; their
        modules are imported when they are run
    """

    def __init__(
        self, *arguments: Any, lazy: Mapping[str, tuple[str, str]] | None = None, **attributes: Any
    ) -> None:
        super().__init__(
            *arguments, **{"no_args_is_help": False, "invoke_without_command": True, **attributes}
        )
        self.callback = _help_unless_invoked
        self._lazy = lazy or {}
        self.params += output_options()

    def list_commands(self, ctx: click.Context) -> list[str]:
        """Return the sub-commands in the order in which they were given."""
        return [*self._lazy, *self.commands]

    def get_command(self, ctx: click.Context, cmd_name: str) -> click.Command | None:
        """Return a sub-command, importing its module."""
        if cmd_name not in self._lazy:
            return super().get_command(ctx, cmd_name)
        module, _, attribute = self._lazy[cmd_name][0].partition(":")
        command: click.Command = getattr(import_module(module), attribute)
        return command

    def resolve_command(
        self, ctx: click.Context, args: list[str]
    ) -> tuple[str | None, click.Command | None, list[str]]:
        """Find the sub-command; a misspelt one is an error that suggests the nearest."""
        name = args[0]
        if not ctx.resilient_parsing and name[:1] != "-" and name not in self.list_commands(ctx):
            from tovarincore._config_files.names import nearest
            from tovarincore.command.output.text import one_line

            near = nearest(name, self.list_commands(ctx))
            raise CommandFailure(
                f'there is no sub-command "{one_line(name)}"' + (f'; did you mean "{near}"?' if near else ""),
                f"list them with: {ctx.command_path} --help",
                ExitCode.USAGE,
            )
        return super().resolve_command(ctx, args)

    def shell_complete(self, ctx: click.Context, incomplete: str) -> list[CompletionItem]:
        """Complete options and sub-commands without importing these."""
        from click.shell_completion import CompletionItem

        items = [CompletionItem(name, help=text) for name, (_, text) in self._lazy.items()]
        items += [
            CompletionItem(name, help=command.get_short_help_str()) for name, command in self.commands.items()
        ]
        found = [item for item in items if str(item.value).startswith(incomplete)]
        return found + click.Command.shell_complete(self, ctx, incomplete)

    def format_commands(self, ctx: click.Context, formatter: click.HelpFormatter) -> None:
        """Write the list of sub-commands without importing them."""
        rows = [(name, text) for name, (_, text) in self._lazy.items()]
        rows += [(name, command.get_short_help_str(80)) for name, command in self.commands.items()]
        with formatter.section("Commands"):
            formatter.write_dl(rows)


def _help_unless_invoked() -> None:
    context = click.get_current_context()
    if context.invoked_subcommand is None:
        click.echo(context.get_help())
