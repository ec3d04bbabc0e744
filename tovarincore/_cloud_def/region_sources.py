"""Reads regions from the users' file and from the SDK's endpoint data."""

import importlib.util
from pathlib import Path
from typing import Any

from tovarincore._cloud_def.regions import CloudRegion, K8sRegion
from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean, shown_value
from tovarincore._config_files.toml_file import read_named_toml, require_section

__all__ = ["is_sdk_installed", "regions_from_file", "regions_from_sdk"]

_KEYS: dict[str, dict[str, type]] = {
    "AWS": {"cloud": str, "name": str, "title": str},
    "k8s": {
        "cloud": str,
        "name": str,
        "title": str,
        "namespace": str,
        "kubeconfig": str,
        "context": str,
        "in_cluster": bool,
    },
}
_KIND_NAMES = {str: "a text", bool: "true or false"}


def is_sdk_installed() -> bool:
    """Whether the Amazon SDK can be imported."""
    return importlib.util.find_spec("botocore") is not None


def regions_from_sdk() -> list[CloudRegion]:
    """Return the regions in which the SDK's endpoint data offers EC2, with the names that Amazon gives them.

    :raises ConfigError: the SDK is not installed
    """
    try:
        from botocore.session import Session
    except ModuleNotFoundError as error:
        raise ConfigError(
            "Amazon's regions are read from botocore, which is not installed; install boto3, or list the"
            " regions in the file of the setting [cloud] regions_file"
        ) from error
    session = Session()
    partition = session.get_component("data_loader").load_data("partitions")["partitions"][0]
    titles = {name: str(details["description"]) for name, details in partition["regions"].items()}
    return [
        CloudRegion(name=name, cloud="AWS", title=titles.get(name, ""))
        for name in sorted(session.get_available_regions("ec2"))
    ]


def regions_from_file(file_name: str) -> list[CloudRegion]:
    """Return the regions of a TOML file: tables ``[[region]]`` with ``cloud``, ``name`` and more.

    :param file_name: path of the file; empty means none
    :raises ConfigError: the file is missing or holds something that is not allowed
    """
    if not file_name:
        return []
    path = Path(file_name).expanduser()
    tables = read_named_toml(path, "[cloud] regions_file")
    require_section(tables, "region", path)
    entries = tables.get("region", [])
    if not isinstance(entries, list) or not all(isinstance(entry, dict) for entry in entries):
        raise ConfigError(f"{path}: region is not allowed here; allowed are tables [[region]]")
    regions = [
        _region(entry, f"{path}: [[region]] number {number}", path) for number, entry in enumerate(entries, 1)
    ]
    seen: dict[str, int] = {}
    for number, region in enumerate(regions, 1):
        if region.key in seen:
            raise ConfigError(
                f"{path}: [[region]] numbers {seen[region.key]} and {number} are both {region.key}"
            )
        seen[region.key] = number
    return regions


def _region(entry: dict[str, Any], source: str, path: Path) -> CloudRegion:
    cloud = entry.get("cloud")
    if not isinstance(cloud, str) or cloud not in _KEYS:
        raise ConfigError(
            f'{source}: cloud {shown_value(cloud)} is not allowed; allowed is "AWS" or "k8s"'
            " (the local region always exists)"
        )
    keys = _KEYS[cloud]
    for key, value in entry.items():
        if key not in keys:
            raise ConfigError(
                f'{source}: unknown key "{key}" of a region of {cloud}; {did_you_mean(key, keys)}'
            )
        if type(value) is not keys[key]:
            raise ConfigError(
                f"{source}: {key} {shown_value(value)} is not allowed; allowed is {_KIND_NAMES[keys[key]]}"
            )
    if not entry.get("name"):
        raise ConfigError(f"{source}: name is missing; allowed is a text that is not empty")
    # Imported here: only who has a regions file needs it.
    from tovarincore._transport.gate import RefusedName, check_namespace, check_region_name

    try:
        check_region_name(entry["name"])
        check_namespace(entry.get("namespace", "default"))
    except RefusedName as refusal:
        raise ConfigError(f"{source}: {refusal}") from None
    if cloud == "AWS":
        return CloudRegion(**entry)
    kubeconfig = entry.get("kubeconfig", "")
    if kubeconfig:
        # Relative to the file that names it, so that it does not depend on where a program was started.
        kubeconfig = str(path.parent / Path(kubeconfig).expanduser())
    return K8sRegion(**{**entry, "kubeconfig": kubeconfig})
