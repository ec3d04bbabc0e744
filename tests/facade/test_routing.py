"""The facade's node operations: the provider asked for, what is forwarded, what is recorded afterwards."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.facade.conftest import LAB, LOCAL
from tests.fakes import AWS_REGION, CallLog, Fake, call, make_node, recording
from tovarincore.cloud_def import AWSCloudAuth, NodeState
from tovarincore.core_def import OPResult, OPResultErrorCode

NODE = make_node(region=LOCAL)
GOOD, BAD = OPResult(success=True), OPResult(error=True, msg="refused")
ASKED = "_get_node_manager"
LAUNCH = {
    "auth": "auth",
    "instance_type_def": "type",
    "instance_config": "config",
    "username": None,
    "wait_until_cloud_provider_ready": False,
    "additional_params": None,
    "startup_script": None,
}

# One line each: the operation, how the provider is asked for, what is forwarded to it.
ROUTES: dict[str, tuple[Callable[[Any], Any], Any, Any]] = {
    "get_node_list": (lambda f: f.get_node_list("r"), call(ASKED, "r"), call("provider.get_node_list")),
    "set_node": (lambda f: f.set_node(NODE), call(ASKED, LOCAL), call("provider.set_node", NODE)),
    "get_ready_node_next_in_line": (
        lambda f: f.get_ready_node_next_in_line("r"),
        call(ASKED, "r"),
        call("provider.get_ready_node_next_in_line"),
    ),
    "find_node_by_instance_id": (
        lambda f: f.find_node_by_instance_id("r", instance_id="i"),
        call(ASKED, "r"),
        call("provider.find_node_by_instance_id", "i"),
    ),
    "find_node_by_uuid": (
        lambda f: f.find_node_by_uuid("r", uuid="u"),
        call(ASKED, "r"),
        call("provider.find_node_by_uuid", "u"),
    ),
    "refresh_node": (lambda f: f.refresh_node(NODE), call(ASKED, LOCAL), call("provider.refresh_node", NODE)),
    "refresh_node_list": (
        lambda f: f.refresh_node_list("r"),
        call(ASKED, "r", None, None),
        call("provider.refresh_node_list"),
    ),
    "refresh_node_list with credentials": (
        lambda f: f.refresh_node_list("r", username="ada", auth="auth"),
        call(ASKED, "r", "auth", "ada"),
        call("provider.refresh_node_list"),
    ),
    "launch_node": (
        lambda f: f.launch_node("r", "auth", "type", "config"),
        call(ASKED, "r"),
        call("provider.launch_node", **LAUNCH),
    ),
    "launch_node with everything": (
        lambda f: f.launch_node("r", "auth", "type", "config", "ada", True, "more", "script"),
        call(ASKED, "r"),
        call(
            "provider.launch_node",
            **{
                **LAUNCH,
                "username": "ada",
                "wait_until_cloud_provider_ready": True,
                "additional_params": "more",
                "startup_script": "script",
            },
        ),
    ),
    "list_instances": (
        lambda f: f.list_instances("r"),
        call(ASKED, "r", auth=None, username=None),
        call("provider.list_instances"),
    ),
    "list_instances with credentials": (
        lambda f: f.list_instances("r", "auth", "ada"),
        call(ASKED, "r", auth="auth", username="ada"),
        call("provider.list_instances"),
    ),
}


@pytest.mark.parametrize(("operation", "asked", "forwarded"), ROUTES.values(), ids=ROUTES)
def test_an_operation_is_forwarded_and_its_result_returned(
    facade: Any, provider: Fake, log: CallLog, operation: Callable[[Any], Any], asked: Any, forwarded: Any
) -> None:
    """The provider's own result, unchanged."""
    answer = object()
    provider.answers[forwarded.name.partition(".")[2]] = answer
    assert operation(facade) is answer
    assert log == [asked, forwarded]


def test_nodes_are_handed_on_themselves(facade: Any, provider: Fake, log: CallLog) -> None:
    """Not copies: copying is the registry's business."""
    facade.set_node(NODE)
    facade.refresh_node(NODE)
    assert log[1].args[0] is NODE
    assert log[3].args[0] is NODE


