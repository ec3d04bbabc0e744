"""The order of image tags."""

from __future__ import annotations

import random

import pytest

from tovarincore._container_helper.versions import newest_first


@pytest.mark.parametrize(
    "ordered",
    [
        pytest.param(["1.10.0", "1.9.0", "1.2.10", "1.2.9"], id="numbers-as-numbers"),
        pytest.param(["2.0.0", "2.0.0-rc10", "2.0.0-rc9", "2.0.0-beta"], id="release-above-its-candidates"),
        pytest.param(["1.1", "1.0.1", "1.0"], id="longer-versions"),
        pytest.param(["v2.0", "1.5", "v1.0"], id="leading-v"),
        pytest.param(["3", "0.1", "dev", "latest"], id="other-tags-last"),
        pytest.param(["2.0.0.1", "2.0.0-rc1"], id="four-numbers"),
    ],
)
def test_tags_are_ordered_by_version(ordered: list[str]) -> None:
    """The newest version comes first, whatever the order the engine lists the tags in."""
    for seed in range(5):
        shuffled = random.Random(seed).sample(ordered, len(ordered))
        assert newest_first(shuffled) == ordered


def test_versions_that_differ_in_trailing_zeros_keep_one_order() -> None:
    """Tags of equal version rank stand in the same order for every listing."""
    assert newest_first(["1.0", "1.0.0"]) == newest_first(["1.0.0", "1.0"])


def test_a_tag_listed_twice_is_one_version() -> None:
    """Two images may not share a tag, but an engine may list a tag per digest."""
    assert newest_first(["1.0", "1.0"]) == ["1.0"]
