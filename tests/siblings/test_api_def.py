"""Requests to workers."""

from tovarincore.api_def import PROTOCOL_VERSION, PingRequest, SystemStatRequest


def test_each_request_has_its_kind_on_class_and_record() -> None:
    """The client reads the kind from the record, a worker's dispatcher from the class."""
    assert (PingRequest.kind, PingRequest().kind) == ("ping", "ping")
    assert (SystemStatRequest.kind, SystemStatRequest().kind) == ("system_stat", "system_stat")


def test_requests_of_one_kind_are_equal() -> None:
    """They carry nothing that could differ, and differ from those of another kind."""
    assert PingRequest() == PingRequest()
    requests: list[object] = [PingRequest(), SystemStatRequest()]
    assert requests[0] != requests[1]


def test_the_protocol_has_a_version() -> None:
    """Workers of the first version are in use."""
    assert PROTOCOL_VERSION == 1
