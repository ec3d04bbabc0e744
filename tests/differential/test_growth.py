"""No operation leaves memory behind, on success or on failure."""

from tests.differential.growth import growth
from tests.thorough import sized
from tovarincore import cloud_node as extension


def test_programs_run_again_and_again_do_not_grow():
    """Hundreds of programs, most of them failing somewhere: a leak of one block per program would be seen."""
    counts = growth(extension, programs=sized(100, 300), rounds=sized(3, 4))
    assert counts[-1] < 60, counts
