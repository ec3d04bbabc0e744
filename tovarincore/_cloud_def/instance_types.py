"""Instance types, and the list of those that are known."""

import functools
from dataclasses import dataclass
from datetime import date
from pathlib import Path
from typing import Any, Optional

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean, shown_value
from tovarincore._config_files.toml_file import parse_toml, read_named_toml, read_toml, require_section
from tovarincore.core_conf import core_conf_glbl

__all__ = ["CloudInstanceTypeDef", "CloudInstances"]

_SHIPPED_FILE = Path(__file__).parent.parent / "data" / "instance_types.toml"


@dataclass
class CloudInstanceTypeDef:
    """One instance type.

    :param instance_type: the provider's name of the type, for Amazon for example ``"g4dn.xlarge"``
    :param cpu_count: processors (Amazon: vCPUs); 0 when it is not known
    :param memory_mib: memory in MiB; 0 when it is not known
    :param gpu_count: graphics processors
    :param gpu_model: maker and model of them
    """

    instance_type: str
    cpu_count: float
    memory_mib: int
    gpu_count: int = 0
    gpu_model: str | None = None


class _InstanceTypeList:
    """Reads the list when it is first asked for; a test may put a list in its place."""

    def __get__(
        self, instance: Optional["CloudInstances"], owner: type["CloudInstances"]
    ) -> list[CloudInstanceTypeDef]:
        # A listing reads it for each instance: hence the short way first.
        try:
            known: list[CloudInstanceTypeDef] = core_conf_glbl.derived["instance types"]
        except KeyError:
            known = core_conf_glbl.derive("instance types", _read_instance_types)
        return known


class CloudInstances:
    """The instance types that are known: those shipped with the product, the user's own, and the SDK's."""

    instance_type_list = _InstanceTypeList()
    """List of :class:`CloudInstanceTypeDef`, read at first use. The user's file adds to the shipped types; a
    type in both is as the user's file says. The types that only the installed Amazon SDK knows follow,
    without sizes; they are read when a search comes to them, and the list grows by them then. Reading raises
    ``ConfigError`` when a file cannot be used."""

    @staticmethod
    def get_user_file() -> Path:
        """Return the path of the user's file of types, whether it exists or not.

        It is the file of the setting ``[cloud] instance_types_file``, else ``instance_types.toml`` beside the
        settings file.

        :raises ConfigError: the configuration cannot be used
        """
        named = core_conf_glbl.cloud__instance_types_file
        return Path(named).expanduser() if named else core_conf_glbl.path.with_name("instance_types.toml")

    @staticmethod
    def get_data_date() -> date | None:
        """Return the date of the sizes: the newest ``updated`` of the shipped and the user's file.

        :raises ConfigError: the configuration or a file cannot be used
        """
        dates = [read.updated for read in _files() if read.updated is not None]
        return max(dates, default=None)

    @staticmethod
    def find(instance_type: str) -> CloudInstanceTypeDef:
        """Return the known type of this name.

        :param instance_type: the provider's name of the type, for example ``"t3.small"``
        :raises LookupError: there is no such type; the text suggests the nearest name
        :raises ConfigError: the configuration or the file of types cannot be used
        """
        for known in CloudInstances.instance_type_list:
            if known.instance_type == instance_type:
                return known
        names = [known.instance_type for known in CloudInstances.instance_type_list]
        raise LookupError(f'unknown instance type "{instance_type}"; {did_you_mean(instance_type, names)}')

    @staticmethod
    def get_default_local_instance_type() -> CloudInstanceTypeDef:
        """Return the type of the local container: ``"local"``, as large as ``[container]`` allows.

        :raises ConfigError: the configuration cannot be used
        """
        return CloudInstanceTypeDef(
            instance_type="local",
            cpu_count=core_conf_glbl.container__cpu_count,
            memory_mib=core_conf_glbl.container__memory_mib,
        )


class _TypesFile:
    """What one file of types holds.

    :param tables: its tables
    :param path: the file, for the error's text
    """

    def __init__(self, tables: dict[str, Any], path: Path) -> None:
        updated = tables.pop("updated", None)
        if updated is not None and type(updated) is not date:
            raise ConfigError(
                f"{path}: updated {shown_value(updated)} is not allowed; allowed is a date such as 2026-01-31"
            )
        require_section(tables, "instance_types", path)
        entries = tables.get("instance_types", {})
        if not isinstance(entries, dict):
            raise ConfigError(
                f"{path}: instance_types is not allowed here; allowed is a section [instance_types]"
            )
        self.updated = updated
        self.types = {name: _type_of(name, entry, f'{path}: "{name}"') for name, entry in entries.items()}


def _files() -> list[_TypesFile]:
    return core_conf_glbl.derive("files of instance types", _read_files)


def _read_files() -> list[_TypesFile]:
    files = [_TypesFile(dict(_shipped_tables(_SHIPPED_FILE)), _SHIPPED_FILE)]
    path = CloudInstances.get_user_file()
    if core_conf_glbl.cloud__instance_types_file:
        files.append(_TypesFile(read_named_toml(path, "[cloud] instance_types_file"), path))
    elif (tables := read_toml(path)) is not None:
        files.append(_TypesFile(tables, path))
    return files


@functools.lru_cache(maxsize=1)
def _shipped_tables(path: Path) -> dict[str, Any]:
    # Settings change, and are then read again; what is shipped stays.
    return parse_toml(path.read_bytes(), path)


def _read_instance_types() -> list[CloudInstanceTypeDef]:
    # Imported here: importing the package reads no types.
    from tovarincore._cloud_def.sdk_types import add_types_of_sdk

    types: dict[str, CloudInstanceTypeDef] = {}
    for read in _files():
        types.update(read.types)
    listed = list(types.values())
    add_types_of_sdk(listed)
    return listed


def _type_of(name: str, entry: object, source: str) -> CloudInstanceTypeDef:
    if not isinstance(entry, dict):
        raise ConfigError(
            f"{source}: {shown_value(entry)} is not allowed;"
            " allowed is { cpu_count = 2, memory_mib = 4096 }, after a type name in quotes"
        )
    for key, value in entry.items():
        if key not in _CHECKS:
            if isinstance(value, dict):
                raise ConfigError(
                    f'{source}: is only half a name; put names with dots in quotes: "{name}.{key}"'
                )
            raise ConfigError(f'{source}: unknown key "{key}"; {did_you_mean(key, _CHECKS)}')
        kind, least = _CHECKS[key]
        fits = type(value) is kind and (least is None or value >= least)
        if not fits:
            allowed = "a text" if least is None else f"a whole number of at least {least}"
            raise ConfigError(f"{source}: {key} {shown_value(value)} is not allowed; allowed is {allowed}")
    for key in ("cpu_count", "memory_mib"):
        if key not in entry:
            raise ConfigError(f"{source}: {key} is missing")
    return CloudInstanceTypeDef(instance_type=name, **entry)


_CHECKS: dict[str, Any] = {
    "cpu_count": (int, 1),
    "memory_mib": (int, 1),
    "gpu_count": (int, 0),
    "gpu_model": (str, None),
}
