"""Instance types from EC2, in the user's file."""

from __future__ import annotations

import os
from collections.abc import Callable
from datetime import date
from pathlib import Path
from typing import Any

import pytest

from stage.ec2 import Ec2World
from stage.fault import unauthorized
from tests.command.conftest import Run
from tovarincore.cloud_def import CloudInstances


@pytest.mark.usefixtures("older_sdk")
def test_the_file_of_types_is_refreshed_from_ec2(
    run: Run, run_json: Callable[..., Any], ec2: Ec2World, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A type that no file had stops listings no more; comments and types that EC2 lacks stay."""
    # Not above, where its import would delay the collection of the tests in each process.
    from moto.ec2.models.instance_types import InstanceType

    offered = ["mac1.metal", "g4dn.xlarge", "t3.small"]
    # The emulator's list of all is long, and writing it takes seconds.
    monkeypatch.setattr("moto.ec2.models.EC2Backend.instance_types", [InstanceType(name) for name in offered])
    ec2.run_instance("cold-1", InstanceType="mac1.metal")
    assert run("list", "us-east-1", "--no-probe").exit_code == 4
    path = CloudInstances.get_user_file()
    path.write_text('# mine\n[instance_types]\n"of.mine" = { cpu_count = 3, memory_mib = 7 } # keep\n')
    result = run("types", "--update", "us-east-1", "--filter", "instance_type=mac1.metal")
    assert result.exit_code == 0, result.output
    assert result.stdout.splitlines()[1].split() == ["mac1.metal", "12", "32768", "0", "-"]
    assert f"types of us-east-1 written to {path}" in result.stderr
    assert run_json("list", "us-east-1", "--no-probe")[0]["instance_type"] == "mac1.metal"
    text = path.read_text()
    assert text.startswith("# mine\n")
    assert '"of.mine" = { cpu_count = 3, memory_mib = 7 } # keep\n' in text
    assert CloudInstances.get_data_date() == date.today()
    assert CloudInstances.find("g4dn.xlarge").gpu_model == "NVIDIA T4"


def test_the_date_of_the_sizes_is_shown(run: Run, no_account: Path) -> None:
    """On standard error, with how to refresh them."""
    known = CloudInstances.get_data_date()
    stderr = run("types", "us-east-1", "-o", "name").stderr
    assert stderr == (
        f"sizes as of {known}; take them from EC2 with: tovarin-nodes types us-east-1 --update\n"
    )


def test_without_the_right_to_ask_the_file_stays(run: Run, ec2: Ec2World) -> None:
    """A refusal changes nothing."""
    with ec2.faults() as endpoint:
        endpoint.script("DescribeInstanceTypes", unauthorized())
        result = run("types", "us-east-1", "--update")
    assert result.exit_code == 6
    assert not os.path.exists(CloudInstances.get_user_file())


def test_only_amazon_s_types_are_kept_in_a_file(run: Run, no_account: Path) -> None:
    """A cluster's catalogue is the cluster's own."""
    result = run("types", "local", "--update")
    assert (result.exit_code, "only Amazon's types" in result.stderr) == (2, True)
