"""EC2's refusals and what to do about them."""

from __future__ import annotations

import pytest

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
    "message, code, words",
    [
        (ENCODED, ExitCode.REFUSED, "ask the account's owner"),
        ("The key pair 'k' does not exist", ExitCode.NOT_FOUND, "keypair create"),
        ("The keypair 'k' already exists.", ExitCode.FAILED, "another name"),
        ("The image id '[ami-1]' does not exist", ExitCode.NOT_FOUND, "templates REGION"),
        ("Value (p) for parameter iamInstanceProfile.name is invalid.", ExitCode.NOT_FOUND, "profile"),
        ("You have requested more vCPU capacity than your limit", ExitCode.FAILED, "quota"),
        ("The subnet ID 'subnet-1' does not exist", ExitCode.NOT_CONFIGURED, "aws_custom_subnet"),
        ("Something new", ExitCode.FAILED, "doctor REGION"),
    ],
)
def test_a_launch_s_message_alone_leads_to_a_remedy(message: str, code: ExitCode, words: str) -> None:
    """Where the code is lost the words decide what is to be done."""
    failure = refusal(message)
    assert failure.code is code
    assert words in failure.remedy


def test_credentials_that_ec2_does_not_know_are_to_be_stored_anew() -> None:
    """Wrong credentials lead to configure, not to the account's owner."""
    failure = refusal("AWS was not able to validate the provided access credentials", "AuthFailure")
    assert failure.code is ExitCode.REFUSED
    assert "configure REGION" in failure.remedy
