"""The cache of the facade's providers: its lock, its two looks and what is never kept."""

from __future__ import annotations

import threading
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.facade.conftest import AUTH, LAB, LOCAL, PROVIDERS
from tests.fakes import LOCKED, RELEASED, CallLog, FakeLock, call, is_free, recording
from tovarincore.cloud_def import CloudRegion


def test_no_region_is_looked_up_without_the_lock_and_then_an_attribute_error(
    facade: Any, log: CallLog
) -> None:
    """None has no kind."""
    facade._node_manager_hashset_lock = FakeLock(log)
    assert facade._get_cached_node_manager(None) is None
    with pytest.raises(AttributeError, match="'NoneType' object has no attribute 'cloud'"):
        facade._get_node_manager(None)
    assert log == []


def test_look_up_and_store_each_take_the_lock_for_three_seconds(
    facade: Any, log: CallLog, classes: None
) -> None:
    """The provider is made between them, outside the lock; a hit takes it once."""
    facade._node_manager_hashset_lock = FakeLock(log)
    facade._get_node_manager(LOCAL)
    assert log == [LOCKED, RELEASED, call("LocalContainerNodeManager", LOCAL), LOCKED, RELEASED]
    log.clear()
    assert facade._get_node_manager(LOCAL) == "a LocalContainerNodeManager"
    assert log == [LOCKED, RELEASED]


def test_the_cache_methods_look_up_and_replace(facade: Any) -> None:
    """By the region's key; an earlier entry gives way; whatever is stored comes back, None as a miss."""
    assert facade._get_cached_node_manager(LOCAL) is None
    assert facade._cache_node_manager(LOCAL, "first") is None
    assert facade._cache_node_manager(LOCAL, "second") is None
    assert facade._get_cached_node_manager(LOCAL) == "second"
    assert facade._node_manager_hashset == {"local:local": "second"}


class LoggedText(str):
    """A key that tells when it is hashed or compared."""

    seen: list[str]

    def __hash__(self) -> int:
        self.seen.append("hash")
        return super().__hash__()

    def __eq__(self, other: object) -> bool:
        self.seen.append("compare")
        return super().__eq__(other)


def test_the_key_is_looked_for_twice(facade: Any) -> None:
    """Once for whether it is there, once for the provider; its own methods are called each time."""
    key = LoggedText("local:local")
    key.seen = []
    facade._node_manager_hashset["local:local"] = "provider"
    assert facade._get_cached_node_manager(SimpleNamespace(hash_key=key)) == "provider"
    assert key.seen == ["hash", "compare", "hash", "compare"]


def test_the_first_key_goes_before_the_second_is_read(facade: Any) -> None:
    """Its finaliser may change what the second look finds."""
    seen: list[str] = []

    class Key(str):
        def __del__(self) -> None:
            seen.append("dropped")

    class Region:
        @property
        def hash_key(self) -> str:
            seen.append("read")
            return Key("local:local")

    facade._node_manager_hashset["local:local"] = "provider"
    assert facade._get_cached_node_manager(Region()) == "provider"
    assert seen == ["read", "dropped"] * 2


def test_a_key_in_the_cache_is_compared_twice(facade: Any) -> None:
    """A plain text may meet a key with its own methods."""
    key = LoggedText("local:local")
    key.seen = []
    facade._node_manager_hashset = {key: "provider"}
    key.seen.clear()
    for _ in range(3):
        assert facade._get_cached_node_manager(LOCAL) == "provider"
    assert key.seen == ["compare"] * 6


class ChangingRegion:
    """A region that does something while its key is read for the second time."""

    def __init__(self, change: Callable[[], str | None]) -> None:
        self.change = change
        self.reads = 0

    @property
    def hash_key(self) -> str:
        self.reads += 1
        return self.change() or KEY if self.reads == 2 else KEY


KEY = "a:key"


@pytest.mark.parametrize("other_key", [False, True])
@pytest.mark.parametrize("change", ["value", "cache", "gone", "larger", "none"])
def test_what_happens_between_the_two_looks_counts(facade: Any, change: str, other_key: bool) -> None:
    """The second look is by the key that is there then, into the cache that was read just before the key."""
    cache = facade._node_manager_hashset = {KEY: "first"}

    def between() -> str | None:
        if change == "value":
            cache[KEY] = "second"
        elif change == "cache":
            facade._node_manager_hashset = {KEY: "of another cache"}
        elif change == "gone":
            del cache[KEY]
        elif change == "larger":
            cache.update({str(number): str(number) for number in range(100)})
        return "".join(["a:", "key"]) if other_key else None

    region = ChangingRegion(between)
    if change == "gone":
        with pytest.raises(KeyError, match=KEY):
            facade._get_cached_node_manager(region)
    else:
        assert facade._get_cached_node_manager(region) == cache[KEY]
    assert region.reads == 2
    assert facade._node_manager_hashset_lock.locked() is False


