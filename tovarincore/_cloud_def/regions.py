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
    def key(self) -> str:
        """Kind and name, as people type them and files hold them, for example ``"k8s:lab"``."""
        return f"{self.cloud}:{self.name}"

    @property
    def hash_key(self) -> str:
        """What tells regions apart; regions with the same one share one node manager."""
        return f"{self.cloud}:{self.name}"  # not self.key: this is asked for on each way to a provider

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, CloudRegion):
            return NotImplemented
        return self.hash_key == other.hash_key

    def __hash__(self) -> int:
        return hash(self.hash_key)


@dataclass(eq=False)
class K8sRegion(CloudRegion):
    """A namespace of a Kubernetes cluster.

    Two records of one name are different regions when they lead to different places: what is done in the one
    never reaches the cluster or the namespace of the other.

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

    @property
    def hash_key(self) -> str:
        """Kind, name and everything that leads to the namespace; only the title does not count."""
        # As a tuple's repr, in which no two sets of values look alike.
        return f"{self.cloud}:{(self.name, self.namespace, self.kubeconfig, self.context, self.in_cluster)!r}"
