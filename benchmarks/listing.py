"""Turning the answer of EC2 into records, with an answer that is already there."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, instance_id, manager, nodes, uuid
from tovarincore.cloud_def import CloudInstances


class CannedClient:
    def __init__(self, response: dict[str, Any]) -> None:
        self.response = response

    def describe_instances(self, Filters: list[dict[str, Any]]) -> dict[str, Any]:
        return self.response


def described(index: int) -> dict[str, Any]:
    return {
        "InstanceId": instance_id(index),
        "InstanceType": CloudInstances.instance_type_list[index % 3].instance_type,
        "State": {"Code": 16, "Name": "running"},
        "Tags": [
            {"Key": "tovarin_username", "Value": "user"},
            {"Key": "tovarin_uuid", "Value": uuid(index)},
            {"Key": "Name", "Value": "tovarin-node"},
        ],
        "PublicDnsName": f"ec2-18-0-{index // 256}-{index % 256}.compute.amazonaws.com",
        "PrivateDnsName": "ip-10-0-0-1.ec2.internal",
        "IamInstanceProfile": {"Arn": "arn:aws:iam::123456789012:instance-profile/tovarin-node-profile"},
        "KeyName": "tovarin-key",
    }


def prepare(module: ModuleType) -> dict[str, Any]:
    made = manager(module, nodes(1))
    client = CannedClient({"Reservations": [{"Instances": [described(index)]} for index in range(1_000)]})
    made._get_client = lambda: client
    return {"manager": made}


SCENARIOS = [Scenario("list_instances, 1,000 instances", 1.8, "manager.list_instances()", prepare)]
