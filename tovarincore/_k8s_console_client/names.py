"""Checks of names from outside.

They become parts of request paths, where a wrong one could lead to other objects.
"""

import re

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._transport import gate

__all__ = ["check_namespace", "check_uuid", "is_object_name"]

# RFC 1123 names with dots, as Kubernetes names its objects.
_OBJECT_NAME = re.compile(r"[a-z0-9]([-a-z0-9]*[a-z0-9])?(\.[a-z0-9]([-a-z0-9]*[a-z0-9])?)*")


def is_object_name(text: object) -> bool:
    """Return whether an object of Kubernetes can have this name."""
    return isinstance(text, str) and len(text) <= 253 and _OBJECT_NAME.fullmatch(text) is not None


def check_namespace(name: str, region_name: str) -> None:
    """See that a region's namespace can be one.

    :raises KubernetesError: it cannot
    """
    try:
        gate.check_namespace(name)
    except gate.RefusedName as error:
        raise KubernetesError(f"Region {region_name}: {error}") from error


def check_uuid(uuid: str) -> None:
    """See that a node's uuid can be a part of a pod's name and the value of a label.

    :raises KubernetesError: it cannot
    """
    try:
        gate.check_uuid(uuid)
    except gate.RefusedName as error:
        raise KubernetesError(f"The node cannot be launched: {error}") from error
    if not is_object_name(uuid.lower()):
        raise KubernetesError(
            f"The uuid {uuid!r} cannot be part of a pod's name: there are no underscores in it, and a letter"
            " or a digit stands at both ends of each part between dots."
        )
