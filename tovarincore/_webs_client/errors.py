"""Failures of a request to a worker, on their way to becoming a result."""

from tovarincore.core_def import OPResultErrorCode

__all__ = ["ConnectionLost", "RequestFailed", "not_ours", "shown"]

_SHOWN_CHARACTERS = 200


class RequestFailed(Exception):
    """The request cannot be answered.

    :param code: kind of the failure
    :param msg: what went wrong and what to do about it
    """

    def __init__(self, code: OPResultErrorCode, msg: str) -> None:
        super().__init__(msg)
        self.code = code
        self.msg = msg


class ConnectionLost(RequestFailed):
    """The connection ended before the answer was there; another one may do better.

    :param how: how it ended
    """

    def __init__(self, how: str) -> None:
        super().__init__(OPResultErrorCode.CONNECTION_FAILED, f"{how}; see the log of what listens there")


def not_ours(why: str) -> RequestFailed:
    """Return the failure of a peer that does not speak as a worker does (``PROTOCOL_ERROR``)."""
    return RequestFailed(
        OPResultErrorCode.PROTOCOL_ERROR,
        f"what answers there is no worker of this product: {why}; correct the node's address or the port",
    )


def shown(text: str, secret: str = "") -> str:
    """Return a peer's text fit for a message: quoted, control characters escaped, no longer than a line.

    :param secret: what the peer was sent and may have sent back; it is left out
    """
    if secret:
        text = text.replace(secret, "***")
    if len(text) > _SHOWN_CHARACTERS:
        text = text[:_SHOWN_CHARACTERS] + "..."
    return ascii(text)
