"""The records and enums of the domain: regions, nodes, credentials, launches, images and firewall rules."""

from tovarincore._cloud_def.auth import AWSCloudAuth, CloudAuth
from tovarincore._cloud_def.instance_types import CloudInstances, CloudInstanceTypeDef
from tovarincore._cloud_def.launch import CloudInstanceConfig
from tovarincore._cloud_def.nodes import AWSCloudNode, CloudNode, NodeState
from tovarincore._cloud_def.region_list import CloudRegions
from tovarincore._cloud_def.regions import CloudRegion, K8sRegion
from tovarincore._cloud_def.security_groups import SecurityGroupRule, SecurityGroupRules
from tovarincore._cloud_def.templates import (
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
