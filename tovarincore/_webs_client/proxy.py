"""Asks an HTTP proxy for a tunnel (RFC 9110, section 9.3.6)."""

import re

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._webs_client.errors import ConnectionLost
from tovarincore._webs_client.streams import Stream
from tovarincore._webs_client.target import Target
from tovarincore.core_def import OPResultErrorCode

__all__ = ["open_tunnel"]

_MAX_ANSWER_BYTES = 16384


def open_tunnel(stream: Stream, target: Target, authorization: str, deadline: Deadline) -> None:
    """Turn a stream to a proxy into one to the target.

    :param authorization: value of the header ``Proxy-Authorization``, empty for none
    :raises Failure: the proxy refuses (``CONNECTION_FAILED``), does not speak HTTP
        (``PROTOCOL_ERROR``), or does not answer in time (``TIMEOUT``)
    """
    deadline.enter("waiting for the proxy to open a tunnel", "see whether [proxy] names a working one")
    host = f"[{target.host}]" if ":" in target.host else target.host
    request = f"CONNECT {host}:{target.port} HTTP/1.1\r\nHost: {host}:{target.port}\r\n"
    if authorization:
        request += f"Proxy-Authorization: {authorization}\r\n"
    stream.send(f"{request}\r\n".encode("ascii"), deadline)
    answer = bytearray()
    while b"\r\n\r\n" not in answer:
        if len(answer) > _MAX_ANSWER_BYTES:
            raise _no_proxy("its answer does not end")
        data = stream.receive(deadline)
        if not data:
            raise ConnectionLost("the proxy closed the connection instead of opening a tunnel")
        answer += data
    status = re.match(rb"HTTP/1\.[01] ([1-5][0-9][0-9])[ \r]", answer)
    # The worker's server does not speak first: what follows the answer is not from there.
    if status is None or not answer.endswith(b"\r\n\r\n"):
        raise _no_proxy("its answer is not HTTP")
    code = int(status.group(1))
    if code == 407:
        raise Failure(
            "the proxy wants a login (status 407); put user and password into its address in [proxy]",
            OPResultErrorCode.CONNECTION_FAILED,
        )
    if not 200 <= code < 300:
        raise Failure(
            f"the proxy opens no tunnel to {host}:{target.port} (status {code}); see whether it allows "
            "CONNECT to this port",
            OPResultErrorCode.CONNECTION_FAILED,
        )


def _no_proxy(why: str) -> Failure:
    return Failure(
        f"what [proxy] names is not an HTTP proxy: {why}; correct its host and port",
        OPResultErrorCode.PROTOCOL_ERROR,
    )
