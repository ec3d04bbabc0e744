"""What a namespace offers: images and sizes, from a ConfigMap that its administrator writes."""

from datetime import datetime, timezone
from typing import Annotated, TypeVar

import msgspec
from lightkube.resources.core_v1 import ConfigMap

from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.cloud_def import CloudInstanceTypeDef, InstanceTemplate, InstanceTemplatePayType, K8sRegion
from tovarincore.core_conf import core_conf_glbl

__all__ = ["CATALOGUE_NAME", "instance_templates", "instance_types"]

T = TypeVar("T")

CATALOGUE_NAME = "tovarin-catalogue"
"""Name of the ConfigMap."""

_Name = Annotated[str, msgspec.Meta(min_length=1)]


class _Image(msgspec.Struct, forbid_unknown_fields=True):
    image: _Name
    version: _Name
    name: str = ""
    pay_type: InstanceTemplatePayType = InstanceTemplatePayType.DEV
    is_gpu: bool = False
    created: datetime = datetime(1970, 1, 1)


class _Size(msgspec.Struct, forbid_unknown_fields=True):
    instance_type: _Name
    cpu_count: Annotated[float, msgspec.Meta(gt=0)]
    memory_mib: Annotated[int, msgspec.Meta(gt=0)]
    gpu_count: Annotated[int, msgspec.Meta(ge=0)] = 0
    gpu_model: str | None = None


# Made under the lock of the import: the library is not safe for threads that decode a type first.
_IMAGES = msgspec.json.Decoder(list[_Image])
_SIZES = msgspec.json.Decoder(list[_Size])

_DEFAULT_SIZES = [
    _Size("k8s.small", 1, 2048),
    _Size("k8s.medium", 2, 4096),
    _Size("k8s.large", 4, 8192),
    _Size("k8s.gpu", 4, 16384, gpu_count=1),
]


def instance_templates(region: K8sRegion, catalogue: ConfigMap | None) -> list[InstanceTemplate]:
    """Return the images of the catalogue; by default the latest version of ``[container] image``.

    :param catalogue: the ConfigMap, ``None`` when the namespace has none
    :raises KubernetesError: the catalogue cannot be used
    """
    default = _Image(image=f"{core_conf_glbl.container__image}:latest", version="latest")
    return [
        InstanceTemplate(
            instance_template_id=entry.image,
            name=entry.name or entry.image,
            product_pay_type=entry.pay_type,
            created_date=_without_zone(entry.created),
            region=region,
            version=entry.version,
            is_gpu=entry.is_gpu,
        )
        for entry in _entries(catalogue, "instance_templates.json", _IMAGES, [default])
    ]


def instance_types(catalogue: ConfigMap | None) -> list[CloudInstanceTypeDef]:
    """Return the sizes of the catalogue; without any, four of common size.

    :param catalogue: the ConfigMap, ``None`` when the namespace has none
    :raises KubernetesError: the catalogue cannot be used
    """
    entries = _entries(catalogue, "instance_types.json", _SIZES, _DEFAULT_SIZES)
    return [CloudInstanceTypeDef(**msgspec.structs.asdict(entry)) for entry in entries]


def _entries(
    catalogue: ConfigMap | None, key: str, decoder: msgspec.json.Decoder[list[T]], default: list[T]
) -> list[T]:
    text = (catalogue.data or {}).get(key) if catalogue else None
    if text is None:
        return default
    try:
        return decoder.decode(text)
    except (msgspec.MsgspecError, UnicodeError, RecursionError) as error:
        raise KubernetesError(f'ConfigMap {CATALOGUE_NAME}: "{key}" cannot be used: {error}') from error


def _without_zone(moment: datetime) -> datetime:
    return moment if moment.tzinfo is None else moment.astimezone(timezone.utc).replace(tzinfo=None)
