"""Launching many nodes at once on an emulated EC2."""

from __future__ import annotations

import threading
from collections.abc import Sequence
from dataclasses import replace
from typing import Any

import pytest

from stage.ec2 import USER_NAME, Ec2World
from stage.fault import GARBAGE, HANG_UP, LOST, SERVED, ec2_error, throttled
from tests.fleet.conftest import second_region
from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, CpuPlanA, NodeState
from tovarincore.core_conf import ConfigError
from tovarincore.fleet import LaunchReport, Ledger, NotLaunched, Patience, Place, launch

NO_CAPACITY = ec2_error("InsufficientInstanceCapacity", "We currently do not have sufficient capacity.", 500)
INTERNAL_ERROR = ec2_error("InternalError", "An internal error has occurred", 500)


def launched(ec2: Ec2World, count: int, patience: Patience, **arguments: Any) -> LaunchReport:
    """The report of a launch in the world's account."""
    given = {"names": "cold-{:02}", "patience": patience, "manager": ec2.manager, **arguments}
    return launch(ec2.region, count, ec2.type_def, ec2.config(), **given)


def uuids(ec2: Ec2World) -> list[str]:
    """The uuids of all instances that EC2 holds."""
    tags = [{tag["Key"]: tag["Value"] for tag in entry["Tags"]} for entry in ec2.instances()]
    return sorted(entry["tovarin_uuid"] for entry in tags)


def assert_all_noted(ec2: Ec2World, nodes: Sequence[CloudNode]) -> None:
    """EC2, the report and the ledger agree on every instance, and nothing is left open."""
    entries = Ledger().entries()
    assert sorted(entry.instance_id for entry in entries) == sorted(node.instance_id for node in nodes)
    assert sorted(entry.uuid for entry in entries) == uuids(ec2)
    assert Ledger().open_intents() == []


def test_ten_launches_at_once_all_come_through(ec2: Ec2World, hasty: Patience) -> None:
    """In an account without a security group ten are launched, under their names, with one group made."""
    outcomes: list[object] = []
    with ec2.faults() as endpoint:
        report = launched(ec2, 10, hasty, at_once=8, on_outcome=outcomes.append)
        assert endpoint.actions().count("CreateSecurityGroup") == 1
        assert endpoint.actions().count("RunInstances") == 10
    assert report.complete and report.not_launched == [] and report.seconds > 0
    assert [node.name for node in report.launched] == [f"cold-{number:02}" for number in range(1, 11)]
    assert {node.state for node in report.launched} == {NodeState.STARTING}
    assert len(outcomes) == 10 and set(map(id, outcomes)) == set(map(id, report.launched))
    tags = [{tag["Key"]: tag["Value"] for tag in entry["Tags"]} for entry in ec2.instances()]
    assert {entry["tovarin_username"] for entry in tags} == {USER_NAME}
    assert_all_noted(ec2, report.launched)


def test_each_request_has_its_line_in_the_ledger_before_it_is_made(ec2: Ec2World, hasty: Patience) -> None:
    """Were the program killed within the request, the uuid of the instance would be known."""
    open_at_the_request: list[list[str]] = []
    asked = ec2.manager.launch_node

    def watched(*arguments: Any, **named: Any) -> Any:
        open_at_the_request.append([intent.uuid for intent in Ledger().open_intents()])
        assert arguments[3].uuid in open_at_the_request[-1]
        return asked(*arguments, **named)

    ec2.manager.launch_node = watched  # type: ignore[method-assign]
    report = launched(ec2, 3, hasty, at_once=1)
    assert [len(intents) for intents in open_at_the_request] == [1, 1, 1]
    assert_all_noted(ec2, report.launched)


@pytest.mark.parametrize(
    "answers", [[LOST, LOST], [LOST], [LOST, INTERNAL_ERROR], [LOST, throttled()], [LOST, GARBAGE]]
)
def test_a_lost_answer_launches_nothing_twice(ec2: Ec2World, hasty: Patience, answers: list[Any]) -> None:
    """The instance is found by its uuid, whatever the SDK's own repetition met."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", *answers, SERVED)
        report = launched(ec2, 3, hasty)
    assert report.complete
    assert len(ec2.instances()) == 3
    assert_all_noted(ec2, report.launched)


@pytest.mark.parametrize("answer", [HANG_UP, INTERNAL_ERROR, throttled(), GARBAGE])
def test_a_request_that_did_not_come_through_is_repeated(ec2: Ec2World, hasty: Patience, answer: Any) -> None:
    """After a listing without the uuid; more requests than instances were made."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", answer, answer, answer, SERVED)
        report = launched(ec2, 2, hasty)
        assert endpoint.actions().count("RunInstances") > 2
        assert "DescribeInstances" in endpoint.actions()
    assert report.complete
    assert_all_noted(ec2, report.launched)


