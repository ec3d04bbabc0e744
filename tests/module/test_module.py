"""The module object: what it publishes, and that its names, methods and classes can be replaced."""

from __future__ import annotations

import builtins
import copy
import importlib
import pickle
import sys
import threading
import typing
import weakref
from importlib.machinery import EXTENSION_SUFFIXES
from types import ModuleType
from typing import Any
from unittest import mock

import pytest

from tests.conftest import Child
from tests.fakes import AWS_REGION, CallLog, make_node
from tests.registry.conftest import provider_class
from tovarincore.cloud_def import CloudRegion

LOCAL = CloudRegion("local", "local")


def test_the_imported_extension_is_the_built_one(extension: ModuleType) -> None:
    """A file with the interpreter's tag; otherwise run `make build` first."""
    assert extension.__file__ is not None, "run `make build` first"
    assert extension.__file__.endswith(f"/tovarincore/cloud_node{EXTENSION_SUFFIXES[0]}"), (
        "run `make build` first"
    )
    assert extension.__spec__ is not None
    assert type(extension.__spec__.loader).__name__ == "ExtensionFileLoader"


def test_a_second_import_gives_the_same_module_and_facade(cloud_node: ModuleType) -> None:
    """Even when it has been taken out of the list of modules in between."""
    facade = cloud_node.cloud_manager_glbl
    assert importlib.import_module(cloud_node.__name__) is cloud_node
    assert cloud_node.cloud_manager_glbl is facade


