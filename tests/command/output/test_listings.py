"""Listings in the form that was asked for."""

from __future__ import annotations

from typing import Any

import pytest

from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.listings import Listing, View, choose, draw
from tovarincore.command.output.tables import Column

LISTING = Listing(
    "nodes", (Column("region", "region"), Column("name", "name"), Column("load", "load", wide=True)), "None."
)
ITEMS: list[dict[str, Any]] = [
    {"region": "r1", "name": "trainer-2", "load": 2.5, "secret": "password=hunter2hunter2"},
    {"region": "r1", "name": "trainer-10", "load": None, "secret": None},
    {"region": "r2", "name": "Loader", "load": 0.5, "secret": None},
]


def names(view: View) -> list[str]:
    """The names of the items that a view lets through, in its order."""
    return [item["name"] for item in choose(view, LISTING, ITEMS)]


def test_filters_are_patterns_that_all_have_to_fit() -> None:
    """Capital letters do not count; an empty value means none."""
    assert names(View(filters=("name=TRAINER-*",))) == ["trainer-2", "trainer-10"]
    assert names(View(filters=("name=trainer-*", "load="))) == ["trainer-10"]


def test_items_are_sorted_and_those_without_a_value_come_last() -> None:
    """A dash in front sorts from high to low."""
    assert names(View(sort="load")) == ["Loader", "trainer-2", "trainer-10"]
    assert names(View(sort="-load")) == ["trainer-2", "Loader", "trainer-10"]


@pytest.mark.parametrize("view", [View(sort="nmae"), View(filters=("nmae=x",)), View(columns=("nmae",))])
def test_a_misspelt_key_gets_a_suggestion(view: View) -> None:
    """A column that is not there is an error of usage."""
    with pytest.raises(CommandFailure, match='did you mean "name"') as caught:
        draw(view, LISTING, choose(view, LISTING, ITEMS), None)
    assert caught.value.code is ExitCode.USAGE


def test_a_condition_without_a_value_is_refused() -> None:
    """A word alone is no condition."""
    with pytest.raises(CommandFailure, match="is no condition"):
        names(View(filters=("trainer-2",)))


def test_names_stand_alone_for_other_commands() -> None:
    """One name per line, the region's not being one."""
    assert draw(View("name"), LISTING, ITEMS, None)[0] == ["trainer-2", "trainer-10", "Loader"]


def test_comma_separated_values_have_all_keys_and_no_secret() -> None:
    """Every key of the document is a field; chosen columns come in their order."""
    (text,) = draw(View("csv"), LISTING, ITEMS, None)[0]
    assert text.splitlines() == [
        "region,name,load,secret",
        "r1,trainer-2,2.5,password=***",
        "r1,trainer-10,,",
        "r2,Loader,0.5,",
    ]
    (text,) = draw(View("csv", columns=("load", "name"), headings=False), LISTING, ITEMS[:1], None)[0]
    assert text == "2.5,trainer-2"


def test_the_wide_form_has_all_columns_whatever_the_terminal() -> None:
    """What is left out of the usual form is shown, and nothing gives way."""
    lines, left_out = draw(View("wide"), LISTING, ITEMS, 5)
    assert ("LOAD" in lines[0], left_out) == (True, [])


def test_chosen_columns_may_be_of_the_document_alone() -> None:
    """A key without its own column is shown as it is."""
    lines, _ = draw(View(columns=("secret", "name")), LISTING, ITEMS[1:2], None)
    assert lines[1].split() == ["-", "trainer-10"]


def test_nothing_to_list_is_a_sentence_for_people_alone() -> None:
    """Names and values of nothing are nothing."""
    assert draw(View(), LISTING, [], None)[0] == ["None."]
    assert draw(View("name"), LISTING, [], None)[0] == []
    assert draw(View("csv", headings=False), LISTING, [], None)[0] == []
