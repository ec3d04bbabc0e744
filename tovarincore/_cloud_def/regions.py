"""Regions that nodes live in."""

from dataclasses import dataclass

__all__ = ["CloudRegion", "K8sRegion"]


@dataclass(eq=False)
class CloudRegion:
    """One region. Two records with the same :attr:`hash_key` stand for the same region and are equal.

    :param name: the provider's name of the region, for Amazon for example ``"eu-central-1"``
    :param cloud: kind of the region: exactly ``"AWS"``, ``"local"`` or ``"k8s"``
    :param title: name for people
    """

    name: str
    cloud: str
    title: str = ""

    @property
    def hash_key(self) -> str:
        """Kind and name; regions with the same key share one node manager."""
        return f"{self.cloud}:{self.name}"

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, CloudRegion):
            return NotImplemented
        return self.hash_key == other.hash_key

    def __hash__(self) -> int:
        return hash(self.hash_key)


@dataclass(eq=False)
class K8sRegion(CloudRegion):
    """A namespace of a Kubernetes cluster.

    :param namespace: the namespace that nodes live in
    :param kubeconfig: path of the kubeconfig file; empty means the usual places
    :param context: context of that file; empty means its current one
    :param in_cluster: use the credentials of the pod that this process runs in
    """

    cloud: str = "k8s"
    namespace: str = "default"
    kubeconfig: str = ""
    context: str = ""
    in_cluster: bool = False
