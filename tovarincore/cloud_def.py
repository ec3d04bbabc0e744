"""The records and enums of the domain: regions, nodes, credentials, launches, images and firewall rules."""

from tovarincore._records.auth import AWSCloudAuth, CloudAuth
from tovarincore._records.instance_types import CloudInstances, CloudInstanceTypeDef
from tovarincore._records.launch import CloudInstanceConfig
from tovarincore._records.nodes import AWSCloudNode, CloudNode, NodeState
from tovarincore._records.region_list import CloudRegions
from tovarincore._records.regions import CloudRegion, K8sRegion
from tovarincore._records.security_groups import SecurityGroupRule, SecurityGroupRules
from tovarincore._records.templates import (
    CpuPlanA,
    CpuPlanB,
    GpuPlanA,
    GpuPlanB,
    InstanceTemplate,
    InstanceTemplatePayType,
)

__all__ = [
    "AWSCloudAuth",
    "AWSCloudNode",
    "CloudAuth",
    "CloudInstanceConfig",
    "CloudInstanceTypeDef",
    "CloudInstances",
    "CloudNode",
    "CloudRegion",
    "CloudRegions",
    "CpuPlanA",
    "CpuPlanB",
    "GpuPlanA",
    "GpuPlanB",
    "InstanceTemplate",
    "InstanceTemplatePayType",
    "K8sRegion",
    "NodeState",
    "SecurityGroupRule",
    "SecurityGroupRules",
]
