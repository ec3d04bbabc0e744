"""Less of the SDK's data for one run: what the command asks EC2 for, kept in a file of the user's cache.

The SDK describes eight hundred operations of EC2 and the end points of all services. Reading that takes
most of the time of a command that asks one question. What is kept belongs to one version of the SDK, and is
made again when its files change.
"""

from __future__ import annotations

import functools
import json
import os
from contextlib import suppress
from pathlib import Path
from typing import Any

import botocore
import botocore.loaders

from tovarincore.cloud_def import CloudRegion
from tovarincore.core_conf import core_conf_glbl

__all__ = ["OPERATIONS", "LeanLoader", "use_kept_regions"]

OPERATIONS = (
    "AuthorizeSecurityGroupIngress CreateKeyPair CreateSecurityGroup CreateTags DeleteKeyPair DescribeImages"
    " DescribeInstanceStatus DescribeInstanceTypes DescribeInstances DescribeKeyPairs"
    " DescribeSecurityGroupRules DescribeSecurityGroups DescribeSubnets DescribeVpcs RebootInstances"
    " RunInstances StartInstances StopInstances TerminateInstances"
).split()
"""What the providers and the command ask EC2 for."""

_FORM = 1
_BUILT_IN = Path(botocore.__file__).parent / "data"
_KEPT_MODELS = {"service-2", "endpoint-rule-set-1"}
_ENDPOINTS = "endpoints"
# What a user may have put into another folder, in place of the SDK's.
_OTHERS = ("endpoints.json*", "ec2/*/service-2*", "ec2/*/endpoint-rule-set-1*")


class LeanLoader(botocore.loaders.Loader):
    """The SDK's reader of descriptions, which knows of EC2 alone; other folders than the SDK's own win."""

    def load_service_model(self, service_name: str, type_name: str, api_version: str | None = None) -> Any:
        """Return EC2's description, with the operations that are needed."""
        if service_name == "ec2" and type_name in _KEPT_MODELS and api_version is None and not self._others():
            return _kept(_cache_file())[type_name]
        return super().load_service_model(service_name, type_name, api_version)

    def load_data_with_path(self, name: str) -> Any:
        """Return the end points of EC2, and whatever else is asked for."""
        if name == _ENDPOINTS and not self._others():
            return _kept(_cache_file())[_ENDPOINTS], str(_BUILT_IN / _ENDPOINTS)
        return super().load_data_with_path(name)

    def _others(self) -> bool:
        folders = [Path(path) for path in self.search_paths if Path(path) != _BUILT_IN]
        return any(any(folder.glob(name)) for folder in folders for name in _OTHERS)


def use_kept_regions() -> None:
    """Let the list of regions have Amazon's from what is kept.

    :raises ConfigError: the settings cannot be used
    """
    # Whoever asks for this first decides where it comes from.
    core_conf_glbl.derive("regions of the SDK", _kept_regions)


def _kept_regions() -> list[CloudRegion]:
    return [CloudRegion(name, "AWS", title) for name, title in _kept(_cache_file())["regions"]]


@functools.lru_cache(maxsize=1)
def _kept(path: Path) -> dict[str, Any]:
    with suppress(Exception):
        # Whatever is wrong with the file, what it holds can be made again.
        return _read(path)
    made = _make()
    with suppress(Exception):
        _write(path, made)
    return made


def _cache_file() -> Path:
    from platformdirs import user_cache_dir

    return Path(user_cache_dir("tovarin", appauthor=False)) / "sdk-data.json"


def _read(path: Path) -> dict[str, Any]:
    from tovarincore._config_files.private_file import read_private

    kept: dict[str, Any] = json.loads(read_private(path) or b"")
    if kept["of"] != _origin():
        raise ValueError("it belongs to another version of the SDK")
    return kept


def _write(path: Path, made: dict[str, Any]) -> None:
    from tovarincore._config_files.private_file import write_private

    path.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    write_private(path, json.dumps(made, separators=(",", ":")).encode("utf-8"))


def _origin() -> list[Any]:
    """What the kept data was made of; no directory of the SDK is listed for it."""
    status = os.stat(_BUILT_IN / "endpoints.json")
    return [_FORM, botocore.__version__, str(_BUILT_IN), status.st_mtime_ns, status.st_size, OPERATIONS]


def _make() -> dict[str, Any]:
    from tovarincore._cloud_def.region_sources import regions_from_sdk

    loader = botocore.loaders.Loader([str(_BUILT_IN)], include_default_search_paths=False)
    made = {name: loader.load_service_model("ec2", name) for name in _KEPT_MODELS}
    made["service-2"] = _lean_service(made["service-2"])
    made[_ENDPOINTS] = _lean_endpoints(loader.load_data(_ENDPOINTS))
    made["regions"] = [(region.name, region.title) for region in regions_from_sdk()]
    return {**made, "of": _origin()}


def _lean_service(model: dict[str, Any]) -> dict[str, Any]:
    operations = {name: _undocumented(model["operations"][name]) for name in OPERATIONS}
    shapes: dict[str, Any] = {}
    wanted = [
        part["shape"]
        for operation in operations.values()
        for part in (operation.get("input"), operation.get("output"), *operation.get("errors", ()))
        if part
    ]
    while wanted:
        name = wanted.pop()
        if name in shapes:
            continue
        shape = shapes[name] = _undocumented(model["shapes"][name])
        shape["members"] = {key: _undocumented(part) for key, part in shape.get("members", {}).items()}
        parts = [*shape["members"].values(), *(shape.get(key) for key in ("member", "key", "value"))]
        wanted += [part["shape"] for part in parts if part]
        if not shape["members"] and shape["type"] != "structure":
            del shape["members"]
    return {**_undocumented(model), "operations": operations, "shapes": shapes}


def _lean_endpoints(data: dict[str, Any]) -> dict[str, Any]:
    partitions = [
        {
            **partition,
            "services": {key: value for key, value in partition["services"].items() if key == "ec2"},
        }
        for partition in data["partitions"]
    ]
    return {**data, "partitions": partitions}


def _undocumented(part: dict[str, Any]) -> dict[str, Any]:
    return {key: value for key, value in part.items() if key != "documentation"}
