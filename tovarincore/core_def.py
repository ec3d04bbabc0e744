"""Results, error codes and constants that every module of the package shares."""

import sys
import traceback
from dataclasses import dataclass, field
from enum import Enum

__all__ = ["CoreDef", "OPResult", "OPResultErrorCode"]


class CoreDef:
    """Constants of the product."""

    NODE_HOME_PATH = "/home/tovarin"
    """Home directory of the product on a launched node, without a trailing slash."""
    WORKER_TOKEN_VARIABLE = "TOVARIN_WORKER_TOKEN"
    """Environment variable of a worker in a container: the bearer token that it must ask for."""


class OPResultErrorCode(Enum):
    """What went wrong, for callers that act on it; the message is for people.

    The first two are EC2's own error codes; the others are set by the worker's web-socket client, the
    container helper and the Kubernetes client.
    """

    DRY_RUN_OPERATION = "DryRunOperation"
    """The provider would have accepted the launch: a dry run went well."""
    UNAUTHORIZED_OPERATION = "UnauthorizedOperation"
    """The provider refused the caller's rights."""
    TIMEOUT = "Timeout"
    """No answer within the deadline."""
    CONNECTION_FAILED = "ConnectionFailed"
    """The address did not resolve, or nothing accepted the connection."""
    UNAUTHENTICATED = "Unauthenticated"
    """The peer refused the token."""
    CERTIFICATE_INVALID = "CertificateInvalid"
    """The peer's certificate could not be verified."""
    PROTOCOL_ERROR = "ProtocolError"
    """The peer answered with something that is not of this product."""
    NOT_FOUND = "NotFound"
    """The thing asked for does not exist."""
    RESOURCE_EXHAUSTED = "ResourceExhausted"
    """A quota or the machine's capacity does not allow it."""
    THROTTLED = "Throttled"
    """The service is asked too often; wait before the next request."""
    UNAVAILABLE = "Unavailable"
    """The service is starting, stopping or overloaded; try again later."""
    EXPIRED = "Expired"
    """The listing took so long that the service gave up the state that it showed; list again."""
    ENGINE_UNAVAILABLE = "EngineUnavailable"
    """The container engine does not answer."""


@dataclass(kw_only=True)
class OPResult:
    """Result of an operation that can fail without raising; built by keyword only.

    :param success: the operation did what was asked
    :param error: the operation failed
    :param error_code: the kind of failure, where the caller can act on it
    :param msg: what went wrong, for people; secrets in it are masked
    :param exc_info: ``True`` inside an ``except`` block keeps the traceback of the exception being handled as
        text in :attr:`traceback_text`, without secrets; a text is kept there as it is. Only text is kept: a
        traceback object would keep alive the local variables of every frame it passes through, credentials
        included.
    """

    success: bool = False
    error: bool = False
    error_code: OPResultErrorCode | None = None
    msg: str | None = None
    exc_info: bool | str = False
    traceback_text: str | None = field(default=None, init=False, repr=False, compare=False)
    """Traceback of the failure; ``None`` when it was not asked for or no exception was being handled."""
    provider_code: str | None = field(default=None, init=False, repr=False, compare=False)
    """The provider's own code, such as EC2's ``"InsufficientInstanceCapacity"``, of an error result that is
    made while an error answer of the Amazon SDK is being handled; else ``None``."""

    def __post_init__(self) -> None:
        if self.error:
            # The SDK's ClientError, told by what it carries: the SDK need not be installed here.
            response = getattr(sys.exc_info()[1], "__dict__", {}).get("response")
            details = response.get("Error") if isinstance(response, dict) else None
            code = details.get("Code") if isinstance(details, dict) else None
            # Both may be a peer's words, which can repeat what it was sent.
            self.provider_code = _masked(code) if isinstance(code, str) else None
            self.msg = _masked(self.msg) if isinstance(self.msg, str) else self.msg
        if isinstance(self.exc_info, str):
            self.traceback_text = self.exc_info
        elif self.exc_info and sys.exc_info()[1] is not None:
            self.traceback_text = _masked(traceback.format_exc())


def _masked(text: str) -> str:
    # Imported here: only failures need it.
    from tovarincore._transport.masker import mask

    return mask(text)
