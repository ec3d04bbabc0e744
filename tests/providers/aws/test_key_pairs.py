"""Amazon's key pairs: made with an owner's tag, handed over once, deleted by name."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from tests.fakes import ODD_RESPONSES, Fake, Logged, call, client_error, handled, recording, refusal
from tests.providers.aws.conftest import Amazon
from tovarincore.core_def import OPResult, OPResultErrorCode

FAILED = "Exception occurred when tyring to create key_pair_name: k username: "


def create(aws: Amazon, error: Any, username: str | None = "ada") -> Any:
    """Return what comes of a creation that fails so."""
    aws.ec2.answers["create_key_pair"] = error
    return aws.manager.create_key_pair("k", username)


@pytest.mark.parametrize(("username", "owner"), [("ada", "ada"), (None, "Unknown"), ("", "")])
def test_a_key_pair_is_made_with_its_owners_tag(aws: Amazon, username: Any, owner: str) -> None:
    """None stands for Unknown, an empty name is kept; the private key comes back as EC2 gave it."""
    key = "-----BEGIN"
    aws.ec2.answers["create_key_pair"] = {"KeyMaterial": key}
    private_key, result = aws.manager.create_key_pair(key_pair_name="k", username=username)
    assert private_key is key
    assert result == OPResult(success=True)
    tags = [{"ResourceType": "key-pair", "Tags": [{"Key": "tovarin_username", "Value": owner}]}]
    assert aws.log == [
        call("_get_client"),
        call("ec2.create_key_pair", KeyName="k", TagSpecifications=tags),
    ]
    assert list(dict(aws.log[1].kwargs)["TagSpecifications"][0]) == ["ResourceType", "Tags"]


def test_missing_rights_have_an_error_code(aws: Amazon) -> None:
    """And one error line with the traceback."""
    error = refusal("UnauthorizedOperation", "No rights")
    code = OPResultErrorCode.UNAUTHORIZED_OPERATION
    assert create(aws, error) == (None, OPResult(error=True, error_code=code, msg="No rights"))
    assert aws.log.events == [Logged("error", FAILED + "ada", error)]
    assert handled() is None


def test_any_other_refusal_has_none(aws: Amazon) -> None:
    """EC2's message alone."""
    error = refusal("InvalidKeyPair.Duplicate", "exists")
    assert create(aws, error) == (None, OPResult(error=True, msg="exists"))
    assert aws.log.events == [Logged("error", FAILED + "ada", error)]


def test_a_refusal_without_a_code_gives_its_message(aws: Amazon) -> None:
    """The code is looked for before it is read."""
    error = client_error({"Error": {"Message": "no code"}})
    assert create(aws, error) == (None, OPResult(error=True, msg="no code"))


def test_the_error_line_names_unknown_owners_so(aws: Amazon) -> None:
    """The substitution has happened by then, unless the client itself could not be had."""
    create(aws, refusal("Odd"), None)
    assert aws.log.events[-1].message == FAILED + "Unknown"
    error = refusal("Odd")
    aws.manager._get_client = recording(aws.log, "_get_client", error)
    with pytest.raises(TypeError) as caught:
        aws.manager.create_key_pair("k", None)
    assert caught.value.__context__ is error
    assert aws.manager.create_key_pair("k", "ada") == (None, OPResult(error=True, msg="Refused"))


