"""What a node is in a cluster: a pod that runs the worker, and a Secret with what the launch gives to it."""

import json
import re
from dataclasses import asdict, dataclass, field

from lightkube.models.core_v1 import (
    Capabilities,
    Container,
    ContainerPort,
    EnvVar,
    ExecAction,
    Lifecycle,
    LifecycleHandler,
    LocalObjectReference,
    PodSecurityContext,
    PodSpec,
    ResourceRequirements,
    SeccompProfile,
    SecretVolumeSource,
    SecurityContext,
    Volume,
    VolumeMount,
)
from lightkube.models.meta_v1 import ObjectMeta, OwnerReference
from lightkube.resources.core_v1 import Pod, Secret

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore._k8s_console_client.names import check_uuid
from tovarincore._k8s_console_client.owners import OWNER, owner_label
from tovarincore._k8s_console_client.parameters import LaunchParameters
from tovarincore.cloud_def import CloudInstanceConfig, CloudInstanceTypeDef
from tovarincore.core_conf import core_conf_glbl

__all__ = [
    "INSTANCE_TYPE_ANNOTATION",
    "LAUNCH_ANNOTATION",
    "NAME_ANNOTATION",
    "NODE_LABELS",
    "STOP_REASON_ANNOTATION",
    "UUID_LABEL",
    "Launch",
    "build_pod",
    "build_secret",
    "check",
    "secret_of",
]

NODE_LABELS: dict[str, str] = {
    "app.kubernetes.io/managed-by": "tovarincore",
    "app.kubernetes.io/component": "worker",
}
"""By these labels pods are known as nodes."""
UUID_LABEL = "tovarincore/uuid"
NAME_ANNOTATION = "tovarincore/name"
INSTANCE_TYPE_ANNOTATION = "tovarincore/instance-type"
LAUNCH_ANNOTATION = "tovarincore/launch"
STOP_REASON_ANNOTATION = "tovarincore/stop-reason"

_NAME_PREFIX = "tovarin-"
# A hyphen and the launch's id, a uuid.
_LAUNCH_SUFFIX = "-[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}"
_FOLDER = "/etc/tovarin"
_SETTINGS_FILE = "launch-settings.json"
_SCRIPT_FILE = "startup-script"
_VOLUME = "launch"


@dataclass(frozen=True)
class Launch:
    """One launch, checked as far as it can be without the API server.

    :param launch_id: text that no other launch has, by which a pod is known as the work of this one
    :param owner: user who launches, ``None`` when nobody knows
    """

    launch_id: str
    instance_type: CloudInstanceTypeDef
    config: CloudInstanceConfig
    parameters: LaunchParameters
    startup_script: str | None = field(repr=False)
    owner: str | None = None

    @property
    def pod_name(self) -> str:
        """Name of the pod. One uuid gives one name, so the API server refuses to launch a node twice."""
        return _NAME_PREFIX + self.config.uuid.lower()

    @property
    def secret_name(self) -> str:
        """Name of the Secret. No other launch uses it, so whatever bears it is the work of this one."""
        return f"{self.pod_name}-{self.launch_id}"


def secret_of(pod: Pod) -> str | None:
    """Return the name of the Secret that a launch made for a pod, ``None`` when the pod has none."""
    pod_name = (pod.metadata.name if pod.metadata else None) or ""
    volumes = (pod.spec.volumes if pod.spec else None) or []
    # Whoever may make pods can write any name here; only names as launches make them are the launch's.
    launched = re.compile(re.escape(pod_name) + _LAUNCH_SUFFIX)
    names = [volume.secret.secretName or "" for volume in volumes if volume.name == _VOLUME and volume.secret]
    return next(filter(launched.fullmatch, names), None)


def build_pod(launch: Launch) -> Pod:
    """Return the pod of a launch.

    It cannot start before the Secret is there, so the pod is created first and the Secret can name its owner.

    :raises KubernetesError: the launch asks for something that a pod cannot have
    """
    parameters = launch.parameters
    # Workers have no business with the API; a caller who names an account wants them to.
    wants_token = parameters.service_account is not None
    return Pod(
        metadata=ObjectMeta(
            name=launch.pod_name,
            labels=_labels(launch),
            annotations={
                NAME_ANNOTATION: launch.config.name or "",
                INSTANCE_TYPE_ANNOTATION: json.dumps(asdict(launch.instance_type)),
                LAUNCH_ANNOTATION: launch.launch_id,
                **({OWNER: launch.owner} if launch.owner else {}),
            },
        ),
        spec=PodSpec(
            containers=[_container(launch)],
            volumes=[Volume(name=_VOLUME, secret=_readable_by_all(launch.secret_name))],
            nodeSelector=parameters.node_selector or None,
            tolerations=parameters.tolerations or None,
            serviceAccountName=parameters.service_account,
            automountServiceAccountToken=wants_token,
            securityContext=_pod_restrictions(parameters.run_as_user),
            imagePullSecrets=[LocalObjectReference(name) for name in parameters.image_pull_secrets] or None,
            priorityClassName=parameters.priority_class,
            terminationGracePeriodSeconds=core_conf_glbl.kubernetes__termination_grace_seconds,
        ),
    )


