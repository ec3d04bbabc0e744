"""Configuration of the package, and its logger.

Settings stand in one TOML file: the one that the environment variable ``TOVARIN_CONF`` names, else
``core.toml`` in the user's configuration directory. An environment variable ``TOVARIN_<SECTION>__<KEY>``
overrides the file. Nothing is read before the first setting is asked for.
"""

import logging
import os
import threading
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import TYPE_CHECKING, Any, TypeVar

from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.names import did_you_mean
from tovarincore._config_files.paths import configured_path
from tovarincore._core_conf.log_levels import LogLevels
from tovarincore._core_conf.schema import SETTINGS, SETTINGS_BY_NAME, Setting

if TYPE_CHECKING:
    from tovarincore._core_conf.settings import Settings

__all__ = [
    "ConfigError",
    "CoreConf",
    "LogManager",
    "Setting",
    "core_conf_glbl",
    "describe_settings",
    "log_manager_glbl",
]

T = TypeVar("T")

_FILE_VARIABLE = "TOVARIN_CONF"


class CoreConf:
    """The settings, each an attribute named ``section__key``, for example ``core_conf_glbl.worker__port``.

    The first setting asked for reads the file; every later one is a look-up. Any thread may ask.

    :raises ConfigError: from any setting, when the file or the environment holds something not allowed
    :raises AttributeError: for a name that is no setting; the text gives the nearest one
    """

    def __init__(self) -> None:
        self._lock = threading.RLock()
        self._settings: Settings | None = None
        self.derived: dict[str, Any] = {}
        """What :meth:`derive` has built so far, by name; another dictionary after :meth:`reload`."""

    @property
    def path(self) -> Path:
        """The configuration file, whether it exists or not."""
        return configured_path(_FILE_VARIABLE, "core.toml")

    @property
    def proxy_enabled(self) -> bool:
        """Whether Amazon is reached through proxies."""
        return bool(self.proxy__enabled)

    def get_proxy_conf_tuple(self) -> tuple[str, str]:
        """Return the proxies for http and for https; one that is not configured is the same as the other."""
        http, https = self.proxy__http, self.proxy__https
        return http or https, https or http

    def get_worker_address(self, node: Any) -> tuple[str, int] | None:
        """Return host and port that ``[worker_addresses]`` gives for a node, or ``None``.

        A key that equals the node's name, uuid or address wins, in this order; then the first pattern of the
        file that fits any of the three.

        :param node: a record with ``name``, ``uuid`` and ``dns_address``
        """
        names = [name for name in (node.name, node.uuid, node.dns_address) if isinstance(name, str)]
        return self._read().worker_addresses.find(names)

    def derive(self, name: str, build: Callable[[], T]) -> T:
        """Return what ``build`` makes of the settings; it is called once for every reading of them.

        :param name: what is built, one name per purpose
        :param build: called without arguments, by one thread at a time; what it raises is passed on
        """
        derived = self.derived
        if name not in derived:
            with self._lock:
                self._read()
                derived = self.derived
                if name not in derived:
                    derived[name] = build()
        value: T = derived[name]
        return value

    def reload(self) -> None:
        """Forget what was read: the next setting asked for reads the file and the environment again."""
        with self._lock:
            self._settings = None
            self.derived = {}

    def _read(self) -> "Settings":
        settings = self._settings
        if settings is None:
            # Imported here: importing the package reads no settings.
            from tovarincore._core_conf.settings import read_settings

            with self._lock:
                settings = self._settings
                if settings is None:
                    named_by = _FILE_VARIABLE if os.environ.get(_FILE_VARIABLE) else ""
                    settings = self._settings = read_settings(self.path, named_by)
        return settings

    def __getattr__(self, name: str) -> Any:
        # The name is looked at first: copy, pickle and hasattr ask for names that must not read a file.
        if name in SETTINGS_BY_NAME:
            return self._read().values[name]
        hint = "" if name.startswith("_") else f"; {did_you_mean(name, SETTINGS_BY_NAME)}"
        raise AttributeError(f"{type(self).__name__} has no setting {name!r}{hint}")

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *SETTINGS_BY_NAME]


class LogManager:
    """Gives the package's logger, set up as the section ``[logging]`` asks."""

    def __init__(self, core_conf: CoreConf) -> None:
        self._core_conf = core_conf
        self._levels = LogLevels()

    def get_logger(self) -> logging.Logger:
        """Return the logger ``tovarincore``.

        As a library should, it writes nothing by itself unless ``[logging] handler`` says so, and a level
        that the application has given to this logger stays. The loggers of the libraries underneath are held
        above DEBUG, where they would write private keys and tokens, unless
        ``[logging] let_sdk_debug_logs_show_secrets`` lifts that.

        :raises ConfigError: the configuration cannot be used
        """
        conf = self._core_conf
        return self._levels.apply(
            conf.logging__level, conf.logging__handler, conf.logging__let_sdk_debug_logs_show_secrets
        )


def describe_settings() -> Iterator[Setting]:
    """Yield every setting: its type, default, range and one line of documentation."""
    yield from SETTINGS


core_conf_glbl = CoreConf()
log_manager_glbl = LogManager(core_conf_glbl)
