"""How long things may take on a machine that others keep busy."""

from __future__ import annotations

import time
from collections.abc import Iterator
from contextlib import contextmanager

# What takes a second on an idle machine takes twenty on one that twenty other processes share. This notices
# a hang and no more; the limits that tests state about the product are theirs, and much shorter.
SETUP_SECONDS = 180
# By how much a busy machine may miss a time limit that the product keeps.
SLACK_SECONDS = 20
# How long a peer of a test hangs at least, so that a limit that is not kept shows.
HANG_SECONDS = 60


@contextmanager
def in_time(limit: float = 0.0, *, least: float = 0.0, slack: float = SLACK_SECONDS) -> Iterator[None]:
    """The body has to end by the limit, or as soon after it as a busy machine allows.

    :param limit: what the product is given, in seconds; 0 where it has to answer at once
    :param least: the shortest time that is right
    """
    began = time.monotonic()
    yield
    took = time.monotonic() - began
    assert least <= took < limit + slack, f"took {took:.2f} s of {limit} s"
