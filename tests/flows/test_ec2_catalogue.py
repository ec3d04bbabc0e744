"""Images, plans and key pairs through the facade on an emulated EC2."""

from __future__ import annotations

import logging
from datetime import datetime, timedelta, timezone

import pytest
from botocore.exceptions import ClientError

from stage.ec2 import IMAGE_NAME, USER_NAME, Ec2World, one_record
from stage.fault import Answer, document, ec2_error, unauthorized
from tovarincore.cloud_def import (
    CloudRegion,
    CpuPlanA,
    CpuPlanB,
    GpuPlanA,
    GpuPlanB,
    InstanceTemplate,
    InstanceTemplatePayType,
)
from tovarincore.core_def import OPResultErrorCode

MARKER = "MARKER-of-a-private-key"


def templates(world: Ec2World, is_public: bool) -> list[InstanceTemplate]:
    """The region's templates, public ones or all."""
    found, result = world.manager.list_current_instance_templates(
        world.region, world.auth, is_public=is_public
    )
    assert result.success
    return list(found)


def key_names(world: Ec2World) -> list[str]:
    """The key pairs that EC2 holds."""
    return sorted(pair["KeyName"] for pair in world.raw.describe_key_pairs()["KeyPairs"])


def test_public_templates_leave_private_images_out(ec2: Ec2World) -> None:
    """A private image is listed only when private ones are asked for; public is the default."""
    ec2.endpoint.register_image("TOVARIN_AI_CPU_PLAN_A_2.0.0-rc1", public=False)
    assert [template.name for template in templates(ec2, is_public=True)] == [IMAGE_NAME]
    assert sorted(template.name for template in templates(ec2, is_public=False)) == [
        IMAGE_NAME,
        "TOVARIN_AI_CPU_PLAN_A_2.0.0-rc1",
    ]
    default, _ = ec2.manager.list_current_instance_templates(ec2.region)
    assert [template.name for template in default] == [IMAGE_NAME]


def test_a_template_is_read_out_of_its_image(ec2: Ec2World) -> None:
    """Id, kind, pay type, version and a creation date without time zone."""
    image_id = ec2.endpoint.register_image("TOVARIN_AI_GPU_PLAN_B_2.3.4")
    template = next(
        found for found in templates(ec2, is_public=True) if found.instance_template_id == image_id
    )
    assert (template.is_gpu, template.product_pay_type) == (True, InstanceTemplatePayType.PLAN_B)
    assert template.version == "2.3.4"
    assert template.region == ec2.region
    assert isinstance(template.created_date, datetime)
    assert template.created_date.tzinfo is None
    age = datetime.now(timezone.utc).replace(tzinfo=None) - template.created_date
    assert abs(age) < timedelta(minutes=5)


@pytest.mark.parametrize(
    "name",
    ["TOVARIN_AI_", "TOVARIN_AI_TPU_PLAN_A_1.0.0", "TOVARIN_AI_CPU_PLAN_C_1.0.0", "TOVARIN_AI_CPU_PLAN_A_"],
)
def test_an_image_with_another_name_is_left_out(ec2: Ec2World, name: str) -> None:
    """A name that EC2's filter lets through but that does not follow the pattern is no template."""
    ec2.endpoint.register_image(name)
    assert [template.name for template in templates(ec2, is_public=False)] == [IMAGE_NAME]


def test_images_of_other_products_are_not_asked_for(ec2: Ec2World) -> None:
    """The account's other images do not show up."""
    ec2.endpoint.register_image("SOMETHING_ELSE_CPU_PLAN_A_1.0.0")
    assert [template.name for template in templates(ec2, is_public=False)] == [IMAGE_NAME]


@pytest.mark.parametrize(
    ("plan", "image_name"),
    [
        pytest.param(CpuPlanA(), "TOVARIN_AI_CPU_PLAN_A_1.0.0", id="CPU plan A"),
        pytest.param(GpuPlanA(), "TOVARIN_AI_GPU_PLAN_A_1.0.0", id="GPU plan A"),
        pytest.param(CpuPlanB(), "TOVARIN_AI_CPU_PLAN_B_1.0.0", id="CPU plan B"),
        pytest.param(GpuPlanB(), "TOVARIN_AI_GPU_PLAN_B_1.0.0", id="GPU plan B"),
    ],
)
def test_each_plan_has_its_default_template(ec2: Ec2World, plan: object, image_name: str) -> None:
    """Kind and pay type of the plan pick the image."""
    for kind in ("GPU", "CPU"):
        for pay_type in ("DEV", "PLAN_B", "PLAN_A"):
            name = f"TOVARIN_AI_{kind}_{pay_type}_1.0.0"
            if name != IMAGE_NAME:
                ec2.endpoint.register_image(name)
    template = ec2.manager.get_default_instance_template(ec2.region, ec2.auth, plan)
    assert template is not None
    assert template.name == image_name


