"""An emulated EC2 account for a test, the facade that works on it, and a way to look behind the facade."""

from __future__ import annotations

import logging
import os
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, field
from datetime import datetime
from typing import Any

from stage.ec2_endpoint import (
    ACCESS_KEY_ID,
    INSTANCE_PROFILE_NAME,
    KEY_PAIR_NAME,
    REGION_NAME,
    SECRET_ACCESS_KEY,
    Ec2Endpoint,
)
from stage.fault import FaultEndpoint
from stage.ports import HOST, refusing_port
from stage.settings import surroundings
from tovarincore.cloud_conf import CloudConf
from tovarincore.cloud_def import (
    AWSCloudAuth,
    CloudInstanceConfig,
    CloudInstances,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    CpuPlanA,
    InstanceTemplate,
    NodeState,
)
from tovarincore.cloud_node import CloudManager
from tovarincore.core_conf import core_conf_glbl
from tovarincore.core_def import OPResult
from tovarincore.testing.reference_worker import ReferenceWorker

USER_NAME = "flow-user"
IMAGE_NAME = "TOVARIN_AI_CPU_PLAN_A_1.0.0"
SECURITY_GROUP_NAME = "tovarin-security-group"


@dataclass
class Ec2World:
    """One test's account, region, credentials and facade; all but the endpoint is fresh for each test."""

    endpoint: Ec2Endpoint
    region: CloudRegion
    auth: AWSCloudAuth
    manager: CloudManager
    image_id: str = ""
    type_def: CloudInstanceTypeDef = field(default_factory=lambda: CloudInstances.instance_type_list[0])

    @property
    def raw(self) -> Any:
        """An EC2 client that does not pass through the facade."""
        return self.endpoint.client()

    def template(self) -> InstanceTemplate:
        """The default template, as the facade finds it."""
        template = self.manager.get_default_instance_template(self.region, self.auth, CpuPlanA())
        assert template is not None
        return template

    def config(self, name: str | None = "cold-1", **changes: Any) -> CloudInstanceConfig:
        """A launch configuration for the world's image; `changes` replace its fields."""
        fields: dict[str, Any] = {
            "disk_size": 20,
            "launch_instance_settings": {"idle_minutes": 30},
            "instance_template": InstanceTemplate.create_from(
                image_template_id=self.image_id,
                image_template_name=IMAGE_NAME,
                creation_date=datetime(2024, 3, 1),
                region=self.region,
            ),
            "name": name,
        }
        return CloudInstanceConfig(**{**fields, **changes})

    def launch(
        self, config: CloudInstanceConfig | None = None, **arguments: Any
    ) -> tuple[CloudNode | None, OPResult]:
        """Launch through the facade as the world's user."""
        return self.manager.launch_node(
            self.region,
            self.auth,
            self.type_def,
            self.config() if config is None else config,
            **{"username": USER_NAME, **arguments},
        )

    def launched(self, config: CloudInstanceConfig | None = None, **arguments: Any) -> CloudNode:
        """The node of a launch that must succeed."""
        node, result = self.launch(config, **arguments)
        assert result.success, result
        assert node is not None
        return node

    def listed(self) -> list[CloudNode]:
        """The nodes of a listing that must succeed."""
        nodes, result = self.manager.list_instances(self.region)
        assert result.success, result
        assert nodes is not None
        return nodes

    def run_instance(self, name: str = "cold-1", user_name: str = USER_NAME, **changes: Any) -> str:
        """Start an instance behind the facade's back, tagged as a launch tags it; returns its id."""
        tags = {"tovarin_uuid": f"uuid-of-{name}", "Name": name, "tovarin_username": user_name}
        arguments: dict[str, Any] = {
            "ImageId": self.image_id,
            "InstanceType": self.type_def.instance_type,
            "KeyName": KEY_PAIR_NAME,
            "IamInstanceProfile": {"Name": INSTANCE_PROFILE_NAME},
            "TagSpecifications": [
                {
                    "ResourceType": "instance",
                    "Tags": [{"Key": key, "Value": value} for key, value in tags.items()],
                }
            ],
        }
        response = self.raw.run_instances(MinCount=1, MaxCount=1, **{**arguments, **changes})
        return str(response["Instances"][0]["InstanceId"])

    def make_network(self) -> tuple[str, str]:
        """Make a VPC with one subnet that gives public names; returns their ids."""
        vpc_id = str(self.raw.create_vpc(CidrBlock="10.7.0.0/16")["Vpc"]["VpcId"])
        subnet_id = str(self.raw.create_subnet(VpcId=vpc_id, CidrBlock="10.7.1.0/24")["Subnet"]["SubnetId"])
        self.raw.modify_subnet_attribute(SubnetId=subnet_id, MapPublicIpOnLaunch={"Value": True})
        return vpc_id, subnet_id

    def instances(self) -> list[dict[str, Any]]:
        """Every instance that EC2 holds, as EC2 describes it."""
        reservations = self.raw.describe_instances()["Reservations"]
        return [instance for reservation in reservations for instance in reservation["Instances"]]

    def security_groups(self) -> list[dict[str, Any]]:
        """The product's security groups, as EC2 describes them."""
        filters = [{"Name": "group-name", "Values": [SECURITY_GROUP_NAME]}]
        groups: list[dict[str, Any]] = self.raw.describe_security_groups(Filters=filters)["SecurityGroups"]
        return groups

    def refresh(self) -> OPResult:
        """Refresh the registry as the world's user."""
        return self.manager.refresh_node_list(self.region, self.auth, USER_NAME)

    def states(self) -> list[tuple[str, NodeState, bool]]:
        """Name, state and readiness of each node in the registry."""
        return [(node.name, node.state, node.ready) for node in self.manager.get_node_list(self.region)]

    def set_setting(self, name: str, value: str) -> None:
        """Set one setting ("NETWORK__AWS_CUSTOM_VPC") for the rest of the test."""
        os.environ[f"TOVARIN_{name}"] = value
        core_conf_glbl.reload()

    def send_requests_to(self, url: str) -> None:
        """Let the facade's requests go to `url` for the rest of the test."""
        os.environ["AWS_ENDPOINT_URL_EC2"] = url

    @contextmanager
    def faults(self) -> Iterator[FaultEndpoint]:
        """Let the facade's requests pass through an endpoint that can be told to answer them badly."""
        with FaultEndpoint(self.endpoint.url) as endpoint:
            self.send_requests_to(endpoint.url)
            try:
                yield endpoint
            finally:
                self.send_requests_to(self.endpoint.url)


