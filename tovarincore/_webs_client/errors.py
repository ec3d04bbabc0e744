"""The failures that a worker, or what answers in its place, can cause."""

from tovarincore._transport.failure import Failure
from tovarincore._transport.masker import mask_start
from tovarincore.core_def import OPResultErrorCode

__all__ = ["ConnectionLost", "not_ours", "shown"]

_SHOWN_CHARACTERS = 200


class ConnectionLost(Failure):
    """The connection ended before the answer was there; another one may do better.

    :param how: how it ended
    """

    def __init__(self, how: str) -> None:
        super().__init__(f"{how}; see the log of what listens there", OPResultErrorCode.CONNECTION_FAILED)


def not_ours(why: str) -> Failure:
    """Return the failure of a peer that does not speak as a worker does (``PROTOCOL_ERROR``)."""
    return Failure(
        f"what answers there is not a worker of this product: {why}; correct the node's address or the port",
        OPResultErrorCode.PROTOCOL_ERROR,
    )


def shown(text: str, secret: str = "") -> str:
    """Return a peer's text fit for a message: without secrets, quoted, control characters escaped, short.

    :param secret: what the peer was sent and may have sent back, however short it is
    """
    return ascii(mask_start(text.replace(secret, "***") if secret else text, _SHOWN_CHARACTERS))
