"""Exceptions and results, as lines for people."""

from __future__ import annotations

import botocore.exceptions
import pytest

from tovarincore._transport.gate import RefusedName
from tovarincore.cloud_conf import ConfigError
from tovarincore.cloud_def import CloudRegion, K8sRegion
from tovarincore.command.errors.explain import explain, failure_of
from tovarincore.command.errors.failures import CommandFailure, ExitCode
from tovarincore.container_helper import ContainerError
from tovarincore.core_def import OPResult, OPResultErrorCode
from tovarincore.testing.fakes import client_error

AMAZON = CloudRegion(name="us-east-1", cloud="AWS")

URL = {"endpoint_url": "https://ec2.example"}
CASES = {
    "closed port": (
        botocore.exceptions.EndpointConnectionError(**URL),
        ExitCode.UNREACHABLE,
        "EC2 cannot be",
    ),
    "no answer": (
        botocore.exceptions.ReadTimeoutError(**URL),
        ExitCode.UNREACHABLE,
        "did not answer in time",
    ),
    "slow connect": (botocore.exceptions.ConnectTimeoutError(**URL), ExitCode.UNREACHABLE, "in time"),
    "broken off": (botocore.exceptions.ConnectionClosedError(**URL), ExitCode.UNREACHABLE, "broke off"),
    "certificate": (
        botocore.exceptions.SSLError(**URL, error=OSError("self-signed")),
        ExitCode.UNREACHABLE,
        "certificate",
    ),
    "proxy": (
        botocore.exceptions.ProxyConnectionError(proxy_url="http://p.example:1"),
        ExitCode.UNREACHABLE,
        "proxy cannot be reached",
    ),
    "no credentials": (
        botocore.exceptions.NoCredentialsError(),
        ExitCode.NOT_CONFIGURED,
        "finds no credentials",
    ),
    "half credentials": (
        botocore.exceptions.PartialCredentialsError(provider="env", cred_var="KEY"),
        ExitCode.NOT_CONFIGURED,
        "incomplete",
    ),
    "no profile": (
        botocore.exceptions.ProfileNotFound(profile="work"),
        ExitCode.NOT_CONFIGURED,
        "does not exist",
    ),
    "sign-on": (
        botocore.exceptions.UnauthorizedSSOTokenError(),
        ExitCode.REFUSED,
        "the sign-on has ended",
    ),
    "parameters": (
        botocore.exceptions.ParamValidationError(report="Invalid type for parameter KeyName"),
        ExitCode.USAGE,
        "Invalid type for parameter KeyName",
    ),
    "no EC2": (
        botocore.parsers.ResponseParserError("not XML"),
        ExitCode.UNREACHABLE,
        "the answer is not one of EC2",
    ),
    "other of the SDK": (
        botocore.exceptions.UnknownServiceError(service_name="ec3", known_service_names="ec2"),
        ExitCode.FAILED,
        "the Amazon SDK failed",
    ),
    "lock": (TimeoutError(), ExitCode.FAILED, "could not be acquired within 3 seconds"),
    "precondition": (AssertionError("No disk size provided"), ExitCode.USAGE, "No disk size provided"),
    "kind": (
        NotImplementedError("Cloud Region azure is not supported"),
        ExitCode.USAGE,
        "azure is not supported",
    ),
    "configuration": (ConfigError("core.toml: wrong"), ExitCode.NOT_CONFIGURED, "core.toml: wrong"),
    "engine": (
        ContainerError("No engine", OPResultErrorCode.ENGINE_UNAVAILABLE),
        ExitCode.UNREACHABLE,
        "No engine",
    ),
    "rich missing": (
        ModuleNotFoundError("No module named 'rich'", name="rich"),
        ExitCode.NOT_CONFIGURED,
        "pip install 'tovarincore[cli]'",
    ),
    "sign-in page": (KeyError("Reservations"), ExitCode.UNREACHABLE, "the answer is not one of EC2"),
    "full disk": (OSError(28, "No space left on device", "/x"), ExitCode.FAILED, "/x: No space left"),
    "name": (RefusedName("'*' cannot be a user name"), ExitCode.USAGE, "cannot be a user name"),
    "not known": (KeyError("PublicDnsName"), ExitCode.DEFECT, "KeyError: 'PublicDnsName'"),
}


@pytest.mark.parametrize("error, code, words", CASES.values(), ids=CASES)
def test_what_the_modules_raise_becomes_one_line(error: Exception, code: ExitCode, words: str) -> None:
    """The failure has the code of its kind, and a line that says what happened."""
    failure = explain(error)
    assert failure.code is code
    assert words in failure.what
    assert "\n" not in failure.what + failure.remedy


def test_a_failure_of_the_command_stays_as_it_is() -> None:
    """What already has words for people is not explained again."""
    failure = CommandFailure("what", "remedy", ExitCode.NOT_FOUND)
    assert explain(failure) is failure


def test_an_error_of_ec2_is_named_with_its_code_and_operation() -> None:
    """A client error shows operation, message and code."""
    failure = explain(client_error("InvalidInstanceID.NotFound", "no such instance", "StopInstances"))
    assert failure.what == "EC2 refused StopInstances: no such instance (InvalidInstanceID.NotFound)"
    assert failure.code is ExitCode.NOT_FOUND


def test_a_refused_key_pair_is_a_refusal_of_rights() -> None:
    """The code that the provider sets on its result decides, also when the message says nothing."""
    result = OPResult(error=True, error_code=OPResultErrorCode.UNAUTHORIZED_OPERATION, msg="no")
    assert failure_of(result, AMAZON).code is ExitCode.REFUSED


@pytest.mark.parametrize(
    "error_code, code",
    [
        (OPResultErrorCode.CONNECTION_FAILED, ExitCode.UNREACHABLE),
        (OPResultErrorCode.UNAUTHORIZED_OPERATION, ExitCode.REFUSED),
        (OPResultErrorCode.NOT_FOUND, ExitCode.NOT_FOUND),
        (None, ExitCode.FAILED),
    ],
)
def test_results_of_a_cluster_keep_their_own_words(
    error_code: OPResultErrorCode | None, code: ExitCode
) -> None:
    """What a cluster reports is not taken for EC2's."""
    result = OPResult(error=True, error_code=error_code, msg="the cluster says no")
    failure = failure_of(result, K8sRegion(name="lab"))
    assert (failure.what, failure.code) == ("the cluster says no", code)
