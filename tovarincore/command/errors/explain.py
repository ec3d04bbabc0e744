"""Turns what the modules underneath raise or report into one line of what happened and one of what to do."""

from collections.abc import Callable
from typing import Any

from tovarincore.cloud_conf import ConfigError
from tovarincore.cloud_def import CloudRegion
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.errors.refusals import refusal
from tovarincore.command.output.text import one_line
from tovarincore.container_helper import ContainerError
from tovarincore.core_def import OPResult, OPResultErrorCode

__all__ = ["explain", "failure_of"]

_CODES = {
    OPResultErrorCode.UNAUTHORIZED_OPERATION: ExitCode.REFUSED,
    OPResultErrorCode.UNAUTHENTICATED: ExitCode.REFUSED,
    OPResultErrorCode.CERTIFICATE_INVALID: ExitCode.REFUSED,
    OPResultErrorCode.TIMEOUT: ExitCode.UNREACHABLE,
    OPResultErrorCode.CONNECTION_FAILED: ExitCode.UNREACHABLE,
    OPResultErrorCode.ENGINE_UNAVAILABLE: ExitCode.UNREACHABLE,
    OPResultErrorCode.PROTOCOL_ERROR: ExitCode.UNREACHABLE,
    OPResultErrorCode.THROTTLED: ExitCode.UNREACHABLE,
    OPResultErrorCode.UNAVAILABLE: ExitCode.UNREACHABLE,
    OPResultErrorCode.EXPIRED: ExitCode.UNREACHABLE,
    OPResultErrorCode.NOT_FOUND: ExitCode.NOT_FOUND,
}
_REMEDIES = {
    OPResultErrorCode.UNAUTHORIZED_OPERATION: "ask the cluster's administrator for the rights that"
    " docs/kubernetes.md lists",
    OPResultErrorCode.RESOURCE_EXHAUSTED: "end nodes that are not needed, or have the quota raised",
    OPResultErrorCode.THROTTLED: "wait a minute, then try again; other programs ask the same service",
    OPResultErrorCode.UNAVAILABLE: "wait until the service has started, then try again",
    OPResultErrorCode.EXPIRED: "try again; for a large namespace raise page_size in [kubernetes]",
}

_NETWORK = "see that this machine has a network and that [proxy] is right: tovarin-nodes doctor REGION"
_CREDENTIALS = "store credentials with: tovarin-nodes configure REGION"

# Exceptions of the Amazon SDK by name, so that explaining needs no import of it; a base stands for the rest.
_SDK: dict[str, tuple[ExitCode, str, str]] = {
    "EndpointConnectionError": (ExitCode.UNREACHABLE, "EC2 cannot be reached: {error}", _NETWORK),
    "ProxyConnectionError": (
        ExitCode.UNREACHABLE,
        "the proxy cannot be reached: {error}",
        "check [proxy] http and https in the configuration",
    ),
    "ConnectTimeoutError": (ExitCode.UNREACHABLE, "EC2 did not answer in time: {error}", _NETWORK),
    "ReadTimeoutError": (
        ExitCode.UNREACHABLE,
        "EC2 took the request but did not answer in time: {error}",
        "see what came of it: tovarin-nodes list REGION --all",
    ),
    "ConnectionClosedError": (
        ExitCode.UNREACHABLE,
        "the connection to EC2 broke off: {error}",
        "see what came of it: tovarin-nodes list REGION --all",
    ),
    "SSLError": (
        ExitCode.UNREACHABLE,
        "the certificate of EC2's endpoint cannot be verified: {error}",
        "install your proxy's authority in the system's certificates; see also tovarin-nodes doctor REGION",
    ),
    "HTTPClientError": (ExitCode.UNREACHABLE, "EC2 cannot be reached: {error}", _NETWORK),
    "ResponseParserError": (
        ExitCode.UNREACHABLE,
        "what answers in EC2's place does not speak its language: {error}",
        "check [proxy] and the variables AWS_ENDPOINT_URL and AWS_ENDPOINT_URL_EC2",
    ),
    "NoCredentialsError": (ExitCode.NOT_CONFIGURED, "the Amazon SDK finds no credentials", _CREDENTIALS),
    "PartialCredentialsError": (
        ExitCode.NOT_CONFIGURED,
        "the credentials are incomplete: {error}",
        _CREDENTIALS,
    ),
    "ProfileNotFound": (
        ExitCode.NOT_CONFIGURED,
        "the stored Amazon profile does not exist: {error}",
        "make it (aws configure --profile NAME), or name another: tovarin-nodes configure REGION --profile",
    ),
    "CredentialRetrievalError": (
        ExitCode.REFUSED,
        "the credentials cannot be fetched: {error}",
        "sign in again (for example aws sso login), then repeat",
    ),
    "SSOError": (ExitCode.REFUSED, "the sign-on has ended: {error}", "sign in again: aws sso login"),
    "TokenRetrievalError": (
        ExitCode.REFUSED,
        "the sign-on has ended: {error}",
        "sign in again: aws sso login",
    ),
    "ParamValidationError": (
        ExitCode.USAGE,
        "the request cannot be sent: {error}",
        "check the options of the command; tovarin-nodes launch --help explains them",
    ),
    "BotoCoreError": (ExitCode.FAILED, "the Amazon SDK failed: {error}", "see: tovarin-nodes doctor REGION"),
}


