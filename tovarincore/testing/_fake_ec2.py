"""EC2 in memory, as far as the provider asks it."""

import itertools
from types import SimpleNamespace
from typing import Any

from tovarincore.testing._recording import Record, answerable, client_error, recorded

__all__ = ["FakeEc2Client"]

IMAGE_NAMES = tuple(
    f"TOVARIN_AI_{kind}_{plan}_1.0.0" for kind in ("CPU", "GPU") for plan in ("PLAN_A", "PLAN_B")
)
# What EC2 reports for an instance once it had time to get there.
_SETTLED = {"pending": "running", "stopping": "stopped", "shutting-down": "terminated"}


@answerable
class FakeEc2Client:
    """EC2 of one region: answers the requests that the provider sends, and validates nothing.

    An instance is in transition in the answer to its request, and settled in the listings after it. Public
    images of every plan exist from the start.
    """

    service = "ec2"

    def __init__(self, cloud: Record) -> None:
        self.cloud = cloud
        self.images = [
            {"ImageId": f"ami-{number}", "Name": name, "CreationDate": "2024-01-01T00:00:00.000Z"}
            for number, name in enumerate(IMAGE_NAMES, 1)
        ]
        self.instances: dict[str, dict[str, Any]] = {}
        self._numbers = itertools.count(1)
        self.key_pairs: set[str] = set()
        self.rules: list[dict[str, Any]] | None = None
        """Inbound rules of the product's security group; ``None`` while there is no group."""

    @recorded
    def describe_images(self, **request: Any) -> dict[str, Any]:
        """Return every image."""
        return {"Images": list(self.images)}

    @recorded
    def run_instances(self, **request: Any) -> dict[str, Any]:
        """Add one instance, or answer a dry run as EC2 does when it would have gone well."""
        if request["DryRun"]:
            raise client_error("DryRunOperation", "Request would have succeeded, but DryRun flag is set.")
        number = next(self._numbers)
        instance = {
            "InstanceId": f"i-{number}",
            "InstanceType": request["InstanceType"],
            "State": {"Name": "pending"},
            "Tags": request["TagSpecifications"][0]["Tags"],
            "PublicDnsName": f"node-{number}.example",
            "PrivateDnsName": f"node-{number}.internal",
            "KeyName": request["KeyName"],
        }
        self.instances[f"i-{number}"] = instance
        return {"Instances": [instance]}

    @recorded
    def describe_instances(self, **request: Any) -> dict[str, Any]:
        """Return the instances of the user asked for."""
        (wanted,) = request["Filters"][0]["Values"]
        # Other threads may launch meanwhile.
        instances = list(self.instances.values())
        for instance in instances:
            state = instance["State"]
            state["Name"] = _SETTLED.get(state["Name"], state["Name"])
        found = [
            instance
            for instance in instances
            if {"Key": "tovarin_username", "Value": wanted} in instance["Tags"]
        ]
        return {"Reservations": [{"Instances": found}]}

    @recorded
    def start_instances(self, **request: Any) -> dict[str, Any]:
        """Start instances."""
        return self._change(request, "pending")

    @recorded
    def reboot_instances(self, **request: Any) -> dict[str, Any]:
        """Leave instances running."""
        return self._change(request, "running")

    @recorded
    def stop_instances(self, **request: Any) -> dict[str, Any]:
        """Stop instances."""
        return self._change(request, "stopping")

    @recorded
    def terminate_instances(self, **request: Any) -> dict[str, Any]:
        """Terminate instances; listings show them as terminated."""
        return self._change(request, "shutting-down")

    @recorded
    def get_waiter(self, name: str) -> Any:
        """Return a waiter that finds everything well at once."""
        return SimpleNamespace(wait=lambda **request: None)

    @recorded
    def describe_vpcs(self, **request: Any) -> dict[str, Any]:
        """Return the default network."""
        return {"Vpcs": [{"VpcId": "vpc-1"}]}

    @recorded
    def describe_security_groups(self, **request: Any) -> dict[str, Any]:
        """Return the product's group, once it is there."""
        return {"SecurityGroups": [] if self.rules is None else [{"GroupId": "sg-1"}]}

    @recorded
    def create_security_group(self, **request: Any) -> dict[str, Any]:
        """Make the product's group."""
        self.rules = []
        return {"GroupId": "sg-1"}

    @recorded
    def describe_security_group_rules(self, **request: Any) -> dict[str, Any]:
        """Return the group's inbound rules."""
        return {"SecurityGroupRules": [{"IsEgress": False, **rule} for rule in self.rules or []]}

    @recorded
    def authorize_security_group_ingress(self, **request: Any) -> dict[str, Any]:
        """Add inbound rules."""
        self.rules = [*(self.rules or []), *request["IpPermissions"]]
        return {}

    @recorded
    def create_key_pair(self, **request: Any) -> dict[str, Any]:
        """Make a key pair; a name can be taken once."""
        if request["KeyName"] in self.key_pairs:
            raise client_error("InvalidKeyPair.Duplicate", "The keypair already exists", "CreateKeyPair")
        self.key_pairs.add(request["KeyName"])
        return {"KeyMaterial": "private key of " + request["KeyName"]}

    @recorded
    def delete_key_pair(self, **request: Any) -> dict[str, Any]:
        """Forget a key pair."""
        self.key_pairs.discard(request["KeyName"])
        return {}

    def _change(self, request: dict[str, Any], state: str) -> dict[str, Any]:
        for instance_id in request["InstanceIds"]:
            if instance_id not in self.instances:
                raise client_error(
                    "InvalidInstanceID.NotFound", f"The instance ID '{instance_id}' does not exist"
                )
            self.instances[instance_id]["State"] = {"Name": state}
        return {}