def build_secret(launch: Launch, pod_uid: str) -> Secret:
    """Return the Secret of a launch, owned by its pod: the cluster removes it when the pod is gone."""
    data = {_SETTINGS_FILE: _as_json(launch.config.launch_instance_settings)}
    if launch.startup_script:
        data[_SCRIPT_FILE] = launch.startup_script
    return Secret(
        metadata=ObjectMeta(
            name=launch.secret_name,
            labels=_labels(launch),
            ownerReferences=[OwnerReference(apiVersion="v1", kind="Pod", name=launch.pod_name, uid=pod_uid)],
        ),
        stringData=data,
    )


def check(launch: Launch) -> None:
    """Check what only building would find, so that nothing is created for a launch that cannot go on.

    :raises KubernetesError: the uuid is no name, the settings are no JSON, or the instance type has no size
    """
    check_uuid(launch.config.uuid)
    _as_json(launch.config.launch_instance_settings)
    build_pod(launch)


def _labels(launch: Launch) -> dict[str, str]:
    owner = {OWNER: owner_label(launch.owner)} if launch.owner else {}
    return {**NODE_LABELS, UUID_LABEL: launch.config.uuid, **owner}


def _container(launch: Launch) -> Container:
    port = core_conf_glbl.kubernetes__worker_port
    variables = {**launch.parameters.env, "TOVARIN_LAUNCH_SETTINGS": f"{_FOLDER}/{_SETTINGS_FILE}"}
    sizes = _sizes(launch)
    return Container(
        name="worker",
        image=launch.config.instance_template.instance_template_id,
        ports=[ContainerPort(containerPort=port, name="worker")],
        env=[EnvVar(name=name, value=value) for name, value in variables.items()],
        # The same twice: what a node is sold with is neither shared nor exceeded.
        resources=ResourceRequirements(requests=sizes, limits=sizes),
        volumeMounts=[VolumeMount(name=_VOLUME, mountPath=_FOLDER, readOnly=True)],
        lifecycle=_startup(launch.startup_script),
        securityContext=_container_restrictions(launch.parameters.run_as_user),
    )


def _pod_restrictions(user: int | None) -> PodSecurityContext:
    """Return what namespaces of the level "restricted" ask for; root is what the caller asked for."""
    if user == 0:
        return PodSecurityContext(runAsUser=0)
    return PodSecurityContext(
        runAsNonRoot=True, runAsUser=user, seccompProfile=SeccompProfile(type="RuntimeDefault")
    )


def _container_restrictions(user: int | None) -> SecurityContext | None:
    if user == 0:
        return None
    return SecurityContext(allowPrivilegeEscalation=False, capabilities=Capabilities(drop=["ALL"]))


def _readable_by_all(name: str) -> SecretVolumeSource:
    # Images may run as any user, and the start-up script has to be executable for it.
    return SecretVolumeSource(secretName=name, defaultMode=0o555)


def _sizes(launch: Launch) -> dict[str, str]:
    instance_type = launch.instance_type
    if instance_type.cpu_count <= 0 or instance_type.memory_mib <= 0:
        raise KubernetesError(f"Instance type {instance_type.instance_type} has no processors or no memory")
    sizes = {"cpu": f"{round(instance_type.cpu_count * 1000)}m", "memory": f"{instance_type.memory_mib}Mi"}
    if launch.config.disk_size:
        sizes["ephemeral-storage"] = f"{launch.config.disk_size}Gi"
    if instance_type.gpu_count:
        sizes["nvidia.com/gpu"] = str(instance_type.gpu_count)
    return sizes


def _startup(script: str | None) -> Lifecycle | None:
    """Run the script beside the image's entry point; the node is not ready before it has ended well."""
    if not script:
        return None
    path = f"{_FOLDER}/{_SCRIPT_FILE}"
    command = [path] if script.startswith("#!") else ["/bin/sh", path]
    return Lifecycle(postStart=LifecycleHandler(exec=ExecAction(command=command)))


def _as_json(settings: object) -> str:
    try:
        return json.dumps(settings)
    except (TypeError, ValueError, RecursionError) as error:
        # The error's own text may show a part of the settings.
        why = type(error).__name__
        raise KubernetesError(f"launch_instance_settings cannot be written as JSON ({why})") from None