def explain(error: BaseException) -> CommandFailure:
    """Return the failure that an exception amounts to; it never raises.

    :param error: whatever a command let through
    """
    if isinstance(error, CommandFailure):
        return error
    for kind, build in _KINDS:
        if isinstance(error, kind):
            return build(error)
    return _explain_sdk(error) or CommandFailure(
        f"tovarin-nodes met an error that it does not know: {type(error).__name__}: {one_line(error)}",
        "run it again with --debug, and report what that shows",
        ExitCode.DEFECT,
    )


def failure_of(result: OPResult, region: CloudRegion) -> CommandFailure:
    """Return the failure that an operation's result reports.

    :param result: a result without ``success``
    :param region: where it comes from
    """
    msg, error_code = result.msg or "the provider reports a failure without saying which", result.error_code
    if region.cloud == "AWS":
        unauthorized = error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION
        return refusal(msg, "UnauthorizedOperation" if unauthorized else "")
    # The container helper and the Kubernetes client mostly say in the message what to do.
    remedy = _REMEDIES.get(error_code, "") if error_code else ""
    return CommandFailure(one_line(msg), remedy, _exit_code(error_code))


def _explain_sdk(error: BaseException) -> CommandFailure | None:
    if not type(error).__module__.startswith(("botocore", "boto3")):
        return None
    response: Any = getattr(error, "response", None)
    if isinstance(response, dict):
        details = response.get("Error", {})
        return refusal(
            str(details.get("Message") or error),
            str(details.get("Code", "")),
            str(getattr(error, "operation_name", "")),
        )
    for base in type(error).__mro__:
        if base.__name__ in _SDK:
            code, what, remedy = _SDK[base.__name__]
            return CommandFailure(what.format(error=one_line(error)), remedy, code)
    return None


def _exit_code(error_code: OPResultErrorCode | None) -> ExitCode:
    return _CODES.get(error_code, ExitCode.FAILED) if error_code else ExitCode.FAILED


def _config(error: BaseException) -> CommandFailure:
    # Its text already says what is allowed.
    return CommandFailure(one_line(error), "mend that, then repeat the command", ExitCode.NOT_CONFIGURED)


def _container(error: BaseException) -> CommandFailure:
    assert isinstance(error, ContainerError)
    # Its text already says what to do.
    return CommandFailure(one_line(error), "", _exit_code(error.error_code))


def _timeout(error: BaseException) -> CommandFailure:
    return CommandFailure(
        f"a lock of the node manager was not free within 3 seconds {one_line(error)}".rstrip(),
        "repeat the command",
        ExitCode.FAILED,
    )


def _assertion(error: BaseException) -> CommandFailure:
    return CommandFailure(
        f"the node manager refuses the request: {one_line(error) or 'a precondition does not hold'}",
        "check the options of the command; tovarin-nodes doctor REGION looks at the rest",
        ExitCode.USAGE,
    )


def _unsupported(error: BaseException) -> CommandFailure:
    return CommandFailure(one_line(error), "choose one of: tovarin-nodes regions", ExitCode.USAGE)


def _missing(error: BaseException) -> CommandFailure:
    name = (getattr(error, "name", None) or one_line(error)).partition(".")[0]
    if name in ("click", "rich"):
        return CommandFailure(
            f"tovarin-nodes needs the package {name}, which is not installed: pip install tovarincore[cli]",
            "",
            ExitCode.NOT_CONFIGURED,
        )
    return CommandFailure(
        f"the package {name} cannot be imported: {one_line(error)}",
        "install it: pip install tovarincore",
        ExitCode.NOT_CONFIGURED,
    )


_KINDS: list[tuple[type[BaseException], Callable[[BaseException], CommandFailure]]] = [
    (ConfigError, _config),
    (ContainerError, _container),
    (TimeoutError, _timeout),
    (AssertionError, _assertion),
    (NotImplementedError, _unsupported),
    (ImportError, _missing),
]
