"""Tests of the fault-injecting endpoint: each fault is what the SDK takes it for."""

from __future__ import annotations

import time
from collections.abc import Iterator
from typing import Any

import boto3
import pytest
from botocore.config import Config
from botocore.exceptions import ClientError, ConnectionClosedError
from botocore.parsers import ResponseParserError

from stage.fault import (
    GARBAGE,
    HANG_UP,
    Answer,
    FaultEndpoint,
    document,
    ec2_error,
    throttled,
    unauthorized,
)


@pytest.fixture
def upstream() -> Iterator[FaultEndpoint]:
    """What unscripted actions are passed on to: it knows no key pairs and refuses the rest."""
    with FaultEndpoint("http://127.0.0.1:1") as endpoint:
        endpoint.script("DescribeKeyPairs", document("DescribeKeyPairs", "<keySet/>"))
        endpoint.script("DescribeVpcs", unauthorized())
        yield endpoint


@pytest.fixture
def faults(upstream: FaultEndpoint) -> Iterator[FaultEndpoint]:
    """The endpoint under test."""
    with FaultEndpoint(upstream.url) as endpoint:
        yield endpoint


@pytest.fixture
def client(faults: FaultEndpoint) -> Iterator[Any]:
    """An EC2 client of the endpoint that never tries twice."""
    session = boto3.Session(aws_access_key_id="id", aws_secret_access_key="secret")
    config = Config(retries={"total_max_attempts": 1, "mode": "standard"}, proxies={})
    ec2 = session.client("ec2", region_name="us-east-1", endpoint_url=faults.url, config=config)
    yield ec2
    ec2.close()


@pytest.mark.parametrize(
    ("answer", "code", "status"),
    [
        pytest.param(ec2_error("InternalError", "Sorry & <bye>", 500), "InternalError", 500, id="5xx"),
        pytest.param(throttled(), "RequestLimitExceeded", 503, id="throttled"),
        pytest.param(unauthorized(), "UnauthorizedOperation", 403, id="refused"),
    ],
)
def test_an_error_document_is_a_client_error(
    faults: FaultEndpoint, client: Any, answer: Answer, code: str, status: int
) -> None:
    """Code and status arrive as scripted."""
    faults.script("DescribeKeyPairs", answer)
    with pytest.raises(ClientError) as raised:
        client.describe_key_pairs()
    assert raised.value.response["Error"]["Code"] == code
    assert raised.value.response["ResponseMetadata"]["HTTPStatusCode"] == status


def test_a_hang_up_is_a_closed_connection(faults: FaultEndpoint, client: Any) -> None:
    """The connection ends without an answer."""
    faults.script("DescribeKeyPairs", HANG_UP)
    with pytest.raises(ConnectionClosedError):
        client.describe_key_pairs()


def test_garbage_is_not_parsed(faults: FaultEndpoint, client: Any) -> None:
    """What is not XML is the parser's error."""
    faults.script("DescribeKeyPairs", GARBAGE)
    with pytest.raises(ResponseParserError):
        client.describe_key_pairs()


def test_an_answer_can_be_slow(faults: FaultEndpoint, client: Any) -> None:
    """The delay passes before the answer."""
    body = document("DescribeKeyPairs", "<keySet/>").body
    faults.script("DescribeKeyPairs", Answer(200, body, delay=0.3))
    started = time.monotonic()
    assert client.describe_key_pairs()["KeyPairs"] == []
    assert time.monotonic() - started >= 0.3


def test_answers_come_in_turn_and_the_last_one_stays(faults: FaultEndpoint, client: Any) -> None:
    """First the hang-up, then the good answer, again and again."""
    faults.script("DescribeKeyPairs", HANG_UP, document("DescribeKeyPairs", "<keySet/>"))
    with pytest.raises(ConnectionClosedError):
        client.describe_key_pairs()
    for _ in range(2):
        assert client.describe_key_pairs()["KeyPairs"] == []


def test_actions_without_a_script_are_passed_on(
    faults: FaultEndpoint, upstream: FaultEndpoint, client: Any
) -> None:
    """Good answers and refusals of the endpoint behind come back, and the request arrives there whole."""
    filters = [{"Name": "key-name", "Values": ["k"]}]
    assert client.describe_key_pairs(Filters=filters)["KeyPairs"] == []
    with pytest.raises(ClientError, match="UnauthorizedOperation"):
        client.describe_vpcs()
    assert upstream.actions() == faults.actions() == ["DescribeKeyPairs", "DescribeVpcs"]
    assert upstream.requests[0].parameters["Filter.1.Value.1"] == "k"
