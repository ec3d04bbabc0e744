"""Choosing the default template for a plan."""

from types import ModuleType
from typing import Any

from benchmarks.scenario import Scenario, facade, region
from tovarincore.cloud_def import GpuPlanB, InstanceTemplate, InstanceTemplatePayType
from tovarincore.core_def import OPResult


class Catalogue:
    """A provider that knows its templates."""

    def __init__(self, listed: Any) -> None:
        self.listed = listed

    def list_instance_templates(self, is_public: bool = True) -> Any:
        return self.listed


def template(index: int) -> InstanceTemplate:
    last = index == 20
    return InstanceTemplate(
        f"ami-{index:017x}",
        f"TOVARIN_AI_CPU_PLAN_A_1.0.{index}",
        InstanceTemplatePayType.PLAN_B if last else InstanceTemplatePayType.PLAN_A,
        None,  # type: ignore[arg-type]  # the date is not looked at
        region(),
        f"1.0.{index}",
        is_gpu=last or index % 2 == 1,
    )


def prepare(module: ModuleType) -> dict[str, Any]:
    listed = ([template(index) for index in range(21)], OPResult(success=True))
    return {"facade": facade(module, Catalogue(listed)), "region": region(), "plan": GpuPlanB()}


STATEMENT = "facade.get_default_instance_template(region, None, plan)"
SCENARIOS = [Scenario("default template among 21", 3, STATEMENT, prepare)]
