"""The node list of a region: copies in and out, lookups, replacement in place."""

from __future__ import annotations

import threading
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, rule, run_state_machine_as_test

from tests.fakes import AWS_REGION, CallLog, is_free, make_node
from tests.registry.conftest import provider_class
from tovarincore.cloud_def import CloudNode, NodeState


def test_the_constructor_sets_its_attributes_in_order(cloud_node: ModuleType, log: CallLog) -> None:
    """Configuration, logger, region, list and lock, the region being kept as given."""
    order: list[str] = []

    class Watched(provider_class(cloud_node)):  # type: ignore[misc]
        def __setattr__(self, name: str, value: Any) -> None:
            order.append(name)
            super().__setattr__(name, value)

    manager = Watched(AWS_REGION)
    assert order == [
        "core_conf",
        "logger",
        "region",
        "_NodeManager__node_list",
        "_NodeManager__node_list_lock",
    ]
    assert manager.core_conf is cloud_node.core_conf_glbl
    assert manager.logger is cloud_node.log_manager_glbl.get_logger()
    assert manager.region is AWS_REGION
    assert type(manager._NodeManager__node_list) is list
    assert type(manager._NodeManager__node_list_lock) is type(threading.Lock())
    assert list(vars(manager)) == order


def test_each_manager_has_a_list_and_a_lock_of_its_own(cloud_node: ModuleType, log: CallLog) -> None:
    """What one manager is told the other does not know."""
    provider = provider_class(cloud_node)
    one, other = provider(AWS_REGION), provider(AWS_REGION)
    one.set_node(make_node())
    assert other.get_node_list() == []
    assert one._NodeManager__node_list_lock is not other._NodeManager__node_list_lock


def test_a_new_manager_knows_no_node(manager: Any) -> None:
    """The list is empty and every lookup gives None."""
    assert manager.get_node_list() == []
    assert manager.find_node_by_instance_id("i-1") is None
    assert manager.find_node_by_uuid("u") is None
    assert manager.get_ready_node_next_in_line() is None


@pytest.mark.parametrize(
    "look",
    [
        lambda manager: manager.get_node_list()[0],
        lambda manager: manager.find_node_by_instance_id("i-1"),
        lambda manager: manager.find_node_by_uuid("uuid of i-1"),
        lambda manager: manager.get_ready_node_next_in_line(),
    ],
    ids=["get_node_list", "find_node_by_instance_id", "find_node_by_uuid", "get_ready_node_next_in_line"],
)
def test_changing_a_returned_node_leaves_the_registry_unchanged(
    manager: Any, look: Callable[[Any], Any]
) -> None:
    """What comes out is a deep copy: neither its fields nor its worker list are the registry's."""
    manager.set_node(make_node(ready=True, worker_id_list=["w"]))
    found = look(manager)
    assert type(found) is type(make_node())
    found.name = "changed"
    found.worker_id_list.append("x")
    (stored,) = manager.get_node_list()
    assert (stored.name, stored.worker_id_list) == ("-", ["w"])


def test_changing_a_node_after_set_node_leaves_the_registry_unchanged(manager: Any) -> None:
    """What goes in is copied."""
    node = make_node(worker_id_list=["w"])
    manager.set_node(node)
    node.name = "changed"
    node.worker_id_list.append("x")
    (stored,) = manager.get_node_list()
    assert (stored.name, stored.worker_id_list) == ("-", ["w"])


def test_set_node_list_replaces_the_list_by_a_deep_copy(manager: Any) -> None:
    """The previous list is dropped, not merged; the given one stays the caller's."""
    manager.set_node(make_node("old"))
    given = [make_node("b"), make_node("a")]
    assert manager.set_node_list(given) is None
    given[0].name = "changed"
    given.append(make_node("c"))
    assert [(node.instance_id, node.name) for node in manager.get_node_list()] == [("b", "-"), ("a", "-")]


def test_get_node_list_keeps_records_that_stand_twice_the_same(manager: Any) -> None:
    """One deep copy of the whole list, not one of each node: a record in it twice stays one record."""
    node = make_node()
    manager.set_node_list([node, node])
    first, second = manager.get_node_list()
    assert first is second
    assert first is not node


