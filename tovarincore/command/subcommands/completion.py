"""``completion``: what makes a shell complete this command's words."""

import click
from click.shell_completion import get_completion_class

from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import NodesCommand

__all__ = ["completion"]

_PROGRAM = "tovarin-nodes"
_VARIABLE = "_TOVARIN_NODES_COMPLETE"


@click.command(
    cls=NodesCommand,
    examples=(
        "completion bash > ~/.local/share/bash-completion/completions/tovarin-nodes",
        "completion zsh > ~/.zfunc/_tovarin-nodes",
        "completion fish > ~/.config/fish/completions/tovarin-nodes.fish",
    ),
)
@click.argument("shell", type=click.Choice(["bash", "zsh", "fish"]))
@pass_invocation
def completion(invocation: Invocation, shell: str) -> None:
    """Print what makes a shell complete sub-commands, options, regions, nodes, types and images.

    Nothing is asked while you type: nodes and images are those of the last listing.
    """
    found = get_completion_class(shell)
    assert found is not None
    context = click.get_current_context()
    source = found(context.find_root().command, {}, _PROGRAM, _VARIABLE).source()
    invocation.emit("completion", {"shell": shell, "source": source}, lambda: invocation.say_as_is(source))
