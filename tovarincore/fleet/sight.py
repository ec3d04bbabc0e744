"""Looking at what a region has, before anything is asked for a second time."""

import threading
import time

from tovarincore.cloud_def import CloudNode, CloudRegion
from tovarincore.cloud_node import CloudManager

__all__ = ["CannotTell", "Sight"]

_WHOLE_LISTING = 1000
"""EC2 lists so many instances at a time, and the provider asks for the first of these lists alone."""


class CannotTell(Exception):
    """The region cannot be listed, or not all of it: whether a node is there cannot be told."""


class Sight:
    """Listings of one region, shared by all threads that want to look.

    :param manager: the facade
    :param region: the region
    """

    def __init__(self, manager: CloudManager, region: CloudRegion) -> None:
        self._manager = manager
        self._region = region
        self._lock = threading.Lock()
        self._listed = float("-inf")
        self._nodes: dict[str, CloudNode] = {}
        self._whole = True

    def find(self, uuid: str, since: float) -> CloudNode | None:
        """Return the node with a uuid, or ``None`` when there surely is none in the listing.

        :param uuid: the uuid that the node's launch asked for
        :param since: the listing must have begun after this moment of the monotonic clock
        :raises CannotTell: there is no such listing
        """
        with self._lock:
            if self._listed < since:
                self._look()
            node = self._nodes.get(uuid)
            if node is None and not self._whole:
                raise CannotTell(
                    f"the region has {_WHOLE_LISTING} nodes or more, of which not all can be listed"
                )
            return node

    def _look(self) -> None:
        begun = time.monotonic()
        try:
            nodes, result = self._manager.list_instances(self._region)
        except AssertionError as error:
            raise CannotTell("an instance of a type that is not known stops the listing") from error
        except Exception as error:
            raise CannotTell(str(error) or type(error).__name__) from error
        if nodes is None:
            raise CannotTell(result.msg or "the provider gives no reason")
        self._nodes = {node.uuid: node for node in nodes}
        self._whole = self._region.cloud != "AWS" or len(nodes) < _WHOLE_LISTING
        self._listed = begun
