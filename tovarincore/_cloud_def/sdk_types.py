"""The instance types that the installed Amazon SDK names, added to the list when a search reaches its end."""

import threading
from typing import Any

from tovarincore._cloud_def.instance_types import CloudInstanceTypeDef

__all__ = ["add_types_of_sdk"]

_lock = threading.RLock()


def add_types_of_sdk(types: list[CloudInstanceTypeDef]) -> None:
    """Let a list go on with the types of the SDK's own description of EC2 that it does not hold yet.

    Their sizes are not known. Reading the description takes a tenth of a second, so it waits until somebody
    looks at the last element of the list: a search that finds what it seeks never does.

    :param types: a list that nobody else changes
    """
    types.append(_Rest(types))


class _Rest(CloudInstanceTypeDef):
    """Stands for all further types; it becomes the first of them when one of its fields is read."""

    def __init__(self, types: list[CloudInstanceTypeDef]) -> None:
        self.__dict__["_types"] = types

    def __getattr__(self, name: str) -> Any:
        # Fields without a default are missing until then; other names are really missing.
        if name not in ("instance_type", "cpu_count", "memory_mib"):
            raise AttributeError(name)
        self._unfold()
        return getattr(self, name)

    def __reduce_ex__(self, protocol: Any) -> Any:
        self._unfold()
        return object.__reduce_ex__(self, protocol)

    def _unfold(self) -> None:
        with _lock:
            types = self.__dict__.pop("_types", None)
            if types is None:
                return
            known = {other.instance_type for other in types if other is not self}
            names = [name for name in _names_of_sdk() if name not in known]
            if not names:
                # Nothing to become: the search ends here.
                types.pop()
            vars(self).update(instance_type=names[0] if names else "", cpu_count=0, memory_mib=0)
            self.__class__ = CloudInstanceTypeDef  # type: ignore[assignment]
            types.extend(CloudInstanceTypeDef(name, 0, 0) for name in names[1:])


def _names_of_sdk() -> list[str]:
    try:
        from botocore.loaders import create_loader

        model = create_loader().load_service_model("ec2", "service-2")
        return [str(name) for name in model["shapes"]["InstanceType"]["enum"]]
    except Exception:
        # Without the SDK, or with one that describes EC2 in another way, the list is what the files say.
        return []
