"""What a probe answers: by the name of the attribute, or of the function called, drawn from the
program's own dice."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any, Callable

from tests.differential.journal import Journal
from tests.differential.probes import NotedList, Probe

Answer = Callable[[Journal], Any]


def _of(*options: Any) -> Answer:
    return lambda journal: journal.prefer(*options)


def _probe(label: str) -> Answer:
    return lambda journal: Probe(journal, label)


def _either(*answers: Answer) -> Answer:
    return lambda journal: journal.prefer(*answers)(journal)


def _many(label: str) -> Answer:
    return lambda journal: [Probe(journal, label) for _ in range(journal.choice(1, 2, 3, 0))]


def _noted(label: str) -> Answer:
    return lambda journal: NotedList.make(journal, _many(label)(journal))


def _without_some(journal: Journal, table: dict[str, Any]) -> dict[str, Any]:
    """The table as it is, most of the time, or without one of its keys."""
    if journal.prefer(False, False, False, True):
        table.pop(journal.choice(*table))
    return table


def _instance(journal: Journal) -> dict[str, Any]:
    return _without_some(
        journal,
        {
            "InstanceId": journal.prefer("i-1", "i-2", 7),
            "InstanceType": journal.prefer("t3.micro", "m5.large"),
            "State": {"Name": journal.choice("running", "shutting-down", "stopped")},
            "Tags": journal.prefer(
                [{"Key": "tovarin_uuid", "Value": "u-1"}, {"Key": "Name", "Value": "n"}],
                [],
                [
                    {"Key": "Name", "Value": "first"},
                    {"Key": "other", "Value": "x"},
                    {"Key": "Name", "Value": "second"},
                ],
                [{"Key": "tovarin_uuid"}],
            ),
            "PublicDnsName": journal.choice("public.example", "", "abcd", "abcde", None),
            "PrivateDnsName": "private.example",
            "IamInstanceProfile": {"Arn": "arn:aws:iam::1:instance-profile/p"},
            "KeyName": journal.choice("key", 5),
        },
    )


def _instances(journal: Journal) -> dict[str, Any]:
    reservations = [
        {"Instances": [_instance(journal) for _ in range(journal.choice(1, 1, 2, 0))]}
        for _ in range(journal.choice(1, 1, 2, 0))
    ]
    return _without_some(journal, {"Reservations": reservations})


def _images(journal: Journal) -> dict[str, Any]:
    images = [
        _without_some(
            journal, {"ImageId": f"ami-{i}", "Name": "TOVARIN_AI_x", "CreationDate": "2024-03-01T10:20:30Z"}
        )
        for i in range(journal.choice(1, 3, 2, 0))
    ]
    return _without_some(journal, {"Images": images})


def _rules(journal: Journal) -> dict[str, Any]:
    rules = [
        _without_some(
            journal,
            {
                "IsEgress": journal.choice(True, False, 0, ""),
                "FromPort": 22,
                "ToPort": 22,
                "IpProtocol": "tcp",
            },
        )
        for _ in range(journal.choice(1, 3, 2, 0))
    ]
    return _without_some(journal, {"SecurityGroupRules": rules})


def _flag(journal: Journal) -> Any:
    return journal.prefer(journal.choice(True, False), "", "yes", 0, Probe(journal, "flag"))


_FLAG = _flag
_TEXT = _either(lambda journal: journal.choice("i-1", "i-2"), _probe("text"))

ATTRIBUTES: dict[str, Answer] = {
    **dict.fromkeys(
        ("success", "ready", "is_gpu", "network__bypass_ssl_verification", "proxy_enabled", "aws_profile"),
        _FLAG,
    ),
    **dict.fromkeys(("instance_id", "uuid"), _TEXT),
    "cloud": _of("AWS", "local", "k8s", "aws", None),
    "hash_key": _of("h1", "h2", 3, ["unhashable"]),
    "worker_id_list": _either(_of([], ["w"], ["w", "v"]), _probe("workers"), _noted("worker")),
    "state": lambda journal: journal.choice("running state", "other state"),
    "RUNNING": _of("running state"),
    "DRY_RUN_OPERATION": _of("dry run code"),
    "error_code": _either(_of("dry run code", "other code", None), _probe("code")),
    "disk_size": _of(10, 10, 0, None),
    "instance_template": _either(_probe("template"), _probe("template"), _of(None)),
    "version": _of("1.0", "", None),
    "name": lambda journal: journal.choice("a name", None, ""),
    "launch_instance_settings": _of({"a": [1, "ü"]}, None, {1, 2}),
    "network__aws_custom_vpc": _either(lambda journal: journal.choice("vpc-1", ""), _of(None), _probe("vpc")),
    "network__aws_custom_subnet": _either(
        lambda journal: journal.choice("1234567890", "123456789", ""), _of("short", None, 5), _probe("subnet")
    ),
    "development_settings__profiler_node_second": _either(
        lambda journal: journal.choice(0, 30), _of(-1, 1.5, "ten"), _probe("seconds")
    ),
    "inbound_list": _either(_many("rule"), _probe("rules"), _noted("rule")),
    "instance_type_list": _either(_many("type"), _many("type"), _probe("types")),
    "instance_type": _of("t3.micro", "m5.large"),
    "NODE_HOME_PATH": _either(_of("/home/x"), _probe("home")),
    "cloud_auth": _either(_probe("auth"), _of(None, "auth")),
    "user_name": _of("user", None),
    "PLAN_A": _of("plan a"),
    "PLAN_B": _of("plan b"),
    "product_pay_type": _of("plan a", "plan b"),
    "worker_id": _of("w-1", "w-2"),
    "Instances": _either(_many("instance"), _probe("instances")),
    "GroupId": _of("sg-1", "", None),
}

RESULTS: dict[str, Answer] = {
    "acquire": _of(True, 1, False, 0, None),
    "get_proxy_conf_tuple": _either(_of(("a", "b"), ["a", "b"], ("a",)), _probe("proxies")),
    "get_cloud_conf": _either(_probe("conf"), _of(None)),
    "describe_instances": _either(_instances, _instances, _probe("response")),
    "describe_images": _either(_images, _images, _probe("response")),
    "describe_vpcs": _either(
        _of({"Vpcs": [{"VpcId": "vpc-d"}]}, {"Vpcs": []}, {}, {"Vpcs": [{"VpcId": 4}]}), _probe("response")
    ),
    "describe_security_groups": _either(
        _of({"SecurityGroups": [{"GroupId": "sg-1"}, {"GroupId": "sg-2"}]}, {"SecurityGroups": []}, {}),
        _probe("response"),
    ),
    "describe_security_group_rules": _either(_rules, _rules, _probe("response")),
    "create_security_group": _either(_of({"GroupId": "sg-n"}, {}), _probe("response")),
    "create_key_pair": _either(_of({"KeyMaterial": "key"}, {}), _probe("response")),
    "run_instances": _either(
        lambda journal: {"Instances": [_instance(journal)]}, _of({"Instances": []}), _probe("response")
    ),
    "get_existing_node": _either(_probe("node"), _of(None, 0)),
    "list_tvr_container_image_versions": _either(_of(["2", "1"], [], None, ("3",)), _probe("versions")),
    "get_local_container_region": _either(_probe("region"), _of(None)),
    "get_safe_instance_profile_name": _of("profile", None),
    "create_from": _either(_probe("template"), _of(None)),
    "get_profile_name_from_arn": _of("p"),
    "list_instances": _either(
        lambda journal: (_many("node")(journal), Probe(journal, "result")),
        lambda journal: (_noted("node")(journal), Probe(journal, "result")),
        lambda journal: (None, Probe(journal, "result")),
        _of((1, 2, 3), (1,), None),
    ),
    "list_current_instance_templates": _either(
        lambda journal: (_many("template")(journal), Probe(journal, "result")), _of((None, 1), (1,), ((), 2))
    ),
    "list_instance_templates": lambda journal: (_many("template")(journal), Probe(journal, "result")),
    "launch_node": _either(lambda journal: (None, Probe(journal, "result")), _of((1, 2, 3), None)),
    "_get_security_group_id": lambda journal: journal.choice("sg-1", None, ""),
    "_list_inbound_security_group_rules": _many("rule"),
    "copy": _of(["copied"]),
}


def attribute(journal: Journal, label: str, name: str) -> Any:
    """The value of an attribute, or of an item, of a probe."""
    answer = ATTRIBUTES.get(name)
    return answer(journal) if answer is not None else Probe(journal, label)


def result(journal: Journal, name: str, args: tuple[Any, ...]) -> Any:
    """The result of calling a probe that was reached under `name`."""
    if name == "deepcopy":
        return _copied(journal, args[0])
    answer = RESULTS.get(name)
    return answer(journal) if answer is not None else Probe(journal, name + "()")


def _copied(journal: Journal, value: Any) -> Any:
    """Stands for copy.deepcopy: new containers, new probes with the same values."""
    if isinstance(value, Probe):
        copied = Probe(journal, "copy")
        object.__getattribute__(copied, "_values").update(object.__getattribute__(value, "_values"))
        return copied
    if type(value) is list:
        return [_copied(journal, element) for element in value]
    if isinstance(value, SimpleNamespace):
        return SimpleNamespace(**vars(value))
    return value
