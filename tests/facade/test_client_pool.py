"""The pool of web-socket clients: taken by node, flushed by node or all at once, under its own lock."""

from __future__ import annotations

import threading
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, rule, run_state_machine_as_test

from tests.fakes import CallLog, FakeLock, is_free

FLUSH_ALL_NEEDED = "If no node_uuid is provided flush_all=True must be explicitly set"


def client(name: str) -> Any:
    """Return a client of the node that its first letter names, for the worker of that name."""
    return SimpleNamespace(node=SimpleNamespace(uuid=name[0]), worker_id=name)


A1, B1, A2 = (client(name) for name in ("A1", "B1", "A2"))


@pytest.fixture
def pooled(facade: Any) -> Any:
    """A facade with three clients of two nodes."""
    for each in (A1, B1, A2):
        assert facade.add_to_webs_client_pool(each) is None
    return facade


def test_clients_are_kept_in_the_order_they_were_added(pooled: Any) -> None:
    """Twice when added twice."""
    pooled.add_to_webs_client_pool(A1)
    assert pooled.webs_client_pool == [A1, B1, A2, A1]


def test_taking_gives_the_first_client_of_the_node(pooled: Any) -> None:
    """And leaves the others in their order, in a new list."""
    before = pooled.webs_client_pool
    assert pooled.get_from_webs_client_pool("A") is A1
    assert pooled.webs_client_pool == [B1, A2]
    assert before == [A1, B1, A2]
    assert pooled.get_from_webs_client_pool(node_uuid="A") is A2
    assert pooled.get_from_webs_client_pool("A") is None


def test_taking_for_an_unknown_node_leaves_the_very_pool(pooled: Any) -> None:
    """None comes back."""
    before = pooled.webs_client_pool
    assert pooled.get_from_webs_client_pool("C") is None
    assert pooled.webs_client_pool is before
    assert before == [A1, B1, A2]


def test_no_more_nodes_are_compared_once_a_client_is_found(facade: Any) -> None:
    """A client behind it that cannot be compared does no harm."""
    facade.webs_client_pool = [A1, None]
    assert facade.get_from_webs_client_pool("A") is A1
    assert facade.webs_client_pool == [None]


def test_a_false_client_is_returned_but_stays_in_the_pool(facade: Any) -> None:
    """Found is tested for None, taken by truth."""

    class Falsy:
        node = SimpleNamespace(uuid="A")

        def __bool__(self) -> bool:
            return False

    falsy = Falsy()
    facade.webs_client_pool = pool = [falsy, A1]
    assert facade.get_from_webs_client_pool("A") is falsy
    assert facade.webs_client_pool is pool


def test_flushing_a_node_gives_its_worker_ids(pooled: Any) -> None:
    """In pool order; other nodes' clients stay, in a new list."""
    before = pooled.webs_client_pool
    assert pooled.flush_webs_client_pool("A") == ["A1", "A2"]
    assert pooled.webs_client_pool == [B1]
    assert before == [A1, B1, A2]
    assert pooled.flush_webs_client_pool("A") == []


@pytest.mark.parametrize("node_uuid", [None, "A", "x"])
def test_a_full_flush_empties_the_pool_in_place_and_reports_nobody(pooled: Any, node_uuid: Any) -> None:
    """Whatever clients the node had; no client is looked at."""
    pool = pooled.webs_client_pool
    pool.append(None)
    assert pooled.flush_webs_client_pool(node_uuid, flush_all=True) == []
    assert pooled.webs_client_pool is pool
    assert pool == []


@pytest.mark.parametrize("arguments", [(None,), (None, False), (None, 0)])
def test_a_flush_of_no_node_must_say_that_it_means_all(pooled: Any, log: CallLog, arguments: Any) -> None:
    """An assertion before the lock is taken."""
    pooled.webs_client_pool_lock = FakeLock(log)
    with pytest.raises(AssertionError) as caught:
        pooled.flush_webs_client_pool(*arguments)
    assert caught.value.args == (FLUSH_ALL_NEEDED,)
    assert log == []
    assert len(pooled.webs_client_pool) == 3


def test_flushing_needs_its_first_argument(facade: Any) -> None:
    """It may be None, but has to be passed."""
    with pytest.raises(TypeError, match="missing 1 required positional argument: 'node_uuid'"):
        facade.flush_webs_client_pool(flush_all=True)


def test_an_empty_uuid_is_a_uuid(pooled: Any) -> None:
    """Only None means that there is none."""
    assert pooled.flush_webs_client_pool("") == []
    assert len(pooled.webs_client_pool) == 3


def test_without_assertions_a_flush_of_no_node_takes_clients_without_a_uuid(
    run_optimised: Callable[[str], str],
) -> None:
    """The comparison with None is made like any other."""
    printed = run_optimised("""
from types import SimpleNamespace
facade = cloud_node.CloudManager()
for uuid in None, "A":
    facade.add_to_webs_client_pool(SimpleNamespace(node=SimpleNamespace(uuid=uuid), worker_id=1))
print(facade.flush_webs_client_pool(None), len(facade.webs_client_pool))
""")
    assert printed == "[1] 1\n"


