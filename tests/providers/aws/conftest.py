"""One Amazon node manager over a recording EC2 client, with its own settings."""

from __future__ import annotations

from dataclasses import dataclass
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.fakes import AWS_REGION, SMALL, Call, CallLog, Fake, recording
from tovarincore.cloud_def import AWSCloudAuth

AUTH = AWSCloudAuth(aws_access_key_id="id", aws_secret_access_key="secret")

LAUNCHED = {
    "Instances": [{"InstanceId": "i-7", "PublicDnsName": "ec2.example", "PrivateDnsName": "ip-10.internal"}]
}


@dataclass
class Amazon:
    """The manager, its fakes and its settings."""

    module: ModuleType
    manager: Any
    ec2: Fake
    conf: SimpleNamespace
    log: CallLog


@pytest.fixture
def aws(cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch) -> Amazon:
    """A manager of user ada; every client that it makes is the same fake."""
    conf = SimpleNamespace(
        network__bypass_ssl_verification=False,
        proxy_enabled=False,
        development_settings__profiler_node_second=0,
        network__aws_custom_subnet="",
        network__aws_custom_vpc="",
    )
    monkeypatch.setattr(cloud_node, "core_conf_glbl", conf)
    monkeypatch.setattr(cloud_node, "CloudInstances", SimpleNamespace(instance_type_list=[SMALL]))
    ec2 = Fake(log, "ec2")
    manager = cloud_node.AWSNodeManager(AWS_REGION, AUTH, "ada")
    manager._get_client = recording(log, "_get_client", lambda: ec2)
    return Amazon(cloud_node, manager, ec2, conf, log)


@pytest.fixture
def launching(aws: Amazon) -> Amazon:
    """A manager whose security group exists and whose launch requests EC2 accepts."""
    aws.manager._check_and_get_security_group_id = recording(
        aws.log, "_check_and_get_security_group_id", "sg-1"
    )
    aws.ec2.answers["run_instances"] = LAUNCHED
    return aws


def launch_request(aws: Amazon) -> Call:
    """Return the one launch request."""
    (sent,) = [entry for entry in aws.log if isinstance(entry, Call) and entry.name == "ec2.run_instances"]
    return sent


def sent(aws: Amazon, argument: str) -> Any:
    """Return one argument of the launch request."""
    return dict(launch_request(aws).kwargs)[argument]
