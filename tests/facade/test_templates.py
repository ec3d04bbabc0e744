"""The facade's catalogue: templates and types of a region, and the default template of a plan."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import pytest

from tests.fakes import CallLog, Fake, call, make_template, recording
from tovarincore.cloud_def import CpuPlanA, CpuPlanB, GpuPlanA, GpuPlanB, InstanceTemplatePayType
from tovarincore.core_def import OPResult

A, B, DEV = InstanceTemplatePayType.PLAN_A, InstanceTemplatePayType.PLAN_B, InstanceTemplatePayType.DEV
GOOD = OPResult(success=True)
PLANS = [(CpuPlanA, False, A), (GpuPlanA, True, A), (CpuPlanB, False, B), (GpuPlanB, True, B)]
EVERY_TEMPLATE = [
    make_template(
        instance_template_id=f"{number} {pay_type.name} {is_gpu}", product_pay_type=pay_type, is_gpu=is_gpu
    )
    for number in (1, 2)
    for pay_type in (DEV, B, A)
    for is_gpu in (True, False)
]


@pytest.mark.parametrize(
    ("arguments", "keywords", "auth", "is_public"),
    [
        ((), {}, None, True),
        (("auth",), {}, "auth", True),
        (("auth", False), {}, "auth", False),
        ((), {"is_public": 0}, None, 0),
    ],
)
def test_templates_are_asked_of_the_provider(
    facade: Any, provider: Fake, log: CallLog, arguments: Any, keywords: Any, auth: Any, is_public: Any
) -> None:
    """Public ones unless told otherwise; the provider's result comes back."""
    provider.answers["list_instance_templates"] = answer = object()
    assert facade.list_current_instance_templates("r", *arguments, **keywords) is answer
    assert log == [
        call("_get_node_manager", "r", auth=auth),
        call("provider.list_instance_templates", is_public=is_public),
    ]


def test_types_are_asked_of_the_provider(facade: Any, provider: Fake, log: CallLog) -> None:
    """No credentials go along."""
    provider.answers["list_instance_types"] = answer = object()
    assert facade.list_instance_types("r") is answer
    assert log == [call("_get_node_manager", "r"), call("provider.list_instance_types")]


@pytest.mark.parametrize(
    ("plan", "is_gpu", "pay_type"), PLANS, ids=lambda value: getattr(value, "__name__", None)
)
def test_the_default_of_a_plan_is_the_first_template_of_its_kind(
    facade: Any, provider: Fake, plan: Any, is_gpu: bool, pay_type: Any
) -> None:
    """Pay type and graphics processors must both match; of several the provider's first wins."""
    provider.answers["list_instance_templates"] = (EVERY_TEMPLATE, OPResult(error=True))
    found = facade.get_default_instance_template("r", "auth", plan())
    assert found.instance_template_id == f"1 {pay_type.name} {is_gpu}"
    assert found in EVERY_TEMPLATE


def test_a_template_that_matches_in_one_thing_only_is_skipped(facade: Any, provider: Fake) -> None:
    """Another pay type, or no graphics processors."""
    near = [make_template(is_gpu=True, product_pay_type=B), make_template(is_gpu=False, product_pay_type=A)]
    provider.answers["list_instance_templates"] = (near, GOOD)
    assert facade.get_default_instance_template("r", "auth", GpuPlanA()) is None


def test_only_public_templates_are_considered(facade: Any, log: CallLog) -> None:
    """The facade's own listing is asked, by two positions and one keyword, and may be overridden."""
    facade.list_current_instance_templates = recording(log, "list", lambda *a, **k: ([make_template()], GOOD))
    assert facade.get_default_instance_template("r", auth="auth", plan=CpuPlanA()) == make_template()
    assert log == [call("list", "r", "auth", is_public=True)]


class Unasked:
    """A plan that must not be looked at."""

    @property  # type: ignore[misc]
    def __class__(self) -> Any:
        raise RuntimeError("the plan was looked at")


@pytest.mark.parametrize("templates", [[], None, (), 0], ids=repr)
def test_no_templates_are_none_without_a_look_at_the_plan(
    facade: Any, provider: Fake, templates: Any
) -> None:
    """A failed listing simply yields none."""
    provider.answers["list_instance_templates"] = (templates, OPResult(error=True))
    assert facade.get_default_instance_template("r", "auth", Unasked()) is None
    provider.answers["list_instance_templates"] = ([1], GOOD)
    with pytest.raises(RuntimeError, match="looked at"):
        facade.get_default_instance_template("r", "auth", Unasked())


