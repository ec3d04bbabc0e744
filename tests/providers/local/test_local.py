"""The local container provider: each operation one call on the container helper."""

from __future__ import annotations

from collections.abc import Callable
from datetime import datetime
from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.fakes import SMALL, CallLog, Fake, call, make_config, make_node, make_template, recording
from tovarincore.cloud_def import CloudRegion, CloudRegions, InstanceTemplate, InstanceTemplatePayType
from tovarincore.core_def import OPResult

REGION = CloudRegion(name="local", cloud="local")
SUCCESS = OPResult(success=True)
NO_VERSION = "Version must be provided to start a new local container"


@pytest.fixture
def helper(log: CallLog) -> Fake:
    """The container helper."""
    return Fake(log, "helper")


@pytest.fixture
def manager(cloud_node: ModuleType, log: CallLog, helper: Fake, monkeypatch: pytest.MonkeyPatch) -> Any:
    """A manager of the local region over the recording helper."""
    monkeypatch.setattr(cloud_node, "ContainerHelper", recording(log, "ContainerHelper", lambda: helper))
    manager = cloud_node.LocalContainerNodeManager(REGION)
    assert log == [call("ContainerHelper")]
    log.clear()
    return manager


def test_the_constructor_makes_one_helper_after_the_base(manager: Any, helper: Fake) -> None:
    """It stays the manager's."""
    assert manager.container_helper is helper
    assert list(vars(manager))[-1] == "container_helper"
    assert manager.region is REGION
    assert manager.get_node_list() == []


