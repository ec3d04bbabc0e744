"""A pytest fixture of nodes that are gone when the test has ended.

Name it in the ``conftest.py`` of your tests::

    from tovarincore.testing.fixtures import temporary_nodes
"""

from collections.abc import Callable, Iterator
from contextlib import ExitStack

import pytest

from tovarincore import fleet
from tovarincore.cloud_def import CloudNode

__all__ = ["temporary_nodes"]


@pytest.fixture
def temporary_nodes() -> Iterator[Callable[..., list[CloudNode]]]:
    """Gives a function that takes what :func:`tovarincore.fleet.temporary_nodes` takes and returns the nodes.

    All of them are terminated when the test has ended, whatever came of it. A node that could not be
    terminated is an error of the test.
    """
    with ExitStack() as stack:

        def make(*arguments: object, **named: object) -> list[CloudNode]:
            return stack.enter_context(fleet.temporary_nodes(*arguments, **named))  # type: ignore[arg-type]

        yield make
