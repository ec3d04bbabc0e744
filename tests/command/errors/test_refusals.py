"""EC2's refusals and what to do about them."""

from __future__ import annotations

import pytest

from tovarincore.cloud_def import CloudRegion
from tovarincore.command.errors.failures import ExitCode
from tovarincore.command.errors.refusals import refusal

ENCODED = "You are not authorized to perform this operation. Encoded authorization failure message: b64Text"


def test_an_encoded_refusal_shows_the_words_and_keeps_the_code_for_debug() -> None:
    """The line has no encoded text; that is kept aside, with how it is read."""
    failure = refusal(ENCODED, "UnauthorizedOperation", "RunInstances")
    assert failure.what == (
        "EC2 refused RunInstances: You are not authorized to perform this operation. (UnauthorizedOperation)"
    )
    assert failure.code is ExitCode.REFUSED
    assert "decode-authorization-message" in failure.remedy
    assert failure.details == "encoded reason: b64Text"


@pytest.mark.parametrize(
    "error_code, code, words",
    [
        ("UnauthorizedOperation", ExitCode.REFUSED, "ask the account's owner"),
        ("InvalidKeyPair.NotFound", ExitCode.NOT_FOUND, "keypair create us-east-1"),
        ("InvalidKeyPair.Duplicate", ExitCode.FAILED, "another name"),
        ("InvalidAMIID.NotFound", ExitCode.NOT_FOUND, "templates us-east-1"),
        ("VcpuLimitExceeded", ExitCode.FAILED, "quota"),
        ("InsufficientInstanceCapacity", ExitCode.FAILED, "another type or region"),
        ("InvalidSubnetID.NotFound", ExitCode.NOT_CONFIGURED, "aws_custom_subnet"),
        ("RequestLimitExceeded", ExitCode.BUSY, "fewer requests"),
        ("Throttling", ExitCode.BUSY, "fewer requests"),
        ("503", ExitCode.BUSY, "fewer requests"),
        ("InternalError", ExitCode.BUSY, "EC2's own"),
        ("SomethingNew", ExitCode.FAILED, "doctor us-east-1"),
    ],
)
def test_the_code_leads_to_a_remedy(error_code: str, code: ExitCode, words: str) -> None:
    """The code decides what is to be done, and the remedy names the region."""
    failure = refusal("no", error_code, region=CloudRegion("us-east-1", "AWS"))
    assert failure.code is code
    assert words in failure.remedy


def test_the_status_of_the_answer_tells_a_busy_service() -> None:
    """A code that nobody knows is no riddle when the answer's status is 429."""
    assert refusal("slow down", "NewKindOfThrottling", status=429).code is ExitCode.BUSY


def test_a_profile_is_told_from_other_invalid_values() -> None:
    """One code of EC2 stands for many things; the message names the parameter."""
    profile = refusal("Value (p) for parameter iamInstanceProfile.name is invalid.", "InvalidParameterValue")
    assert (profile.code, "--instance-profile" in profile.remedy) == (ExitCode.NOT_FOUND, True)
    assert refusal("Value (x) for parameter y is invalid.", "InvalidParameterValue").code is ExitCode.FAILED


def test_credentials_that_ec2_does_not_know_are_to_be_stored_anew() -> None:
    """Wrong credentials lead to configure, not to the account's owner."""
    failure = refusal("AWS was not able to validate the provided access credentials", "AuthFailure")
    assert failure.code is ExitCode.REFUSED
    assert "configure REGION" in failure.remedy
