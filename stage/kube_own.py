"""The user's cluster, reached by the user's kubeconfig; it is neither stopped nor slowed down."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import yaml
from lightkube import KubeConfig


class KubeOwn:
    """Context manager: the cluster of a kubeconfig's current context.

    :param kubeconfig: path; its user has to be allowed to make namespaces, accounts and rights
    """

    def __init__(self, kubeconfig: Path) -> None:
        content: dict[str, Any] = yaml.safe_load(kubeconfig.read_text(encoding="utf-8"))
        contexts = {entry["name"]: entry["context"] for entry in content["contexts"]}
        clusters = {entry["name"]: entry["cluster"] for entry in content["clusters"]}
        self.cluster: dict[str, Any] = dict(clusters[contexts[content["current-context"]]["cluster"]])
        """How the cluster is reached, in the kubeconfig's own fields."""
        authority = self.cluster.get("certificate-authority")
        if authority:
            self.cluster["certificate-authority"] = str(kubeconfig.parent / authority)
        self.admin = KubeConfig.from_file(kubeconfig)

    @property
    def url(self) -> str:
        """Address of the server."""
        return str(self.cluster["server"])

    def __enter__(self) -> KubeOwn:
        return self

    def __exit__(self, *exception: object) -> None:
        """Nothing was started."""