def test_an_import_after_removal_gives_the_very_module_back(
    extension: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """It is initialised once per process; plain Python would make a new one."""
    facade, name = extension.cloud_manager_glbl, extension.__name__
    parent = sys.modules["tovarincore"]
    monkeypatch.delitem(sys.modules, name)
    monkeypatch.setattr(parent, "cloud_node", extension)
    again = importlib.import_module(name)
    assert again is extension
    assert again.cloud_manager_glbl is facade


def test_the_facade_is_made_by_the_import(cloud_node: ModuleType) -> None:
    """One CloudManager for the whole process."""
    assert type(cloud_node.cloud_manager_glbl) is cloud_node.CloudManager


def test_the_client_lock_is_a_plain_lock_that_nobody_holds(cloud_node: ModuleType) -> None:
    """Not reentrant."""
    lock = cloud_node.aws_node_manager_client_lock
    assert type(lock) is type(threading.Lock())
    assert not lock.locked()


def test_the_security_groups_name_needs_no_instance(cloud_node: ModuleType) -> None:
    """It is an attribute of the class."""
    assert cloud_node.AWSNodeManager.tovarin_security_group_name == "tovarin-security-group"


def test_names_for_type_checkers_are_not_bound(cloud_node: ModuleType) -> None:
    """TYPE_CHECKING is false at run time."""
    assert cloud_node.TYPE_CHECKING is False
    assert not hasattr(cloud_node, "Session")
    assert not hasattr(cloud_node, "BaseClient")


def test_the_bound_names_are_the_siblings_own(cloud_node: ModuleType) -> None:
    """The same objects, under the same names."""
    for sibling in ("api_def", "cloud_conf", "cloud_def", "container_helper", "core_conf", "core_def"):
        module = importlib.import_module(f"tovarincore.{sibling}")
        shared = [name for name in vars(cloud_node) if name in getattr(module, "__all__", ())]
        assert shared
        for name in shared:
            assert getattr(cloud_node, name) is getattr(module, name)
    for name in ("List", "Optional", "Tuple", "Any", "Union"):
        assert getattr(cloud_node, name) is getattr(typing, name)
    assert cloud_node.deepcopy is copy.deepcopy


def test_a_name_that_is_missing_at_the_call_is_a_name_error(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Names are looked up when they are used, in the module and then among the built-ins."""
    manager = provider_class(cloud_node)(AWS_REGION)
    # Puts the names back in their order too.
    with mock.patch.dict(vars(cloud_node)):
        del cloud_node.deepcopy
        with pytest.raises(NameError, match="name 'deepcopy' is not defined"):
            manager.get_node_list()
        monkeypatch.setattr(builtins, "deepcopy", lambda given: "built in", raising=False)
        assert manager.get_node_list() == "built in"


def test_a_built_in_shadowed_in_the_module_takes_effect(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """TimeoutError and isinstance are ordinary names."""

    class OwnTimeout(Exception):
        pass

    manager = provider_class(cloud_node)(AWS_REGION)
    manager._NodeManager__node_list_lock.acquire()
    manager._NodeManager__node_list_lock = mock.Mock(acquire=mock.Mock(return_value=False))
    monkeypatch.setattr(cloud_node, "TimeoutError", OwnTimeout, raising=False)
    with pytest.raises(OwnTimeout):
        manager.get_node_list()


def test_the_constructor_uses_the_modules_names_of_the_moment(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Settings, logger and lock of a node manager."""
    fake = mock.Mock()
    monkeypatch.setattr(cloud_node, "core_conf_glbl", "settings")
    monkeypatch.setattr(cloud_node, "threading", fake)
    manager = provider_class(cloud_node)(AWS_REGION)
    assert manager.core_conf == "settings"
    assert manager._NodeManager__node_list_lock is fake.Lock.return_value


def test_a_method_patched_on_the_class_takes_effect(cloud_node: ModuleType, log: CallLog) -> None:
    """For callers inside the module too, and is taken away again."""
    facade = cloud_node.CloudManager()
    with mock.patch.object(cloud_node.CloudManager, "_get_node_manager") as patched:
        patched.return_value.get_node_list.return_value = "patched"
        assert facade.get_node_list("region") == "patched"
        patched.assert_called_once_with("region")
    assert facade._get_cached_node_manager(LOCAL) is None


def test_a_subclass_overrides_and_calls_the_base(cloud_node: ModuleType, log: CallLog) -> None:
    """super() reaches our methods, and our methods reach the override."""

    class Counting(cloud_node.CloudManager):  # type: ignore[misc, name-defined]
        def __init__(self) -> None:
            super().__init__()
            self.asked: list[Any] = []

        def _get_node_manager(self, region: Any, auth: Any = None, username: Any = None) -> Any:
            self.asked.append((region, auth, username))
            return super()._get_node_manager(region, auth, username)

    facade = Counting()
    facade.set_node(make_node(region=LOCAL))
    assert [node.instance_id for node in facade.get_node_list(LOCAL)] == ["i-1"]
    assert facade.asked == [(LOCAL, None, None)] * 2


def test_the_private_names_are_mangled_with_the_class_that_uses_them(
    cloud_node: ModuleType, log: CallLog
) -> None:
    """A subclass with its own list under the same source name does not touch the registry."""

    class Own(provider_class(cloud_node)):  # type: ignore[misc]
        def __init__(self, region: Any) -> None:
            super().__init__(region)
            self.__node_list = "own"

    manager = Own(AWS_REGION)
    assert manager.get_node_list() == []
    assert manager._Own__node_list == "own"


def test_attributes_can_be_added_to_instances_classes_and_methods(
    cloud_node: ModuleType, log: CallLog
) -> None:
    """They have dictionaries, and instances can be referred to weakly."""
    facade = cloud_node.CloudManager()
    facade.note = 1
    function = cloud_node.CloudManager.get_node_list
    function.note = 2
    try:
        assert (facade.note, cloud_node.CloudManager.get_node_list.note, facade.get_node_list.note) == (
            1,
            2,
            2,
        )
    finally:
        del function.note
    assert weakref.ref(facade)() is facade
    assert weakref.ref(function)() is function


def test_methods_pickle_and_copy_by_name(cloud_node: ModuleType) -> None:
    """As functions of plain Python do."""
    function = cloud_node.CloudManager.get_node_list
    assert pickle.loads(pickle.dumps(function)) is function
    assert copy.deepcopy(function) is function


def test_an_unbound_method_takes_any_self(cloud_node: ModuleType) -> None:
    """There is no check of its type, as in plain Python."""
    stranger = mock.Mock()
    cloud_node.CloudManager.get_node_list(stranger, "region")
    assert stranger.mock_calls == [
        mock.call._get_node_manager("region"),
        mock.call._get_node_manager().get_node_list(),
    ]
    assert (
        cloud_node.CloudManager.get_node_manager(self=stranger, region=1)
        is stranger._get_node_manager.return_value
    )


def test_a_static_method_is_called_the_same_on_class_and_instance(cloud_node: ModuleType) -> None:
    """Without self on either."""
    for owner in (cloud_node.CloudManager, cloud_node.cloud_manager_glbl):
        assert owner._CloudManager__extract_instance_template([], 1, 2) is None


RECURSION = """
import inspect, sys
from tests.fakes import AWS_REGION, CallLog, is_free, recording_logger
from tests.registry.conftest import provider_class
limit = sys.getrecursionlimit()
for depth in range(100, 140):
    manager = provider_class(cloud_node)(AWS_REGION)
    manager.logger = recording_logger(CallLog())
    manager.list_instances = {listing}
    sys.setrecursionlimit(len(inspect.stack()) + depth)
    result = manager.refresh_node_list()
    sys.setrecursionlimit(limit)
    assert result.error, result
    assert is_free(manager._NodeManager__node_list_lock), depth
"""


@pytest.mark.parametrize("listing", ["manager.refresh_node_list", "lambda: manager.refresh_node_list()"])
def test_recursion_without_end_is_caught_as_any_failure_and_leaves_the_lock_free(
    cloud_node: ModuleType, run_child: Child, listing: str
) -> None:
    """A provider whose listing refreshes again ends in an error result, wherever the limit is met."""
    package = cloud_node.__name__.rpartition(".")[0]
    child = run_child(f"from {package} import cloud_node\n" + RECURSION.format(listing=listing))
    # What the import system says about its callbacks at the limit is not ours: standard error may hold it.
    assert child.returncode == 0, child.stderr


def test_a_mock_of_the_facade_refuses_what_the_facade_refuses(cloud_node: ModuleType) -> None:
    """By name, by number, and on the mocks of instances: autospec reads the methods' signatures."""
    facade = mock.create_autospec(cloud_node.CloudManager)()
    facade.get_node_list(LOCAL)
    facade.flush_webs_client_pool("u", flush_all=True)
    for refused in (
        lambda: facade.get_node_list(),
        lambda: facade.get_node_list(LOCAL, 1),
        lambda: facade.get_node_list(place=LOCAL),
        lambda: facade.flush_webs_client_pool(flush=True),
        lambda: cloud_node.CloudManager.get_node_list(),
    ):
        with pytest.raises(TypeError):
            refused()
