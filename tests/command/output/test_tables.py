"""Tables for people."""

from __future__ import annotations

import pytest

from tovarincore.command.output.tables import Column, draw_pairs, table_lines

COLUMNS = (Column("name", "name"), Column("state", "state", 1), Column("address", "address", 2))
ITEMS = [
    {"name": "a", "state": "Running", "address": "x" * 60},
    {"name": "[b]", "state": "Stopped", "address": None},
]


def test_without_a_terminal_a_table_is_whole_and_has_no_blanks_at_its_ends() -> None:
    """Long cells are not cut or folded where nothing limits a line."""
    lines, left_out = table_lines((COLUMNS[0], COLUMNS[2]), ITEMS)
    assert lines == ["\x1b[1mNAME\x1b[0m  \x1b[1mADDRESS\x1b[0m", "a     " + "x" * 60, "[b]   -"]
    assert left_out == []


@pytest.mark.parametrize(
    "width, left_out",
    [(80, []), (60, ["address"]), (10, ["state", "address"]), (2, ["state", "address"])],
)
def test_the_least_important_columns_give_way(width: int, left_out: list[str]) -> None:
    """Cells stay whole; a column that cannot be left out is left to the terminal."""
    lines, missing = table_lines(COLUMNS, ITEMS, width=width)
    assert missing == left_out
    assert any("x" * 60 in line for line in lines) == (not left_out)
    assert all("[b]" in line or index != 2 for index, line in enumerate(lines))


def test_headings_can_be_left_out() -> None:
    """A script counts lines of nodes, not of headings."""
    assert [line[:4].strip() for line in table_lines(COLUMNS, ITEMS, headings=False)[0]] == ["a", "[b]"]


def test_wide_letters_take_two_columns() -> None:
    """What stands behind a wide name begins where the heading does."""
    lines, _ = table_lines(
        (Column("name", "name"), Column("id", "id")),
        [{"name": "日本語", "id": "1"}, {"name": "abcdef", "id": "2"}],
    )
    assert lines[1:] == ["日本語  1", "abcdef  2"]


def test_a_cell_cannot_steer_the_terminal(capsys: pytest.CaptureFixture[str]) -> None:
    """A node's name with an escape sequence is shown, not obeyed."""
    lines, _ = table_lines((Column("name", "name"),), [{"name": "cold-\x1b[2J"}], headings=False)
    assert lines == ["cold-\\x1b[2J"]
    draw_pairs([("Name", "cold-\x1b[2J")])
    assert "cold-\\x1b[2J" in capsys.readouterr().out
