"""Reads an answer's body, compressed or not, into a bounded amount of memory and time."""

import zlib
from collections.abc import Iterable
from io import BytesIO

from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore.core_def import OPResultErrorCode

__all__ = ["read_body"]

_STEP_BYTES = 1 << 20
_GZIP_OR_ZLIB = zlib.MAX_WBITS | 32


def read_body(
    chunks: Iterable[bytes],
    encoding: str,
    most_bytes: int,
    deadline: Deadline,
    remedy: str = "see whether the address is right",
) -> bytes:
    """Return the body of an HTTP answer, decompressed.

    A megabyte of gzip can stand for gigabytes: what comes out is counted while it is made, and the clock is
    looked at with every megabyte.

    :param chunks: the body as it comes in
    :param encoding: the header ``Content-Encoding``; empty for none
    :param most_bytes: the longest body, after decompression
    :param remedy: what to do about a longer one
    :raises Failure: it is longer, not of this encoding, of an unknown one or cut off (``PROTOCOL_ERROR``), or
        not there in time (``TIMEOUT``)
    """
    name = encoding.strip().lower()
    if name not in ("", "identity", "gzip", "x-gzip", "deflate"):
        raise _broken(f"its answer comes in the encoding {name[:40]!r}, which was not asked for")
    inflater = None if name in ("", "identity") else _Inflater()
    # Its value is handed over without a copy, which would double what a long body costs.
    body = BytesIO()
    for chunk in chunks:
        for piece in (chunk,) if inflater is None else inflater.pieces(chunk):
            deadline.remaining()
            body.write(piece)
            if body.tell() > most_bytes:
                raise _broken(f"its answer is longer than {most_bytes} bytes; {remedy}")
    if inflater is not None and not inflater.done:
        raise _broken("its compressed answer is cut off")
    return body.getvalue()


class _Inflater:
    """Decompresses gzip, of one member or several, or zlib."""

    def __init__(self) -> None:
        self._member = zlib.decompressobj(_GZIP_OR_ZLIB)
        self._fed = False

    @property
    def done(self) -> bool:
        """Whether nothing is missing."""
        return self._member.eof or not self._fed

    def pieces(self, data: bytes) -> Iterable[bytes]:
        """Yield what some data stands for, a megabyte at a time."""
        while data:
            if self._member.eof:
                self._member = zlib.decompressobj(_GZIP_OR_ZLIB)
            self._fed = True
            try:
                piece = self._member.decompress(data, _STEP_BYTES)
            except zlib.error as error:
                raise _broken(f"its answer is not compressed as it says ({error})") from error
            data = self._member.unused_data or self._member.unconsumed_tail
            yield piece
            if len(piece) == _STEP_BYTES and not data:
                yield self._member.decompress(b"", _STEP_BYTES)


def _broken(why: str) -> Failure:
    return Failure(why, OPResultErrorCode.PROTOCOL_ERROR)