CHANGED = "provider.change_node_state"


@pytest.mark.parametrize("result", [None, BAD, GOOD, "anything"], ids=repr)
def test_a_start_is_recorded_whatever_the_provider_says(
    facade: Any, provider: Fake, log: CallLog, result: Any
) -> None:
    """STARTING, with two positional arguments; the result is discarded."""
    provider.answers["start_node"] = result
    provider.answers["change_node_state"] = "discarded"
    assert facade.start_node("r", "auth", "i") is None
    assert facade.start_node("r", "auth", "i", True, "reboot") is None
    assert log == [
        call(ASKED, "r", auth="auth"),
        call("provider.start_node", instance_id="i", wait_until_cloud_provider_ready=False, reboot=False),
        call(CHANGED, "i", NodeState.STARTING),
        call(ASKED, "r", auth="auth"),
        call("provider.start_node", instance_id="i", wait_until_cloud_provider_ready=True, reboot="reboot"),
        call(CHANGED, "i", NodeState.STARTING),
    ]


@pytest.mark.parametrize("result", [None, BAD], ids=repr)
def test_a_stop_is_recorded_whatever_the_provider_says(
    facade: Any, provider: Fake, log: CallLog, result: Any
) -> None:
    """STOPPING; the result is discarded."""
    provider.answers["stop_node"] = result
    assert facade.stop_node("r", "auth", "i") is None
    assert log == [
        call(ASKED, "r", auth="auth"),
        call("provider.stop_node", instance_id="i"),
        call(CHANGED, "i", NodeState.STOPPING),
    ]


@pytest.mark.parametrize(("reason", "given"), [((), None), (("idle",), "idle")])
def test_a_successful_termination_is_recorded(
    facade: Any, provider: Fake, log: CallLog, reason: Any, given: Any
) -> None:
    """SHUTTING_DOWN; the provider's result comes back."""
    provider.answers["terminate_node"] = GOOD
    assert facade.terminate_node("r", "auth", "i", *reason) is GOOD
    assert log == [
        call(ASKED, "r", auth="auth"),
        call("provider.terminate_node", instance_id="i", stop_reason=given),
        call(CHANGED, "i", NodeState.SHUTTING_DOWN),
    ]


def test_an_unsuccessful_termination_leaves_the_state_alone(
    facade: Any, provider: Fake, log: CallLog
) -> None:
    """And comes back too."""
    provider.answers["terminate_node"] = BAD
    assert facade.terminate_node("r", "auth", "i") is BAD
    assert CHANGED not in log.names


