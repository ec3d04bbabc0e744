"""The facade's provider for a region: chosen by its kind, made once, kept for ever."""

from __future__ import annotations

import logging
import threading
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.facade.conftest import AUTH, LOCAL, PROVIDERS
from tests.fakes import AWS_REGION, CallLog, Fake, call, is_free, recording
from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import AWSCloudAuth, CloudAuth, CloudRegion

STORED = AWSCloudAuth(aws_profile="stored")


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
