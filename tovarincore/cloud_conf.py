"""The credential store: per region the credentials, the user's name and the workers' token.

The store is one TOML file with a table for each region, ``[<cloud>.<region name>]``::

    [AWS.eu-central-1]
    user_name = "ada"
    aws_profile = "work"

    [k8s.lab]
    worker_token = "..."

It is the file that the environment variable ``TOVARIN_CLOUD_CONF`` names, else ``cloud.toml`` in the
user's configuration directory. Only its owner may read it (mode 0600). Writing replaces it as a whole;
comments in it are lost.
"""

from collections.abc import Callable
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from tovarincore._cloud_conf.store_entries import Entries, check_entry, check_name, hide_secrets
from tovarincore._cloud_conf.store_file import read_entries, read_entries_again
from tovarincore._config_files.errors import ConfigError
from tovarincore._config_files.paths import configured_path
from tovarincore._transport.masker import Secret, SecretBytes
from tovarincore.cloud_def import AWSCloudAuth, CloudAuth, CloudRegion, K8sRegion

__all__ = ["CloudConf", "CloudConfManager", "ConfigError"]

_AUTH_FIELDS = ("aws_profile", "aws_access_key_id", "aws_secret_access_key", "aws_session_token")


@dataclass
class CloudConf:
    """What is stored for one region.

    :param cloud_auth: credentials of the provider: an ``AWSCloudAuth`` for Amazon, otherwise ``None``
    :param user_name: the product user in whose name nodes are launched and listed; Amazon regions need one
    :param worker_token: bearer token of the region's workers, instead of the setting ``[worker] token``
    """

    cloud_auth: CloudAuth | None
    user_name: str
    worker_token: str | None = field(default=None, repr=False)

    def __post_init__(self) -> None:
        if self.worker_token is not None:
            self.worker_token = Secret(self.worker_token)


class CloudConfManager:
    """Reads and writes the credential store. Making one reads nothing; a missing file is an empty store.

    Every call looks at the file, so what another process wrote is seen at once. Threads and processes may
    write at the same time: each change is made on top of the others.
    """

    @property
    def path(self) -> Path:
        """The store's file, whether it exists or not."""
        return configured_path("TOVARIN_CLOUD_CONF", "cloud.toml")

    def get_cloud_conf(self, region: CloudRegion) -> CloudConf | None:
        """Return what is stored for a region, or ``None``.

        :raises ConfigError: the file is open to others than its owner, cannot be read or holds something that
            is not allowed; the text shows no value of it
        """
        entry = self._read().get((region.cloud, region.name))
        if entry is None:
            return None
        auth = (
            AWSCloudAuth(**{key: entry[key] for key in _AUTH_FIELDS if key in entry})
            if region.cloud == "AWS"
            else None
        )
        return CloudConf(auth, entry.get("user_name", ""), entry.get("worker_token"))

    def set_cloud_conf(self, region: CloudRegion, conf: CloudConf) -> None:
        """Store a region's configuration in place of what was stored for it.

        :raises ConfigError: the record is not allowed, the store cannot be read, written or locked, or it is
            open to others than its owner; the stored entries are then as they were, or the text says what
            else is true
        """
        check_name(region.name, "configuration of a region")
        entry = check_entry(region.cloud, _entry_of(region, conf), f"configuration of region {region.key}")

        def put(entries: Entries) -> None:
            entries[region.cloud, region.name] = entry

        self._change(put)

    def delete_cloud_conf(self, region: CloudRegion) -> bool:
        """Remove what is stored for a region.

        :return: whether anything was stored
        :raises ConfigError: as for :meth:`set_cloud_conf`
        """
        if (region.cloud, region.name) not in self._read():
            return False
        removed: list[object] = []
        self._change(lambda entries: removed.append(entries.pop((region.cloud, region.name), None)))
        return removed != [None]

    def list_regions(self) -> list[CloudRegion]:
        """Return the regions that something is stored for, ordered by kind and name.

        The store knows kind and name alone; ``CloudRegions.find(region.key)`` gives the full record.

        :raises ConfigError: as for :meth:`get_cloud_conf`
        """
        return [
            K8sRegion(name=name) if cloud == "k8s" else CloudRegion(name=name, cloud=cloud)
            for cloud, name in sorted(self._read())
        ]

    def _read(self) -> Entries:
        return read_entries(self.path)

    def _change(self, change: Callable[[Entries], None]) -> None:
        # Imported here: few programs write.
        import tomli_w

        from tovarincore._config_files.private_file import locked, write_private

        path = self.path
        with locked(path):
            entries = read_entries_again(path)
            change(entries)
            tables: dict[str, dict[str, Any]] = {}
            for (cloud, name), entry in sorted(entries.items()):
                tables.setdefault(cloud, {})[name] = entry
            write_private(path, SecretBytes(tomli_w.dumps(tables).encode("utf-8")))


def _entry_of(region: CloudRegion, conf: CloudConf) -> dict[str, Any]:
    entry: dict[str, Any] = {"user_name": conf.user_name, "worker_token": conf.worker_token}
    if region.cloud == "AWS":
        if not isinstance(conf.cloud_auth, AWSCloudAuth):
            raise ConfigError(
                f"configuration of region {region.key}: cloud_auth is a"
                f" {type(conf.cloud_auth).__name__}; allowed is an AWSCloudAuth"
            )
        entry.update({key: getattr(conf.cloud_auth, key) for key in _AUTH_FIELDS})
    elif isinstance(conf.cloud_auth, AWSCloudAuth):
        raise ConfigError(
            f"configuration of region {region.key}: cloud_auth is an AWSCloudAuth; allowed is None,"
            " since only regions of AWS have Amazon credentials"
        )
    entry = {key: value for key, value in entry.items() if value is not None}
    hide_secrets(entry)
    return entry
