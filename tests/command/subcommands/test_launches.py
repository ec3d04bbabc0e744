"""Launching a node, and asking whether one could be launched."""

from __future__ import annotations

import base64
import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest

from stage.ec2 import USER_NAME, Ec2World
from stage.fault import throttled, unauthorized
from tests.command.conftest import Run
from tovarincore.command.nodes.user_data import LIMIT_BYTES, user_data_bytes
from tovarincore.fleet.ledger import Ledger

LAUNCH = ("launch", "us-east-1", "--type", "t3.small")


def test_a_launch_carries_the_stored_user_name_and_is_noted(run: Run, ec2: Ec2World) -> None:
    """The instance has the tags of the user and the name; the ledger has its id."""
    result = run(*LAUNCH, "--name", "cold-1", "--disk", "30")
    assert result.exit_code == 0, result.output
    (instance,) = ec2.instances()
    tags = {tag["Key"]: tag["Value"] for tag in instance["Tags"]}
    assert (tags["tovarin_username"], tags["Name"]) == (USER_NAME, "cold-1")
    (entry,) = Ledger().entries()
    assert (entry.instance_id, entry.uuid) == (instance["InstanceId"], tags["tovarin_uuid"])
    assert result.stdout == f"cold-1 ({entry.instance_id}) is starting\n"
    assert result.stderr.splitlines() == [
        "note: a launch opens port 8855 to every address: a rule of tovarin-security-group, which stays",
        f"wait for it with: tovarin-nodes wait us-east-1 {entry.instance_id}",
    ]


def test_a_name_made_of_the_help_s_words_stays(run: Run, ec2: Ec2World) -> None:
    """Remedies put the region into their text; what the user called a node is no part of that."""
    assert run(*LAUNCH, "--name", "REGION-NAME").stdout.startswith("REGION-NAME (i-")
    missing = run("show", "us-east-1", "NODE-REGION")
    assert (missing.exit_code, '"NODE-REGION"' in missing.stderr) == (3, True)


def test_a_launch_can_wait_for_its_worker(run: Run, ec2: Ec2World) -> None:
    """With --wait the command ends when the worker answers."""
    result = run(*LAUNCH, "--name", "ready-1", "--wait")
    assert result.exit_code == 0, result.output
    assert result.stdout.endswith("is ready\n")


def test_the_settings_file_reaches_the_node(
    run_json: Callable[..., Any], ec2: Ec2World, tmp_path: Path
) -> None:
    """What the file holds is what the preparation script is given."""
    settings = tmp_path / "settings.json"
    settings.write_text(json.dumps({"idle_minutes": 5}))
    with ec2.faults() as endpoint:
        node = run_json(*LAUNCH, "--settings", str(settings))
        (request,) = [request for request in endpoint.requests if request.action == "RunInstances"]
    assert node["instance_type"] == "t3.small"
    script = base64.b64decode(request.parameters["UserData"]).decode()
    assert json.loads(base64.b64decode(script.split()[-1])) == {"idle_minutes": 5}


@pytest.mark.parametrize(
    "arguments, code, words",
    [
        (["--type", "t9.none"], 3, 'the type "t9.none" is not in the list'),
        ([], 2, "a launch in this region needs a type"),
        (["--type", "t3.small", "--template", "9.9"], 3, 'offers no image "9.9"'),
        (["--type", "t3.small", "--plan", "gpu-b"], 3, "no public image for the plan gpu-b"),
        (["--type", "t3.small", "--key-pair", "none"], 3, "keypair create us-east-1"),
        (["--type", "t3.small", "--params", "{}"], 2, "are for Kubernetes regions"),
    ],
)
def test_what_cannot_be_launched_is_explained_and_not_noted(
    run: Run, ec2: Ec2World, arguments: list[str], code: int, words: str
) -> None:
    """A wrong type, image or key pair is one line, and nothing is launched."""
    result = run("launch", "us-east-1", *arguments)
    assert (result.exit_code, result.stdout) == (code, "")
    assert words in result.stderr
    assert ec2.instances() == []
    assert Ledger().entries() == []


@pytest.mark.parametrize("wanted", ["TOVARIN_AI_CPU_PLAN_A_1.0.0", "1.0.0"])
def test_an_image_is_found_by_name_and_version(run: Run, ec2: Ec2World, wanted: str) -> None:
    """The template need not be given by its id."""
    assert run(*LAUNCH, "--template", wanted).exit_code == 0
    assert ec2.instances()[0]["ImageId"] == ec2.image_id


def test_a_missing_default_network_is_explained(run: Run, ec2: Ec2World) -> None:
    """Where a launch finds no default VPC the line says so, and what to do about it."""
    (vpc,) = ec2.raw.describe_vpcs()["Vpcs"]
    for subnet in ec2.raw.describe_subnets()["Subnets"]:
        ec2.raw.delete_subnet(SubnetId=subnet["SubnetId"])
    ec2.raw.delete_vpc(VpcId=vpc["VpcId"])
    result = run(*LAUNCH)
    assert result.exit_code == 4
    assert "the account has no default network (VPC) in the region us-east-1" in result.stderr
    assert "aws_custom_vpc" in result.stderr


