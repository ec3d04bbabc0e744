"""The provider operations that every provider must override, and the key-pair operations beside them."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest

from tests.fakes import AWS_REGION, CallLog
from tests.registry.conftest import OPERATIONS, provider_class


def test_the_abstract_classes_cannot_be_instantiated(cloud_node: ModuleType) -> None:
    """Neither the node manager nor the key-pair manager."""
    with pytest.raises(TypeError, match="abstract class NodeManager"):
        cloud_node.NodeManager(AWS_REGION)
    with pytest.raises(TypeError, match="abstract class CloudKeyPairManager"):
        cloud_node.CloudKeyPairManager()


@pytest.mark.parametrize("operation", OPERATIONS)
def test_a_provider_that_leaves_an_operation_out_cannot_be_instantiated(
    cloud_node: ModuleType, log: CallLog, operation: str
) -> None:
    """The error names the operation."""
    with pytest.raises(TypeError, match=operation):
        provider_class(cloud_node, operation)(AWS_REGION)


def test_a_provider_with_all_operations_can_be_instantiated(cloud_node: ModuleType, log: CallLog) -> None:
    """It is a NodeManager and no CloudKeyPairManager."""
    manager = provider_class(cloud_node)(AWS_REGION)
    assert isinstance(manager, cloud_node.NodeManager)
    assert not isinstance(manager, cloud_node.CloudKeyPairManager)


@pytest.mark.parametrize("left_out", ["create_key_pair", "delete_key_pair"])
def test_a_key_pair_manager_needs_both_operations(cloud_node: ModuleType, left_out: str) -> None:
    """With one of the two it stays abstract, with both it does not."""
    body: dict[str, Any] = {"create_key_pair": lambda self: None, "delete_key_pair": lambda self: None}
    base = cloud_node.CloudKeyPairManager
    type(base)("Whole", (base,), dict(body))()
    del body[left_out]
    with pytest.raises(TypeError, match=left_out):
        type(base)("Half", (base,), body)()


ARGUMENTS = {
    "launch_node": (None, None),
    "start_node": ("i",),
    "stop_node": ("i",),
    "terminate_node": ("i",),
}


@pytest.mark.parametrize("operation", OPERATIONS)
def test_the_base_operations_do_nothing_and_return_none(cloud_node: ModuleType, operation: str) -> None:
    """Called on the base directly, with any object as self."""
    assert getattr(cloud_node.NodeManager, operation)(object(), *ARGUMENTS.get(operation, ())) is None


def test_the_base_key_pair_operations_do_nothing_and_return_none(cloud_node: ModuleType) -> None:
    """Called on the base directly, with any object as self."""
    assert cloud_node.CloudKeyPairManager.create_key_pair(object(), "k", None) is None
    assert cloud_node.CloudKeyPairManager.delete_key_pair(object(), "k") is None


@pytest.mark.parametrize("owner", ["CloudKeyPairManager", "AWSNodeManager"])
def test_create_key_pair_needs_a_username(cloud_node: ModuleType, owner: str) -> None:
    """There is no default; the error is the interpreter's own."""
    with pytest.raises(TypeError) as caught:
        getattr(cloud_node, owner).create_key_pair(object(), "k")
    assert (
        str(caught.value) == f"{owner}.create_key_pair() missing 1 required positional argument: 'username'"
    )


@pytest.mark.parametrize(
    ("arguments", "keywords", "text"),
    [
        ((), {}, "missing 2 required positional arguments: 'instance_id' and 'node_state'"),
        (("i", 1, 2, 3), {}, "takes from 3 to 4 positional arguments but 5 were given"),
        (("i", 1), {"instance_id": "j"}, "got multiple values for argument 'instance_id'"),
        (("i", 1), {"redy": True}, "got an unexpected keyword argument 'redy'"),
    ],
    ids=["missing", "too many", "twice", "unknown"],
)
def test_wrong_arguments_get_the_interpreters_own_error(
    cloud_node: ModuleType, arguments: Any, keywords: Any, text: str
) -> None:
    """As for a method written in Python; newer interpreters add a suggestion at the end."""
    with pytest.raises(TypeError) as caught:
        cloud_node.NodeManager.change_node_state(object(), *arguments, **keywords)
    assert str(caught.value).startswith(f"NodeManager.change_node_state() {text}")


def test_every_provider_overrides_every_operation(cloud_node: ModuleType) -> None:
    """Only Amazon's is a key-pair manager too."""
    for provider in (
        cloud_node.AWSNodeManager,
        cloud_node.LocalContainerNodeManager,
        cloud_node.K8sNodeManager,
    ):
        assert set(OPERATIONS) <= set(vars(provider))
        assert provider.__abstractmethods__ == frozenset()
        assert issubclass(provider, cloud_node.CloudKeyPairManager) is (provider is cloud_node.AWSNodeManager)