def test_a_throttled_security_group_is_asked_for_again(ec2: Ec2World, hasty: Patience) -> None:
    """A look-up that EC2 throttles reads like a missing group, which cannot be made a second time."""
    launched(ec2, 1, hasty)
    with ec2.faults() as endpoint:
        answers = [throttled()] * 4 + [SERVED]
        endpoint.script("DescribeSecurityGroups", *answers)
        report = launched(ec2, 2, hasty, names="cold-b{}")
    assert report.complete
    assert len(ec2.security_groups()) == 1


def test_missing_capacity_goes_on_with_the_next_type(ec2: Ec2World, hasty: Patience) -> None:
    """Once a type is known to be missing the others do not ask for it; all are of the next type."""
    other = next(known for known in CloudInstances.instance_type_list if known.instance_type == "t3.large")
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", NO_CAPACITY, NO_CAPACITY, SERVED)
        report = launched(ec2, 5, hasty, at_once=1, fallbacks=[Place(instance_type=other)])
        assert endpoint.actions().count("RunInstances") == 7
    assert report.complete
    assert {node.instance_type_def.instance_type for node in report.launched} == {"t3.large"}
    assert_all_noted(ec2, report.launched)


def test_missing_capacity_everywhere_is_reported_for_each_node(ec2: Ec2World, hasty: Patience) -> None:
    """What is not launched is named, with the reason, and surely does not exist."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", NO_CAPACITY)
        report = launched(ec2, 3, hasty)
    assert (report.complete, report.launched) == (False, [])
    assert [missing.name for missing in report.not_launched] == ["cold-01", "cold-02", "cold-03"]
    assert all("sufficient capacity" in missing.why and missing.known for missing in report.not_launched)
    assert ec2.instances() == []
    assert Ledger().open_intents() == []


def test_the_next_region_is_asked_with_its_own_image(ec2: Ec2World, hasty: Patience) -> None:
    """A fallback in another region has its own image, and makes the security group there."""
    region = second_region(ec2)
    template = ec2.manager.get_default_instance_template(region, ec2.auth, CpuPlanA())
    place = Place(region=region, template=template)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", NO_CAPACITY, NO_CAPACITY, SERVED)
        report = launched(ec2, 3, hasty, at_once=1, fallbacks=[place])
    assert report.complete
    assert {node.region for node in report.launched} == {region}
    assert {entry.region for entry in Ledger().entries()} == {"AWS:eu-west-1"}


def test_a_refusal_of_the_first_is_not_repeated_for_the_others(ec2: Ec2World, hasty: Patience) -> None:
    """Nothing that all of them have in common can be right for the second when it is wrong for the first."""
    with ec2.faults() as endpoint:
        config = ec2.config(key_pair_name="missing")
        report = launch(
            ec2.region, 6, ec2.type_def, config, names="cold-{}", manager=ec2.manager, patience=hasty
        )
        assert endpoint.actions().count("RunInstances") == 1
    assert [missing.why.startswith("not tried: ") for missing in report.not_launched] == [False] + [True] * 5
    assert "keypair" in report.not_launched[-1].why
    assert Ledger().open_intents() == []


def test_what_cannot_be_told_stays_open_in_the_ledger(ec2: Ec2World) -> None:
    """When EC2 cannot be listed either, nothing is repeated, and the intent says what to look for."""
    short = Patience(seconds=0.3, first_pause=0.01, longest_pause=0.05, unseen_seconds=0.1)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", LOST)
        endpoint.script("DescribeInstances", throttled())
        report = launched(ec2, 1, short)
    (missing,) = report.not_launched
    assert not missing.known and "cannot be told" in missing.why
    assert [intent.uuid for intent in Ledger().open_intents()] == [missing.uuid] == uuids(ec2)


def test_patience_ends(ec2: Ec2World) -> None:
    """A request that is throttled for ever is reported after the given time."""
    short = Patience(seconds=0.2, first_pause=0.01, longest_pause=0.05, unseen_seconds=0.1)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", throttled())
        report = launched(ec2, 2, short)
    assert [missing.why for missing in report.not_launched] == ["Request limit exceeded."] * 2
    assert all(missing.known for missing in report.not_launched)


def test_only_absent_names_are_launched(ec2: Ec2World, hasty: Patience) -> None:
    """A name that a living node has is present; a terminated one's is launched again."""
    kept, gone = ec2.run_instance("cold-02"), ec2.run_instance("cold-03")
    ec2.raw.terminate_instances(InstanceIds=[gone])
    report = launched(ec2, 3, hasty, if_absent=True)
    assert [node.instance_id for node in report.present] == [kept]
    assert [node.name for node in report.launched] == ["cold-01", "cold-03"]
    assert launched(ec2, 3, hasty, if_absent=True).launched == []


