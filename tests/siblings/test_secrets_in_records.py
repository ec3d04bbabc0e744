"""Secrets in records: of a type that shows itself as stars, and is a plain text everywhere else."""

import copy
import pickle

import pytest

from tovarincore._transport.masker import Secret
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import AWSCloudAuth

KEYS = {
    "aws_access_key_id": "AKIDEXAMPLE",
    "aws_secret_access_key": "s3cr3t+k/ey",
    "aws_session_token": "t0k",
}


def test_credentials_take_plain_texts_and_hold_secrets() -> None:
    """None stays None."""
    auth = AWSCloudAuth(**KEYS)
    assert auth == AWSCloudAuth("", *KEYS.values())
    assert all(type(getattr(auth, name)) is Secret and getattr(auth, name) == KEYS[name] for name in KEYS)
    assert repr(vars(auth)) == (
        "{'aws_profile': '', 'aws_access_key_id': '***', 'aws_secret_access_key': '***', "
        "'aws_session_token': '***'}"
    )
    assert AWSCloudAuth().aws_session_token is None
    assert repr(CloudConf(None, "", "t0ken").worker_token) == "'***'"
    assert CloudConf(None, "").worker_token is None


@pytest.mark.parametrize("copied", [copy.copy, copy.deepcopy, lambda conf: pickle.loads(pickle.dumps(conf))])
def test_copies_of_records_hold_secrets(copied: object) -> None:
    """Equal to the original."""
    conf = CloudConf(AWSCloudAuth(**KEYS), "ada", "t0ken")
    other = copied(conf)  # type: ignore[operator]
    assert other == conf and type(other.worker_token) is Secret


def test_the_sdk_signs_with_secrets_as_with_texts() -> None:
    """The same request, byte for byte, and nothing of it is a masked text."""
    boto3 = pytest.importorskip("boto3", reason="the SDK is not installed")
    from botocore.auth import SigV4Auth
    from botocore.awsrequest import AWSRequest

    def signature(keys: dict[str, str]) -> str:
        credentials = boto3.Session(**keys, region_name="eu-central-1").get_credentials()
        request = AWSRequest("GET", "https://ec2.eu-central-1.amazonaws.com/")
        request.context["timestamp"] = "20150830T123600Z"
        signer = SigV4Auth(credentials, "ec2", "eu-central-1")
        text = signer.string_to_sign(request, "canonical")
        return f"{signer.signature(text, request)} {credentials.access_key} {credentials.token}"

    auth = AWSCloudAuth(**KEYS)
    plain = signature(KEYS)
    assert signature({name: getattr(auth, name) for name in KEYS}) == plain
    assert "***" not in plain and KEYS["aws_access_key_id"] in plain
