"""Instance types, and the list of those that are known."""

from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean, shown_value
from tovarincore._config_files.toml_file import parse_toml, read_named_toml, require_section
from tovarincore.core_conf import core_conf_glbl

__all__ = ["CloudInstanceTypeDef", "CloudInstances"]

_SHIPPED_FILE = Path(__file__).parent.parent / "data" / "instance_types.toml"


@dataclass
class CloudInstanceTypeDef:
    """One instance type.

    :param instance_type: the provider's name of the type, for Amazon for example ``"g4dn.xlarge"``
    :param cpu_count: processors (Amazon: vCPUs)
    :param memory_mib: memory in MiB
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
    """The instance types that are known: those shipped with the product and the user's own."""

    instance_type_list = _InstanceTypeList()
    """List of :class:`CloudInstanceTypeDef`, read at first use. The file of the setting
    ``[cloud] instance_types_file`` adds to the shipped types; a type in both is as the user's file says.
    Reading raises ``ConfigError`` when a file cannot be used."""

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


def _read_instance_types() -> list[CloudInstanceTypeDef]:
    types = _types_of(parse_toml(_SHIPPED_FILE.read_bytes(), _SHIPPED_FILE), _SHIPPED_FILE)
    file_name = core_conf_glbl.cloud__instance_types_file
    if file_name:
        path = Path(file_name).expanduser()
        types.update(_types_of(read_named_toml(path, "[cloud] instance_types_file"), path))
    return list(types.values())


def _types_of(tables: dict[str, Any], path: Path) -> dict[str, CloudInstanceTypeDef]:
    require_section(tables, "instance_types", path)
    entries = tables.get("instance_types", {})
    if not isinstance(entries, dict):
        raise ConfigError(
            f"{path}: instance_types is not allowed here; allowed is a section [instance_types]"
        )
    return {name: _type_of(name, entry, f'{path}: "{name}"') for name, entry in entries.items()}


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