def test_the_first_matching_template_wins(ec2: Ec2World) -> None:
    """EC2's order decides between images of the same kind and pay type, not their version."""
    ec2.endpoint.register_image("TOVARIN_AI_CPU_PLAN_A_9.0.0")
    listed = [template.instance_template_id for template in templates(ec2, is_public=True)]
    assert len(listed) == 2
    default = ec2.manager.get_default_instance_template(ec2.region, ec2.auth, CpuPlanA())
    assert default is not None
    assert default.instance_template_id == listed[0]


def test_a_private_image_is_no_default(ec2: Ec2World) -> None:
    """The default template is chosen among public images only."""
    ec2.endpoint.register_image("TOVARIN_AI_GPU_PLAN_A_1.0.0", public=False)
    assert ec2.manager.get_default_instance_template(ec2.region, ec2.auth, GpuPlanA()) is None


def test_no_plan_has_no_default_template(ec2: Ec2World) -> None:
    """None as the plan picks nothing, although there are images."""
    assert ec2.manager.get_default_instance_template(ec2.region, ec2.auth, None) is None


def test_an_answer_without_images_is_an_empty_catalogue(ec2: Ec2World) -> None:
    """No image set in EC2's answer: no templates, and success."""
    with ec2.faults() as faults:
        faults.script("DescribeImages", document("DescribeImages", ""))
        assert templates(ec2, is_public=True) == []
        assert ec2.manager.get_default_instance_template(ec2.region, ec2.auth, CpuPlanA()) is None


@pytest.mark.parametrize(
    ("date", "error"),
    [
        pytest.param("<creationDate>someday</creationDate>", ValueError("someday"), id="no date"),
        pytest.param("", KeyError("CreationDate"), id="missing"),
    ],
)
def test_an_odd_creation_date_stops_the_listing(ec2: Ec2World, date: str, error: Exception) -> None:
    """The date parser's error, or the lookup's, reaches the caller; no partial list."""
    item = f"<imageId>ami-1</imageId><name>TOVARIN_AI_CPU_PLAN_A_1.0.0</name>{date}"
    with ec2.faults() as faults:
        faults.script(
            "DescribeImages", document("DescribeImages", f"<imagesSet><item>{item}</item></imagesSet>")
        )
        with pytest.raises(type(error), match=str(error.args[0])):
            templates(ec2, is_public=True)


def test_the_public_filter_is_sent_only_for_public_images(ec2: Ec2World) -> None:
    """Both listings ask for the name pattern; only one asks for public images."""
    with ec2.faults() as faults:
        templates(ec2, is_public=True)
        templates(ec2, is_public=False)
    sent = [
        {name: value for name, value in request.parameters.items() if name.startswith("Filter")}
        for request in faults.requests
    ]
    pattern = {"Filter.1.Name": "name", "Filter.1.Value.1": "TOVARIN_AI_*"}
    assert sent == [{**pattern, "Filter.2.Name": "is-public", "Filter.2.Value.1": "true"}, pattern]


def test_instance_types_cost_no_request(ec2: Ec2World) -> None:
    """The provider itself offers none: they come from the data file."""
    with ec2.faults() as faults:
        types, result = ec2.manager.list_instance_types(ec2.region)
    assert (types, result.success, faults.requests) == ([], True, [])


@pytest.mark.parametrize(
    ("user_name", "owner"),
    [
        pytest.param(USER_NAME, USER_NAME, id="a user"),
        pytest.param(None, "Unknown", id="no user"),
    ],
)
def test_a_key_pair_is_made_and_tagged(ec2: Ec2World, user_name: str | None, owner: str) -> None:
    """The private key comes back once; EC2 holds the pair with its owner's tag."""
    private_key, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", user_name)
    assert result.success
    assert private_key is not None
    assert "PRIVATE KEY" in private_key
    (pair,) = ec2.raw.describe_key_pairs(KeyNames=["flow-key"])["KeyPairs"]
    assert pair["Tags"] == [{"Key": "tovarin_username", "Value": owner}]


