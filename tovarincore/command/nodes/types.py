"""The instance types of a region, and the user's file of them."""

from collections.abc import Iterable, Mapping
from datetime import date
from pathlib import Path
from typing import Any

from tovarincore.cloud_def import CloudInstances, CloudInstanceTypeDef
from tovarincore.command.context.access import Access
from tovarincore.command.context.toml_edit import edit_toml
from tovarincore.core_conf import core_conf_glbl

__all__ = ["describe_types", "size_of", "types_of", "write_types"]

Size = dict[str, Any]

_SECTION = "instance_types"


def types_of(access: Access) -> list[CloudInstanceTypeDef]:
    """Return the types of a region; Amazon's come from the list of known types, as its provider gives none.

    :raises CommandFailure: the provider reports a failure
    """
    if access.region.cloud == "AWS":
        return CloudInstances.instance_type_list
    from tovarincore.cloud_node import cloud_manager_glbl
    from tovarincore.command.errors.explain import failure_of

    found, result = cloud_manager_glbl.list_instance_types(access.region)
    if not result.success:
        raise failure_of(result, access.region)
    return found


def describe_types(client: Any, names: Iterable[str] = ()) -> dict[str, Size]:
    """Ask EC2 for the sizes of types.

    :param client: EC2 client of a region
    :param names: which ones; none means all that the region offers
    :return: fields of the file of types by name
    """
    arguments: dict[str, Any] = {"InstanceTypes": list(names)} if names else {}
    described: dict[str, Size] = {}
    while True:
        page = client.describe_instance_types(**arguments)
        described |= {entry["InstanceType"]: size_of(entry) for entry in page["InstanceTypes"]}
        if not page.get("NextToken"):
            return described
        arguments["NextToken"] = page["NextToken"]


def size_of(entry: Any) -> Size:
    """Return the fields of the file of types for a type as EC2 describes it."""
    size: Size = {
        "cpu_count": entry["VCpuInfo"]["DefaultVCpus"],
        "memory_mib": entry["MemoryInfo"]["SizeInMiB"],
    }
    gpus = entry.get("GpuInfo", {}).get("Gpus", [])
    if gpus:
        size["gpu_count"] = sum(gpu["Count"] for gpu in gpus)
        size["gpu_model"] = f"{gpus[0]['Manufacturer']} {gpus[0]['Name']}"
    return size


def write_types(path: Path, described: Mapping[str, Size]) -> int:
    """Put sizes, and today's date, into the user's file; comments and other entries stay.

    :param path: the file, which need not exist
    :param described: what :func:`describe_types` returned
    :return: how many of the types are new in the file
    :raises ConfigError: the file cannot be used
    """
    import tomlkit

    def put(document: tomlkit.TOMLDocument) -> int:
        _date(document)
        section: Any = document.setdefault(_SECTION, tomlkit.table())
        added = sum(name not in section for name in described)
        for name in sorted(described):
            entry = tomlkit.inline_table()
            entry.update(described[name])
            section[name] = entry
        return added

    return edit_toml(path, put, _read_again)


def _date(document: Any) -> None:
    """Put today's date in front: a key of the top level must stand before the first section."""
    import tomlkit

    if "updated" in document:
        document["updated"] = date.today()
        return
    items = [*document.items()]
    for key, _ in items:
        document.remove(key)
    document["updated"] = date.today()
    for key, item in items:
        document.add(tomlkit.nl())
        document.add(key, item)


def _read_again() -> None:
    core_conf_glbl.reload()
    CloudInstances.get_data_date()
