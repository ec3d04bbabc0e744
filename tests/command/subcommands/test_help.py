"""The pages that come with the command."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.command.conftest import Run
from tovarincore.command.subcommands.help import TOPICS, page_text
from tovarincore.core_conf import describe_settings


def test_without_a_topic_the_pages_are_listed(run: Run) -> None:
    """Each with what it is about."""
    result = run("help")
    assert (result.exit_code, result.stderr) == (0, "")
    for topic, text in TOPICS.items():
        assert f"{topic:<16}  {text}\n" in result.stdout


@pytest.mark.parametrize("topic", TOPICS)
def test_a_page_reads_well_in_a_terminal(run_json: Callable[..., Any], topic: str) -> None:
    """It begins with its heading, and has neither pictures nor links that lead nowhere."""
    page = run_json("help", topic)
    assert page["topic"] == topic
    assert page["text"].startswith("# ")
    # The masker takes nothing of it for a secret.
    assert page["text"] == page_text(topic)
    for left_over in ("```{", "<!--", ".md)", ".svg"):
        assert left_over not in page["text"]


def test_the_page_on_settings_has_all_of_them(run: Run) -> None:
    """The table is made when the documentation is built; here the settings are asked themselves."""
    text = run("help", "configuration").stdout
    for row in describe_settings():
        assert f"`[{row.section}] {row.key}`" in text


def test_a_sub_command_s_name_shows_its_help(run: Run) -> None:
    """As if it were asked for it."""
    assert run("help", "show").stdout.splitlines()[0] == "Usage: tovarin-nodes show [OPTIONS] [REGION] NODE"
    assert "--timeout NUMBER" in run("help", "wait").stdout


def test_a_misspelt_topic_gets_a_suggestion(run: Run) -> None:
    """Pages and sub-commands alike."""
    assert 'did you mean "recipes"?' in run("help", "recipe").stderr
    assert 'did you mean "launch"?' in run("help", "lanch").stderr
    assert run("help", "recipe").exit_code == 2