def test_a_helper_that_cannot_be_made_is_the_constructors_error(
    cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Unchanged."""
    error = RuntimeError("no engine")
    monkeypatch.setattr(cloud_node, "ContainerHelper", recording(log, "ContainerHelper", error))
    with pytest.raises(RuntimeError) as caught:
        cloud_node.LocalContainerNodeManager(REGION)
    assert caught.value is error


def test_the_listing_is_empty_or_holds_the_helpers_very_node(
    manager: Any, helper: Fake, log: CallLog
) -> None:
    """Only None means that there is none."""
    assert manager.list_instances() == ([], SUCCESS)
    for node in (make_node(), 0, ""):
        helper.answers["get_existing_node"] = node
        nodes, result = manager.list_instances()
        assert len(nodes) == 1
        assert nodes[0] is node
        assert result == SUCCESS
    assert log == [call("helper.get_existing_node")] * 4


def test_a_launch_hands_the_version_alone_to_the_helper(manager: Any, helper: Fake, log: CallLog) -> None:
    """And returns what comes back, unchanged."""
    helper.answers["run_tvr_container_image"] = "whatever"
    assert (
        manager.launch_node(SMALL, make_config(), "auth", "ada", True, True, "additional", "startup")
        == "whatever"
    )
    assert log == [call("helper.run_tvr_container_image", "1.0")]


@pytest.mark.parametrize(
    "config",
    [
        None,
        make_config(instance_template=None),
        make_config(instance_template=make_template(version="")),
        make_config(instance_template=make_template(version=None)),
    ],
    ids=["no config", "no template", "empty version", "no version"],
)
def test_a_launch_without_a_version_is_an_assertion(manager: Any, log: CallLog, config: Any) -> None:
    """With its message, and without a call on the helper."""
    with pytest.raises(AssertionError) as caught:
        manager.launch_node(SMALL, config)
    assert caught.value.args == (NO_VERSION,)
    assert log == []


def test_a_launch_without_assertions_fails_where_the_version_is_read(
    run_optimised: Callable[[str], str],
) -> None:
    """After the helper's method has been looked up; an empty version is handed on."""
    printed = run_optimised("""
from tests.fakes import CallLog, Fake, make_config, make_template
cloud_node.ContainerHelper = lambda: None
manager = cloud_node.LocalContainerNodeManager(None)
for helper in None, Fake(CallLog(), "helper", run_tvr_container_image="run"):
    manager.container_helper = helper
    for config in None, make_config(instance_template=make_template(version="")):
        try:
            print(manager.launch_node(None, config))
        except AttributeError as error:
            print(error)
""")
    no_method = "'NoneType' object has no attribute 'run_tvr_container_image'\n"
    no_template = "'NoneType' object has no attribute 'instance_template'\n"
    assert printed == no_method + no_method + no_template + "run\n"


@pytest.mark.parametrize(
    ("arguments", "keywords", "reboot"),
    [
        (("i",), {}, False),
        (("i", "yes"), {}, "yes"),
        (("i",), {"reboot": True}, True),
        (("i", False, True), {}, False),
    ],
)
def test_start_node_passes_reboot_by_keyword_and_returns_none(
    manager: Any, helper: Fake, log: CallLog, arguments: Any, keywords: Any, reboot: Any
) -> None:
    """The second argument by position is reboot here; the helper's result is discarded."""
    helper.answers["start_tovarin_container"] = "discarded"
    assert manager.start_node(*arguments, **keywords) is None
    assert log == [call("helper.start_tovarin_container", reboot=reboot)]


def test_stop_node_discards_the_helpers_result_and_terminate_node_returns_it(
    manager: Any, helper: Fake, log: CallLog
) -> None:
    """Neither passes anything on; the asymmetry is deliberate."""
    helper.answers.update(stop_tovarin_container="discarded", delete_tovarin_container="returned")
    assert manager.stop_node("i") is None
    assert manager.terminate_node("i") == "returned"
    assert manager.terminate_node("i", stop_reason="idle") == "returned"
    assert log == [
        call("helper.stop_tovarin_container"),
        call("helper.delete_tovarin_container"),
        call("helper.delete_tovarin_container"),
    ]


@pytest.fixture
def regions(cloud_node: ModuleType, log: CallLog, monkeypatch: pytest.MonkeyPatch) -> Fake:
    """The list of regions, whose local region the tests may take away."""
    regions = Fake(log, "regions", get_local_container_region=REGION)
    monkeypatch.setattr(cloud_node, "CloudRegions", regions)
    return regions


@pytest.mark.parametrize("versions", [[], (), None, ""], ids=repr)
def test_without_images_no_region_is_asked_for(
    manager: Any, helper: Fake, log: CallLog, regions: Fake, versions: Any
) -> None:
    """The list of templates is empty."""
    helper.answers["list_tvr_container_image_versions"] = versions
    assert manager.list_instance_templates() == ([], SUCCESS)
    assert log == [call("helper.list_tvr_container_image_versions")]


@pytest.mark.parametrize("is_public", [True, False])
def test_each_version_becomes_a_template_in_the_helpers_order(
    manager: Any, helper: Fake, log: CallLog, regions: Fake, is_public: bool
) -> None:
    """With one region for all and a separate time for each."""
    helper.answers["list_tvr_container_image_versions"] = ("3", "1", "2")
    before = datetime.now()
    templates, result = manager.list_instance_templates(is_public)
    assert result == SUCCESS
    assert type(templates) is list
    for template, version in zip(templates, "312", strict=True):
        assert type(template) is InstanceTemplate
        assert (template.instance_template_id, template.name, template.version) == (version,) * 3
        assert template.product_pay_type is InstanceTemplatePayType.DEV
        assert template.region is REGION
        assert before <= template.created_date <= datetime.now()
        assert template.created_date.tzinfo is None
    assert log == [
        call("helper.list_tvr_container_image_versions"),
        call("regions.get_local_container_region"),
    ]


def test_templates_are_made_by_keyword_with_a_fresh_time_each(
    cloud_node: ModuleType,
    manager: Any,
    helper: Fake,
    log: CallLog,
    regions: Fake,
    monkeypatch: pytest.MonkeyPatch,
) -> None:
    """Names of the module replaced at run time take effect."""
    monkeypatch.setattr(cloud_node, "datetime", Fake(log, "datetime", now="now"))
    monkeypatch.setattr(cloud_node, "InstanceTemplate", recording(log, "template", "a template"))
    helper.answers["list_tvr_container_image_versions"] = ["1", "2"]
    assert manager.list_instance_templates() == (["a template"] * 2, SUCCESS)
    assert log[2:] == [
        entry
        for version in "12"
        for entry in (
            call("datetime.now"),
            call(
                "template",
                instance_template_id=version,
                name=version,
                product_pay_type=InstanceTemplatePayType.DEV,
                created_date="now",
                region=REGION,
                version=version,
            ),
        )
    ]


def test_no_local_region_is_an_assertion_without_a_message(manager: Any, helper: Fake, regions: Fake) -> None:
    """Before any template is made."""
    helper.answers["list_tvr_container_image_versions"] = ["1"]
    regions.answers["get_local_container_region"] = None
    with pytest.raises(AssertionError) as caught:
        manager.list_instance_templates()
    assert caught.value.args == ()


def test_no_local_region_is_recorded_as_none_without_assertions(run_optimised: Callable[[str], str]) -> None:
    """The templates are made anyway."""
    printed = run_optimised("""
from tests.fakes import CallLog, Fake
log = CallLog()
cloud_node.ContainerHelper = lambda: Fake(log, "helper", list_tvr_container_image_versions=["1"])
cloud_node.CloudRegions = Fake(log, "regions")
print(cloud_node.LocalContainerNodeManager(None).list_instance_templates()[0][0].region)
""")
    assert printed == "None\n"


def test_the_instance_types_are_the_default_one(
    cloud_node: ModuleType, manager: Any, log: CallLog, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Always a list of one."""
    types, result = manager.list_instance_types()
    assert [found.instance_type for found in types] == ["local"]
    assert result == SUCCESS
    monkeypatch.setattr(
        cloud_node,
        "CloudInstances",
        SimpleNamespace(get_default_local_instance_type=recording(log, "default", 5)),
    )
    assert manager.list_instance_types() == ([5], SUCCESS)
    assert log == [call("default")]


OPERATIONS: dict[str, Callable[[Any], Any]] = {
    "get_existing_node": lambda manager: manager.list_instances(),
    "run_tvr_container_image": lambda manager: manager.launch_node(SMALL, make_config()),
    "start_tovarin_container": lambda manager: manager.start_node("i"),
    "stop_tovarin_container": lambda manager: manager.stop_node("i"),
    "delete_tovarin_container": lambda manager: manager.terminate_node("i"),
    "list_tvr_container_image_versions": lambda manager: manager.list_instance_templates(),
}


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("method", OPERATIONS)
def test_errors_of_the_helper_reach_the_caller(
    manager: Any, helper: Fake, log: CallLog, method: str, kind: type[BaseException]
) -> None:
    """Unchanged and unlogged."""
    helper.answers[method] = error = kind("broken")
    with pytest.raises(kind) as caught:
        OPERATIONS[method](manager)
    assert caught.value is error
    assert log.events == []


def test_the_real_local_region_serves_the_templates(manager: Any, helper: Fake) -> None:
    """With the sibling's own list of regions."""
    helper.answers["list_tvr_container_image_versions"] = ["1"]
    assert manager.list_instance_templates()[0][0].region is CloudRegions.get_local_container_region()
