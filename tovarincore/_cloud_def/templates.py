"""Instance templates: the images that nodes are launched from, and the plans that ask for them."""

import re
from dataclasses import dataclass
from datetime import datetime
from enum import Enum
from typing import Optional

from tovarincore._cloud_def.regions import CloudRegion

__all__ = [
    "CpuPlanA",
    "CpuPlanB",
    "GpuPlanA",
    "GpuPlanB",
    "InstanceTemplate",
    "InstanceTemplatePayType",
]


class InstanceTemplatePayType(Enum):
    """How the use of an image is paid for."""

    DEV = "DEV"
    """Local and Kubernetes images, and images under development."""
    PLAN_A = "PLAN_A"
    PLAN_B = "PLAN_B"


class CpuPlanA:
    """Marks plan A on machines without graphics processors."""


class GpuPlanA:
    """Marks plan A on machines with graphics processors."""


class CpuPlanB:
    """Marks plan B on machines without graphics processors."""


class GpuPlanB:
    """Marks plan B on machines with graphics processors."""


# [0-9] rather than \d, which takes the digits of every script.
_IMAGE_NAME = re.compile(
    r"TOVARIN_AI_(CPU|GPU)_(PLAN_A|PLAN_B|DEV)_([0-9]+(?:\.[0-9]+)*(?:-[0-9A-Za-z]+(?:[.-][0-9A-Za-z]+)*)?)"
)


@dataclass
class InstanceTemplate:
    """One machine image or container image.

    :param instance_template_id: the provider's id of the image
    :param name: name of the image
    :param product_pay_type: how its use is paid for
    :param created_date: when it was made, without time zone (Amazon: UTC, local images: local time)
    :param region: region that offers it
    :param version: version of the product on it
    :param is_gpu: it is made for machines with graphics processors
    """

    instance_template_id: str
    name: str
    product_pay_type: InstanceTemplatePayType
    created_date: datetime
    region: CloudRegion
    version: str
    is_gpu: bool = False

    @classmethod
    def create_from(
        cls, *, image_template_id: str, image_template_name: str, creation_date: datetime, region: CloudRegion
    ) -> Optional["InstanceTemplate"]:
        """Read kind, pay type and version out of an image's name.

        The names of the product's images follow the pattern ``TOVARIN_AI_<kind>_<pay type>_<version>`` to the
        letter: the kind is ``CPU`` or ``GPU``, the pay type ``PLAN_A``, ``PLAN_B`` or ``DEV``, the version
        numbers joined by dots, with a suffix of letters, digits, dots and hyphens after a hyphen where one is
        wanted: ``TOVARIN_AI_GPU_PLAN_A_1.2.3``, ``TOVARIN_AI_CPU_DEV_2.0-rc.1``. Anybody can publish an image
        whose name begins alike, so a name that does not follow the pattern is no error.

        :param image_template_id: the provider's id of the image
        :param image_template_name: name of the image
        :param creation_date: when it was made, without time zone
        :param region: region that offers it
        :return: the template, or ``None`` for a name, or anything else, that does not follow the pattern
        """
        name: object = image_template_name
        match = _IMAGE_NAME.fullmatch(name) if isinstance(name, str) else None
        if match is None:
            return None
        kind, pay_type, version = match.groups()
        return cls(
            instance_template_id=image_template_id,
            name=image_template_name,
            product_pay_type=InstanceTemplatePayType(pay_type),
            created_date=creation_date,
            region=region,
            version=version,
            is_gpu=kind == "GPU",
        )
