"""``help``: the pages of the documentation, which come with the package."""

import re
from pathlib import Path
from typing import Any

import click
from click.shell_completion import CompletionItem

import tovarincore
from tovarincore.command.context.invocation import Invocation, pass_invocation
from tovarincore.command.context.options import NodesCommand
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.writer import masked, terminal_width
from tovarincore.core_conf import describe_settings

__all__ = ["TOPICS", "help_command", "page_text"]

TOPICS = {
    "getting-started": "a first node, on this machine alone",
    "concepts": "regions, nodes, states, what ready means",
    "command": "this command, sub-command by sub-command, and its documents for programs",
    "recipes": "short answers to common wishes",
    "troubleshooting": "what an error text means, and what to do",
    "configuration": "the settings file, its variables, every setting",
    "credentials": "what is stored for a region, and where",
    "iam-policy": "the rights that an Amazon account needs",
    "local-containers": "regions on this machine's container engine",
    "kubernetes": "regions in clusters, and the rights they need",
    "fleets": "many nodes at once",
    "security": "what protects nodes, secrets and this machine",
}
"""Each page that can be read, with its line in the list; the words are the names of the files."""

_BLOCK = re.compile(r"^```\{(?P<name>\w+)\}[^\n]*\n.*?^```\n", re.DOTALL | re.MULTILINE)
_COMMENT = re.compile(r"^<!--.*?-->\n+", re.DOTALL | re.MULTILINE)
_LINK = re.compile(r"!?\[(?P<text>[^\]]*)\]\((?!https?:)[^)]*\)")


def _complete(context: click.Context, parameter: click.Parameter, incomplete: str) -> list[CompletionItem]:
    topics = [CompletionItem(name, help=text) for name, text in TOPICS.items()]
    return [item for item in topics if item.value.startswith(incomplete)]


@click.command("help", cls=NodesCommand, examples=("help", "help troubleshooting", "help launch"))
@click.argument("topic", required=False, shell_complete=_complete)
@pass_invocation
def help_command(invocation: Invocation, topic: str | None) -> None:
    """Show a page of the documentation, or the help of a sub-command; without TOPIC list the pages."""
    if topic is None:
        width = max(map(len, TOPICS))
        lines = [f"{name:<{width}}  {text}" for name, text in TOPICS.items()]
        lines += ["", "read one with: tovarin-nodes help TOPIC"]
        _show(invocation, "topics", "\n".join(lines), pager=False)
        return
    if topic in TOPICS:
        _show(invocation, topic, page_text(topic), pager=True)
        return
    root = click.get_current_context().find_root()
    assert isinstance(root.command, click.Group)
    names = root.command.list_commands(root)
    if topic not in names:
        from tovarincore._config_files.names import did_you_mean
        from tovarincore.command.output.text import one_line

        raise CommandFailure(
            f'there is no page or sub-command "{one_line(topic)}"; {did_you_mean(topic, [*TOPICS, *names])}',
            "list the pages with: tovarin-nodes help",
            ExitCode.USAGE,
        )
    command = root.command.get_command(root, topic)
    assert command is not None
    _show(invocation, topic, command.get_help(click.Context(command, root, topic)), pager=False)


def page_text(topic: str) -> str:
    """Return a page in Markdown as a terminal can show it: without pictures, and links as their words.

    :param topic: a key of :data:`TOPICS`
    :raises CommandFailure: the page is not installed
    """
    package = Path(str(tovarincore.__file__)).parent
    # In an installed package beside its modules; in a clone where the pages are written.
    places = [package / "pages" / f"{topic}.md", package.parent / "docs" / f"{topic}.md"]
    found = next((place for place in places if place.is_file()), None)
    if found is None:
        raise CommandFailure(
            f"the page {topic} is not installed: {places[0]} is missing",
            "install the package again: pip install --force-reinstall 'tovarincore[cli]'",
            ExitCode.NOT_CONFIGURED,
        )
    text = _COMMENT.sub("", found.read_text(encoding="utf-8"))
    text = _BLOCK.sub(lambda block: _settings() if block["name"] == "include" else "", text)
    return _LINK.sub(lambda link: "" if link[0].startswith("!") else link["text"], text)


def _settings() -> str:
    return "".join(
        f"- `[{row.section}] {row.key}` (default: {_default(row.default)}): {row.doc}\n"
        for row in describe_settings()
    )


def _default(value: Any) -> str:
    return "empty" if value in ("", {}) else str(value).lower() if isinstance(value, bool) else str(value)


def _show(invocation: Invocation, topic: str, text: str, pager: bool) -> None:
    def draw() -> None:
        width = terminal_width()
        if not pager or width is None:
            invocation.say_as_is(text)
            return
        from rich.console import Console
        from rich.markdown import Markdown

        from tovarincore.command.output import progress

        progress.clear()
        console = Console(width=min(width, 100), force_terminal=True)
        with console.capture() as captured:
            console.print(Markdown(masked(text), hyperlinks=False))
        click.echo_via_pager(captured.get())

    invocation.emit("page", {"topic": topic, "text": text}, draw)
