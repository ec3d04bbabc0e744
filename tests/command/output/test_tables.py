"""Tables for people."""

from __future__ import annotations

import pytest

from tovarincore.command.output.tables import draw_pairs, draw_table


def test_a_table_in_a_pipe_is_whole_and_has_no_blanks_at_its_ends(capsys: pytest.CaptureFixture[str]) -> None:
    """Long cells are not cut or wrapped where no terminal limits them."""
    draw_table(("name", "text"), [("a", "x" * 300), ("[b]", None)], "nothing")
    assert capsys.readouterr().out.splitlines() == ["NAME  TEXT", "a     " + "x" * 300, "[b]   -"]


def test_an_empty_table_is_a_sentence(capsys: pytest.CaptureFixture[str]) -> None:
    """Without rows there is no heading either."""
    draw_table(("name",), [], "Nothing here.")
    assert capsys.readouterr().out == "Nothing here.\n"


def test_a_cell_cannot_steer_the_terminal(capsys: pytest.CaptureFixture[str]) -> None:
    """A node's name with an escape sequence is shown, not obeyed."""
    draw_table(("name",), [("cold-\x1b[2J",)], "nothing")
    draw_pairs([("Name", "cold-\x1b[2J")])
    out = capsys.readouterr().out
    assert "\x1b" not in out
    assert out.count("cold-\\x1b[2J") == 2