def test_a_broken_ledger_prevents_the_launch(run: Run, ec2: Ec2World) -> None:
    """What could not be noted is not launched."""
    Ledger().path.write_text("{\n")
    Ledger().path.chmod(0o600)
    result = run(*LAUNCH)
    assert result.exit_code == 4
    assert "launches.jsonl: is no ledger" in result.stderr
    assert ec2.instances() == []


def test_a_dry_run_says_first_what_it_creates(run: Run, ec2: Ec2World) -> None:
    """Nothing is launched, the group is made, and that was said."""
    result = run("try", "us-east-1", "--type", "t3.small")
    assert result.exit_code == 0
    assert result.stderr == (
        "note: a dry run opens port 8855 to every address: a rule of tovarin-security-group, which stays\n"
    )
    assert result.stdout == "EC2 would launch a t3.small from TOVARIN_AI_CPU_PLAN_A_1.0.0\n"
    assert ec2.instances() == []
    assert len(ec2.security_groups()) == 1


def test_a_dry_run_that_is_refused_says_why(run: Run, ec2: Ec2World) -> None:
    """Without the right to launch the refusal is one line, its encoded part left to --debug."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", unauthorized("ZW5jb2RlZA"))
        result = run("try", "us-east-1", "--type", "t3.small")
        debug = run("try", "us-east-1", "--type", "t3.small", "--debug")
    assert result.exit_code == 6
    assert "error: EC2 refused: You are not authorized to perform this operation." in result.stderr
    assert "ZW5jb2RlZA" not in result.stderr
    assert "encoded reason: ZW5jb2RlZA" in debug.stderr


def test_where_trying_would_launch_it_is_refused(run: Run, no_account: Path) -> None:
    """A provider without dry runs is not asked."""
    result = run("try", "local")
    assert result.exit_code == 2
    assert result.stderr.startswith(
        "error: the local container engine has no dry run: trying would really launch a node\n"
    )


def test_settings_that_ec2_would_not_take_are_refused_first(run: Run, ec2: Ec2World, tmp_path: Path) -> None:
    """The size is counted as EC2 counts it, to the byte; the remedy says how much fits."""
    settings = tmp_path / "settings.json"
    with ec2.faults() as endpoint:
        settings.write_text(json.dumps("x" * 100))
        assert run(*LAUNCH, "--settings", str(settings), "--name", "cold-1").exit_code == 0
        (request,) = [request for request in endpoint.requests if request.action == "RunInstances"]
        assert len(base64.b64decode(request.parameters["UserData"])) == user_data_bytes("x" * 100)
        # Twelve more characters of JSON are sixteen more bytes of user data.
        longest = "x" * ((LIMIT_BYTES - user_data_bytes("x" * 100)) // 16 * 12 + 100)
        settings.write_text(json.dumps(longest + "x" * 12))
        result = run(*LAUNCH, "--settings", str(settings), "--name", "cold-2")
        settings.write_text(json.dumps(longest))
        fits = run(*LAUNCH, "--settings", str(settings), "--name", "cold-2")
    assert (result.exit_code, fits.exit_code) == (2, 0)
    assert "bytes of user data, and EC2 takes 16,384" in result.stderr
    assert "let the node fetch the rest itself" in result.stderr


def test_names_are_unique_unless_asked_for(run: Run, run_json: Callable[..., Any], ec2: Ec2World) -> None:
    """A taken name is refused, the usual one gets a number, and --same-name takes it anyway."""
    assert run_json(*LAUNCH)["name"] == "tovarin-node"
    assert run_json(*LAUNCH)["name"] == "tovarin-node-2"
    refused = run(*LAUNCH, "--name", "tovarin-node")
    assert refused.exit_code == 2
    assert 'another of your nodes is named "tovarin-node"' in refused.stderr
    assert run_json(*LAUNCH, "--name", "tovarin-node", "--same-name")["name"] == "tovarin-node"
    assert run(*LAUNCH, "--name", "").exit_code == 2
    assert len(ec2.instances()) == 3


def test_only_images_of_pinned_accounts_are_used(run: Run, ec2: Ec2World) -> None:
    """With owners in the settings neither the plan nor an id leads to an image of somebody else."""
    ec2.set_setting("CLOUD__IMAGE_OWNERS", "999988887777")
    for options in ([], ["--template", ec2.image_id]):
        result = run(*LAUNCH, *options)
        assert result.exit_code == 3
        assert "offers no" in result.stderr
    assert "1 of accounts that [cloud] image_owners does not name" in run("templates", "us-east-1").stderr
    ec2.set_setting("CLOUD__IMAGE_OWNERS", "999988887777, self")
    assert run(*LAUNCH).exit_code == 0


def test_a_throttled_launch_has_a_code_of_its_own(run: Run, ec2: Ec2World) -> None:
    """A busy EC2 is told from one that refuses."""
    with ec2.faults() as endpoint:
        endpoint.script("RunInstances", throttled())
        result = run(*LAUNCH)
    assert result.exit_code == 8
    assert "EC2 asks for fewer requests" in result.stderr
