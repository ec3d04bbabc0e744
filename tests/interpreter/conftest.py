"""What the tests of the interpreter's limits share."""

import pytest


@pytest.fixture(autouse=True)
def no_tracer_in_children(monkeypatch: pytest.MonkeyPatch) -> None:
    """Keep the tracer of `make coverage` out of processes that run out of memory or are interrupted."""
    monkeypatch.delenv("COVERAGE_PROCESS_CONFIG", raising=False)
