"""What to do about the refusals of EC2, by their code."""

import re
from typing import TYPE_CHECKING

from tovarincore.command.errors.advice import short_name
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.output.text import one_line

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion

__all__ = ["refusal"]

_ENCODED_REFUSAL = re.compile(r"\s*Encoded authorization failure message: (?P<blob>\S+)")

_RIGHTS = "ask the account's owner for the right to do this; tovarin-nodes help iam-policy lists the rights"
_CREDENTIALS = "store working credentials with: tovarin-nodes configure {region}"
_CLOCK = _CREDENTIALS + "; check this machine's clock, too"
_BUSY = "EC2 asks for fewer requests: try again in a minute"
_OWN_FAILURE = "the failure is EC2's own: try again in a minute"
_CAPACITY = "choose another type or region, or try again later"
_QUOTA = "end nodes that are not needed, or have the account's quota raised"
_NETWORK = "check [network] aws_custom_vpc and aws_custom_subnet: tovarin-nodes doctor {region}"
_IMAGES = "choose one of: tovarin-nodes templates {region}"
_OTHER = "find out what is wrong with: tovarin-nodes doctor {region}"

# Codes of EC2's error responses, as its API reference lists them, and remedies.
_BY_CODE: dict[str, tuple[ExitCode, str]] = {
    "UnauthorizedOperation": (ExitCode.REFUSED, _RIGHTS),
    "AccessDenied": (ExitCode.REFUSED, _RIGHTS),
    "AuthFailure": (ExitCode.REFUSED, _CLOCK),
    "InvalidClientTokenId": (ExitCode.REFUSED, _CREDENTIALS),
    "UnrecognizedClientException": (ExitCode.REFUSED, _CREDENTIALS),
    "SignatureDoesNotMatch": (ExitCode.REFUSED, _CLOCK),
    "ExpiredToken": (ExitCode.REFUSED, "renew the session token, then: tovarin-nodes configure {region}"),
    "RequestExpired": (ExitCode.REFUSED, "renew the credentials, and check this machine's clock"),
    "OptInRequired": (ExitCode.REFUSED, "enable the region or the service for the account first"),
    "InternalError": (ExitCode.BUSY, _OWN_FAILURE),
    "InternalFailure": (ExitCode.BUSY, _OWN_FAILURE),
    "ServiceUnavailable": (ExitCode.BUSY, _OWN_FAILURE),
    "Unavailable": (ExitCode.BUSY, _OWN_FAILURE),
    "InvalidInstanceID.NotFound": (ExitCode.NOT_FOUND, "list your nodes: tovarin-nodes list {region} --all"),
    "InvalidInstanceID.Malformed": (ExitCode.NOT_FOUND, "list your nodes: tovarin-nodes list {region} --all"),
    "IncorrectInstanceState": (ExitCode.FAILED, "look at its state: tovarin-nodes show {region} NODE"),
    "OperationNotPermitted": (ExitCode.FAILED, "the instance is protected: lift that in the EC2 console"),
    "InvalidKeyPair.Duplicate": (ExitCode.FAILED, "choose another name, or delete the key pair first"),
    "InvalidKeyPair.NotFound": (
        ExitCode.NOT_FOUND,
        "create it with: tovarin-nodes keypair create {region} NAME, or give another one with --key-pair",
    ),
    "InvalidAMIID.NotFound": (ExitCode.NOT_FOUND, _IMAGES),
    "InvalidAMIID.Malformed": (ExitCode.NOT_FOUND, _IMAGES),
    "InvalidAMIID.Unavailable": (ExitCode.NOT_FOUND, _IMAGES),
    "InvalidInstanceType": (
        ExitCode.NOT_FOUND,
        "choose another one with --type: tovarin-nodes types {region}",
    ),
    "Unsupported": (ExitCode.FAILED, "choose another type with --type, or another subnet"),
    "InsufficientInstanceCapacity": (ExitCode.FAILED, _CAPACITY),
    "InstanceLimitExceeded": (ExitCode.FAILED, _QUOTA),
    "VcpuLimitExceeded": (ExitCode.FAILED, _QUOTA),
    "VolumeLimitExceeded": (ExitCode.FAILED, _QUOTA),
    "MaxIOPSLimitExceeded": (ExitCode.FAILED, _QUOTA),
    "InsufficientFreeAddressesInSubnet": (ExitCode.FAILED, _NETWORK),
    "InvalidSubnetID.NotFound": (ExitCode.NOT_CONFIGURED, _NETWORK),
    "InvalidSubnetId.NotFound": (ExitCode.NOT_CONFIGURED, _NETWORK),
    "InvalidVpcID.NotFound": (ExitCode.NOT_CONFIGURED, _NETWORK),
    "VPCIdNotSpecified": (ExitCode.NOT_CONFIGURED, _NETWORK),
}
_BUSY_CODES = frozenset(
    "429 503 BandwidthLimitExceeded EC2ThrottledException PriorRequestNotComplete RequestLimitExceeded"
    " RequestThrottled RequestThrottledException SlowDown Throttling ThrottlingException"
    " TooManyRequestsException".split()
)
_BUSY_STATUS = (429, 503)

# This one code stands for many things; only the message tells which.
_INVALID_VALUE = "InvalidParameterValue"
_PROFILE = re.compile(r"instance ?profile", re.IGNORECASE)


def refusal(
    message: str,
    error_code: str = "",
    operation: str = "",
    region: "CloudRegion | None" = None,
    status: int = 0,
    wait_seconds: float | None = None,
) -> CommandFailure:
    """Return the failure for an error that EC2 answered with.

    :param message: EC2's message
    :param error_code: EC2's code; empty when it is not known
    :param operation: name of the EC2 operation; empty when it is not known
    :param region: where it comes from
    :param status: status of the HTTP answer; 0 when it is not known
    :param wait_seconds: how long EC2 asked to be left alone, when it said so
    """
    encoded = _ENCODED_REFUSAL.search(message)
    text = one_line(_ENCODED_REFUSAL.sub("", message)) or error_code
    code, remedy = _remedy(message, error_code, status)
    remedy = remedy.format(region=short_name(region))
    if encoded:
        remedy += "; --debug shows the encoded reason, for: aws sts decode-authorization-message"
    asked = f"EC2 refused {operation}" if operation else "EC2 refused"
    named = f" ({error_code})" if error_code else ""
    details = f"encoded reason: {encoded['blob']}" if encoded else ""
    return CommandFailure(f"{asked}: {text}{named}", remedy, code, details, wait_seconds)


def _remedy(message: str, error_code: str, status: int) -> tuple[ExitCode, str]:
    if error_code in _BUSY_CODES or status in _BUSY_STATUS:
        return ExitCode.BUSY, _BUSY
    if error_code in _BY_CODE:
        return _BY_CODE[error_code]
    if error_code == _INVALID_VALUE and _PROFILE.search(message):
        return (
            ExitCode.NOT_FOUND,
            "create the instance profile in IAM, or give another one with --instance-profile",
        )
    return ExitCode.FAILED, _OTHER
