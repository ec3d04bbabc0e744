"""Records of the domain as JSON documents and table rows."""

from typing import Any

from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion, InstanceTemplate
from tovarincore.command.nodes.inventory import Probe

__all__ = [
    "NODE_COLUMNS",
    "node_document",
    "node_row",
    "ready_text",
    "region_document",
    "template_document",
    "type_document",
]

NODE_COLUMNS = ("name", "instance id", "state", "worker", "type", "address")


def node_document(node: CloudNode, probe: Probe | None = None) -> dict[str, Any]:
    """Return a node for JSON; without a probe ``ready`` is ``null``, as nobody asked the worker."""
    return {
        "region": node.region.key,
        "instance_id": node.instance_id,
        "name": node.name,
        "uuid": node.uuid,
        "state": node.state.value,
        "ready": None if probe is None else probe.ready,
        "not_ready_because": None if probe is None or probe.ready else probe.message or probe.why_not,
        "instance_type": node.instance_type_def.instance_type,
        "address": node.dns_address,
        "key_pair": node.key_pair_name,
        "instance_profile": node.instance_profile_name,
        "cpu_percent": node.cpu_percent,
        "memory_used_bytes": node.memory_used_bytes,
        "memory_total_bytes": node.memory_total_bytes,
    }


def node_row(node: CloudNode, probe: Probe | None = None) -> list[object]:
    """Return a node as a row under :data:`NODE_COLUMNS`."""
    return [
        node.name,
        node.instance_id,
        node.state.value,
        ready_text(probe),
        node.instance_type_def.instance_type,
        node.dns_address,
    ]


def ready_text(probe: Probe | None) -> str:
    """Return in a few words whether the worker answers."""
    if probe is None:
        return "not asked"
    return "ready" if probe.ready else probe.why_not


def region_document(region: CloudRegion, configured: bool) -> dict[str, Any]:
    """Return a region for JSON."""
    return {
        "name": region.name,
        "cloud": region.cloud,
        "key": region.key,
        "title": region.title,
        "configured": configured,
    }


def template_document(template: InstanceTemplate) -> dict[str, Any]:
    """Return a template for JSON."""
    return {
        "id": template.instance_template_id,
        "name": template.name,
        "version": template.version,
        "pay_type": template.product_pay_type.value,
        "gpu": template.is_gpu,
        "created": template.created_date.isoformat(timespec="seconds"),
    }


def type_document(type_def: CloudInstanceTypeDef) -> dict[str, Any]:
    """Return an instance type for JSON."""
    return {
        "instance_type": type_def.instance_type,
        "cpu_count": type_def.cpu_count,
        "memory_mib": type_def.memory_mib,
        "gpu_count": type_def.gpu_count,
        "gpu_model": type_def.gpu_model,
    }
