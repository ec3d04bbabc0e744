"""Amazon's images as instance templates; the instance types come from configuration."""

from __future__ import annotations

import sys
from datetime import datetime
from typing import Any

import pytest

from tests.fakes import AWS_REGION, Fake, call, refusal
from tests.providers.aws.conftest import Amazon
from tovarincore.cloud_def import InstanceTemplatePayType
from tovarincore.core_def import OPResult

SUCCESS = OPResult(success=True)
BY_NAME = {"Name": "name", "Values": ["TOVARIN_AI_*"]}
PUBLIC = {"Name": "is-public", "Values": ["true"]}


def image(**fields: Any) -> dict[str, Any]:
    """Return one image as EC2 describes it."""
    return {
        "ImageId": "ami-1",
        "Name": "TOVARIN_AI_GPU_PLAN_B_1.2",
        "CreationDate": "2024-03-01T10:20:30.000Z",
        **fields,
    }


def listing(aws: Amazon, *images: dict[str, Any]) -> Any:
    """Return what the manager makes of these images."""
    aws.ec2.answers["describe_images"] = {"Images": list(images)}
    return aws.manager.list_instance_templates()


@pytest.mark.parametrize(
    ("arguments", "filters"),
    [
        ({}, [BY_NAME, PUBLIC]),
        ({"is_public": True}, [BY_NAME, PUBLIC]),
        ({"is_public": "yes"}, [BY_NAME, PUBLIC]),
        ({"is_public": False}, [BY_NAME]),
        ({"is_public": None}, [BY_NAME]),
    ],
)
def test_one_request_asks_for_images_by_name_and_publicity(aws: Amazon, arguments: Any, filters: Any) -> None:
    """Without the second filter private copies are found too."""
    aws.ec2.answers["describe_images"] = {"Images": []}
    assert aws.manager.list_instance_templates(**arguments) == ([], SUCCESS)
    assert aws.log == [call("_get_client"), call("ec2.describe_images", Filters=filters)]


def test_an_image_becomes_a_template_of_the_region(aws: Amazon) -> None:
    """The sibling's factory reads kind, pay type and version out of the name."""
    templates, result = listing(aws, image())
    (template,) = templates
    assert result == SUCCESS
    assert template.instance_template_id == "ami-1"
    assert template.region is AWS_REGION
    assert (template.is_gpu, template.product_pay_type) == (True, InstanceTemplatePayType.PLAN_B)
    assert template.created_date == datetime(2024, 3, 1, 10, 20, 30)


@pytest.mark.parametrize(
    ("text", "date"),
    [
        ("2024-03-01T10:20:30Z", datetime(2024, 3, 1, 10, 20, 30)),
        ("2024-03-01T10:20:30.123Z", datetime(2024, 3, 1, 10, 20, 30, 123000)),
        ("2024-03-01T10:20:30+02:00", datetime(2024, 3, 1, 10, 20, 30)),
        ("2024-03-01T10:20:30", datetime(2024, 3, 1, 10, 20, 30)),
    ],
)
def test_a_creation_date_loses_its_time_zone_and_keeps_its_wall_clock(
    aws: Amazon, text: str, date: datetime
) -> None:
    """So that all dates compare."""
    (template,) = listing(aws, image(CreationDate=text))[0]
    assert template.created_date == date
    assert template.created_date.tzinfo is None


def test_images_that_the_factory_turns_down_are_left_out(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """None means no template; anything else is one, even when it is false. The order of EC2 is kept."""
    made = iter(["first", None, "", "last"])
    factory = Fake(aws.log, "InstanceTemplate", create_from=lambda **fields: next(made))
    monkeypatch.setattr(aws.module, "InstanceTemplate", factory)
    assert listing(aws, *[image(ImageId=i) for i in "abcd"]) == (["first", "", "last"], SUCCESS)
    assert aws.log[2:] == [
        call(
            "InstanceTemplate.create_from",
            image_template_id=i,
            image_template_name="TOVARIN_AI_GPU_PLAN_B_1.2",
            creation_date=datetime(2024, 3, 1, 10, 20, 30),
            region=AWS_REGION,
        )
        for i in "abcd"
    ]


def test_a_response_without_images_is_an_empty_list_and_needs_no_date_parser(
    aws: Amazon, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The parser is imported only when there is something to list."""
    monkeypatch.setitem(sys.modules, "dateutil.parser", None)
    aws.ec2.answers["describe_images"] = {}
    assert aws.manager.list_instance_templates() == ([], SUCCESS)
    with pytest.raises(ImportError, match=r"dateutil\.parser"):
        listing(aws)


@pytest.mark.parametrize("key", ["ImageId", "Name", "CreationDate"])
def test_an_image_without_a_key_is_a_key_error(aws: Amazon, key: str) -> None:
    """No partial list comes back."""
    broken = image()
    del broken[key]
    with pytest.raises(KeyError) as caught:
        listing(aws, image(), broken)
    assert caught.value.args == (key,)


def test_a_date_that_cannot_be_read_is_the_parsers_error(aws: Amazon) -> None:
    """It ends the listing."""
    with pytest.raises(ValueError, match="Unknown string format: yesterday"):
        listing(aws, image(CreationDate="yesterday"))


@pytest.mark.parametrize("error", [refusal("Odd"), TimeoutError(), KeyboardInterrupt()], ids=repr)
def test_errors_of_the_request_reach_the_caller(aws: Amazon, error: BaseException) -> None:
    """Nothing is caught or logged."""
    aws.ec2.answers["describe_images"] = error
    with pytest.raises(type(error)) as caught:
        aws.manager.list_instance_templates()
    assert caught.value is error
    assert aws.log.events == []


def test_instance_types_are_an_empty_list_without_a_client(aws: Amazon) -> None:
    """A fresh one each time; nothing is asked of Amazon."""
    types, result = aws.manager.list_instance_types()
    assert (types, result) == ([], SUCCESS)
    assert aws.manager.list_instance_types()[0] is not types
    assert aws.log == []
