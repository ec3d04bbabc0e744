"""Results and error codes."""

import dataclasses
import gc
import weakref

import pytest
from botocore.exceptions import ClientError

from tovarincore.core_def import CoreDef, OPResult, OPResultErrorCode
from tovarincore.testing.fakes import client_error


class Witness:
    """Something that a frame holds."""


def test_a_result_says_nothing_unless_told() -> None:
    """Every field has a default, and the defaults claim neither success nor failure."""
    result = OPResult()
    assert (result.success, result.error, result.error_code, result.msg, result.exc_info) == (
        False,
        False,
        None,
        None,
        False,
    )
    assert result.traceback_text is None


def test_a_result_is_built_by_keyword_only() -> None:
    """Positions would let success and error be mixed up."""
    with pytest.raises(TypeError, match="positional"):
        OPResult(True)  # type: ignore[call-arg]


def test_exc_info_keeps_the_traceback_as_text_and_stays_true() -> None:
    """The text is the one that the interpreter would print, with the cause."""
    try:
        try:
            raise KeyError("first")
        except KeyError as error:
            raise ValueError("second") from error
    except ValueError:
        result = OPResult(error=True, msg="failed", exc_info=True)
    assert result.exc_info is True
    assert result.traceback_text is not None
    assert result.traceback_text.startswith("Traceback (most recent call last)")
    assert "KeyError: 'first'" in result.traceback_text
    assert result.traceback_text.rstrip().endswith("ValueError: second")


def test_exc_info_outside_a_handler_keeps_no_text() -> None:
    """The interpreter's own text for no exception would read like a failure named NoneType."""
    assert OPResult(error=True, exc_info=True).traceback_text is None


def test_no_text_is_kept_unless_asked_for() -> None:
    """A result made inside a handler for another reason has no traceback."""
    try:
        raise ValueError("handled")
    except ValueError:
        assert OPResult(success=True).traceback_text is None


def test_a_traceback_given_as_text_is_kept() -> None:
    """A failure that another thread caught can be passed on."""
    assert OPResult(error=True, exc_info="Traceback of a worker").traceback_text == "Traceback of a worker"


def test_a_result_keeps_no_frame_alive() -> None:
    """The local variables of the failed call are freed although the result lives on."""

    def fail() -> None:
        witness = Witness()
        references.append(weakref.ref(witness))
        raise ValueError("failed")

    references: list[weakref.ref[Witness]] = []
    try:
        fail()
    except ValueError:
        result = OPResult(error=True, exc_info=True)
    gc.collect()
    assert result.traceback_text is not None
    assert references[0]() is None


def test_results_are_equal_whatever_their_tracebacks() -> None:
    """The traceback is no part of what happened, and does not fill the representation."""
    try:
        raise ValueError("failed")
    except ValueError:
        result = OPResult(error=True, msg="m", exc_info=True)
    assert result == OPResult(error=True, msg="m", exc_info=True)
    assert "Traceback" not in repr(result)


def test_a_failing_str_of_the_exception_does_not_spoil_the_result() -> None:
    """A handler that reports a failure must not raise one."""

    class Mute(Exception):
        def __str__(self) -> str:
            raise RuntimeError("no text")

    try:
        raise Mute
    except Mute:
        result = OPResult(error=True, exc_info=True)
    assert result.traceback_text is not None
    assert "Mute" in result.traceback_text


def test_the_error_codes_of_ec2_are_ec2s_own_texts() -> None:
    """Callers compare them with what EC2 answered."""
    assert OPResultErrorCode.DRY_RUN_OPERATION.value == "DryRunOperation"
    assert OPResultErrorCode.UNAUTHORIZED_OPERATION.value == "UnauthorizedOperation"
    assert len({code.value for code in OPResultErrorCode}) == len(OPResultErrorCode)


def test_the_home_directory_has_no_trailing_slash() -> None:
    """The start-up script joins it with a slash."""
    assert CoreDef.NODE_HOME_PATH == "/home/tovarin"


def test_a_result_is_a_plain_dataclass() -> None:
    """No hook stands between it and copy, pickle or a reader."""
    assert dataclasses.is_dataclass(OPResult)
    assert not {"__slots__", "__deepcopy__", "__copy__", "__reduce__", "__getstate__"} & set(vars(OPResult))


def test_an_error_result_keeps_the_code_of_the_sdks_error_being_handled() -> None:
    """Callers can tell missing capacity from a missing right; comparing and showing results is as before."""
    try:
        raise client_error("InsufficientInstanceCapacity", "no capacity")
    except ClientError:
        result = OPResult(error=True, msg="no capacity")
        assert OPResult(success=True).provider_code is None
    assert result.provider_code == "InsufficientInstanceCapacity"
    assert result == OPResult(error=True, msg="no capacity")
    assert "Insufficient" not in repr(result)


@pytest.mark.parametrize("response", [None, 7, {}, {"Error": "text"}, {"Error": {"Code": 7}}])
def test_other_errors_have_no_code(response: object) -> None:
    """An exception that only looks like one of the SDK's does no harm."""
    error = ValueError("handled")
    error.response = response  # type: ignore[attr-defined]
    try:
        raise error
    except ValueError:
        assert OPResult(error=True).provider_code is None
    assert OPResult(error=True).provider_code is None