def test_states_reach_the_registry_and_clear_readiness(
    cloud_node: ModuleType, facade: Any, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """With a real provider behind the facade."""
    helper = Fake(log, "helper", delete_tovarin_container=GOOD, start_tovarin_container=BAD)
    monkeypatch.setattr(cloud_node, "ContainerHelper", lambda: helper)
    seen = []
    for operation in (facade.start_node, facade.stop_node, facade.terminate_node):
        facade.set_node(make_node("i", region=LOCAL, ready=True))
        operation(LOCAL, None, "i")
        (node,) = facade.get_node_list(LOCAL)
        seen.append((node.state, node.ready))
    states = NodeState.STARTING, NodeState.STOPPING, NodeState.SHUTTING_DOWN
    assert seen == [(state, False) for state in states]
    facade.set_node(make_node("i", region=LOCAL, ready=True))
    helper.answers["delete_tovarin_container"] = BAD
    assert facade.terminate_node(LOCAL, None, "i") is BAD
    assert [(n.state, n.ready) for n in facade.get_node_list(LOCAL)] == [(NodeState.RUNNING, True)]


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("name", ["start_node", "stop_node", "terminate_node"])
def test_a_provider_that_raises_leaves_the_state_alone(
    facade: Any, provider: Fake, log: CallLog, name: str, kind: type[BaseException]
) -> None:
    """Its exception propagates unchanged."""
    provider.answers[name] = error = kind("broken")
    with pytest.raises(kind) as caught:
        getattr(facade, name)("r", "auth", "i")
    assert caught.value is error
    assert error.__context__ is None
    assert CHANGED not in log.names


def test_trying_a_launch_is_a_dry_run_of_a_fixed_user(facade: Any, provider: Fake, log: CallLog) -> None:
    """auth goes to the launch alone; nothing is passed for other providers."""
    provider.answers["launch_node"] = (None, BAD)
    assert facade.try_launching_node("r", "auth", "type", "config") is BAD
    facade.try_launching_node("r", "auth", "type", "config", wait_until_cloud_provider_ready=True)
    launches = [
        call(
            "provider.launch_node",
            auth="auth",
            instance_type_def="type",
            instance_config="config",
            username="dry_run",
            dry_run=True,
            wait_until_cloud_provider_ready=waits,
        )
        for waits in (False, True)
    ]
    assert log == [call(ASKED, "r"), launches[0], call(ASKED, "r"), launches[1]]


def test_an_accepted_dry_run_is_success(
    cloud_node: ModuleType, facade: Any, provider: Fake, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A new result, made by that one keyword."""
    accepted = OPResult(error=True, error_code=OPResultErrorCode.DRY_RUN_OPERATION)
    provider.answers["launch_node"] = [None, accepted]
    assert facade.try_launching_node("r", "auth", "type", "config") == GOOD
    monkeypatch.setattr(cloud_node, "OPResult", recording(log, "OPResult", "made"))
    assert facade.try_launching_node("r", "auth", "type", "config") == "made"
    assert log[-1] == call("OPResult", success=True)


@pytest.mark.parametrize("code", [None, OPResultErrorCode.UNAUTHORIZED_OPERATION, "DryRunOperation"])
def test_any_other_outcome_of_a_dry_run_comes_back_untouched(facade: Any, provider: Fake, code: Any) -> None:
    """A success of a provider that ignores dry runs too."""
    for outcome in (OPResult(error=True, error_code=code), OPResult(success=True, error_code=code)):
        provider.answers["launch_node"] = ("node", outcome)
        assert facade.try_launching_node("r", "auth", "type", "config") is outcome


@pytest.mark.parametrize("outcome", [(), (None,), (None, GOOD, 3)], ids=len)
def test_a_launch_that_gives_no_pair_is_a_value_error(facade: Any, provider: Fake, outcome: Any) -> None:
    """The interpreter's unpacking error."""
    provider.answers["launch_node"] = outcome
    with pytest.raises(ValueError, match="values to unpack"):
        facade.try_launching_node("r", "auth", "type", "config")
    provider.answers["launch_node"] = None
    with pytest.raises(TypeError, match="cannot unpack non-iterable NoneType object"):
        facade.try_launching_node("r", "auth", "type", "config")


def test_key_pair_operations_go_to_a_key_pair_manager(
    cloud_node: ModuleType, facade: Any, log: CallLog
) -> None:
    """By position; creation passes the user on to find the provider, deletion does not."""

    class KeyPairs(cloud_node.CloudKeyPairManager):  # type: ignore[misc, name-defined]
        create_key_pair = staticmethod(recording(log, "create_key_pair", "created"))
        delete_key_pair = staticmethod(recording(log, "delete_key_pair", "deleted"))

    keys = KeyPairs()
    facade._get_node_manager = recording(log, ASKED, lambda *args, **kwargs: keys)
    assert facade.create_key_pair("r", "auth", key_pair_name="k", username="ada") == "created"
    assert facade.delete_key_pair("r", "auth", "k") == "deleted"
    assert log == [
        call(ASKED, "r", auth="auth", username="ada"),
        call("create_key_pair", "k", "ada"),
        call(ASKED, "r", auth="auth"),
        call("delete_key_pair", "k"),
    ]


@pytest.mark.parametrize("region", [LOCAL, LAB], ids=["local", "k8s"])
def test_key_pair_operations_of_other_regions_are_assertions(
    cloud_node: ModuleType, facade: Any, log: CallLog, monkeypatch: pytest.MonkeyPatch, region: Any
) -> None:
    """Each with its message."""
    monkeypatch.setattr(cloud_node, "K8sConsoleClient", lambda region: None)
    with pytest.raises(AssertionError) as caught:
        facade.create_key_pair(region, None, "k", "ada")
    assert caught.value.args == ("Creating key pair is only supported for Cloud regions",)
    with pytest.raises(AssertionError) as caught:
        facade.delete_key_pair(region, None, "k")
    assert caught.value.args == ("Deleting key pair is only supported for Cloud regions",)


def test_key_pair_operations_without_assertions_fail_on_the_missing_method(
    run_optimised: Callable[[str], str],
) -> None:
    """The check is skipped, the call is made."""
    printed = run_optimised("""
from tests.facade.conftest import LOCAL
facade = cloud_node.CloudManager()
for attempt, user in (facade.create_key_pair, ["u"]), (facade.delete_key_pair, []):
    try:
        attempt(LOCAL, None, "k", *user)
    except AttributeError as error:
        print(error)
""")
    missing = "'LocalContainerNodeManager' object has no attribute"
    assert printed == f"{missing} 'create_key_pair'\n{missing} 'delete_key_pair'\n"


EVERY_OPERATION: dict[str, Callable[[Any], Any]] = {
    **{name: route[0] for name, route in ROUTES.items()},
    "start_node": lambda f: f.start_node("r", "auth", "i"),
    "stop_node": lambda f: f.stop_node("r", "auth", "i"),
    "terminate_node": lambda f: f.terminate_node("r", "auth", "i"),
    "try_launching_node": lambda f: f.try_launching_node("r", "auth", "type", "config"),
    "create_key_pair": lambda f: f.create_key_pair("r", "auth", "k", "ada"),
    "delete_key_pair": lambda f: f.delete_key_pair("r", "auth", "k"),
    "list_current_instance_templates": lambda f: f.list_current_instance_templates("r"),
    "list_instance_types": lambda f: f.list_instance_types("r"),
    "get_default_instance_template": lambda f: f.get_default_instance_template("r", "auth", None),
}


@pytest.mark.parametrize(
    "error", [TimeoutError(), NotImplementedError("kind"), KeyboardInterrupt()], ids=repr
)
@pytest.mark.parametrize("operation", EVERY_OPERATION.values(), ids=EVERY_OPERATION)
def test_errors_of_the_selection_propagate_from_every_operation(
    facade: Any, log: CallLog, operation: Callable[[Any], Any], error: BaseException
) -> None:
    """Unchanged; the facade catches and logs nothing."""
    facade._get_node_manager = recording(log, ASKED, error)
    with pytest.raises(type(error)) as caught:
        operation(facade)
    assert caught.value is error
    assert log.names == [ASKED]


def test_a_node_of_a_region_never_seen_makes_and_caches_its_provider(facade: Any, log: CallLog) -> None:
    """set_node and refresh_node route by the node's region."""
    facade.set_node(NODE)
    assert list(facade._node_manager_hashset) == [LOCAL.hash_key]
    assert facade.get_node_list(LOCAL) == [NODE]
    with pytest.raises(AttributeError):
        facade.set_node(None)


def test_a_launch_in_an_uncached_amazon_region_uses_stored_credentials_to_make_the_provider(
    cloud_node: ModuleType, facade: Any, store: Fake, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The auth given reaches the provider's launch alone."""
    stored = AWSCloudAuth(aws_profile="stored")
    store.answers["get_cloud_conf"] = Fake(log, "conf")
    store.answers["get_cloud_conf"].cloud_auth = stored
    store.answers["get_cloud_conf"].user_name = "stored user"
    provider = Fake(log, "provider", launch_node=("node", GOOD))
    monkeypatch.setattr(
        cloud_node, "AWSNodeManager", recording(log, "AWSNodeManager", lambda *a, **k: provider)
    )
    given = AWSCloudAuth(aws_profile="given")
    assert facade.launch_node(AWS_REGION, given, "type", "config") == ("node", GOOD)
    assert log[-2:] == [
        call("AWSNodeManager", AWS_REGION, auth=stored, username="stored user"),
        call("provider.launch_node", **{**LAUNCH, "auth": given}),
    ]
