"""Turns what the modules underneath raise or report into one line of what happened and one of what to do."""

import errno
from collections.abc import Callable

from tovarincore._transport.gate import RefusedName
from tovarincore.cloud_conf import ConfigError
from tovarincore.cloud_def import CloudRegion, K8sRegion
from tovarincore.command.errors.advice import command_for, missing_kubeconfig
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.errors.refusals import refusal
from tovarincore.command.errors.sdk import explain_sdk
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
    OPResultErrorCode.THROTTLED: ExitCode.BUSY,
    OPResultErrorCode.UNAVAILABLE: ExitCode.BUSY,
    OPResultErrorCode.EXPIRED: ExitCode.BUSY,
    OPResultErrorCode.NOT_FOUND: ExitCode.NOT_FOUND,
}
_REMEDIES = {
    OPResultErrorCode.UNAUTHORIZED_OPERATION: "ask the cluster's administrator for the rights that"
    " this lists: tovarin-nodes help kubernetes",
    OPResultErrorCode.RESOURCE_EXHAUSTED: "end nodes that are not needed, or have the quota raised",
    OPResultErrorCode.THROTTLED: "wait a minute, then try again; other programs ask the same service",
    OPResultErrorCode.UNAVAILABLE: "wait until the service has started, then try again",
    OPResultErrorCode.EXPIRED: "try again; for a large namespace raise page_size in [kubernetes]",
}
_EXTRAS = {
    **dict.fromkeys(("click", "rich", "yaml", "tomlkit"), "cli"),
    "prometheus_client": "metrics",
    "textual": "top",
}
"""The optional packages of the command, and the extra that brings each along."""
_DISK_FULL = (errno.ENOSPC, errno.EDQUOT)


def explain(error: BaseException, region: CloudRegion | None = None) -> CommandFailure:
    """Return the failure that an exception amounts to; it never raises.

    :param error: whatever a command let through
    :param region: where the command worked; ``None`` where it is not known
    """
    if isinstance(error, CommandFailure):
        return error
    for kind, build in _KINDS:
        if isinstance(error, kind):
            return build(error, region)
    found = explain_sdk(error, region)
    if found is None and isinstance(error, OSError):
        found = _system(error)
    return found or CommandFailure(
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
        code = result.provider_code or ""
        if error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION:
            code = error_code.value
        return refusal(msg, code, region=region)
    if isinstance(region, K8sRegion) and error_code is OPResultErrorCode.UNAUTHENTICATED:
        missing = missing_kubeconfig(region)
        if missing is not None:
            return CommandFailure(
                f"the kubeconfig file {one_line(missing)} of the region {region.name} does not exist",
                "put it there, or correct kubeconfig of the region in the file of [cloud] regions_file",
                ExitCode.NOT_CONFIGURED,
            )
    # The container helper and the Kubernetes client mostly say in the message what to do.
    remedy = _REMEDIES.get(error_code, "") if error_code else ""
    return CommandFailure(one_line(msg), remedy, _exit_code(error_code))


def _exit_code(error_code: OPResultErrorCode | None) -> ExitCode:
    return _CODES.get(error_code, ExitCode.FAILED) if error_code else ExitCode.FAILED


def _config(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    # Its text already says what is allowed.
    return CommandFailure(one_line(error), "correct that, then repeat the command", ExitCode.NOT_CONFIGURED)


def _refused_name(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    return CommandFailure(one_line(error), "give another one", ExitCode.USAGE)


def _container(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    assert isinstance(error, ContainerError)
    # Its text already says what to do.
    return CommandFailure(one_line(error), "", _exit_code(error.error_code))


def _timeout(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    return CommandFailure(
        f"the node manager's lock could not be acquired within 3 seconds {one_line(error)}".rstrip(),
        "repeat the command",
        ExitCode.FAILED,
    )


def _assertion(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    return CommandFailure(
        f"the node manager refuses the request: {one_line(error) or 'a precondition does not hold'}",
        f"check the options of the command; {command_for(region, 'doctor')} looks at the rest",
        ExitCode.USAGE,
    )


def _unsupported(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    return CommandFailure(one_line(error), "choose one of: tovarin-nodes regions", ExitCode.USAGE)


def _missing(error: BaseException, region: CloudRegion | None) -> CommandFailure:
    name = (getattr(error, "name", None) or one_line(error)).partition(".")[0]
    if name in _EXTRAS:
        return CommandFailure(
            f"tovarin-nodes needs the package {name}, which is not installed:"
            f" pip install 'tovarincore[{_EXTRAS[name]}]'",
            "",
            ExitCode.NOT_CONFIGURED,
        )
    return CommandFailure(
        f"the package {name} cannot be imported: {one_line(error)}",
        "install it: pip install tovarincore",
        ExitCode.NOT_CONFIGURED,
    )


def _system(error: OSError) -> CommandFailure | None:
    if error.errno is None:
        return None
    where = f"{one_line(error.filename)}: " if error.filename is not None else ""
    full = error.errno in _DISK_FULL
    return CommandFailure(
        f"{where}{error.strerror or one_line(error)}",
        "make room on the disk, then repeat the command" if full else "correct that, then repeat the command",
        ExitCode.FAILED,
    )


_KINDS: list[tuple[type[BaseException], Callable[[BaseException, CloudRegion | None], CommandFailure]]] = [
    (ConfigError, _config),
    (RefusedName, _refused_name),
    (ContainerError, _container),
    (TimeoutError, _timeout),
    (AssertionError, _assertion),
    (NotImplementedError, _unsupported),
    (ImportError, _missing),
]
