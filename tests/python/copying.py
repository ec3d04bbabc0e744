"""The native copies beside copy.deepcopy, on random graphs: `python -m tests.python.copying 100000`."""

from __future__ import annotations

import copy
import sys

from tests.graphs import numbered, outcome, random_graph
from tests.python import _object_layer as layer


def first_difference(seeds: range) -> int | None:
    """The first seed whose graph the native copy treats otherwise than copy.deepcopy does."""
    for seed in seeds:
        graph = random_graph(seed)
        original = numbered(graph)
        expected = outcome(copy.deepcopy, graph, original)
        # The general copy stands behind the native one, on the interpreters that have it.
        for copier in (layer.native_deepcopy, *([layer.general_copy] if layer.is_native(None) else [])):
            if outcome(copier, graph, original) != expected:
                return seed
    return None


if __name__ == "__main__":
    number = int(sys.argv[1]) if len(sys.argv) > 1 else 100_000
    different = first_difference(range(number))
    print(f"{number} random graphs agree" if different is None else f"graph {different} differs")
    sys.exit(different is not None)
