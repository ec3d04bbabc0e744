"""The additional parameters of a launch: what a caller may ask of a pod beyond the instance type."""

from typing import Annotated

import msgspec
from lightkube.models.core_v1 import Toleration

from tovarincore._k8s_console_client.errors import KubernetesError

__all__ = ["LaunchParameters", "parse_launch_parameters"]


class LaunchParameters(msgspec.Struct, frozen=True, forbid_unknown_fields=True):
    """What a launch may ask for, each named as its key.

    :param node_selector: labels that the cluster's machine must have
    :param tolerations: taints that the pod bears, in Kubernetes' own form
    :param env: environment variables of the worker; readable by all who may read pods
    :param service_account: service account of the pod; without one it gets no access to the API
    :param image_pull_secrets: names of Secrets for the registry of the image
    :param priority_class: name of a priority class
    :param run_as_user: number of the user that the worker runs as; 0, root, gives up the restrictions
    """

    node_selector: dict[str, str] = {}
    tolerations: list[Toleration] = []
    env: dict[str, str] = {}
    service_account: str | None = None
    image_pull_secrets: list[str] = []
    priority_class: str | None = None
    run_as_user: Annotated[int, msgspec.Meta(ge=0, lt=1 << 31)] | None = None


_LAUNCH_PARAMETERS = msgspec.json.Decoder(LaunchParameters)


def parse_launch_parameters(text: str | None) -> LaunchParameters:
    """Read the JSON text of ``additional_params``; ``None`` and an empty text ask for nothing.

    :raises KubernetesError: it is no JSON object, or a key or value is not allowed
    """
    if not text:
        return LaunchParameters()
    try:
        return _LAUNCH_PARAMETERS.decode(text)
    except (msgspec.MsgspecError, TypeError, UnicodeError, RecursionError) as error:
        known = ", ".join(LaunchParameters.__struct_fields__)
        raise KubernetesError(
            f"additional_params cannot be used: {error}. It has to be a JSON object; its keys may be {known}."
        ) from error