def test_the_results_are_made_by_keyword_while_the_refusal_is_handled(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A replaced result class of the module takes effect; exc_info of the log line is True."""
    seen: list[Any] = []

    def op_result(**fields: Any) -> str:
        seen.append(handled())
        return "result"

    monkeypatch.setattr(aws.module, "OPResult", recording(aws.log, "OPResult", op_result))
    aws.manager.logger = Fake(aws.log, "logger")
    error = refusal("UnauthorizedOperation", "No rights")
    assert create(aws, error) == (None, "result")
    assert aws.log[-2:] == [
        call("logger.error", FAILED + "ada", exc_info=True),
        call("OPResult", error=True, error_code=OPResultErrorCode.UNAUTHORIZED_OPERATION, msg="No rights"),
    ]
    create(aws, refusal("Odd", "odd"))
    assert aws.log[-1] == call("OPResult", error=True, msg="odd")
    assert seen[0] is error


ODD = {**ODD_RESPONSES, "no rights, no Message": ({"Error": {"Code": "UnauthorizedOperation"}}, "Message")}


@pytest.mark.parametrize(("response", "missing"), ODD.values(), ids=ODD)
def test_a_refusal_without_a_message_is_a_key_error(aws: Amazon, response: Any, missing: str) -> None:
    """After the log line, with the refusal as its context."""
    error = client_error(response)
    with pytest.raises(KeyError) as caught:
        create(aws, error)
    assert caught.value.args == (missing,)
    assert caught.value.__context__ is error
    assert aws.log.events == [Logged("error", FAILED + "ada", error)]


def test_a_response_without_a_key_is_a_key_error(aws: Amazon) -> None:
    """It is no refusal, so nothing is logged."""
    aws.ec2.answers["create_key_pair"] = {}
    with pytest.raises(KeyError, match="KeyMaterial"):
        aws.manager.create_key_pair("k", "ada")
    assert aws.log.events == []


@pytest.mark.parametrize("error", [TimeoutError(), KeyboardInterrupt(), ValueError("x")], ids=repr)
@pytest.mark.parametrize("at", ["_get_client", "create_key_pair"])
def test_any_other_failure_propagates(aws: Amazon, error: BaseException, at: str) -> None:
    """Unlogged."""
    aws.ec2.answers["create_key_pair"] = error
    if at == "_get_client":
        aws.manager._get_client = recording(aws.log, at, error)
    with pytest.raises(type(error)) as caught:
        aws.manager.create_key_pair("k", "ada")
    assert caught.value is error
    assert aws.log.events == []


def test_a_key_pair_is_deleted_by_name(aws: Amazon) -> None:
    """The response is discarded."""
    aws.ec2.answers["delete_key_pair"] = "discarded"
    assert aws.manager.delete_key_pair("k") is None
    assert aws.log == [call("_get_client"), call("ec2.delete_key_pair", KeyName="k")]


@pytest.mark.parametrize("error", [refusal("UnauthorizedOperation"), TimeoutError()], ids=repr)
def test_deletion_raises_what_goes_wrong(aws: Amazon, error: BaseException) -> None:
    """A refusal too."""
    aws.ec2.answers["delete_key_pair"] = error
    with pytest.raises(type(error)) as caught:
        aws.manager.delete_key_pair("k")
    assert caught.value is error
    assert aws.log.events == []


def test_no_log_line_shows_a_private_key(aws: Amazon) -> None:
    """Neither of a success nor of a failure."""
    attempts: list[Callable[[], Any]] = [
        lambda: {"KeyMaterial": "MARKER"},
        lambda: {"KeyMaterialX": "MARKER"},
    ]
    for attempt in attempts:
        aws.ec2.answers["create_key_pair"] = attempt()
        try:
            aws.manager.create_key_pair("k", "ada")
        except KeyError as error:
            assert "MARKER" not in str(error)
    assert "MARKER" not in str(aws.log.events)
    assert "MARKER" not in repr(vars(aws.manager))


@pytest.mark.parametrize("odd", [5, int, "ClientError", None, (ValueError, 5)], ids=repr)
def test_an_except_with_what_is_no_class_of_errors_is_a_type_error(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch, odd: Any
) -> None:
    """As the interpreter has it for every `except`; the error that was to be caught is its context."""
    monkeypatch.setattr("botocore.exceptions.ClientError", odd)
    error = RuntimeError("broken")
    with pytest.raises(TypeError, match="catching classes that do not inherit from BaseException") as caught:
        create(aws, error)
    assert caught.value.__context__ is error
    assert handled() is None
