"""What a failed request means for what is done next."""

from dataclasses import dataclass
from enum import Enum, auto

from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["Failure", "FailureKind", "failure_of_error", "failure_of_result"]


class FailureKind(Enum):
    """What to do about a failure."""

    REFUSED = auto()
    """Repeating would not help."""
    CAPACITY = auto()
    """There is none of this type in this region now: try another type or region."""
    AGAIN = auto()
    """Nothing was done, and the same request may go well in a moment."""
    UNKNOWN = auto()
    """The answer was lost: the request may have gone well."""


@dataclass(frozen=True)
class Failure:
    """A request that was not answered with success.

    :param kind: what to do about it
    :param result: the provider's result, or one with the text of what was raised
    :param error: what was raised, if anything was
    """

    kind: FailureKind
    result: OPResult
    error: Exception | None = None

    @property
    def is_final(self) -> bool:
        """Whether the same request would fail again."""
        return self.kind in (FailureKind.REFUSED, FailureKind.CAPACITY)

    @property
    def why(self) -> str:
        """A text for people."""
        code = self.result.error_code
        return self.result.msg or (code.value if code else "the provider gives no reason")


# Codes of EC2's error answers, as its API reference lists them.
_KIND_OF_PROVIDER_CODE = {
    **dict.fromkeys(
        (
            "InsufficientCapacity",
            "InsufficientFreeAddressesInSubnet",
            "InsufficientHostCapacity",
            "InsufficientInstanceCapacity",
            "InsufficientReservedInstanceCapacity",
            "InsufficientVolumeCapacity",
            "InstanceLimitExceeded",
            "MaxSpotInstanceCountExceeded",
            "Unsupported",
            "VcpuLimitExceeded",
        ),
        FailureKind.CAPACITY,
    ),
    **dict.fromkeys(
        (
            "EC2ThrottledException",
            "RequestLimitExceeded",
            "RequestThrottled",
            "RequestThrottledException",
            "SlowDown",
            "Throttling",
            "ThrottlingException",
            "TooManyRequestsException",
            # Another launch was faster with the security group, or what was just made does not show
            # everywhere yet.
            "InvalidGroup.Duplicate",
            "InvalidGroup.NotFound",
            "InvalidInstanceID.NotFound",
            "InvalidPermission.Duplicate",
        ),
        FailureKind.AGAIN,
    ),
    **dict.fromkeys(
        ("InternalError", "InternalFailure", "RequestTimeout", "ServiceUnavailable", "Unavailable"),
        FailureKind.UNKNOWN,
    ),
}
_KIND_OF_CODE = {
    OPResultErrorCode.RESOURCE_EXHAUSTED: FailureKind.CAPACITY,
    OPResultErrorCode.THROTTLED: FailureKind.AGAIN,
    OPResultErrorCode.EXPIRED: FailureKind.AGAIN,
    OPResultErrorCode.UNAVAILABLE: FailureKind.UNKNOWN,
    OPResultErrorCode.TIMEOUT: FailureKind.UNKNOWN,
    OPResultErrorCode.CONNECTION_FAILED: FailureKind.UNKNOWN,
    OPResultErrorCode.PROTOCOL_ERROR: FailureKind.UNKNOWN,
}


def failure_of_result(result: OPResult) -> Failure:
    """Return what an error result means."""
    code = getattr(result, "provider_code", None)
    if code is not None:
        return Failure(_kind_of(code), result)
    kind = FailureKind.REFUSED if result.error_code is None else _KIND_OF_CODE.get(result.error_code)
    return Failure(kind or FailureKind.REFUSED, result)


def failure_of_error(error: Exception) -> Failure:
    """Return what an exception means that a provider let through."""
    response = getattr(error, "response", None)
    details = response.get("Error") if isinstance(response, dict) else None
    if isinstance(details, dict):
        text = str(details.get("Message") or error)
        return Failure(_kind_of(str(details.get("Code", ""))), OPResult(error=True, msg=text), error)
    result = OPResult(error=True, msg=str(error) or type(error).__name__)
    if type(error) is TimeoutError:
        # A lock of the node manager was not free within its three seconds.
        return Failure(FailureKind.AGAIN, result, error)
    # Of the SDK's exceptions these bases stand for what happens on the way to EC2 and back.
    names = {base.__name__ for base in type(error).__mro__ if base.__module__.startswith("botocore")}
    lost = names & {"ConnectionError", "HTTPClientError", "IncompleteReadError", "ResponseParserError"}
    # A certificate that cannot be verified now cannot be verified in a moment either.
    known = not lost or "SSLError" in names
    return Failure(FailureKind.REFUSED if known else FailureKind.UNKNOWN, result, error)


def _kind_of(code: str) -> FailureKind:
    # The SDK puts the status in the place of a code that the answer lacks.
    if code.isdigit():
        return FailureKind.UNKNOWN if int(code) >= 500 else FailureKind.REFUSED
    return _KIND_OF_PROVIDER_CODE.get(code, FailureKind.REFUSED)
