"""Commands as a person would type them, for the remedies of failures."""

import os
import shlex
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from tovarincore.cloud_def import CloudRegion, K8sRegion

__all__ = ["command_for", "missing_kubeconfig", "short_name"]


def short_name(region: "CloudRegion | None") -> str:
    """Return what a person types for a region: its name, or kind and name where the name means another.

    :param region: ``None`` where any region is meant; then it is the word that help texts use
    """
    if region is None:
        return "REGION"
    from tovarincore.cloud_def import CloudRegions

    return region.name if CloudRegions.find(region.name) == region else region.hash_key


def command_for(region: "CloudRegion | None", name: str, *words: str) -> str:
    """Return a command line: ``tovarin-nodes NAME REGION WORDS``.

    :param region: ``None`` where any region is meant
    :param name: the sub-command, for groups with the second one
    :param words: what follows the region
    """
    return shlex.join(["tovarin-nodes", *name.split(), short_name(region), *words])


def missing_kubeconfig(region: "K8sRegion") -> Path | None:
    """Return the kubeconfig file that a region would be reached by, if it is not there."""
    if region.in_cluster:
        return None
    named = [name for name in os.environ.get("KUBECONFIG", "").split(os.pathsep) if name]
    paths = [region.kubeconfig] if region.kubeconfig else named or ["~/.kube/config"]
    files = [Path(path).expanduser() for path in paths]
    return None if any(file.exists() for file in files) else files[0]
