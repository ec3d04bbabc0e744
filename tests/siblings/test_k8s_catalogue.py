"""The catalogue of a namespace."""

from __future__ import annotations

from datetime import datetime

import pytest
from lightkube.models.meta_v1 import ObjectMeta
from lightkube.resources.core_v1 import ConfigMap

from tovarincore._k8s_console_client.catalogue import instance_templates, instance_types
from tovarincore._k8s_console_client.errors import KubernetesError
from tovarincore.cloud_def import CloudInstanceTypeDef, InstanceTemplate, InstanceTemplatePayType, K8sRegion

REGION = K8sRegion(name="r")


def catalogue(**data: str) -> ConfigMap:
    """A ConfigMap with these keys."""
    content = {f"{key}.json": text for key, text in data.items()}
    return ConfigMap(metadata=ObjectMeta(name="tovarin-catalogue"), data=content)


def test_an_image_is_described_by_image_and_version_alone() -> None:
    """Everything else has a default, the name being the image."""
    templates = instance_templates(REGION, catalogue(instance_templates='[{"image": "i:1", "version": "1"}]'))
    unknown_date = datetime(1970, 1, 1)
    assert templates == [
        InstanceTemplate("i:1", "i:1", InstanceTemplatePayType.DEV, unknown_date, REGION, "1", is_gpu=False)
    ]


def test_all_that_an_image_may_say_is_taken_over() -> None:
    """Name, pay type, kind and date are those of the entry; the date is kept as UTC without a zone."""
    entry = (
        '{"image": "i:1", "version": "1", "name": "n", "pay_type": "PLAN_B", "is_gpu": true,'
        ' "created": "2026-02-03T04:05:06+02:00"}'
    )
    created = datetime(2026, 2, 3, 2, 5, 6)
    assert instance_templates(REGION, catalogue(instance_templates=f"[{entry}]")) == [
        InstanceTemplate("i:1", "n", InstanceTemplatePayType.PLAN_B, created, REGION, "1", is_gpu=True)
    ]


def test_an_empty_list_offers_nothing() -> None:
    """A list without entries is an answer: the defaults do not come back."""
    offered = catalogue(instance_templates="[]", instance_types="[]")
    assert (instance_templates(REGION, offered), instance_types(offered)) == ([], [])


def test_a_missing_key_keeps_its_defaults() -> None:
    """A catalogue of sizes alone leaves the default image, and the other way round."""
    sizes = catalogue(instance_types='[{"instance_type": "t", "cpu_count": 0.5, "memory_mib": 1}]')
    assert instance_types(sizes) == [CloudInstanceTypeDef("t", 0.5, 1)]
    assert [template.version for template in instance_templates(REGION, sizes)] == ["latest"]
    assert len(instance_types(catalogue(instance_templates="[]"))) == 4


@pytest.mark.parametrize(
    ("text", "complaint"),
    [
        ("", "truncated"),
        ("{}", "Expected `array`"),
        ('[{"version": "1"}]', "missing required field `image` - at `$[0]`"),
        ('[{"image": "", "version": "1"}]', "length >= 1 - at `$[0].image`"),
        ('[{"image": "i", "version": 1}]', "Expected `str`, got `int` - at `$[0].version`"),
        ('[{"image": "i", "version": "1", "pay_type": "FREE"}]', "'FREE' - at `$[0].pay_type`"),
        ('[{"image": "i", "version": "1", "gpu": true}]', "unknown field `gpu`"),
    ],
)
def test_an_unusable_entry_is_named(text: str, complaint: str) -> None:
    """The message tells ConfigMap, key and place."""
    with pytest.raises(KubernetesError) as caught:
        instance_templates(REGION, catalogue(instance_templates=text))
    assert 'ConfigMap tovarin-catalogue: "instance_templates.json" cannot be used' in str(caught.value)
    assert complaint in str(caught.value)


@pytest.mark.parametrize("field", ['"cpu_count": 0', '"memory_mib": 0', '"gpu_count": -1'])
def test_a_size_that_cannot_be_is_refused(field: str) -> None:
    """A node has some of each processor and memory, and no negative number of anything."""
    fields = {"cpu_count": '"cpu_count": 1', "memory_mib": '"memory_mib": 1'}
    fields[field.split('"')[1]] = field
    entry = ", ".join(['"instance_type": "t"', *fields.values()])
    with pytest.raises(KubernetesError, match=r"instance_types\.json"):
        instance_types(catalogue(instance_types=f"[{{{entry}}}]"))
