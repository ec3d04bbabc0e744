"""The extension and its plain-Python twin agree on every event of thousands of random programs."""

from itertools import islice

import pytest

from tests.differential.mutations import found_by, load, mutations, recorded
from tests.differential.runner import cases, difference
from tests.thorough import sized
from tests.twin import cloud_node as twin
from tovarincore import cloud_node as extension

PROGRAMS = sized(1500, 4000)
BLOCK = 500
# A mutation that is missed costs all of them.
TRIED = sized(600, 1500)
MUTATIONS = sized(6, 12)


@pytest.mark.parametrize(
    "first_seed", range(0, PROGRAMS // 11, BLOCK // 11), ids=lambda seed: f"from seed {seed}"
)
def test_programs_with_injected_failures_run_alike_on_both(first_seed):
    """Every event, result, exception with its chain, and the state left behind, are the same."""
    for case in cases(twin, first_seed, BLOCK):
        found = difference(extension, twin, case)
        assert found is None, f"{found}\nagain: python -m tests.differential --seed {case.seed}"


def test_the_programs_find_mutations_of_the_twin():
    """A comparison that cannot fail would prove nothing: most changes of one line are found within a
    few hundred programs."""
    with open(str(twin.__file__), encoding="utf-8") as file:
        drawn = list(islice(mutations(file.read(), seed=7), MUTATIONS))
    some = recorded(TRIED)
    missed = [mutation.text for mutation in drawn if found_by(load(mutation.module), some) is None]
    assert len(missed) <= MUTATIONS // 4, missed
