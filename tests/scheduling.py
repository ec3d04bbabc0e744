"""Which tests of a parallel run share a process, and which begin first.

Under pytest 9.2 the runner's own groups, by the mark `xdist_group`, have no effect and nobody is told: each
process would start engines for itself.
"""

from __future__ import annotations

from typing import Any

from xdist.scheduler import LoadScopeScheduling

# What takes longest begins first, so that no process works alone at the end: engines, which are waited for,
# then long files, then single long tests. What is not named here is short.
_FIRST = (
    "tests/flows/test_local_container",
    "tests/command/subcommands/test_local_container",
    "tests/fleet/test_launching",
    "tests/command/subcommands/test_launch_faults",
    "tests/demo",
    "tests/docs/test_samples",
    "tests/differential",
    "tests/fleet/test_killed",
    "tests/packaging/test_wheel",
    "tests/flows",
    "tests/fleet",
    "tests/command",
    "tests/interpreter",
    "tests/python/test_deep_copy",
)
# Long ones that share nothing: each test goes to whichever process is free.
_SINGLE = ("tests/demo", "tests/differential", "tests/docs", "tests/interpreter", "tests/fleet/test_killed")


def group_of(nodeid: str) -> str:
    """The name of the group that a test belongs to; a group runs in one process, in order."""
    for engine in ("docker", "podman"):
        # One engine of each kind serves all its tests.
        if nodeid.startswith("tests/flows/test_local_container") or "test_local_container.py" in nodeid:
            if f"[{engine}" in nodeid:
                return engine
    if nodeid.startswith(_SINGLE):
        return nodeid
    # What a file's tests share, such as an emulated EC2, is started once.
    return nodeid.partition("::")[0]


def rank_of(nodeid: str) -> int:
    """The place of a test in the order of beginning; lower is earlier."""
    ranks = [rank for rank, start in enumerate(_FIRST) if nodeid.startswith(start)]
    return ranks[0] if ranks else len(_FIRST)


class GroupScheduling(LoadScopeScheduling):
    """Hands out the groups in the order of collection."""

    def __init__(self, config: Any, log: Any) -> None:
        config.option.loadscopereorder = False
        super().__init__(config, log)

    def _split_scope(self, nodeid: str) -> str:
        return group_of(nodeid)