def test_a_cached_provider_is_any_object_but_none(facade: Any, log: CallLog, classes: None) -> None:
    """A false one is a hit; for None a new one is made."""
    facade._node_manager_hashset[LOCAL.hash_key] = ""
    assert facade._get_node_manager(LOCAL) == ""
    facade._node_manager_hashset[LOCAL.hash_key] = None
    assert facade._get_node_manager(LOCAL) == "a LocalContainerNodeManager"


@pytest.mark.parametrize("attempt", ["look-up", "store"])
def test_a_cache_lock_that_is_not_acquired_is_a_bare_timeout_error(
    facade: Any, log: CallLog, classes: None, attempt: str
) -> None:
    """A provider that cannot be stored is lost."""
    lock = facade._node_manager_hashset_lock = FakeLock(log)
    answers = iter([False] if attempt == "look-up" else [True, False])
    lock.acquired = lambda: next(answers)
    with pytest.raises(TimeoutError) as caught:
        facade._get_node_manager(LOCAL)
    assert caught.value.args == ()
    made = [RELEASED, call("LocalContainerNodeManager", LOCAL), LOCKED] if attempt == "store" else []
    assert log == [LOCKED, *made]
    assert facade._node_manager_hashset == {}


class Unhashable:
    """A region whose key cannot be hashed, or not be read."""

    cloud = "local"

    def __init__(self, error: BaseException | None = None) -> None:
        self.error = error

    @property
    def hash_key(self) -> Any:
        if self.error:
            raise self.error
        return []


@pytest.mark.parametrize("error", [None, RuntimeError("broken"), KeyboardInterrupt()], ids=repr)
def test_a_failure_under_the_cache_lock_propagates_and_frees_it(
    facade: Any, error: BaseException | None
) -> None:
    """In the look-up and in the store."""
    region = Unhashable(error)
    expected = type(error) if error else TypeError
    with pytest.raises(expected):
        facade._get_cached_node_manager(region)
    assert is_free(facade._node_manager_hashset_lock)
    with pytest.raises(expected):
        facade._cache_node_manager(region, "x")
    assert is_free(facade._node_manager_hashset_lock)
    assert facade._node_manager_hashset == {}


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize(("name", "region"), PROVIDERS.items(), ids=PROVIDERS)
def test_a_provider_that_cannot_be_made_is_not_cached(
    cloud_node: ModuleType,
    facade: Any,
    monkeypatch: pytest.MonkeyPatch,
    name: str,
    region: CloudRegion,
    kind: type[BaseException],
) -> None:
    """Its constructor's error passes through; the next call tries again."""
    error = kind("broken")
    monkeypatch.setattr(cloud_node, name, recording(CallLog(), name, error))
    with pytest.raises(kind) as caught:
        facade._get_node_manager(region, AUTH, "ada")
    assert caught.value is error
    assert is_free(facade._node_manager_hashset_lock)
    monkeypatch.setattr(cloud_node, name, recording(CallLog(), name, "made"))
    assert facade._get_node_manager(region, AUTH, "ada") == "made"


def test_the_parts_are_called_on_the_facade_itself(facade: Any, log: CallLog, classes: None) -> None:
    """Overrides of the look-up and of the store take effect."""
    facade._get_cached_node_manager = recording(log, "look-up")
    facade._cache_node_manager = recording(log, "store")
    facade._get_node_manager(LAB)
    assert log == [call("look-up", LAB), call("K8sNodeManager", LAB), call("store", LAB, "a K8sNodeManager")]


def test_of_two_threads_that_miss_at_once_the_last_to_store_wins(
    cloud_node: ModuleType, facade: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Each gets the provider that it made itself."""
    both = threading.Barrier(2)
    made: list[Any] = []

    def make(region: Any) -> Any:
        both.wait(30)
        made.append(object())
        return made[-1]

    monkeypatch.setattr(cloud_node, "LocalContainerNodeManager", make)
    got: list[Any] = []
    threads = [threading.Thread(target=lambda: got.append(facade._get_node_manager(LOCAL))) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert got[0] is not got[1]
    assert {*map(id, got)} == {*map(id, made)}
    assert facade._get_node_manager(LOCAL) in got
