"""What a traceback names of the extension: the C++ file, and the line whose text is the failing statement."""

from __future__ import annotations

import traceback
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any, NamedTuple

import pytest

from tests.conftest import ROOT
from tests.fakes import AWS_REGION, SMALL, CallLog, Fake, FakeLock, make_config, recording_logger
from tests.registry.conftest import provider_class
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion, NodeState

SOURCES = "tovarincore/cloud_node"


def registry(module: ModuleType, *records: Any) -> Any:
    """A manager that holds these very records."""
    manager = provider_class(module)(AWS_REGION)
    manager._NodeManager__node_list = list(records)
    return manager


def amazon(module: ModuleType, **answers: Any) -> Any:
    """An Amazon manager whose client answers so, with a security group and no settings."""
    manager = module.AWSNodeManager(AWS_REGION, AWSCloudAuth(aws_profile="work"), "ada")
    manager.core_conf = SimpleNamespace(
        network__bypass_ssl_verification=False,
        proxy_enabled=True,
        get_proxy_conf_tuple=lambda: ("http", "https", "one too many"),
        development_settings__profiler_node_second=0,
        network__aws_custom_subnet="",
        network__aws_custom_vpc="",
    )
    manager._check_and_get_security_group_id = lambda: "sg-1"
    if answers:
        manager._get_client = lambda: Fake(CallLog(), "ec2", **answers)
    return manager


def locked_by(lock: FakeLock) -> Callable[[ModuleType], Any]:
    """Reads the node list under this lock."""

    def run(module: ModuleType) -> Any:
        manager = registry(module)
        manager._NodeManager__node_list_lock = lock
        return manager.get_node_list()

    return run


def pooled(module: ModuleType, client: Any) -> Any:
    """A facade that holds this one client."""
    facade = module.CloudManager()
    facade.add_to_webs_client_pool(client)
    return facade


def without(module: ModuleType, name: str, run: Callable[[], Any]) -> Any:
    """Runs while the module lacks one of its names."""
    with pytest.MonkeyPatch.context() as patch:
        patch.delattr(module, name)
        return run()


class Failure(NamedTuple):
    """An operation that fails, and the entry of the traceback that says where."""

    run: Callable[[ModuleType], Any]
    function: str
    file: str
    statement: str


NODE = SimpleNamespace(instance_id="i-1")
UNKNOWN_TYPE = {
    "Reservations": [
        {
            "Instances": [
                {
                    "InstanceType": "z9.unknown",
                    "State": {"Name": "running"},
                    "PublicDnsName": "ec2.example",
                    "InstanceId": "i-1",
                }
            ]
        }
    ]
}
FAILURES = {
    "a read of an attribute": Failure(
        lambda module: module.CloudManager().set_node(None),
        "set_node",
        "facade/routing.cpp",
        '.method("_get_node_manager"_s)({node.get("region"_s)})',
    ),
    "a comparison in a loop": Failure(
        lambda module: registry(module, SimpleNamespace()).set_node(NODE),
        "set_node",
        "registry/node_list.cpp",
        'nodes_of(self).item(i).get("instance_id"_s)',
    ),
    "a step that two methods share": Failure(
        lambda module: registry(module, SimpleNamespace()).find_node_by_uuid("u"),
        "find_node",
        "registry/node_list.cpp",
        "node.get(attribute).equals(value)",
    ),
    "a write in a loop": Failure(
        lambda module: registry(module, make_frozen()).change_node_state("i-1", NodeState.RUNNING),
        "change_node_state",
        "registry/node_list.cpp",
        'node.set("state"_s, node_state)',
    ),
    "a lock that cannot be acquired": Failure(
        locked_by(FakeLock(CallLog(), acquired=False)),
        "get_node_list",
        "registry/node_list.cpp",
        'holding(self.get("_NodeManager__node_list_lock"_s)',
    ),
    "a lock that cannot be released": Failure(
        locked_by(FakeLock(CallLog(), released=OSError())),
        "get_node_list",
        "registry/node_list.cpp",
        'holding(self.get("_NodeManager__node_list_lock"_s)',
    ),
    "a result of the wrong length": Failure(
        lambda module: amazon(module)._get_client(),
        "_get_client",
        "providers/aws/client.cpp",
        'unpack<2>(self.get("core_conf"_s).method("get_proxy_conf_tuple"_s)())',
    ),
    "an assertion with a text": Failure(
        lambda module: amazon(module, a=1).launch_node(SMALL, make_config(disk_size=0)),
        "launch_node",
        "providers/aws/launch.cpp",
        '"No disk size provided"_s',
    ),
    "a step of the launch": Failure(
        lambda module: amazon(module, a=1).launch_node(SMALL, make_config(launch_instance_settings={1, 2})),
        "launch_node",
        "providers/aws/launch.cpp",
        'json.method("dumps"_s)({instance_config.get("launch_instance_settings"_s)})',
    ),
    "a missing key of an answer": Failure(
        lambda module: amazon(module, run_instances={}).launch_node(SMALL, make_config()),
        "launch_node",
        "providers/aws/launch.cpp",
        'response.item("Instances"_s).first()',
    ),
    "an empty list in an answer": Failure(
        lambda module: amazon(module, describe_vpcs={"Vpcs": []})._get_default_vpc_id(),
        "_get_default_vpc_id",
        "providers/aws/security_group.cpp",
        'response.item("Vpcs"_s).first()',
    ),
    "an assertion without a text": Failure(
        lambda module: amazon(module, describe_instances=UNKNOWN_TYPE).list_instances(),
        "list_instances",
        "providers/aws/instances.cpp",
        "!found_instance_type_def.is_none()",
    ),
    "a name that the module lacks": Failure(
        lambda module: without(module, "OPResult", amazon(module, a=1).list_instance_types),
        "list_instance_types",
        "contracts/contracts.cpp",
        'global("OPResult"_s)',
    ),
    "an unknown kind of region": Failure(
        lambda module: module.CloudManager().get_node_list(CloudRegion("x", "azure")),
        "_get_node_manager",
        "facade/selection.cpp",
        "raise(",
    ),
    "a stranger in the pool": Failure(
        lambda module: pooled(module, object()).get_from_webs_client_pool("u"),
        "get_from_webs_client_pool",
        "facade/client_pool.cpp",
        'webs_client.get("node"_s)',
    ),
    "a lazy search": Failure(
        lambda module: module.CloudManager._CloudManager__extract_instance_template([object()], 1, 2),
        "__extract_instance_template",
        "facade/templates.cpp",
        't.get("is_gpu"_s)',
    ),
}


