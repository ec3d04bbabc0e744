"""Bodies of answers, decompressed within bounds."""

import gzip
import time
import tracemalloc
import zlib

import pytest
from hypothesis import given
from hypothesis import strategies as st

from stage.patience import SETUP_SECONDS
from tovarincore._transport.deadline import Deadline
from tovarincore._transport.failure import Failure
from tovarincore._transport.inflating import read_body
from tovarincore.core_def import OPResultErrorCode


def pieces(data: bytes, size: int) -> list[bytes]:
    """Cut data up, as a network does."""
    return [data[at : at + size] for at in range(0, len(data), size)]


@given(
    body=st.binary(max_size=5000),
    size=st.integers(1, 400),
    encode=st.sampled_from(
        [("", bytes), ("identity", bytes), ("gzip", gzip.compress), ("GZIP ", gzip.compress)]
        + [("deflate", zlib.compress)]
    ),
)
def test_every_encoding_gives_the_body(body: bytes, size: int, encode: tuple[str, type[bytes]]) -> None:
    """However it is cut into pieces."""
    name, compress = encode
    assert read_body(pieces(compress(body), size), name, 5000, Deadline(SETUP_SECONDS)) == body


def test_long_and_regular_bodies_come_out_whole() -> None:
    """Also where one piece of input stands for many megabytes of output, and in several members."""
    body = b"x" * 5_000_001
    assert read_body([gzip.compress(body)], "gzip", 6_000_000, Deadline(SETUP_SECONDS)) == body
    assert read_body(
        [gzip.compress(body) + gzip.compress(b"y")], "gzip", 6_000_000, Deadline(SETUP_SECONDS)
    ) == (body + b"y")
    assert read_body([], "gzip", 10, Deadline(SETUP_SECONDS)) == b""


@pytest.mark.parametrize("encoding", ["", "gzip"])
def test_a_body_may_be_exactly_as_long_as_allowed(encoding: str) -> None:
    """One byte more is too many."""
    data = {"": b"x" * 100, "gzip": gzip.compress(b"x" * 100)}[encoding]
    assert len(read_body([data], encoding, 100, Deadline(SETUP_SECONDS))) == 100
    with pytest.raises(Failure, match="longer than 99 bytes; ask for less") as caught:
        read_body([data], encoding, 99, Deadline(SETUP_SECONDS), "ask for less")
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR


def test_a_bomb_costs_no_more_than_the_bound() -> None:
    """Less than a megabyte that stands for 200 is given up after the bound's few megabytes."""
    squeeze = zlib.compressobj(1, zlib.DEFLATED, 31)
    million = b"\0" * 1_000_000
    bomb = b"".join(squeeze.compress(million) for _ in range(200)) + squeeze.flush()
    tracemalloc.start()
    try:
        with pytest.raises(Failure, match="longer than"):
            read_body([bomb], "gzip", 4_000_000, Deadline(SETUP_SECONDS))
        peak = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert peak < 20_000_000


def test_the_deadline_ends_a_long_inflation() -> None:
    """The clock is looked at with every piece."""
    deadline = Deadline(0.001)
    time.sleep(0.01)
    with pytest.raises(Failure) as caught:
        read_body([gzip.compress(b"x" * 10_000_000)], "gzip", 100_000_000, deadline)
    assert caught.value.error_code is OPResultErrorCode.TIMEOUT


@pytest.mark.parametrize(
    ("data", "encoding", "why"),
    [
        (gzip.compress(b"x" * 1000)[:-5], "gzip", "cut off"),
        (b"not gzip at all", "gzip", "not compressed as it says"),
        (gzip.compress(b"x") + b"garbage", "gzip", "not compressed as it says"),
        (b"x", "br", "encoding 'br'"),
        (b"x", "gzip, gzip", "encoding 'gzip, gzip'"),
    ],
    ids=["cut off", "other bytes", "bytes behind", "unknown encoding", "two encodings"],
)
def test_what_is_broken_is_refused(data: bytes, encoding: str, why: str) -> None:
    """With a protocol error and never with one of the library."""
    with pytest.raises(Failure, match=why) as caught:
        read_body([data], encoding, 10_000, Deadline(SETUP_SECONDS))
    assert caught.value.error_code is OPResultErrorCode.PROTOCOL_ERROR


@given(data=st.binary(max_size=200), encoding=st.sampled_from(["gzip", "deflate", ""]))
def test_any_bytes_give_a_body_or_a_failure(data: bytes, encoding: str) -> None:
    """And nothing else."""
    try:
        assert len(read_body(pieces(data, 7), encoding, 1000, Deadline(SETUP_SECONDS))) <= 1000
    except Failure as failure:
        assert failure.error_code is OPResultErrorCode.PROTOCOL_ERROR
