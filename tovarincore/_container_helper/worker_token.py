"""The token that the worker in the container asks for: always one, and one that its clients know."""

from __future__ import annotations

import dataclasses
from dataclasses import dataclass

from tovarincore._container_helper.records import local_region
from tovarincore._transport.masker import Secret
from tovarincore.cloud_conf import CloudConf, CloudConfManager
from tovarincore.core_conf import core_conf_glbl

_TOKEN_BYTES = 32


@dataclass(frozen=True)
class WorkerToken:
    """A token for a new container; `is_new` when no client knows it yet."""

    value: Secret
    is_new: bool

    def keep(self) -> None:
        """Store a new token for the local region, where every client of this user looks first."""
        if self.is_new:
            store, region = CloudConfManager(), local_region()
            stored = store.get_cloud_conf(region) or CloudConf(None, "")
            store.set_cloud_conf(region, dataclasses.replace(stored, worker_token=str.__str__(self.value)))


def choose_token() -> WorkerToken:
    """The token stored for the local region, or else of [worker] token, or else a new one."""
    stored = CloudConfManager().get_cloud_conf(local_region())
    known = (stored and stored.worker_token) or core_conf_glbl.worker__token
    if known:
        return WorkerToken(Secret(known), is_new=False)
    # Imported here: few containers get a new one.
    import secrets

    return WorkerToken(Secret(secrets.token_urlsafe(_TOKEN_BYTES)), is_new=True)