def test_a_second_key_pair_of_the_same_name_is_refused(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """EC2's message comes back without an error code; one error line with traceback is logged."""
    ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    with caplog.at_level(logging.ERROR, logger="tovarincore"):
        private_key, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    assert private_key is None
    assert (result.success, result.error, result.error_code) == (False, True, None)
    assert result.msg is not None
    assert "flow-key" in result.msg
    assert "already exists" in result.msg
    record = one_record(caplog.records, logging.ERROR)
    assert record.exc_info is not None
    assert "InvalidKeyPair.Duplicate" in str(record.exc_info[1])


def test_a_key_pair_is_deleted(ec2: Ec2World) -> None:
    """The pair is gone, and a new pair of that name can be made."""
    before = key_names(ec2)
    ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    ec2.manager.delete_key_pair(ec2.region, ec2.auth, "flow-key")
    assert key_names(ec2) == before
    _, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    assert result.success


def test_deleting_an_unknown_key_pair_is_no_error(ec2: Ec2World) -> None:
    """EC2 accepts the deletion of a name it does not know, and deletes nothing."""
    before = key_names(ec2)
    ec2.manager.delete_key_pair(ec2.region, ec2.auth, "no-such-key")
    assert key_names(ec2) == before


def test_a_refused_deletion_reaches_the_caller(ec2: Ec2World) -> None:
    """Deleting reports nothing: EC2's refusal is raised."""
    with ec2.faults() as faults:
        faults.script("DeleteKeyPair", unauthorized())
        with pytest.raises(ClientError, match="UnauthorizedOperation"):
            ec2.manager.delete_key_pair(ec2.region, ec2.auth, "tovarin-key")
    assert key_names(ec2) == ["tovarin-key"]


def test_a_key_pair_refused_for_want_of_rights_has_its_own_code(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """The refusal is told apart by its code, keeps EC2's message and is logged once with traceback."""
    with ec2.faults() as faults, caplog.at_level(logging.ERROR, logger="tovarincore"):
        faults.script("CreateKeyPair", unauthorized("RW5jb2RlZA"))
        private_key, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", None)
    assert private_key is None
    assert (result.success, result.error) == (False, True)
    assert result.error_code is OPResultErrorCode.UNAUTHORIZED_OPERATION
    assert result.msg is not None
    assert result.msg.endswith("Encoded authorization failure message: RW5jb2RlZA")
    record = one_record(caplog.records, logging.ERROR)
    assert record.getMessage() == (
        "Exception occurred when tyring to create key_pair_name: flow-key username: Unknown"
    )
    assert record.exc_info is not None
    assert record.exc_info[0] is ClientError


def test_a_refusal_without_a_message_is_a_lookup_error(ec2: Ec2World) -> None:
    """An error answer that lacks its message is not made up for."""
    answer = ec2_error("UnauthorizedOperation", "")
    without = answer.body.replace(b"<Message></Message>", b"")
    with ec2.faults() as faults:
        faults.script("CreateKeyPair", Answer(answer.status, without))
        with pytest.raises(KeyError, match="Message"):
            ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)


def key_pair_with_marker() -> Answer:
    """EC2's description of a new key pair whose private key is the marker."""
    pair = (
        f"<keyName>flow-key</keyName><keyFingerprint>00</keyFingerprint><keyMaterial>{MARKER}</keyMaterial>"
    )
    return document("CreateKeyPair", pair)


def test_the_private_key_is_shown_to_the_caller_alone(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """With logging wide open, neither a log line nor the text of anything that stays shows the key."""
    with (
        ec2.faults() as faults,
        caplog.at_level(logging.DEBUG),
        caplog.at_level(logging.DEBUG, "tovarincore"),
    ):
        faults.script("CreateKeyPair", key_pair_with_marker())
        private_key, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    assert private_key == MARKER
    assert MARKER not in repr(result)
    assert MARKER not in repr(vars(ec2.manager))
    assert MARKER not in repr(vars(ec2.manager.get_node_manager(ec2.region)))
    assert MARKER not in caplog.text


def test_only_the_setting_with_the_warning_lets_the_sdk_log_the_key(
    ec2: Ec2World, caplog: pytest.LogCaptureFixture
) -> None:
    """The SDK would log the answer with the key in it: the setting alone lifts what holds it."""
    ec2.set_setting("LOGGING__LET_SDK_DEBUG_LOGS_SHOW_SECRETS", "true")
    with ec2.faults() as faults, caplog.at_level(logging.DEBUG):
        faults.script("CreateKeyPair", key_pair_with_marker())
        ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    shown = {record.name.split(".")[0] for record in caplog.records if MARKER in record.getMessage()}
    assert shown == {"botocore"}


def test_a_refused_key_pair_shows_no_secret_either(ec2: Ec2World, caplog: pytest.LogCaptureFixture) -> None:
    """Neither the refusal's log line with its traceback nor the result shows the access key's secret."""
    with ec2.faults() as faults, caplog.at_level(logging.DEBUG):
        faults.script("CreateKeyPair", unauthorized())
        _, result = ec2.manager.create_key_pair(ec2.region, ec2.auth, "flow-key", USER_NAME)
    secret = ec2.auth.aws_secret_access_key
    assert secret
    assert secret not in caplog.text
    assert secret not in repr(result) + repr(ec2.auth)


@pytest.mark.parametrize("operation", ["create_key_pair", "delete_key_pair"])
def test_only_amazon_regions_have_key_pairs(ec2: Ec2World, operation: str) -> None:
    """The local container region refuses by an assertion that says so."""
    region = CloudRegion(name="local", cloud="local")
    arguments = (region, None, "flow-key", USER_NAME)[: 4 if operation == "create_key_pair" else 3]
    with pytest.raises(AssertionError, match="key pair is only supported for Cloud regions"):
        getattr(ec2.manager, operation)(*arguments)
