"""The facade's provider for a region: chosen by its kind, made once, kept for ever."""

from __future__ import annotations

import logging
import threading
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.facade.conftest import AUTH, LAB, LOCAL, PROVIDERS
from tests.fakes import AWS_REGION, LOCKED, RELEASED, CallLog, Fake, FakeLock, call, is_free, recording
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudAuth, CloudRegion

STORED = AWSCloudAuth(aws_profile="stored")


@pytest.fixture
def classes(cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch) -> None:
    """Recording functions in the place of the three provider classes, each giving its own name."""
    for name in PROVIDERS:
        monkeypatch.setattr(cloud_node, name, recording(log, name, lambda *a, name=name, **k: f"a {name}"))


def test_the_constructor_sets_its_attributes_in_order(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Settings shared, everything else separate."""
    monkeypatch.setattr(cloud_node, "CloudConfManager", recording(log, "CloudConfManager", "the store"))
    facade = cloud_node.CloudManager()
    assert list(vars(facade)) == [
        "core_conf",
        "cloud_conf_manager",
        "_node_manager_hashset",
        "_node_manager_hashset_lock",
        "webs_client_pool",
        "webs_client_pool_lock",
        "logger",
        "is_cloud_vendor_ready",
    ]
    assert facade.core_conf is cloud_node.core_conf_glbl
    assert facade.cloud_conf_manager == "the store"
    assert log == [call("CloudConfManager")]
    assert facade._node_manager_hashset == {}
    assert facade.webs_client_pool == []
    assert facade.logger is logging.getLogger("CloudManager")
    assert facade.is_cloud_vendor_ready is False
    locks = facade._node_manager_hashset_lock, facade.webs_client_pool_lock
    assert {type(lock) for lock in locks} == {type(threading.Lock())}
    assert locks[0] is not locks[1]
    assert all(is_free(lock) for lock in locks)


@pytest.mark.parametrize(("name", "region"), PROVIDERS.items(), ids=PROVIDERS)
def test_the_kind_of_the_region_chooses_the_provider(
    facade: Any, log: CallLog, classes: None, name: str, region: CloudRegion
) -> None:
    """Made with the region itself, by position; only Amazon's gets credentials, by keyword."""
    assert facade._get_node_manager(region, AUTH, "ada") == f"a {name}"
    credentials = {"auth": AUTH, "username": "ada"} if name == "AWSNodeManager" else {}
    assert log == [call(name, region, **credentials)]
    assert log[0].args[0] is region
    assert facade._node_manager_hashset == {region.hash_key: f"a {name}"}


def test_real_providers_are_made_of_every_kind(
    cloud_node: ModuleType, facade: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    """With the region as given."""
    monkeypatch.setattr(cloud_node, "K8sConsoleClient", lambda region: None)
    for name, region in PROVIDERS.items():
        manager = facade._get_node_manager(region, AUTH, "ada")
        assert type(manager) is getattr(cloud_node, name)
        assert manager.region is region


def test_a_region_has_one_provider_for_ever(facade: Any, log: CallLog) -> None:
    """For a second region with the same key too, and whatever credentials come later."""
    first = facade._get_node_manager(AWS_REGION, AUTH, "ada")
    assert facade._get_node_manager(AWS_REGION) is first
    assert facade._get_node_manager(CloudRegion(AWS_REGION.name, "AWS", title="another")) is first
    assert facade._get_node_manager(AWS_REGION, STORED, "bob") is first
    assert (first.auth, first.username) == (AUTH, "ada")
    assert facade._get_node_manager(LOCAL) is not first


def test_the_public_method_passes_no_credentials(facade: Any, log: CallLog) -> None:
    """It asks the private one, which may be overridden."""
    facade._get_node_manager = recording(log, "_get_node_manager", "a provider")
    assert facade.get_node_manager(LOCAL) == "a provider"
    assert log == [call("_get_node_manager", LOCAL)]


@pytest.mark.parametrize(("auth", "username"), [(None, None), (AUTH, None), (None, "ada")])
def test_credentials_that_are_not_whole_come_from_the_store(
    facade: Any, log: CallLog, classes: None, store: Fake, auth: Any, username: Any
) -> None:
    """Both are replaced, even when only one was missing."""
    store.answers["get_cloud_conf"] = SimpleNamespace(cloud_auth=STORED, user_name="stored user")
    facade._get_node_manager(AWS_REGION, auth, username)
    assert log == [
        call("store.get_cloud_conf", AWS_REGION),
        call("AWSNodeManager", AWS_REGION, auth=STORED, username="stored user"),
    ]


def test_whole_credentials_leave_the_store_alone(
    facade: Any, log: CallLog, classes: None, store: Fake
) -> None:
    """An empty user name is a user name."""
    facade._get_node_manager(AWS_REGION, AUTH, "")
    assert log == [call("AWSNodeManager", AWS_REGION, auth=AUTH, username="")]


@pytest.mark.parametrize(
    ("auth", "username", "stored"),
    [
        (None, None, None),
        (AUTH, None, None),
        (None, "ada", None),
        (CloudAuth(), "ada", None),
        (None, None, SimpleNamespace(cloud_auth=CloudAuth(), user_name="u")),
        (AUTH, None, SimpleNamespace(cloud_auth=STORED, user_name=None)),
        (AUTH, None, SimpleNamespace(cloud_auth=None, user_name="u")),
    ],
)
def test_no_usable_credentials_are_an_assertion_without_a_message(
    facade: Any, log: CallLog, classes: None, store: Fake, auth: Any, username: Any, stored: Any
) -> None:
    """Nothing is made or cached."""
    store.answers["get_cloud_conf"] = stored
    with pytest.raises(AssertionError) as caught:
        facade._get_node_manager(AWS_REGION, auth, username)
    assert caught.value.args == ()
    assert "AWSNodeManager" not in log.names
    assert facade._node_manager_hashset == {}


def test_the_real_store_without_a_file_knows_no_credentials(facade: Any) -> None:
    """The first call for an Amazon region then fails on its assertion."""
    assert type(facade.cloud_conf_manager) is CloudConfManager
    with pytest.raises(AssertionError):
        facade.get_node_manager(AWS_REGION)


def test_a_region_of_kubernetes_must_be_the_clusters_record(facade: Any, log: CallLog, classes: None) -> None:
    """An assertion without a message."""
    with pytest.raises(AssertionError) as caught:
        facade._get_node_manager(CloudRegion("lab", "k8s"))
    assert caught.value.args == ()
    assert log == []


def test_without_assertions_every_check_is_skipped(run_optimised: Callable[[str], str]) -> None:
    """Providers are then made with what there is."""
    printed = run_optimised("""
from tests.fakes import AWS_REGION
from tovarincore.cloud_def import CloudRegion
cloud_node.K8sConsoleClient = lambda region: region.name
facade = cloud_node.CloudManager()
class Store:
    def get_cloud_conf(self, region): return None
facade.cloud_conf_manager = Store()
manager = facade.get_node_manager(AWS_REGION)
print(manager.auth, manager.username)
print(facade.get_node_manager(CloudRegion("lab", "k8s")).console_client)
""")
    assert printed == "None None\nlab\n"


@pytest.mark.parametrize("kind", ["AWS ", "aws", "Local", "K8S", "azure", "", None, 5])
def test_an_unknown_kind_is_not_supported(facade: Any, log: CallLog, classes: None, kind: Any) -> None:
    """The message names it as str writes it; nothing is cached."""
    with pytest.raises(NotImplementedError) as caught:
        facade._get_node_manager(CloudRegion("x", kind), AUTH, "ada")
    assert caught.value.args == (f"Cloud Region {kind} is not supported",)
    assert log == []
    assert facade._node_manager_hashset == {}


def test_the_kind_is_read_afresh_for_each_comparison(facade: Any, classes: None) -> None:
    """With the kinds compared in a fixed order, and read once more for the message."""
    read: list[str] = []

    class Kind(str):
        def __eq__(self, other: object) -> bool:
            read.append(f"== {other}")
            return False

        __hash__ = str.__hash__

    class Region:
        hash_key = "key"

        @property
        def cloud(self) -> str:
            read.append("cloud")
            return Kind("odd")

    with pytest.raises(NotImplementedError, match="Cloud Region odd is not supported"):
        facade._get_node_manager(Region())
    assert read == ["cloud", "== AWS", "cloud", "== local", "cloud", "== k8s", "cloud"]


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