def test_set_node_replaces_in_place_and_appends_what_is_new(manager: Any) -> None:
    """A node with a known instance id keeps its position."""
    for instance_id in "abc":
        assert manager.set_node(make_node(instance_id)) is None
    manager.set_node(make_node("b", name="new"))
    manager.set_node(make_node("d"))
    assert [(node.instance_id, node.name) for node in manager.get_node_list()] == [
        ("a", "-"),
        ("b", "new"),
        ("c", "-"),
        ("d", "-"),
    ]


def test_of_two_nodes_with_one_instance_id_the_first_counts(manager: Any) -> None:
    """set_node replaces the first alone, the lookup returns the first, the state change touches the first."""
    manager.set_node_list([make_node("a", name="1"), make_node("a", name="2")])
    manager.set_node(make_node("a", name="new"))
    assert [node.name for node in manager.get_node_list()] == ["new", "2"]
    assert manager.find_node_by_instance_id("a").name == "new"
    manager.change_node_state("a", NodeState.STOPPED)
    assert [node.state for node in manager.get_node_list()] == [NodeState.STOPPED, NodeState.RUNNING]


def test_the_lookups_find_the_first_match(manager: Any) -> None:
    """By instance id and by uuid; nothing found gives None."""
    manager.set_node_list(
        [make_node("a", uuid="x"), make_node("b", uuid="y", name="1"), make_node("c", uuid="y")]
    )
    assert manager.find_node_by_instance_id("c").instance_id == "c"
    assert manager.find_node_by_uuid("y").name == "1"
    assert manager.find_node_by_instance_id("x") is None
    assert manager.find_node_by_uuid("a") is None


def test_the_ready_node_next_in_line_is_the_first_ready_one_every_time(manager: Any) -> None:
    """List order alone: not rotated, not taken, whatever the state."""
    manager.set_node_list(
        [make_node("a"), make_node("b", ready=True, state=NodeState.STOPPED), make_node("c", ready=True)]
    )
    assert [manager.get_ready_node_next_in_line().instance_id for _ in range(3)] == ["b", "b", "b"]


def test_ready_is_a_truth_test(manager: Any) -> None:
    """Anything true counts as ready, anything false does not."""
    manager.set_node_list([make_node("a", ready=[]), make_node("b", ready=0), make_node("c", ready="yes")])
    assert manager.get_ready_node_next_in_line().instance_id == "c"


def test_change_node_state_clears_readiness_unless_told(manager: Any) -> None:
    """The default of ready is False; True has to be said."""
    manager.set_node(make_node("x", ready=True, state=NodeState.STARTING))
    assert manager.change_node_state("x", NodeState.RUNNING) is None
    assert [(node.state, node.ready) for node in manager.get_node_list()] == [(NodeState.RUNNING, False)]
    manager.change_node_state("x", node_state=NodeState.STOPPED, ready=True)
    assert [(node.state, node.ready) for node in manager.get_node_list()] == [(NodeState.STOPPED, True)]


def test_change_node_state_changes_the_stored_record_itself(manager: Any) -> None:
    """State first, then ready, on the record and not on a copy."""
    order: list[str] = []

    class Watched(CloudNode):
        def __setattr__(self, name: str, value: Any) -> None:
            order.append(name)
            super().__setattr__(name, value)

    node = Watched(AWS_REGION, "x", make_node().instance_type_def)
    manager._NodeManager__node_list.append(node)
    order.clear()
    manager.change_node_state("x", NodeState.RUNNING)
    assert order == ["state", "ready"]
    assert node.state is NodeState.RUNNING


def test_change_node_state_of_an_unknown_node_changes_nothing(manager: Any) -> None:
    """Nothing is raised either."""
    manager.set_node(make_node(ready=True))
    assert manager.change_node_state("unknown", NodeState.STOPPED) is None
    assert manager.get_node_list() == [make_node(ready=True)]


class Shouting(str):
    """A text that compares without regard to case."""

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        return self.upper() == str(other).upper()


def test_keys_are_compared_with_python_equality(manager: Any) -> None:
    """A record whose keys define their own equality is found by it."""
    manager.set_node(make_node(Shouting("ab"), uuid=Shouting("cd")))
    assert manager.find_node_by_instance_id("AB").instance_id == "ab"
    assert manager.find_node_by_uuid("CD").instance_id == "ab"
    manager.change_node_state("AB", NodeState.STOPPED)
    manager.set_node(make_node("AB", name="new"))
    assert [(node.name, node.state) for node in manager.get_node_list()] == [("new", NodeState.RUNNING)]


