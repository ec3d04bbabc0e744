"""Which tests share a process."""

import pytest

from tests.scheduling import group_of, rank_of

FLOW = "tests/flows/test_local_container.py::test_a_workers_whole_life"


@pytest.mark.parametrize(
    ("nodeid", "group"),
    [
        (f"{FLOW}[docker]", "docker"),
        (f"{FLOW}[docker-exposes-it]", "docker"),
        ("tests/flows/test_local_container_crowd.py::test_x[podman]", "podman"),
        ("tests/command/subcommands/test_local_container.py::test_x[docker]", "docker"),
        ("tests/flows/test_ec2_launch.py::test_x", "tests/flows/test_ec2_launch.py"),
        ("tests/demo/test_demo.py::test_x", "tests/demo/test_demo.py::test_x"),
    ],
)
def test_what_shares_a_server_shares_a_process(nodeid: str, group: str) -> None:
    """All tests on one engine, else those of a file, but for long ones that share nothing."""
    assert group_of(nodeid) == group


def test_engines_begin_first() -> None:
    """They are the longest group."""
    assert (
        rank_of(f"{FLOW}[docker]")
        < rank_of("tests/demo/test_demo.py::test_x")
        < rank_of("tests/module/test_x")
    )