def test_ctrl_c_notes_what_is_under_way_and_begins_nothing_more(ec2: Ec2World, hasty: Patience) -> None:
    """The interrupt reaches the caller when every instance that exists is in the ledger."""
    told: list[object] = []

    def interrupt(outcome: object) -> None:
        told.append(outcome)
        if len(told) == 1:
            raise KeyboardInterrupt

    cancel = threading.Event()
    with pytest.raises(KeyboardInterrupt):
        launched(ec2, 12, hasty, at_once=4, on_outcome=interrupt, cancel=cancel)
    assert cancel.is_set()
    assert 1 <= len(ec2.instances()) < 12
    assert_all_noted(ec2, [outcome for outcome in told if isinstance(outcome, CloudNode)])


def test_a_stopped_launch_says_what_it_did_not_try(ec2: Ec2World, hasty: Patience) -> None:
    """Whoever sets the sign gets the report of what was done until then."""
    cancel = threading.Event()
    cancel.set()
    report = launched(ec2, 2, hasty, cancel=cancel)
    assert [(missing.uuid, missing.known) for missing in report.not_launched] == [("", True)] * 2
    assert "stopped" in report.not_launched[0].why
    assert ec2.instances() == []


def test_a_ledger_that_cannot_be_used_prevents_the_launch(ec2: Ec2World, hasty: Patience) -> None:
    """Nothing is launched that could not be noted."""
    Ledger().path.write_text("notes")
    Ledger().path.chmod(0o600)
    with pytest.raises(ConfigError, match="is no ledger"):
        launched(ec2, 1, hasty)
    assert ec2.instances() == []


@pytest.mark.parametrize(
    "arguments, words",
    [
        ({"count": -1}, "count is -1"),
        ({"at_once": 0}, "at_once 0"),
        ({"names": "same"}, "one name"),
        ({"names": "web-{name}"}, "no pattern of names"),
        ({"names": "*-{}"}, "cannot be the name of a node"),
        ({"fallbacks": [Place(region=CloudRegion("eu-west-1", "AWS"))]}, "needs a template"),
        ({"fallbacks": [Place(region=CloudRegion("local", "local"))]}, "one node at most"),
    ],
)
def test_what_makes_no_sense_is_refused_before_anything_is_asked_for(
    ec2: Ec2World, hasty: Patience, arguments: dict[str, Any], words: str
) -> None:
    """A wrong argument is a ValueError that says what is allowed."""
    with pytest.raises(ValueError, match=words):
        launched(ec2, **{"count": 2, "patience": hasty, **arguments})
    assert ec2.instances() == []


def test_names_come_from_the_configuration_without_a_pattern(ec2: Ec2World, hasty: Patience) -> None:
    """One node has that name itself, several have the number behind it."""
    one = launched(ec2, 1, hasty, names=None)
    two = launched(ec2, 2, hasty, names=None)
    none = launched(ec2, 0, hasty, names=None)
    assert [node.name for node in one.launched] == ["cold-1"]
    assert [node.name for node in two.launched] == ["cold-1-1", "cold-1-2"]
    assert none.launched == [] and none.complete


def test_a_node_that_ended_at_once_is_noted_and_replaced(ec2: Ec2World, hasty: Patience) -> None:
    """An instance that EC2 accepted and ended is in the ledger; another one is launched in its place."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", LOST, LOST, SERVED)
        looked = ec2.manager.list_instances

        def ended(*arguments: Any) -> Any:
            nodes, result = looked(*arguments)
            assert nodes is not None
            if len(nodes) == 1:
                nodes[0].state = NodeState.TERMINATED
            return nodes, result

        ec2.manager.list_instances = ended  # type: ignore[method-assign, assignment]
        report = launched(ec2, 1, hasty)
    assert report.complete
    assert len(Ledger().entries()) == 2
    assert report.launched[0].uuid != Ledger().entries()[0].uuid


def test_a_listing_that_may_be_cut_is_no_proof(ec2: Ec2World, monkeypatch: pytest.MonkeyPatch) -> None:
    """With as many nodes as EC2 lists at a time, one that is not listed may be there anyway."""
    monkeypatch.setattr("tovarincore.fleet.sight._WHOLE_LISTING", 1)
    ec2.run_instance("cold-other")
    short = Patience(seconds=0.2, first_pause=0.01, longest_pause=0.05, unseen_seconds=0.05)
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", HANG_UP)
        (missing,) = launched(ec2, 1, short).not_launched
        assert endpoint.actions().count("RunInstances") == 2
    assert isinstance(missing, NotLaunched) and not missing.known
    assert "not all can be listed" in missing.why


def test_a_configuration_is_not_changed(ec2: Ec2World, hasty: Patience) -> None:
    """The caller's record may be used for the next launch."""
    config = ec2.config()
    before = replace(config)
    launch(ec2.region, 2, ec2.type_def, config, names="cold-{}", manager=ec2.manager, patience=hasty)
    assert config == before
