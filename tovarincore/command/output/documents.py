"""Records of the domain as documents: what programs read, and what the columns of tables are taken from."""

from datetime import datetime
from typing import TYPE_CHECKING, Any

from tovarincore.cloud_def import CloudInstanceTypeDef, CloudNode, CloudRegion, InstanceTemplate
from tovarincore.command.output.tables import Column

if TYPE_CHECKING:
    from tovarincore.command.nodes.probes import Probe

__all__ = [
    "AGE_COLUMN",
    "NODE_COLUMNS",
    "REGION_COLUMN",
    "REGION_COLUMNS",
    "TEMPLATE_COLUMNS",
    "TYPE_COLUMNS",
    "node_document",
    "ready_text",
    "region_document",
    "template_document",
    "type_document",
]


def _shown_age(launched: str | None) -> str:
    if launched is None:
        return "not known"
    moment = datetime.fromisoformat(launched)
    minutes = max(0, int((datetime.now(moment.tzinfo) - moment).total_seconds() // 60))
    if minutes < 60:
        return f"{minutes} min"
    if minutes < 48 * 60:
        return f"{minutes // 60} h"
    return f"{minutes // (24 * 60)} days"


NODE_COLUMNS = (
    Column("name", "name"),
    Column("instance_id", "instance id"),
    Column("state", "state", 1),
    Column("worker", "worker", 2),
    Column("instance_type", "type", 3),
    Column("address", "address", 4),
    Column("uuid", "uuid", wide=True),
    Column("key_pair", "key pair", wide=True),
    Column("instance_profile", "instance profile", wide=True),
)
REGION_COLUMN = Column("region", "region")
"""Stands in front of a node's columns where nodes of several regions are listed."""
AGE_COLUMN = Column("launched", "age", 3, _shown_age)
REGION_COLUMNS = (
    Column("name", "name"),
    Column("cloud", "kind", 1),
    Column("title", "title", 2),
    Column("why_not", "usable", 0, lambda why_not: f"no: {why_not}" if why_not else "yes"),
)
TEMPLATE_COLUMNS = (
    Column("name", "name"),
    Column("id", "id"),
    Column("version", "version", 2),
    Column("pay_type", "pay type", 3),
    Column("gpu", "for", 1, lambda gpu: "GPU" if gpu else "CPU"),
    Column("created", "created", 4, lambda created: created[:10]),
)
TYPE_COLUMNS = (
    Column("instance_type", "type"),
    Column("cpu_count", "processors", 1, lambda count: f"{count:g}" if count else None),
    Column("memory_mib", "memory (MiB)", 2, lambda size: size or None),
    Column("gpu_count", "gpus", 3),
    Column("gpu_model", "gpu model", 4),
)


def node_document(node: CloudNode, probe: "Probe | None" = None) -> dict[str, Any]:
    """Return a node as a document; without a probe ``ready`` is ``None``, as nobody asked the worker."""
    return {
        "region": node.region.hash_key,
        "instance_id": node.instance_id,
        "name": node.name,
        "uuid": node.uuid,
        "state": node.state.value,
        "ready": None if probe is None else probe.ready,
        "worker": ready_text(probe),
        "not_ready_because": None if probe is None or probe.ready else probe.message or probe.why_not,
        "instance_type": node.instance_type_def.instance_type,
        "address": node.dns_address,
        "key_pair": node.key_pair_name,
        "instance_profile": node.instance_profile_name,
        "cpu_percent": node.cpu_percent,
        "memory_used_bytes": node.memory_used_bytes,
        "memory_total_bytes": node.memory_total_bytes,
    }


def ready_text(probe: "Probe | None") -> str:
    """Return in a few words whether the worker answers."""
    if probe is None:
        return "not asked"
    return "ready" if probe.ready else probe.why_not


def region_document(region: CloudRegion, why_not: str) -> dict[str, Any]:
    """Return a region as a document.

    :param why_not: what keeps it from being used; empty when it can be
    """
    return {
        "name": region.name,
        "cloud": region.cloud,
        "key": region.hash_key,
        "title": region.title,
        "usable": not why_not,
        "why_not": why_not or None,
    }


def template_document(template: InstanceTemplate) -> dict[str, Any]:
    """Return a template as a document."""
    return {
        "id": template.instance_template_id,
        "name": template.name,
        "version": template.version,
        "pay_type": template.product_pay_type.value,
        "gpu": template.is_gpu,
        "created": template.created_date.isoformat(timespec="seconds"),
    }


def type_document(type_def: CloudInstanceTypeDef) -> dict[str, Any]:
    """Return an instance type as a document."""
    return {
        "instance_type": type_def.instance_type,
        "cpu_count": type_def.cpu_count,
        "memory_mib": type_def.memory_mib,
        "gpu_count": type_def.gpu_count,
        "gpu_model": type_def.gpu_model,
    }