def test_deepcopy_is_looked_up_in_the_module_at_each_call(
    cloud_node: ModuleType, manager: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A replaced deepcopy takes effect in every operation that copies."""
    manager.set_node(make_node(ready=True))
    monkeypatch.setattr(cloud_node, "deepcopy", lambda given: ("copy of", type(given).__name__))
    assert manager.get_node_list() == ("copy of", "list")
    assert manager.find_node_by_instance_id("i-1") == ("copy of", "AWSCloudNode")
    assert manager.find_node_by_uuid("uuid of i-1") == ("copy of", "AWSCloudNode")
    assert manager.get_ready_node_next_in_line() == ("copy of", "AWSCloudNode")
    manager.set_node_list([1])
    assert manager._NodeManager__node_list == ("copy of", "list")


def test_a_subclass_of_list_in_the_registry_is_used_as_python_uses_it(manager: Any) -> None:
    """Its own length, items, iteration and append take effect."""
    used: list[str] = []

    class Watched(list[Any]):
        def __len__(self) -> int:
            used.append("len")
            return super().__len__()

        def __getitem__(self, index: Any) -> Any:
            used.append(f"get {index}")
            return super().__getitem__(index)

        def __setitem__(self, index: Any, value: Any) -> None:
            used.append(f"set {index}")
            super().__setitem__(index, value)

        def append(self, value: Any) -> None:
            used.append("append")
            super().append(value)

        def __iter__(self) -> Any:
            used.append("iter")
            return super().__iter__()

    manager._NodeManager__node_list = Watched([make_node("a"), make_node("b")])
    manager.set_node(make_node("b"))
    manager.set_node(make_node("c"))
    manager.find_node_by_uuid("x")
    assert used == ["len", "get 0", "get 1", "set 1", "len", "get 0", "get 1", "append", "iter"]


IDS = st.sampled_from("abcd")
NODES = st.builds(
    make_node, IDS, uuid=st.sampled_from("xyz"), ready=st.booleans(), name=st.sampled_from("pq")
)


def test_random_sequences_keep_the_list_as_a_plain_model_keeps_it(
    cloud_node: ModuleType, log: CallLog
) -> None:
    """Any sequence of operations leaves the list, and gives the answers, of a list of copies kept by hand."""
    provider = provider_class(cloud_node)

    class Registry(RuleBasedStateMachine):
        def __init__(self) -> None:
            super().__init__()
            self.manager = provider(AWS_REGION)
            self.model: list[CloudNode] = []

        @rule(nodes=st.lists(NODES, max_size=5))
        def set_node_list(self, nodes: list[CloudNode]) -> None:
            self.manager.set_node_list(nodes)
            self.model = [make_node(n.instance_id, uuid=n.uuid, ready=n.ready, name=n.name) for n in nodes]

        @rule(node=NODES)
        def set_node(self, node: CloudNode) -> None:
            self.manager.set_node(node)
            places = [i for i, known in enumerate(self.model) if known.instance_id == node.instance_id]
            place = places[0] if places else len(self.model)
            self.model[place : place + 1] = [node]

        @rule(instance_id=IDS, state=st.sampled_from(NodeState), ready=st.booleans())
        def change_node_state(self, instance_id: str, state: NodeState, ready: bool) -> None:
            self.manager.change_node_state(instance_id, state, ready)
            for node in [node for node in self.model if node.instance_id == instance_id][:1]:
                node.state, node.ready = state, ready

        @rule(instance_id=IDS)
        def find_by_instance_id(self, instance_id: str) -> None:
            matches = [node for node in self.model if node.instance_id == instance_id]
            assert self.manager.find_node_by_instance_id(instance_id) == next(iter(matches), None)

        @rule(uuid=st.sampled_from("xyz"))
        def find_by_uuid(self, uuid: str) -> None:
            matches = [node for node in self.model if node.uuid == uuid]
            assert self.manager.find_node_by_uuid(uuid) == next(iter(matches), None)

        @invariant()
        def lists_agree(self) -> None:
            assert self.manager.get_node_list() == self.model
            ready = [node for node in self.model if node.ready]
            assert self.manager.get_ready_node_next_in_line() == next(iter(ready), None)
            assert is_free(self.manager._NodeManager__node_list_lock)

    run_state_machine_as_test(  # type: ignore[no-untyped-call]
        Registry, settings=settings(max_examples=60, stateful_step_count=20, deadline=None, database=None)
    )
