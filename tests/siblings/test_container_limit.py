"""The time limit of a container operation."""

from __future__ import annotations

import time

import pytest

from tovarincore._container_helper.errors import ContainerError
from tovarincore._container_helper.limit import TimeLimit
from tovarincore.core_def import OPResultErrorCode


def test_no_time_is_left_after_the_limit() -> None:
    """What asks for the time left after the limit gets the time-out, and so begins nothing new."""
    limit = TimeLimit(0.01, "testing")
    assert 0 < limit.remaining() <= 0.01
    time.sleep(0.02)
    with pytest.raises(ContainerError, match=r"within 0\.01 s while testing.*operation_seconds") as caught:
        limit.remaining()
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT
