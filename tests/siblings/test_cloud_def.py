"""Records and enums: what other modules and EC2 rely on."""

import copy
import dataclasses
import pickle
import re
from datetime import datetime
from typing import Any

import pytest

from tovarincore import cloud_def
from tovarincore.cloud_def import (
    AWSCloudAuth,
    AWSCloudNode,
    CloudInstanceConfig,
    CloudInstanceTypeDef,
    CloudNode,
    CloudRegion,
    InstanceTemplate,
    InstanceTemplatePayType,
    K8sRegion,
    NodeState,
    SecurityGroupRule,
    SecurityGroupRules,
)
from tovarincore.core_conf import core_conf_glbl

REGION = CloudRegion("eu-central-1", "AWS")
TYPE = CloudInstanceTypeDef("t3.micro", 2, 1024)
CREATED = datetime(2024, 3, 1, 10, 20, 30)
MARKER = "s3cr3t-m4rk3r"


def template(**changes: Any) -> InstanceTemplate:
    """A template, changed where a test says so."""
    fields: dict[str, Any] = {
        "instance_template_id": "ami-1",
        "name": "n",
        "product_pay_type": InstanceTemplatePayType.DEV,
        "created_date": CREATED,
        "region": REGION,
        "version": "1.0",
    }
    return InstanceTemplate(**{**fields, **changes})


class TestRecords:
    """Plain dataclasses."""

    def test_records_have_no_slots_and_no_copy_hooks(self) -> None:
        """Node lists are copied deeply and often; a hook would slow each copy down."""
        records = [value for value in vars(cloud_def).values() if dataclasses.is_dataclass(value)]
        hooks = {
            "__slots__",
            "__deepcopy__",
            "__copy__",
            "__reduce__",
            "__reduce_ex__",
            "__getstate__",
            "__setstate__",
        }
        assert len(records) == 10
        for record in records:
            assert isinstance(record, type)
            for base in record.__mro__[:-1]:
                assert not hooks & set(vars(base))

    def test_a_node_survives_deepcopy_and_pickle_with_all_fields(self) -> None:
        """The copy is equal, and shares no list with the original."""
        node = AWSCloudNode(
            REGION, "i-1", TYPE, "u", "n", "d", NodeState.RUNNING, "k", "p", True, ["w"], 1.5, 2, 3, 4.5
        )
        for twin in (copy.deepcopy(node), pickle.loads(pickle.dumps(node))):
            assert twin == node
            assert type(twin) is AWSCloudNode
            assert twin.worker_id_list is not node.worker_id_list
            assert twin.state is NodeState.RUNNING

    def test_a_node_has_fifteen_fields_in_order(self) -> None:
        """Callers pass the first ones by position."""
        names = [field.name for field in dataclasses.fields(CloudNode)]
        assert names[:7] == [
            "region",
            "instance_id",
            "instance_type_def",
            "uuid",
            "name",
            "dns_address",
            "state",
        ]
        assert names[7:11] == ["key_pair_name", "instance_profile_name", "ready", "worker_id_list"]
        assert names[11:] == ["cpu_percent", "memory_used_bytes", "memory_total_bytes", "system_stat_time"]

    def test_a_node_is_made_as_a_launch_makes_it(self) -> None:
        """What a launch does not know has a default; worker lists are not shared."""
        first, second = (CloudNode(region=REGION, instance_id="i", instance_type_def=TYPE) for _ in range(2))
        assert (first.uuid, first.name, first.dns_address, first.state) == ("-", "-", "", NodeState.STARTING)
        assert first.ready is False
        first.worker_id_list.append("w")
        assert second.worker_id_list == []

    def test_credentials_show_their_profile_alone(self) -> None:
        """A log line of a record tells no secret."""
        auth = AWSCloudAuth("work", MARKER, MARKER, MARKER)
        assert repr(auth) == "AWSCloudAuth(aws_profile='work')"

    def test_launch_settings_do_not_show(self) -> None:
        """They are the caller's and may hold tokens."""
        assert MARKER not in repr(CloudInstanceConfig(8, {"token": MARKER}, template()))


class TestRegions:
    """Identity of region records."""

    def test_regions_are_equal_when_kind_and_name_are(self) -> None:
        """As they then share a node manager; titles are for people."""
        assert CloudRegion("a", "AWS", "x") == CloudRegion("a", "AWS", "y")
        assert CloudRegion("a", "AWS") != CloudRegion("a", "k8s")
        assert CloudRegion("a", "AWS") != CloudRegion("b", "AWS")
        assert CloudRegion("a", "AWS") != "AWS:a"

    @pytest.mark.parametrize(
        "other",
        [
            K8sRegion("lab", namespace="other"),
            K8sRegion("lab", kubeconfig="/other"),
            K8sRegion("lab", context="other"),
            K8sRegion("lab", in_cluster=True),
            K8sRegion("other"),
            CloudRegion("lab", "k8s"),
            K8sRegion("lab', 'default', '', '', False)"),
        ],
        ids=["namespace", "kubeconfig", "context", "in a pod", "name", "kind and name alone", "quotes"],
    )
    def test_kubernetes_regions_differ_when_they_lead_elsewhere(self, other: CloudRegion) -> None:
        """A name alone does not make them one, or a node of the wrong cluster could be ended."""
        region = K8sRegion("lab")
        assert region != other
        assert region.hash_key != other.hash_key

    def test_equal_kubernetes_regions_share_a_hash_key(self) -> None:
        """Records that lead to the same place are one region, whatever their title."""
        one, two = K8sRegion("lab", title="x", context="c"), K8sRegion("lab", title="y", context="c")
        assert (one, one.hash_key, hash(one)) == (two, two.hash_key, hash(two))

    def test_the_key_is_kind_and_name(self) -> None:
        """People type it; for Amazon it is the key of the facade's cache as well."""
        assert CloudRegion("eu-central-1", "AWS").hash_key == "AWS:eu-central-1"
        assert CloudRegion("eu-central-1", "AWS").key == "AWS:eu-central-1"
        assert K8sRegion("lab", namespace="other").key == "k8s:lab"


class TestNodeState:
    """EC2's state names."""

    @pytest.mark.parametrize(
        ("text", "state"),
        [
            ("Pending", NodeState.STARTING),
            ("Running", NodeState.RUNNING),
            ("Stopping", NodeState.STOPPING),
            ("Stopped", NodeState.STOPPED),
            ("Shutting-down", NodeState.SHUTTING_DOWN),
            ("Terminated", NodeState.TERMINATED),
        ],
    )
    def test_each_of_ec2s_six_states_has_a_member(self, text: str, state: NodeState) -> None:
        """With the first letter raised, as the listing gives them."""
        assert NodeState.from_aws_value(text) is state

    def test_botocore_knows_no_other_state(self) -> None:
        """The service's own description lists what may come."""
        botocore_session = pytest.importorskip("botocore.session", reason="the SDK is not installed")
        shape = botocore_session.Session().get_service_model("ec2").shape_for("InstanceStateName")
        assert {NodeState.from_aws_value(name.capitalize()) for name in shape.enum} == set(NodeState) - {
            NodeState.UNKNOWN
        }

    @pytest.mark.parametrize("text", ["running", "Unknown", "Starting", "", None, 16])
    def test_anything_else_is_refused(self, text: Any) -> None:
        """The text says what is allowed."""
        with pytest.raises(ValueError, match=r"allowed are Pending, Running, .*Terminated"):
            NodeState.from_aws_value(text)


class TestLaunch:
    """Defaults where EC2's client refuses None."""

    def test_defaults_are_texts(self) -> None:
        """Key pair, name, profile and uuid."""
        config = CloudInstanceConfig(8, {}, template())
        assert (config.key_pair_name, config.name) == ("tovarin-key", "tovarin-node")
        assert config.get_safe_instance_profile_name() == "tovarin-node-profile"
        assert re.fullmatch(r"[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}", config.uuid)

    def test_each_launch_has_its_own_uuid(self) -> None:
        """It is the node's identity."""
        assert CloudInstanceConfig(8, {}, template()).uuid != CloudInstanceConfig(8, {}, template()).uuid

    def test_an_explicit_none_is_kept(self) -> None:
        """Only the profile has a way to be asked for safely."""
        config = CloudInstanceConfig(
            8, {}, template(), key_pair_name=None, name=None, instance_profile_name=None
        )
        assert (config.key_pair_name, config.name, config.instance_profile_name) == (None, None, None)
        assert config.get_safe_instance_profile_name() == "tovarin-node-profile"

    def test_a_given_profile_is_used(self) -> None:
        """The default stands in for a missing one only."""
        assert (
            CloudInstanceConfig(8, {}, template(), instance_profile_name="p").get_safe_instance_profile_name()
            == "p"
        )


class TestTemplateNames:
    """The image name pattern."""

    @pytest.mark.parametrize(
        ("name", "is_gpu", "pay_type", "version"),
        [
            ("TOVARIN_AI_CPU_PLAN_A_1.2.3", False, InstanceTemplatePayType.PLAN_A, "1.2.3"),
            ("TOVARIN_AI_GPU_PLAN_B_10.0", True, InstanceTemplatePayType.PLAN_B, "10.0"),
            ("TOVARIN_AI_CPU_DEV_2", False, InstanceTemplatePayType.DEV, "2"),
            ("TOVARIN_AI_GPU_PLAN_A_1.2.3-rc.1", True, InstanceTemplatePayType.PLAN_A, "1.2.3-rc.1"),
            ("TOVARIN_AI_GPU_DEV_1.0-beta-2", True, InstanceTemplatePayType.DEV, "1.0-beta-2"),
        ],
    )
    def test_a_name_that_follows_the_pattern_is_read(
        self, name: str, is_gpu: bool, pay_type: InstanceTemplatePayType, version: str
    ) -> None:
        """Kind, pay type and version come from the name, the rest is as given."""
        made = InstanceTemplate.create_from(
            image_template_id="ami-7", image_template_name=name, creation_date=CREATED, region=REGION
        )
        assert made == InstanceTemplate(
            instance_template_id="ami-7",
            name=name,
            product_pay_type=pay_type,
            created_date=CREATED,
            region=REGION,
            version=version,
            is_gpu=is_gpu,
        )

    @pytest.mark.parametrize(
        "name",
        [
            "",
            "TOVARIN_AI_",
            "TOVARIN_AI_CPU",
            "TOVARIN_AI_CPU_PLAN_A",
            "TOVARIN_AI_CPU_PLAN_A_",
            "TOVARIN_AI_CPU_PLAN_C_1.0",
            "TOVARIN_AI_TPU_PLAN_A_1.0",
            "TOVARIN_AI_CPU_PLANA_1.0",
            "tovarin_ai_cpu_plan_a_1.0",
            " TOVARIN_AI_CPU_PLAN_A_1.0",
            "TOVARIN_AI_CPU_PLAN_A_1.0 ",
            "TOVARIN_AI_CPU_PLAN_A_1.0\n",
            "MY_TOVARIN_AI_CPU_PLAN_A_1.0",
            "TOVARIN_AI_CPU_PLAN_A_1.0_copy",
            "TOVARIN_AI_CPU_PLAN_A_1..0",
            "TOVARIN_AI_CPU_PLAN_A_.1",
            "TOVARIN_AI_CPU_PLAN_A_1.",
            "TOVARIN_AI_CPU_PLAN_A_v1.0",
            "TOVARIN_AI_CPU_PLAN_A_1.0-",
            "TOVARIN_AI_CPU_PLAN_A_1.0-a..b",
            "TOVARIN_AI_CPU_PLAN_A_\u0661.\u0662",
            "TOVARIN_AI_CPU_PLAN_A_1.0-\u00e4",
            "TOVARIN_AI_CPU_PLAN_A_" + "1." * 50000,
            "\udcff",
            None,
            5,
            b"TOVARIN_AI_CPU_PLAN_A_1.0",
            ["TOVARIN_AI_CPU_PLAN_A_1.0"],
            object(),
        ],
        ids=lambda name: repr(name).partition(" at 0x")[0][:40],
    )
    def test_any_other_name_gives_none(self, name: Any) -> None:
        """Images of strangers, and what is no text at all: never an exception."""
        assert (
            InstanceTemplate.create_from(
                image_template_id="ami-7", image_template_name=name, creation_date=CREATED, region=REGION
            )
            is None
        )

    def test_a_template_made_directly_is_for_processors(self) -> None:
        """As the local provider makes them."""
        assert template().is_gpu is False


class TestSecurityGroupRules:
    """What the security group must allow."""

    def test_a_rule_read_from_ec2_equals_the_one_with_a_description(self) -> None:
        """Otherwise every launch would add it again."""
        assert SecurityGroupRule(1, 2, "tcp") == SecurityGroupRule(1, 2, "tcp", "text")
        assert SecurityGroupRule(1, 2, "tcp") != SecurityGroupRule(1, 3, "tcp")
        assert SecurityGroupRule(1, 2, "tcp") != SecurityGroupRule(0, 2, "tcp")
        assert SecurityGroupRule(1, 2, "tcp") != SecurityGroupRule(1, 2, "udp")

    def test_only_the_workers_port_is_open(self) -> None:
        """Every rule is open to the whole world, so there is but one."""
        assert SecurityGroupRules.inbound_list == [SecurityGroupRule(8855, 8855, "tcp")]

    def test_the_rule_follows_the_setting(self, monkeypatch: pytest.MonkeyPatch) -> None:
        """A worker on another port would be out of reach."""
        monkeypatch.setenv("TOVARIN_WORKER__PORT", "9443")
        core_conf_glbl.reload()
        assert SecurityGroupRules.inbound_list == [SecurityGroupRule(9443, 9443, "tcp")]

    def test_descriptions_are_texts_that_ec2_accepts(self) -> None:
        """EC2's client refuses None, the service other characters."""
        for rule in [*SecurityGroupRules.inbound_list, SecurityGroupRule(1, 2, "tcp")]:
            assert re.fullmatch(r"[a-zA-Z0-9. _\-:/()#,@\[\]+=&;{}!$*]{1,255}", rule.description)

    def test_the_list_can_be_replaced(self, monkeypatch: pytest.MonkeyPatch) -> None:
        """And is read from the settings again afterwards."""
        with monkeypatch.context() as patch:
            patch.setattr(SecurityGroupRules, "inbound_list", [])
            assert SecurityGroupRules.inbound_list == []
        assert SecurityGroupRules.inbound_list == [SecurityGroupRule(8855, 8855, "tcp")]
