"""Nodes for the length of a block."""

from __future__ import annotations

import threading
from collections.abc import Callable
from typing import Any

import pytest
from botocore.exceptions import ConnectionClosedError

from tests.fleet.accounts import HASTY, Account
from tovarincore.cloud_def import CloudNode, CloudRegions
from tovarincore.fleet import FleetError, Ledger, temporary_nodes
from tovarincore.testing.fakes import client_error
from tovarincore.testing.fixtures import temporary_nodes as temporary_nodes_fixture

LOST = ConnectionClosedError(endpoint_url="https://ec2")
given_nodes = temporary_nodes_fixture
pytest_plugins = ["pytester"]


def temporary(world: Account, count: int = 3, **arguments: Any) -> Any:
    """Temporary nodes in the world's region."""
    named = {"names": "tmp-{}", "patience": HASTY, **arguments}
    return temporary_nodes(world.region, count, world.size, world.config, **named)


def test_nodes_are_ready_in_the_body_and_gone_after_it(world: Account) -> None:
    """All of them, and the ledger knows them."""
    with temporary(world) as nodes:
        assert [(node.name, node.ready) for node in nodes] == [
            (f"tmp-{number}", True) for number in (1, 2, 3)
        ]
        assert set(world.states().values()) == {"Running"}
    assert world.states() == {f"tmp-{number}": "Terminated" for number in (1, 2, 3)}
    assert len(Ledger().entries()) == 3


@pytest.mark.parametrize("error", [RuntimeError("test failed"), KeyboardInterrupt(), SystemExit(2)])
def test_whatever_the_body_raises_comes_out_after_the_end(world: Account, error: BaseException) -> None:
    """The nodes are gone, and the error is the body's own."""
    with pytest.raises(type(error)) as caught:
        with temporary(world, 2):
            raise error
    assert caught.value is error
    assert set(world.states().values()) == {"Terminated"}


def test_when_one_is_not_launched_none_stays(world: Account) -> None:
    """The body does not run."""
    client = world.cloud.ec2(world.region)
    run = type(client).run_instances.__wrapped__  # type: ignore[attr-defined]

    def second_fails(**request: Any) -> Any:
        if client.instances:
            raise client_error("InsufficientInstanceCapacity", "no capacity")
        return run(client, **request)

    world.cloud.answers["ec2.run_instances"] = second_fails
    with pytest.raises(FleetError, match="tmp-2: no capacity; tmp-3: not tried: no cap"):
        with temporary(world, 3, at_once=1):
            raise AssertionError("the body ran")
    assert set(world.states().values()) == {"Terminated"}


def test_when_one_does_not_become_ready_none_stays(world: Account) -> None:
    """The error names it."""
    world.cloud.silent = {"tmp-2"}
    with pytest.raises(FleetError, match=r"not every node is ready: tmp-2 \(i-.\): The worker is silent"):
        with temporary(world, 2, timeout=0.05):
            raise AssertionError("the body ran")
    assert set(world.states().values()) == {"Terminated"}


def test_a_launch_whose_outcome_is_not_known_is_looked_for(world: Account) -> None:
    """The answer was lost and EC2 could not be listed then: the instance is found at the end."""
    client = world.cloud.ec2(world.region)
    run = type(client).run_instances.__wrapped__  # type: ignore[attr-defined]

    def lost(**request: Any) -> Any:
        run(client, **request)
        world.cloud.answers["ec2.describe_instances"] = client_error("RequestLimitExceeded", "slower")
        raise LOST

    world.cloud.answers["ec2.run_instances"] = lost

    def listable(outcome: object) -> None:
        world.cloud.answers.pop("ec2.describe_instances")

    short = HASTY.__class__(seconds=0.05, first_pause=0.01, longest_pause=0.02, unseen_seconds=0.02)
    with pytest.raises(FleetError, match="cannot be told"):
        with temporary(world, 1, patience=short, on_outcome=listable):
            raise AssertionError("the body ran")
    assert world.states() == {"tmp-1": "Terminated"}
    assert [entry.instance_id for entry in Ledger().entries()] == ["i-1"]


