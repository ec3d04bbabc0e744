"""A launch that fails: what is reported, what is raised, what is logged."""

from __future__ import annotations

from typing import Any

import pytest

from tests.fakes import (
    ODD_RESPONSES,
    SMALL,
    Fake,
    Logged,
    call,
    client_error,
    handled,
    make_config,
    recording,
    refusal,
)
from tests.providers.aws.conftest import Amazon, sent
from tovarincore.core_def import OPResult, OPResultErrorCode

FAILED = "Exception occurred when tyring to starting Cloud Worker"


def test_an_accepted_dry_run_is_reported_by_its_code_alone(launching: Amazon) -> None:
    """Nothing is logged."""
    launching.ec2.answers["run_instances"] = refusal("DryRunOperation", "Request would have succeeded")
    result = launching.manager.launch_node(SMALL, make_config(), dry_run=True)
    assert result == (None, OPResult(error=True, error_code=OPResultErrorCode.DRY_RUN_OPERATION))
    assert sent(launching, "DryRun") is True
    assert launching.log.events == []


@pytest.mark.parametrize(
    "at", ["_get_client", "_check_and_get_security_group_id", "run_instances", "get_waiter"]
)
def test_a_refusal_anywhere_is_logged_with_its_traceback_and_returned(launching: Amazon, at: str) -> None:
    """EC2's message, no code; the exception is the one being handled while the result is made."""
    error = refusal("UnauthorizedOperation", "No rights")
    if at.startswith("_"):
        setattr(launching.manager, at, recording(launching.log, at, error))
    else:
        launching.ec2.answers[at] = error
    result = launching.manager.launch_node(SMALL, make_config(), wait_until_cloud_provider_ready=True)
    assert result == (None, OPResult(error=True, msg="No rights"))
    assert launching.log[-1] == Logged("error", FAILED, error)
    assert handled() is None


def test_the_error_line_is_given_the_exception_itself(launching: Amazon) -> None:
    """exc_info is the exception, and while it is logged and the result made it is being handled."""
    error = refusal("Odd")
    seen: list[Any] = []
    launching.ec2.answers["run_instances"] = error
    launching.manager.logger = Fake(
        launching.log, "logger", error=lambda *args, **kwargs: seen.append(handled())
    )
    launching.manager.launch_node(SMALL, make_config())
    assert launching.log[-1] == call("logger.error", FAILED, exc_info=error)
    assert seen == [error]


@pytest.mark.parametrize(("response", "missing"), ODD_RESPONSES.values(), ids=ODD_RESPONSES)
def test_an_error_response_without_a_message_is_a_key_error(
    launching: Amazon, response: Any, missing: str
) -> None:
    """After the log line, with the refusal as its context."""
    error = client_error(response)
    launching.ec2.answers["run_instances"] = error
    with pytest.raises(KeyError) as caught:
        launching.manager.launch_node(SMALL, make_config())
    assert caught.value.args == (missing,)
    assert caught.value.__context__ is error
    assert caught.value.__cause__ is None
    assert launching.log[-1] == Logged("error", FAILED, error)


def test_an_error_response_without_a_code_still_gives_its_message(launching: Amazon) -> None:
    """Code is looked for before it is read."""
    launching.ec2.answers["run_instances"] = client_error({"Error": {"Message": "no code"}})
    result = launching.manager.launch_node(SMALL, make_config())
    assert result == (None, OPResult(error=True, msg="no code"))


@pytest.mark.parametrize("at", ["_get_client", "_check_and_get_security_group_id", "run_instances"])
@pytest.mark.parametrize("kind", [TimeoutError, KeyboardInterrupt, ValueError])
def test_any_other_failure_propagates_unchanged(
    launching: Amazon, at: str, kind: type[BaseException]
) -> None:
    """It is not logged."""
    error = kind("broken")
    if at.startswith("_"):
        setattr(launching.manager, at, recording(launching.log, at, error))
    else:
        launching.ec2.answers[at] = error
    with pytest.raises(kind) as caught:
        launching.manager.launch_node(SMALL, make_config())
    assert caught.value is error
    assert error.__context__ is None
    assert launching.log.events == []
