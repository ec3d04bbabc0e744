"""The Kubernetes provider: each operation one call on the console client, or none."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import CallLog, Fake, call, recording
from tovarincore.cloud_def import K8sRegion

REGION = K8sRegion(name="lab")


@pytest.fixture
def client(log: CallLog) -> Fake:
    """The console client."""
    return Fake(log, "client")


@pytest.fixture
def manager(cloud_node: ModuleType, log: CallLog, client: Fake, monkeypatch: pytest.MonkeyPatch) -> Any:
    """A manager of a cluster over the recording client."""
    monkeypatch.setattr(
        cloud_node, "K8sConsoleClient", recording(log, "K8sConsoleClient", lambda region: client)
    )
    manager = cloud_node.K8sNodeManager(REGION)
    assert log == [call("K8sConsoleClient", REGION)]
    assert log[0].args[0] is REGION
    log.clear()
    return manager


def test_the_constructor_makes_one_client_after_the_base(manager: Any, client: Fake) -> None:
    """It stays the manager's; the region is the first thing of the base."""
    assert manager.console_client is client
    assert list(vars(manager))[-1] == "console_client"
    assert manager.region is REGION
    assert manager.get_node_list() == []


FOUR = {
    "instance_type_def": "type",
    "instance_config": "config",
    "additional_params": None,
    "startup_script": None,
}
FORWARDED: dict[str, tuple[Callable[[Any], Any], Any]] = {
    "list_instances": (lambda manager: manager.list_instances(), call("client.get_cloud_nodes")),
    "launch": (lambda manager: manager.launch_node("type", "config"), call("client.launch_node", **FOUR)),
    "launch with everything": (
        lambda manager: manager.launch_node("type", "config", "auth", "ada", True, True, "more", "script"),
        call("client.launch_node", **{**FOUR, "additional_params": "more", "startup_script": "script"}),
    ),
    "launch by keyword": (
        lambda manager: manager.launch_node(
            startup_script="s",
            dry_run=True,
            auth=1,
            username=2,
            instance_config="config",
            instance_type_def="type",
        ),
        call("client.launch_node", **{**FOUR, "startup_script": "s"}),
    ),
    "terminate": (
        lambda manager: manager.terminate_node("i"),
        call("client.terminate_node", instance_id="i", stop_reason=None),
    ),
    "terminate with a reason": (
        lambda manager: manager.terminate_node("i", "idle"),
        call("client.terminate_node", instance_id="i", stop_reason="idle"),
    ),
    "templates": (lambda manager: manager.list_instance_templates(), call("client.list_instance_templates")),
    "private templates": (
        lambda manager: manager.list_instance_templates(is_public=False),
        call("client.list_instance_templates"),
    ),
    "types": (lambda manager: manager.list_instance_types(), call("client.list_instance_types")),
}


@pytest.mark.parametrize(("operation", "forwarded"), FORWARDED.values(), ids=FORWARDED)
def test_an_operation_is_one_call_whose_result_comes_back(
    manager: Any, client: Fake, log: CallLog, operation: Callable[[Any], Any], forwarded: Any
) -> None:
    """Unchanged; credentials, user, dry run, waiting and publicity are never passed on."""
    answer = object()
    client.answers[forwarded.name.partition(".")[2]] = answer
    assert operation(manager) is answer
    assert log == [forwarded]


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize(("operation", "forwarded"), FORWARDED.values(), ids=FORWARDED)
def test_errors_of_the_client_reach_the_caller(
    manager: Any,
    client: Fake,
    log: CallLog,
    operation: Callable[[Any], Any],
    forwarded: Any,
    kind: type[BaseException],
) -> None:
    """Unchanged and unlogged."""
    client.answers[forwarded.name.partition(".")[2]] = error = kind("refused")
    with pytest.raises(kind) as caught:
        operation(manager)
    assert caught.value is error
    assert log == [forwarded]


def test_starting_and_stopping_do_nothing(manager: Any, log: CallLog) -> None:
    """No call, no error, None; reboot comes before waiting in the argument list."""
    manager.console_client = None
    assert manager.start_node("i") is None
    assert manager.start_node("i", True, True) is None
    assert manager.start_node(instance_id=None, reboot=True, wait_until_cloud_provider_ready=True) is None
    assert manager.stop_node("i") is None
    assert log == []


def test_the_client_is_looked_up_at_each_call(manager: Any, log: CallLog) -> None:
    """One put in its place takes effect."""
    manager.console_client = Fake(log, "other", get_cloud_nodes="others")
    assert manager.list_instances() == "others"
