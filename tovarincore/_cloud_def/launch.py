"""What a launch is asked for."""

from dataclasses import dataclass, field
from typing import Any

from tovarincore._cloud_def.templates import InstanceTemplate

__all__ = ["CloudInstanceConfig"]


def _new_uuid() -> str:
    # Imported here: it takes longer than all the rest of this package, and only launches need it.
    from uuid import uuid4

    return str(uuid4())


@dataclass
class CloudInstanceConfig:
    """Settings of one launch. A field given as ``None`` stays ``None``, which EC2's client may refuse.

    :param disk_size: size of the root volume in GiB
    :param launch_instance_settings: what the node's preparation script is given; anything that JSON can hold.
        It may hold secrets, so the ``repr`` leaves it out.
    :param instance_template: the image to launch from
    :param key_pair_name: EC2 key pair to put on the instance
    :param uuid: the product's own id of the node; a new one unless given
    :param name: name for people
    :param instance_profile_name: IAM instance profile; without one the product's default
    """

    disk_size: int
    launch_instance_settings: Any = field(repr=False)
    instance_template: InstanceTemplate
    key_pair_name: str | None = "tovarin-key"
    uuid: str = field(default_factory=_new_uuid)
    name: str | None = "tovarin-node"
    instance_profile_name: str | None = None

    def get_safe_instance_profile_name(self) -> str:
        """Return the instance profile's name, ``"tovarin-node-profile"`` when none is given."""
        return self.instance_profile_name or "tovarin-node-profile"
