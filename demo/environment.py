"""Keeps the variables of the user's own cloud accounts and settings away from a demo."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from contextlib import contextmanager

# They would send requests elsewhere, ask for credentials that are not there or change what is shown.
FOREIGN_PREFIXES = ("AWS_", "TOVARIN_")


@contextmanager
def environment(values: Mapping[str, str]) -> Iterator[None]:
    """Run the body with these variables and none of the user's own Amazon or product variables."""
    before = dict(os.environ)
    for name in [name for name in os.environ if name.startswith(FOREIGN_PREFIXES)]:
        del os.environ[name]
    os.environ.update(values)
    try:
        yield
    finally:
        os.environ.clear()
        os.environ.update(before)
