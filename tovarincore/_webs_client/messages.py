"""The messages that travel between client and worker; docs/wire-protocol.md describes them."""

import json
from typing import Any, NoReturn

from tovarincore._transport.failure import Failure
from tovarincore._webs_client.errors import not_ours, shown
from tovarincore._webs_client.target import Target
from tovarincore.api_def import PROTOCOL_VERSION
from tovarincore.core_def import OPResultErrorCode

__all__ = ["check_nesting", "read_reply", "read_system_stat", "write_request"]

_MAX_WORKER_ID_CHARACTERS = 256
_BRACES_TO_BRACKETS = bytes.maketrans(b"{}", b"[]")
_NO_BRACKETS = bytes(code for code in range(256) if code not in b"[]{}")


def write_request(kind: str, request_id: str) -> str:
    """Return the text of a request.

    :param kind: what is asked
    :param request_id: comes back with the reply
    """
    return json.dumps({"v": PROTOCOL_VERSION, "id": request_id, "kind": kind}, separators=(",", ":"))


def read_reply(text: str, kind: str, request_id: str, target: Target) -> dict[str, Any]:
    """Return a reply that answers the request.

    :param text: the message
    :param kind: kind of the request
    :param request_id: id of the request
    :param target: the worker that was asked
    :raises Failure: the message is no such reply, or reports the worker's refusal (``PROTOCOL_ERROR``)
    """
    check_nesting(text, target.max_nesting)
    try:
        reply = json.loads(text, parse_constant=_refuse_constant)
    except ValueError as exc:
        raise not_ours(f"its answer is not JSON: {shown(text, target.token)}") from exc
    if not isinstance(reply, dict):
        raise not_ours("its answer is not a JSON object")
    if reply.get("v") != PROTOCOL_VERSION:
        version = shown(str(reply.get("v")), target.token)
        raise Failure(
            f"the answer is of version {version} and this client speaks {PROTOCOL_VERSION}; update the older",
            OPResultErrorCode.PROTOCOL_ERROR,
        )
    if reply.get("kind") == "error":
        raise _refusal(kind, reply.get("error"), target.token)
    if reply.get("id") != request_id or reply.get("kind") != kind:
        raise not_ours(f"it answers another request than this {kind}")
    worker_id = reply.get("worker_id")
    if worker_id is not None and not (
        isinstance(worker_id, str) and 0 < len(worker_id) <= _MAX_WORKER_ID_CHARACTERS
    ):
        raise not_ours(
            f"the worker_id of its answer is not a text of 1 to {_MAX_WORKER_ID_CHARACTERS} characters"
        )
    return reply


def read_system_stat(reply: dict[str, Any]) -> tuple[float, int, int]:
    """Return the processor load in per cent, the memory used and the memory of the machine in bytes.

    :raises Failure: the reply lacks one, or one cannot be true (``PROTOCOL_ERROR``)
    """
    stat = reply.get("stat")
    if not isinstance(stat, dict):
        raise not_ours('its answer has no object "stat"')
    cpu_percent: Any = stat.get("cpu_percent")
    if type(cpu_percent) not in (int, float) or not 0 <= cpu_percent <= 100:
        raise not_ours("its answer's cpu_percent is not a number from 0 to 100")
    used, total = stat.get("memory_used_bytes"), stat.get("memory_total_bytes")
    if type(used) is not int or type(total) is not int or not 0 <= used <= total < 2**63:
        raise not_ours(
            "its answer's memory_used_bytes and memory_total_bytes are not possible numbers of bytes"
        )
    return float(cpu_percent), used, total


def check_nesting(text: str, max_nesting: int) -> None:
    """Refuse a text whose objects and lists are nested too deeply, before the parser recurses into it.

    Only brackets outside of quotes are kept; each pass then removes the innermost pairs. Every step is one of
    the interpreter's own text operations: a message of a megabyte takes milliseconds.

    :raises Failure: deeper than ``max_nesting``, or the brackets do not match (``PROTOCOL_ERROR``)
    """
    outside = "".join(text.replace("\\\\", "").replace('\\"', "").split('"')[::2])
    brackets = outside.encode().translate(_BRACES_TO_BRACKETS, _NO_BRACKETS)
    for _ in range(max_nesting):
        if not brackets:
            return
        brackets = brackets.replace(b"[]", b"")
    if brackets:
        raise not_ours(f"its answer is nested more than {max_nesting} deep, or its brackets do not match")


def _refusal(kind: str, error: object, token: str) -> Failure:
    code, why = (error.get("code"), error.get("message")) if isinstance(error, dict) else (None, None)
    return Failure(
        f"the worker refused the request {kind} ({shown(str(code), token)}: {shown(str(why), token)}); "
        "update the older of the two",
        OPResultErrorCode.PROTOCOL_ERROR,
    )


def _refuse_constant(name: str) -> NoReturn:
    raise ValueError(f"{name} is not JSON")