def one_record(records: list[logging.LogRecord], level: int) -> logging.LogRecord:
    """The only record of the level that this product logged; fails when there is none or more than one."""
    found = [record for record in records if record.name == "tovarincore" and record.levelno == level]
    assert len(found) == 1, [record.getMessage() for record in found]
    return found[0]


@contextmanager
def ec2_world(endpoint: Ec2Endpoint, worker: ReferenceWorker) -> Iterator[Ec2World]:
    """An account with one image, the default key pair and profile; nodes named ready-* reach `worker`.

    All other nodes reach a port that refuses connections, so that no emulated name is ever resolved.
    """
    region = CloudRegion(name=REGION_NAME, cloud="AWS")
    auth = AWSCloudAuth(aws_access_key_id=ACCESS_KEY_ID, aws_secret_access_key=SECRET_ACCESS_KEY)
    endpoint.reset()
    with refusing_port() as closed:
        refusing = f"{HOST}:{closed}"
        settings = {
            "worker_addresses": {"ready-*": f"{HOST}:{worker.port}", "cold-*": refusing, "-": refusing}
        }
        credentials = CloudConf(cloud_auth=auth, user_name=USER_NAME)
        with surroundings(endpoint.url, region, credentials, settings):
            endpoint.prepare_account([])
            world = Ec2World(endpoint, region, auth, CloudManager())
            world.image_id = endpoint.register_image(IMAGE_NAME)
            yield world