@pytest.mark.parametrize(
    "plan", [None, object(), CpuPlanA, "CpuPlanA"], ids=["None", "object", "class", "text"]
)
def test_a_plan_of_no_known_class_wants_nothing(facade: Any, provider: Fake, plan: Any) -> None:
    """None, and classes in place of their instances."""
    provider.answers["list_instance_templates"] = (EVERY_TEMPLATE, GOOD)
    assert facade.get_default_instance_template("r", "auth", plan) is None


def test_a_plan_of_several_classes_is_the_first_in_a_fixed_order(facade: Any, provider: Fake) -> None:
    """Whatever the order of its bases; a subclass counts as its base."""
    provider.answers["list_instance_templates"] = (EVERY_TEMPLATE, GOOD)
    for bases, expected in (
        ((GpuPlanB, CpuPlanB, GpuPlanA, CpuPlanA), "1 PLAN_A False"),
        ((GpuPlanB, CpuPlanB, GpuPlanA), "1 PLAN_A True"),
        ((GpuPlanB, CpuPlanB), "1 PLAN_B False"),
        ((GpuPlanB,), "1 PLAN_B True"),
    ):
        plan = type("Plan", bases, {})()
        assert facade.get_default_instance_template("r", "auth", plan).instance_template_id == expected


@pytest.mark.parametrize("listed", [(), ([],), ([], GOOD, 3)], ids=len)
def test_a_listing_that_is_no_pair_is_a_value_error(facade: Any, provider: Fake, listed: Any) -> None:
    """The interpreter's unpacking error."""
    provider.answers["list_instance_templates"] = listed
    with pytest.raises(ValueError, match="values to unpack"):
        facade.get_default_instance_template("r", "auth", CpuPlanA())


def test_the_choice_is_made_by_a_private_static_method(
    cloud_node: ModuleType, facade: Any, provider: Fake, log: CallLog
) -> None:
    """Under its mangled name, looked up on the facade, by position."""
    choose = cloud_node.CloudManager._CloudManager__extract_instance_template
    assert choose(EVERY_TEMPLATE, B, True) is EVERY_TEMPLATE[2]
    assert choose(iter([]), B, True) is None
    provider.answers["list_instance_templates"] = (EVERY_TEMPLATE, GOOD)
    facade._CloudManager__extract_instance_template = recording(log, "choose", "chosen")
    assert facade.get_default_instance_template("r", "auth", GpuPlanB()) == "chosen"
    assert log[-1] == call("choose", EVERY_TEMPLATE, B, True)
    assert log[-1].args[0] is EVERY_TEMPLATE


def test_the_walk_compares_lazily_and_stops_at_the_first_match(cloud_node: ModuleType) -> None:
    """The pay type is read only where the kind is right; what stands behind a match is not looked at."""
    choose = cloud_node.CloudManager._CloudManager__extract_instance_template
    other_kind = SimpleNamespace(is_gpu=True)
    match = SimpleNamespace(is_gpu=False, product_pay_type=A)
    assert choose([other_kind, match, None], A, False) is match
    with pytest.raises(AttributeError, match="product_pay_type"):
        choose([other_kind], A, True)
    with pytest.raises(AttributeError, match="is_gpu"):
        choose([None], A, True)
    with pytest.raises(TypeError, match="not iterable"):
        choose(None, A, True)


def test_the_walk_compares_with_python_equality_the_templates_value_first(cloud_node: ModuleType) -> None:
    """An enum member equals itself alone, or whatever its own `__eq__` admits."""
    compared: list[Any] = []

    class Value:
        def __eq__(self, other: object) -> bool:
            compared.append(other)
            return True

    template = SimpleNamespace(is_gpu=Value(), product_pay_type=Value())
    assert cloud_node.CloudManager._CloudManager__extract_instance_template([template], A, 1) is template
    assert compared == [1, A]
    plain = SimpleNamespace(is_gpu=1, product_pay_type="PLAN_A")
    assert cloud_node.CloudManager._CloudManager__extract_instance_template([plain], A, True) is None


def test_stop_iteration_out_of_a_template_does_not_pass_for_the_end(cloud_node: ModuleType) -> None:
    """As in a generator expression it becomes a RuntimeError."""

    class Template:
        @property
        def is_gpu(self) -> bool:
            raise StopIteration

    with pytest.raises(RuntimeError, match="generator raised StopIteration"):
        cloud_node.CloudManager._CloudManager__extract_instance_template([Template()], A, True)
