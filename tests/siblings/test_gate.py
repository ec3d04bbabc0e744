"""The gate for names from outside."""

from collections.abc import Callable

import pytest
from hypothesis import given
from hypothesis import strategies as st

from tovarincore._transport import gate
from tovarincore._transport.gate import RefusedName

CHECKS = [getattr(gate, name) for name in gate.__all__ if name.startswith("check_")]


def ids(check: Callable[[str], str]) -> str:
    """Name a case after what is checked."""
    return check.__name__.removeprefix("check_")


ACCEPTED = {
    gate.check_user_name: ["ada", "Ada Lovelace", "ada@example.org", "Ünal", "a/b", "u" * 256, "[x]"],
    gate.check_uuid: ["1b4e28ba-2fa1-11d2-883f-0016d3cca427", "u", "0AB-1", "not_a_name", "a.b", "u" * 63],
    gate.check_region_name: ["eu-central-1", "lab", "lab 2", 'odd. "name"', "user@cluster.eksctl.io"],
    gate.check_namespace: ["default", "team-1", "0", "n" * 63],
    gate.check_instance_id: ["i-0abc", "tovarin-1b4e", "f" * 64, "a.b-c_d"],
    gate.check_key_name: ["tovarin-key", "ada's key", "k@home", "k" * 255],
    gate.check_version: ["1.2.3", "2.0-rc.1", "latest", "_x", "v" * 128],
    gate.check_node_name: ["tovarin-node", "web/1", "Knoten 7", "n" * 255],
}

REFUSED = {
    gate.check_user_name: ["*", "ad?", "a\\", "a\nb", "u" * 257, "a\u202eb"],
    gate.check_uuid: ["../x", "a?b", "a/b", "-", "-a", "a-", "u" * 64, "a b", "ü", "a\n", "x" * 500],
    gate.check_region_name: ["a/b", "..", "-r", "AWS:us-east-1", "*", "r\x00", "r" * 129],
    gate.check_namespace: ["Default", "a/../b", "a.b", "-a", "n" * 64, "a\n"],
    gate.check_instance_id: ["../x", ".", "-", "i-1?force=1", "a/b", "i 1", "f" * 254, "i%2f"],
    gate.check_key_name: ["../k", "/etc/k", ".k", "-k", "k*", "kéy", "k\n", "k" * 256],
    gate.check_version: ["", ":1", "1/2", "1@sha", "-1", ".1", "1 2", "v" * 129],
    gate.check_node_name: ["*", "a\\b", "-n", "n\r", "n" * 256],
}


@pytest.mark.parametrize(("check", "text"), [(c, t) for c, texts in ACCEPTED.items() for t in texts])
def test_a_usable_name_comes_back_as_it_is(check: Callable[[str], str], text: str) -> None:
    """The very text is returned."""
    assert check(text) is text


@pytest.mark.parametrize(("check", "text"), [(c, t) for c, texts in REFUSED.items() for t in texts])
def test_a_name_that_could_steer_is_refused(check: Callable[[str], str], text: str) -> None:
    """The message names the kind of name and what is allowed, in one short printable line."""
    with pytest.raises(RefusedName, match="cannot be .*; allowed are .*") as refusal:
        check(text)
    assert str(refusal.value).isprintable() and len(str(refusal.value)) < 400


@pytest.mark.parametrize("check", CHECKS, ids=ids)
@pytest.mark.parametrize("text", ["", " ", " a", "a ", None, 7, b"a", ["a"]], ids=repr)
def test_nothing_and_blanks_and_other_types_are_no_names(
    check: Callable[[object], str], text: object
) -> None:
    """Every kind of name refuses them, with the gate's own error."""
    with pytest.raises(RefusedName, match="allowed"):
        check(text)


@pytest.mark.parametrize("check", CHECKS, ids=ids)
@given(text=st.text())
def test_what_passes_cannot_leave_its_place(check: Callable[[str], str], text: str) -> None:
    """No accepted name holds a pattern of EC2, a control character, or is a step of a path."""
    try:
        check(text)
    except RefusedName:
        return
    assert text.isprintable() and text not in ("", ".", "..")
    assert not set(text) & set("*?\\")
    if check not in (gate.check_user_name, gate.check_node_name):
        assert "/" not in text


def test_the_refusal_of_a_user_name_says_why() -> None:
    """A person who typed * learns what it would have meant."""
    with pytest.raises(RefusedName) as refusal:
        gate.check_user_name("*")
    assert str(refusal.value) == (
        "'*' cannot be a user name; allowed are 1 to 256 printable characters other than * ? \\ (EC2 reads "
        "these as patterns, which match other users), without blanks at the ends"
    )
