"""The least ratio of the twin's time to ours that each operation is held to, by the interpreter that runs."""

from __future__ import annotations

import sys

# From CPython 3.11 on, whose byte code became quicker; what is not named must not be slower than Python.
ON_NEWER = {
    "get_node_list, 10 nodes": 40,
    "get_node_list, 1,000 nodes": 25,
    "get_node_list, 10,000 nodes": 18,
    "set_node_list, 1,000 nodes": 18,
    "find, hit at the first": 30,
    "ready node, hit at the first": 30,
    "find, middle of 1,000": 8,
    "ready node, middle of 1,000": 8,
    "find, miss in 1,000": 4,
    "set_node, middle of 1,000": 12,
    "change_node_state, first of 1,000": 2,
    "change_node_state, middle of 1,000": 4,
    "pool, take from 1,000": 4,
    "pool, flush of 1,000": 4,
    "routing, hash_key computed": 1.5,
    "routing, hash_key stored": 2.5,
    "facade, next ready node": 15,
    "list_instances, 1,000 instances": 1.4,
    "default template among 21": 1.5,
}


def goal(name: str, on_310: float) -> float:
    """The goal of an operation on the interpreter that runs.

    :param on_310: its goal on CPython 3.10
    """
    return on_310 if sys.version_info < (3, 11) else ON_NEWER.get(name, 1.0)
