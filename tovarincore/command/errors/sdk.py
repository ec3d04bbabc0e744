"""What the exceptions of the Amazon SDK amount to; told by name, so that explaining needs no import of it."""

from collections.abc import Iterator
from types import TracebackType
from typing import TYPE_CHECKING, Any

from tovarincore.command.errors.advice import short_name
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.command.errors.refusals import refusal
from tovarincore.command.output.text import one_line

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion

__all__ = ["explain_sdk"]

_NETWORK = "check this machine's network and [proxy]: tovarin-nodes doctor {region}"
_CREDENTIALS = "store credentials with: tovarin-nodes configure {region}"
_LOST_ANSWER = "look what came of it: tovarin-nodes list {region} --all"
_SIGN_IN = "sign in again: aws sso login"
_ENDPOINT = "check [proxy] and the variables AWS_ENDPOINT_URL and AWS_ENDPOINT_URL_EC2"

# The name of an exception; a base stands for the rest. No text of the parser: it quotes the answer whole.
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
        _LOST_ANSWER,
    ),
    "ConnectionClosedError": (
        ExitCode.UNREACHABLE,
        "the connection to EC2 broke off: {error}",
        _LOST_ANSWER,
    ),
    "SSLError": (
        ExitCode.UNREACHABLE,
        "the certificate of EC2's endpoint cannot be verified: {error}",
        "install your proxy's authority in the system's certificates; see also tovarin-nodes doctor {region}",
    ),
    "HTTPClientError": (ExitCode.UNREACHABLE, "EC2 cannot be reached: {error}", _NETWORK),
    "ResponseParserError": (
        ExitCode.UNREACHABLE,
        "the answer is not one of EC2: a proxy or a network's sign-in page may have sent it",
        _ENDPOINT,
    ),
    "NoCredentialsError": (ExitCode.NOT_CONFIGURED, "the Amazon SDK finds no credentials", _CREDENTIALS),
    "PartialCredentialsError": (
        ExitCode.NOT_CONFIGURED,
        "the credentials are incomplete: {error}",
        _CREDENTIALS,
    ),
    "ProfileNotFound": (
        ExitCode.NOT_CONFIGURED,
        "the Amazon profile does not exist: {error}",
        "create it (aws configure --profile NAME), or name another:"
        " tovarin-nodes configure {region} --profile NAME",
    ),
    "CredentialRetrievalError": (
        ExitCode.REFUSED,
        "the credentials cannot be fetched: {error}",
        "sign in again (for example aws sso login), then repeat the command",
    ),
    "SSOError": (ExitCode.REFUSED, "the sign-on has ended: {error}", _SIGN_IN),
    "TokenRetrievalError": (ExitCode.REFUSED, "the sign-on has ended: {error}", _SIGN_IN),
    "ParamValidationError": (
        ExitCode.USAGE,
        "the request cannot be sent: {error}",
        "check the options of the command; tovarin-nodes launch --help explains them",
    ),
    "BotoCoreError": (
        ExitCode.FAILED,
        "the Amazon SDK failed: {error}",
        "find out what is wrong with: tovarin-nodes doctor {region}",
    ),
}
# Top-level keys of EC2's answers that the provider and the command read.
_ANSWER_KEYS = frozenset(
    "GroupId Images InstanceTypes Instances KeyMaterial KeyPairs Reservations SecurityGroupRules"
    " SecurityGroups Subnets VpcId Vpcs".split()
)


def explain_sdk(error: BaseException, region: "CloudRegion | None") -> CommandFailure | None:
    """Return the failure that an exception of the SDK, or one that it caused, amounts to.

    :param error: any exception
    :param region: where the request went
    :return: ``None`` for an exception that has nothing to do with the SDK
    """
    response: Any = getattr(error, "response", None)
    if _of_sdk(type(error).__module__) and isinstance(response, dict):
        return _explain_answer(error, response, region)
    for base in type(error).__mro__:
        if _of_sdk(base.__module__) and base.__name__ in _SDK:
            code, what, remedy = _SDK[base.__name__]
            return CommandFailure(
                what.format(error=one_line(error)), remedy.format(region=short_name(region)), code
            )
    if isinstance(error, KeyError) and error.args and error.args[0] in _ANSWER_KEYS:
        code, what, remedy = _SDK["ResponseParserError"]
        return CommandFailure(f"{what} ({error.args[0]} is missing)", remedy, code)
    if isinstance(error, ValueError) and any(map(_of_sdk, _modules(error.__traceback__))):
        return CommandFailure(
            f"the Amazon SDK refuses a setting: {one_line(error)}", _ENDPOINT, ExitCode.NOT_CONFIGURED
        )
    return None


def _explain_answer(
    error: BaseException, response: dict[str, Any], region: "CloudRegion | None"
) -> CommandFailure:
    details = response.get("Error", {})
    metadata = response.get("ResponseMetadata", {})
    after = str(metadata.get("HTTPHeaders", {}).get("retry-after", ""))
    return refusal(
        str(details.get("Message") or error),
        str(details.get("Code", "")),
        str(getattr(error, "operation_name", "")),
        region,
        metadata.get("HTTPStatusCode", 0),
        float(after) if after.isdecimal() else None,
    )


def _of_sdk(module: str) -> bool:
    return module.partition(".")[0] in ("boto3", "botocore")


def _modules(trace: TracebackType | None) -> Iterator[str]:
    while trace is not None:
        yield str(trace.tb_frame.f_globals.get("__name__", ""))
        trace = trace.tb_next
