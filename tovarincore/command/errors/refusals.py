"""What to do about the refusals of EC2, by their code or, where only the message is left, by its words."""

import re

from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line

__all__ = ["ENCODED_REFUSAL", "refusal"]

ENCODED_REFUSAL = re.compile(r"\s*Encoded authorization failure message: (?P<blob>\S+)")

_RIGHTS = "ask the account's owner for the right to do this; docs/command.md lists those that are needed"
_CREDENTIALS = "store working credentials with: tovarin-nodes configure REGION"
_AGAIN = "try again in a moment"

# Code of EC2's error response, as listed in its API reference under "Error codes"; remedy.
_BY_CODE: dict[str, tuple[ExitCode, str]] = {
    "UnauthorizedOperation": (ExitCode.REFUSED, _RIGHTS),
    "AccessDenied": (ExitCode.REFUSED, _RIGHTS),
    "AuthFailure": (ExitCode.REFUSED, _CREDENTIALS + "; see also that this machine's clock is right"),
    "InvalidClientTokenId": (ExitCode.REFUSED, _CREDENTIALS),
    "UnrecognizedClientException": (ExitCode.REFUSED, _CREDENTIALS),
    "SignatureDoesNotMatch": (
        ExitCode.REFUSED,
        _CREDENTIALS + "; see also that this machine's clock is right",
    ),
    "ExpiredToken": (ExitCode.REFUSED, "renew the session token, then: tovarin-nodes configure REGION"),
    "RequestExpired": (ExitCode.REFUSED, "renew the credentials, and see that this machine's clock is right"),
    "OptInRequired": (ExitCode.REFUSED, "enable the region or the service for the account first"),
    "RequestLimitExceeded": (ExitCode.UNREACHABLE, "EC2 asks for fewer requests: " + _AGAIN),
    "Throttling": (ExitCode.UNREACHABLE, "EC2 asks for fewer requests: " + _AGAIN),
    "InternalError": (ExitCode.UNREACHABLE, "the failure is EC2's own: " + _AGAIN),
    "Unavailable": (ExitCode.UNREACHABLE, "the failure is EC2's own: " + _AGAIN),
    "InvalidInstanceID.NotFound": (ExitCode.NOT_FOUND, "see what is there: tovarin-nodes list REGION --all"),
    "IncorrectInstanceState": (ExitCode.FAILED, "see its state: tovarin-nodes show REGION NODE"),
    "OperationNotPermitted": (ExitCode.FAILED, "the instance is protected: lift that in the EC2 console"),
}

# The launch and the key pairs hand on EC2's message without its code.
_BY_WORDS: list[tuple[str, ExitCode, str]] = [
    (r"not authorized|Encoded authorization failure", ExitCode.REFUSED, _RIGHTS),
    (r"not able to validate the provided access credentials", ExitCode.REFUSED, _CREDENTIALS),
    (r"key ?pair .*already exists", ExitCode.FAILED, "choose another name, or delete the key pair first"),
    (
        r"key ?pair .*does not exist",
        ExitCode.NOT_FOUND,
        "make it with: tovarin-nodes keypair create REGION NAME, or give another one with --key-pair",
    ),
    (
        r"image id .*(does not exist|not exist|invalid)",
        ExitCode.NOT_FOUND,
        "choose one of: tovarin-nodes templates REGION",
    ),
    (
        r"instance ?profile",
        ExitCode.NOT_FOUND,
        "make the instance profile in IAM, or give another one with --instance-profile",
    ),
    (
        r"instance type|InstanceType",
        ExitCode.NOT_FOUND,
        "choose another one with --type: tovarin-nodes types REGION",
    ),
    (
        r"subnet|vpc",
        ExitCode.NOT_CONFIGURED,
        "check [network] aws_custom_vpc and aws_custom_subnet: tovarin-nodes doctor REGION",
    ),
    (
        r"capacity|quota|limit|exceeded",
        ExitCode.FAILED,
        "choose another type or region, end nodes, or have the account's quota raised",
    ),
]
_OTHER = "see what is wrong with: tovarin-nodes doctor REGION"


def refusal(message: str, error_code: str = "", operation: str = "") -> CommandFailure:
    """Return the failure for an error that EC2 answered with.

    :param message: EC2's message
    :param error_code: EC2's code; empty when it is not known
    :param operation: name of the EC2 operation; empty when it is not known
    """
    encoded = ENCODED_REFUSAL.search(message)
    text = one_line(ENCODED_REFUSAL.sub("", message)) or error_code
    code, remedy = _remedy(message, error_code)
    if encoded:
        remedy += "; --debug shows the encoded reason, for: aws sts decode-authorization-message"
    asked = f"EC2 refused {operation}" if operation else "EC2 refused"
    named = f" ({error_code})" if error_code else ""
    details = f"encoded reason: {encoded['blob']}" if encoded else ""
    return CommandFailure(f"{asked}: {text}{named}", remedy, code, details)


def _remedy(message: str, error_code: str) -> tuple[ExitCode, str]:
    if error_code in _BY_CODE:
        return _BY_CODE[error_code]
    for pattern, code, remedy in _BY_WORDS:
        if re.search(pattern, message, re.IGNORECASE):
            return code, remedy
    return ExitCode.FAILED, _OTHER