def test_a_node_that_cannot_be_ended_is_an_error_that_names_it(world: Account) -> None:
    """Somebody has to look at it."""
    world.cloud.answers["ec2.terminate_instances"] = client_error("OperationNotPermitted", "it is protected")
    with pytest.raises(FleetError, match=r"not every node was terminated: tmp-1 \(i-1\): it is protected"):
        with temporary(world, 1):
            pass


def test_a_node_that_the_body_has_ended_is_no_error(world: Account) -> None:
    """What is gone is gone."""
    with temporary(world, 1):
        world.cloud.ec2(world.region).instances.clear()
        world.cloud.answers["ec2.terminate_instances"] = client_error("InvalidInstanceID.Malformed", "gone")


def test_ctrl_c_at_the_end_takes_effect_behind_it(world: Account, monkeypatch: pytest.MonkeyPatch) -> None:
    """However often it is pressed while the nodes are being terminated."""
    import concurrent.futures

    waited = concurrent.futures.wait
    presses = iter([KeyboardInterrupt(), KeyboardInterrupt()])

    def pressed(*arguments: Any, **named: Any) -> Any:
        if threading.current_thread() is threading.main_thread() and leaving:
            for press in presses:
                raise press
        return waited(*arguments, **named)

    leaving: list[bool] = []
    monkeypatch.setattr("concurrent.futures.wait", pressed)
    with pytest.raises(KeyboardInterrupt):
        with temporary(world, 2):
            leaving.append(True)
    assert next(presses, None) is None
    assert set(world.states().values()) == {"Terminated"}


def test_a_container_that_was_there_before_is_not_touched(world: Account) -> None:
    """The local engine has one at most: a launch would start it, and the end would remove it."""
    region = CloudRegions.get_local_container_region()
    assert region is not None
    world.cloud.local.run_tvr_container_image("1.0.0")
    with pytest.raises(ValueError, match="the local engine has the container tovarin-worker already"):
        with temporary_nodes(region, 1, world.size, world.config):
            raise AssertionError("the body ran")
    assert world.cloud.local.node is not None


def test_nodes_of_others_cannot_be_asked_for(world: Account) -> None:
    """With if_absent they would be ended."""
    with pytest.raises(ValueError, match="if_absent cannot be used"):
        with temporary(world, if_absent=True):
            raise AssertionError("the body ran")


def test_the_fixture_gives_nodes_and_ends_them(
    world: Account, given_nodes: Callable[..., list[CloudNode]]
) -> None:
    """It may be asked several times."""
    first = given_nodes(world.region, 2, world.size, world.config, patience=HASTY)
    second = given_nodes(world.region, 1, world.size, world.config, names="x", patience=HASTY, until=None)
    assert [node.name for node in (*first, *second)] == ["tovarin-node-1", "tovarin-node-2", "x"]


def test_the_fixture_has_ended_them_when_the_test_is_over(pytester: pytest.Pytester) -> None:
    """Also when the test fails."""
    pytester.makeconftest(
        "import pytest\n"
        "from tovarincore.testing.fixtures import temporary_nodes\n"
        "from tests.fleet.accounts import account\n"
        "@pytest.fixture\n"
        "def world():\n"
        "    with account() as made:\n"
        "        yield made\n"
        "        assert set(made.states().values()) == {'Terminated'}, 'left over'\n"
    )
    pytester.makepyfile(
        "def test_it(world, temporary_nodes):\n"
        "    temporary_nodes(world.region, 2, world.size, world.config)\n"
        "    assert False, 'on purpose'\n"
    )
    pytester.runpytest_inprocess("-p", "no:cacheprovider").assert_outcomes(failed=1)
