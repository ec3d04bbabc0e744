"""Text from elsewhere on one line."""

from __future__ import annotations

from tovarincore.command.output.text import one_line, printable


def test_control_characters_cannot_reach_the_terminal() -> None:
    """A node's name with line breaks and escape sequences stays one harmless line."""
    assert one_line("a\n b\x1b[31mred") == "a b\\x1b[31mred"


def test_a_long_text_is_cut() -> None:
    """The end of an overlong text gives way to dots."""
    assert one_line("x" * 50, longest=10) == "xxxxxxx..."


def test_printable_text_keeps_its_length_and_letters() -> None:
    """Only what cannot be seen is spelt out."""
    assert printable("Zürich\x9b2J " + "x" * 900) == "Zürich\\x9b2J " + "x" * 900
