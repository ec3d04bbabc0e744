"""Whose nodes they are: several people may share a namespace."""

import getpass
import hashlib
import re

from tovarincore.cloud_conf import CloudConfManager
from tovarincore.cloud_def import K8sRegion

__all__ = ["OWNER", "owner_label", "owner_of"]

OWNER = "tovarincore/owner"
"""Label and annotation of a pod: its owner, as far as a label can hold the name, and the whole name."""

_LABEL_VALUE = re.compile(r"[A-Za-z0-9]([A-Za-z0-9._-]{0,61}[A-Za-z0-9])?")


def owner_of(region: K8sRegion) -> str | None:
    """Return the user name that is stored for a region, else the name of the system's user.

    :return: ``None`` where neither is known, as in a pod whose user has no name
    :raises ConfigError: the store cannot be used
    """
    stored = CloudConfManager().get_cloud_conf(region)
    if stored is not None and stored.user_name:
        return stored.user_name
    try:
        return getpass.getuser()
    except (KeyError, OSError):
        return None


def owner_label(owner: str) -> str:
    """Return an owner as the value of a label; names that none can hold become a digest."""
    if _LABEL_VALUE.fullmatch(owner):
        return owner
    return "sha256-" + hashlib.sha256(owner.encode("utf-8", "replace")).hexdigest()[:40]