def make_frozen() -> Any:
    """A record that refuses to be changed."""

    class Frozen:
        __slots__ = ("instance_id",)

        def __setattr__(self, name: str, value: Any) -> None:
            if name != "instance_id":
                raise AttributeError(name)
            object.__setattr__(self, name, value)

    record = Frozen()
    record.instance_id = "i-1"
    return record


def innermost_of_ours(error: BaseException) -> traceback.FrameSummary:
    """The last entry of a C++ file."""
    entries = traceback.extract_tb(error.__traceback__)
    return [entry for entry in entries if entry.filename.startswith(SOURCES)][-1]


def text_at(entry: traceback.FrameSummary) -> str:
    """The line of the source that an entry names."""
    lines = (ROOT / entry.filename).read_text(encoding="utf-8").splitlines()
    return lines[(entry.lineno or 0) - 1]


@pytest.mark.parametrize("failure", FAILURES.values(), ids=FAILURES)
def test_the_line_that_a_traceback_names_is_the_failing_statement(
    extension: ModuleType, failure: Failure
) -> None:
    """Function, file relative to the tree, and the text of the line, also in a step that methods share."""
    with pytest.raises(Exception) as caught:
        failure.run(extension)
    entry = innermost_of_ours(caught.value)
    assert (entry.name, entry.filename) == (failure.function, f"{SOURCES}/{failure.file}")
    assert failure.statement in text_at(entry)


@pytest.mark.parametrize(
    "previous, statement",
    [
        ([SimpleNamespace(instance_id="i-1")], 'old_node.get("worker_id_list"_s)'),
        ([], 'node.get("state"_s)'),
    ],
    ids=["carrying worker ids over", "looking for running nodes"],
)
def test_a_logged_traceback_names_the_failing_step(
    extension: ModuleType, log: CallLog, previous: list[Any], statement: str
) -> None:
    """What a refresh reports instead of raising names the statement within its steps."""
    manager = registry(extension, *previous)
    manager.logger = recording_logger(log)
    listed = SimpleNamespace(instance_id="i-1", state=NodeState.STOPPED) if previous else object()
    manager.list_instances = lambda: ([listed], None)
    assert manager.refresh_node_list().error
    error = log.events[0].error
    assert error is not None
    entry = innermost_of_ours(error)
    assert (entry.name, entry.filename) == ("refresh_node_list", f"{SOURCES}/registry/refresh.cpp")
    assert statement in text_at(entry)


def test_a_traceback_shows_every_one_of_our_methods_on_the_way(extension: ModuleType) -> None:
    """From the facade to the registry, innermost last."""
    with pytest.raises(NotImplementedError) as caught:
        extension.CloudManager().find_node_by_uuid(CloudRegion("x", "azure"), "u")
    names = [entry.name for entry in traceback.extract_tb(caught.value.__traceback__)]
    assert names[1:] == ["find_node_by_uuid", "_get_node_manager"]