@pytest.mark.parametrize(
    "odd",
    [
        SimpleNamespace(),
        SimpleNamespace(node=None),
        SimpleNamespace(node=SimpleNamespace()),
        SimpleNamespace(node=SimpleNamespace(uuid="A")),
    ],
    ids=["no node", "None for a node", "no uuid", "no worker id"],
)
def test_an_odd_client_fails_the_walk_and_leaves_the_pool_as_it_was(pooled: Any, odd: Any) -> None:
    """The attribute error propagates after the lock is free; nothing has been flushed before it."""
    pooled.webs_client_pool.append(odd)
    before = pooled.webs_client_pool
    with pytest.raises(AttributeError):
        pooled.flush_webs_client_pool("A")
    if not (hasattr(odd, "node") and hasattr(odd.node, "uuid")):
        with pytest.raises(AttributeError):
            pooled.get_from_webs_client_pool("C")
    assert pooled.webs_client_pool is before
    assert before == [A1, B1, A2, odd]
    assert is_free(pooled.webs_client_pool_lock)


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("name", ["get_from_webs_client_pool", "flush_webs_client_pool"])
def test_a_failing_comparison_frees_the_lock(pooled: Any, name: str, kind: type[BaseException]) -> None:
    """The equality is that of the objects compared."""

    class Unequal:
        def __eq__(self, other: object) -> bool:
            raise kind("broken")

    with pytest.raises(kind, match="broken"):
        getattr(pooled, name)(Unequal())
    assert pooled.webs_client_pool == [A1, B1, A2]
    assert is_free(pooled.webs_client_pool_lock)


def test_a_pool_that_is_no_list_is_used_as_python_uses_it(facade: Any) -> None:
    """append, iteration and clear are its own; a missing one is an error with the lock free."""
    facade.webs_client_pool = (A1, B1)
    with pytest.raises(AttributeError, match="append"):
        facade.add_to_webs_client_pool(A2)
    assert facade.get_from_webs_client_pool("B") is B1
    assert facade.webs_client_pool == [A1]
    facade.webs_client_pool = None
    with pytest.raises(AttributeError, match="clear"):
        facade.flush_webs_client_pool(None, True)
    with pytest.raises(TypeError, match="not iterable"):
        facade.get_from_webs_client_pool("A")
    assert is_free(facade.webs_client_pool_lock)


UUIDS = st.sampled_from("ABC")


def test_random_sequences_keep_the_pool_as_a_plain_list_keeps_it(
    cloud_node: ModuleType, log: CallLog
) -> None:
    """Any sequence of operations leaves the clients, and gives the answers, of a list kept by hand."""

    class Pool(RuleBasedStateMachine):
        def __init__(self) -> None:
            super().__init__()
            self.facade = cloud_node.CloudManager()
            self.model: list[Any] = []

        @rule(uuid=UUIDS, number=st.integers(1, 3))
        def add(self, uuid: str, number: int) -> None:
            added = client(f"{uuid}{number}")
            self.facade.add_to_webs_client_pool(added)
            self.model.append(added)

        @rule(uuid=UUIDS)
        def get(self, uuid: str) -> None:
            matches = [each for each in self.model if each.node.uuid == uuid]
            got = self.facade.get_from_webs_client_pool(uuid)
            assert got is next(iter(matches), None)
            self.model = [each for each in self.model if each is not got]

        @rule(uuid=UUIDS)
        def flush(self, uuid: str) -> None:
            ids = [each.worker_id for each in self.model if each.node.uuid == uuid]
            assert self.facade.flush_webs_client_pool(uuid) == ids
            self.model = [each for each in self.model if each.node.uuid != uuid]

        @rule(uuid=st.none() | UUIDS)
        def flush_all(self, uuid: str | None) -> None:
            assert self.facade.flush_webs_client_pool(uuid, flush_all=True) == []
            self.model = []

        @invariant()
        def pools_agree(self) -> None:
            assert [*map(id, self.facade.webs_client_pool)] == [*map(id, self.model)]
            assert is_free(self.facade.webs_client_pool_lock)

    run_state_machine_as_test(  # type: ignore[no-untyped-call]
        Pool, settings=settings(max_examples=60, stateful_step_count=20, deadline=None, database=None)
    )


def test_each_client_is_handed_to_one_thread_alone(facade: Any) -> None:
    """Eight threads take what four hundred clients there are, none twice."""
    for number in range(400):
        facade.add_to_webs_client_pool(client(f"A{number}"))
    start = threading.Barrier(8)
    taken: list[list[str]] = [[] for _ in range(8)]

    def take(mine: list[str]) -> None:
        start.wait()
        while (got := facade.get_from_webs_client_pool("A")) is not None:
            mine.append(got.worker_id)

    threads = [threading.Thread(target=take, args=(mine,)) for mine in taken]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(worker for mine in taken for worker in mine) == sorted(
        f"A{number}" for number in range(400)
    )
    assert facade.webs_client_pool == []
