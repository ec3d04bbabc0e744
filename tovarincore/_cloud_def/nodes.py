"""Nodes and the states they go through."""

from dataclasses import dataclass, field
from enum import Enum

from tovarincore._cloud_def.instance_types import CloudInstanceTypeDef
from tovarincore._cloud_def.regions import CloudRegion

__all__ = ["AWSCloudNode", "CloudNode", "NodeState"]


class NodeState(Enum):
    """State of a node as its provider reports it; whether the worker answers is ``CloudNode.ready``."""

    STARTING = "Starting"
    RUNNING = "Running"
    STOPPING = "Stopping"
    STOPPED = "Stopped"
    SHUTTING_DOWN = "Shutting-down"
    TERMINATED = "Terminated"
    UNKNOWN = "Unknown"

    @classmethod
    def from_aws_value(cls, text: str) -> "NodeState":
        """Return the state for an EC2 instance state name whose first letter is in upper case.

        EC2 has six: see ``InstanceState`` in its API reference. Its "pending" is :attr:`STARTING` here.

        :param text: ``"Pending"``, ``"Running"``, ``"Stopping"``, ``"Stopped"``, ``"Shutting-down"`` or
            ``"Terminated"``
        :raises ValueError: any other text
        """
        try:
            return _BY_AWS_VALUE[text]
        except KeyError:
            allowed = ", ".join(_BY_AWS_VALUE)
            raise ValueError(f"{text!r} is not an EC2 instance state; allowed are {allowed}") from None


_BY_AWS_VALUE = {
    "Pending": NodeState.STARTING,
    "Running": NodeState.RUNNING,
    "Stopping": NodeState.STOPPING,
    "Stopped": NodeState.STOPPED,
    "Shutting-down": NodeState.SHUTTING_DOWN,
    "Terminated": NodeState.TERMINATED,
}


@dataclass
class CloudNode:
    """One worker node.

    :param region: region that the node lives in
    :param instance_id: the provider's id, the key of the registry
    :param instance_type_def: type of the instance
    :param uuid: the product's own id, ``"-"`` when it is not known
    :param name: name for people, ``"-"`` when there is none
    :param dns_address: name or address under which the worker is reached
    :param state: state as the provider reports it
    :param key_pair_name: EC2 key pair that was put on the instance
    :param instance_profile_name: IAM instance profile of the instance
    :param ready: the worker answered a ping
    :param worker_id_list: ids of the workers on this node
    :param cpu_percent: load of the processors, 0 to 100
    :param memory_used_bytes: memory in use, in bytes
    :param memory_total_bytes: memory of the machine, in bytes
    :param system_stat_time: when the worker reported the load, in seconds since the epoch
    """

    region: CloudRegion
    instance_id: str
    instance_type_def: CloudInstanceTypeDef
    uuid: str = "-"
    name: str = "-"
    dns_address: str = ""
    state: NodeState = NodeState.STARTING
    key_pair_name: str | None = None
    instance_profile_name: str | None = None
    ready: bool = False
    worker_id_list: list[str] = field(default_factory=list)
    cpu_percent: float | None = None
    memory_used_bytes: int | None = None
    memory_total_bytes: int | None = None
    system_stat_time: float | None = None


@dataclass
class AWSCloudNode(CloudNode):
    """A node on Amazon EC2."""
