"""Random programs over the whole surface of the module: what a caller, a subclass or a test may do with
it."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any, Callable

from tests.differential.journal import Aborted, Journal
from tests.differential.probes import NotedList, Probe

FACADE: dict[str, tuple[str, ...]] = {
    "get_node_manager": ("region",),
    "_get_node_manager": ("region", "auth", "text"),
    "_get_cached_node_manager": ("region",),
    "_cache_node_manager": ("region", "any"),
    "get_node_list": ("region",),
    "set_node": ("node",),
    "get_ready_node_next_in_line": ("region",),
    "find_node_by_instance_id": ("region", "text"),
    "find_node_by_uuid": ("region", "text"),
    "refresh_node": ("node",),
    "refresh_node_list": ("region", "auth", "text"),
    "launch_node": ("region", "auth", "any", "config", "text", "flag", "any", "any"),
    "try_launching_node": ("region", "auth", "any", "config", "flag"),
    "list_instances": ("region", "auth", "text"),
    "start_node": ("region", "auth", "text", "flag", "flag"),
    "stop_node": ("region", "auth", "text"),
    "terminate_node": ("region", "auth", "text", "any"),
    "create_key_pair": ("region", "auth", "text", "text"),
    "delete_key_pair": ("region", "auth", "text"),
    "list_current_instance_templates": ("region", "auth", "flag"),
    "list_instance_types": ("region",),
    "get_default_instance_template": ("region", "auth", "plan"),
    "_CloudManager__extract_instance_template": ("templates", "any", "flag"),
    "add_to_webs_client_pool": ("client",),
    "get_from_webs_client_pool": ("text",),
    "flush_webs_client_pool": ("text", "flag"),
}
PROVIDER: dict[str, tuple[str, ...]] = {
    "get_node_list": (),
    "set_node_list": ("node_list",),
    "set_node": ("node",),
    "find_node_by_instance_id": ("text",),
    "find_node_by_uuid": ("text",),
    "get_ready_node_next_in_line": (),
    "change_node_state": ("text", "any", "flag"),
    "refresh_node": ("node",),
    "refresh_node_list": (),
    "launch_node": ("any", "config", "auth", "text", "flag", "flag", "any", "any"),
    "list_instances": (),
    "start_node": ("text", "flag", "flag"),
    "stop_node": ("text",),
    "terminate_node": ("text", "any"),
    "list_instance_templates": ("flag",),
    "list_instance_types": (),
}
AMAZON: dict[str, tuple[str, ...]] = {
    "_create_session": ("any",),
    "_get_client": (),
    "_check_and_get_security_group_id": (),
    "_get_default_vpc_id": (),
    "_get_security_group_id": ("text",),
    "_create_security_group": ("text",),
    "_list_inbound_security_group_rules": ("text",),
    "_add_inbound_security_group_rules": ("text", "node_list"),
    "_add_not_existing_inbound_rules": ("text",),
    "create_key_pair": ("text", "text"),
    "delete_key_pair": ("text",),
}
KINDS = ("AWSNodeManager", "AWSNodeManager", "LocalContainerNodeManager", "K8sNodeManager")
GONE = (
    "deepcopy",
    "OPResult",
    "TimeoutError",
    "WebSocketClient",
    "NodeState",
    "AWSNodeManager",
    "SecurityGroupRule",
)
ATTRIBUTES = (
    "_NodeManager__node_list",
    "_NodeManager__node_list_lock",
    "logger",
    "core_conf",
    "region",
    "webs_client_pool",
)


class Program:
    """One seeded program. The dice belong to the journal: both sides throw the same as long as they agree."""

    def __init__(self, module: Any, journal: Journal) -> None:
        self.module = module
        self.classes = {kind: getattr(module, kind) for kind in KINDS}  # tampering may take the names away
        self.journal = journal
        self.choice = journal.choice
        self.auths = [type("Auth", (module.AWSCloudAuth,), {})()]
        self.auths[0].__dict__.update(aws_profile=self.choice("profile", "", None), aws_access_key_id="id")
        self.auths[0].__dict__.update(aws_secret_access_key="secret", aws_session_token=None)
        self.facade: Any = None
        self.providers: list[Any] = []
        self.nodes: list[Any] = []
        self.regions: list[Any] = []

    def run(self) -> None:
        """Builds a facade, does a few things with it, and writes the state it left into the journal."""
        self.step("CloudManager()", self.make_facade)
        deeds = (
            self.use_facade,
            self.use_provider,
            self.use_provider,
            self.use_amazon,
            self.use_amazon,
            self.use_pool,
        )
        for _ in range(self.choice(1, 2, 3, 4, 6)):
            self.journal.prefer(self.choice(*deeds), self.tamper)()
        self.show_state()

    def step(self, name: str, action: Callable[[], Any]) -> None:
        events = self.journal.events
        try:
            result = action()
        except Aborted:
            raise
        except BaseException as error:
            events.append(("raised", name, self.journal.show_error(error)))
        else:
            events.append(("returned", name, self.journal.show(result)))

    # what is done

    def make_facade(self) -> Any:
        self.facade = self.module.CloudManager()
        return self.facade

    def use_facade(self) -> None:
        if self.facade is None:
            return
        if self.choice(True, False):
            provider = self.choice(Probe(self.journal, "provider"), *self.providers)
            for region in self.regions or [self.region()]:
                self.step(
                    "prepare cache", lambda region=region: self.facade._cache_node_manager(region, provider)
                )
        if self.choice(True, False, False):
            self.call(self.facade, "get_default_instance_template", FACADE["get_default_instance_template"])
        name = self.choice(*FACADE)
        self.call(self.facade, name, FACADE[name])

    def use_provider(self) -> None:
        if not self.providers or self.choice(True, False):
            self.step("provider", self.make_provider)
        if not self.providers:
            return
        provider = self.choice(*self.providers)
        table = dict(PROVIDER)
        if isinstance(provider, self.classes["AWSNodeManager"]):
            table.update(AMAZON)
        name = self.choice(*table)
        self.call(provider, name, table[name])

    def use_amazon(self) -> None:
        self.step("provider", lambda: self.make_provider("AWSNodeManager"))
        if self.providers:
            provider = self.providers[-1]
            tables = {**AMAZON, **PROVIDER}
            for name in (
                self.choice(*AMAZON),
                self.choice("launch_node", "list_instances", "start_node", *PROVIDER),
            ):
                self.call(provider, name, tables[name])

    def make_provider(self, kind: str = "") -> Any:
        kind = kind or self.choice(*KINDS)
        cls = self.classes[kind]
        if self.journal.prefer(False, True):
            cls = self.subclass(cls)
        arguments = (
            (self.region(), self.auth(), self.journal.prefer("user", None))
            if kind == "AWSNodeManager"
            else (self.region(),)
        )
        provider = cls(*arguments)
        self.providers.append(provider)
        nodes = [self.node() for _ in range(self.choice(0, 1, 2, 3))]
        registry = self.choice(nodes, nodes, nodes, NotedList.make(self.journal, nodes))
        provider._NodeManager__node_list = registry
        return provider

    def subclass(self, base: Any) -> Any:
        """A subclass that overrides one method, calling the original in between."""
        journal = self.journal
        name = self.choice(
            "_get_client",
            "list_instances",
            "set_node",
            "get_node_list",
            "_get_security_group_id",
            "_create_session",
        )

        def override(this: Any, *args: Any, **kwargs: Any) -> Any:
            journal.note("override", name, args, kwargs)
            return getattr(super(made, this), name)(*args, **kwargs)

        made = type("Sub", (base,), {name: override} if hasattr(base, name) else {})
        return made

    def use_pool(self) -> None:
        if self.facade is None:
            return
        clients = [self.client() for _ in range(self.choice(0, 2, 4))]
        pool = self.choice(clients, clients, NotedList.make(self.journal, clients))
        self.step("pool", lambda: setattr(self.facade, "webs_client_pool", pool))
        for _ in range(self.choice(1, 2)):
            name = self.choice(
                "add_to_webs_client_pool", "get_from_webs_client_pool", "flush_webs_client_pool"
            )
            self.call(self.facade, name, FACADE[name])

    def tamper(self) -> None:
        """What a test does: names removed, methods patched on an instance, attributes replaced."""
        target = self.choice(*self.providers, self.facade)
        if target is None:
            return
        what = self.choice("name", "method", "attribute")
        if what == "name":
            vars(self.module).pop(self.choice(*GONE), None)
        elif what == "method":
            table = FACADE if target is self.facade else {**PROVIDER, **AMAZON}
            name = self.choice(*table)
            setattr(target, name, Probe(self.journal, name))
        else:
            name = self.choice(*ATTRIBUTES)
            setattr(target, name, Probe(self.journal, name))

    def call(self, target: Any, name: str, kinds: tuple[str, ...]) -> None:
        arguments = [getattr(self, kind)() for kind in kinds]
        if arguments and self.journal.prefer(False, False, False, True):
            arguments.pop()
        self.step(name, lambda: getattr(target, name)(*arguments))

    # what it is done with

    def any(self) -> Any:
        return self.choice(None, "x", 5, Probe(self.journal, "any"))

    def flag(self) -> Any:
        return self.journal.prefer(self.choice(True, False), Probe(self.journal, "flag"))

    def text(self) -> Any:
        return self.journal.prefer(self.choice("i-1", "i-2"), None, 7, Probe(self.journal, "text"))

    def region(self) -> Any:
        if not self.regions or self.choice(True, False, False):
            self.regions.append(Probe(self.journal, "region"))
        return self.journal.prefer(self.choice(*self.regions), None)

    def auth(self) -> Any:
        return self.journal.prefer(self.auths[0], None, "not an auth")

    def plan(self) -> Any:
        name = self.choice("CpuPlanA", "GpuPlanA", "CpuPlanB", "GpuPlanB", "")
        return getattr(self.module, name)() if name else None

    def config(self) -> Any:
        return self.journal.prefer(Probe(self.journal, "config"), None)

    def node(self) -> Any:
        plain = SimpleNamespace(
            instance_id=self.choice("i-1", "i-2", "i-3"),
            uuid=self.choice("i-1", "u-2"),
            state=self.choice("running state", "other state"),
            ready=self.choice(True, False, 0, "yes"),
            worker_id_list=self.choice([], ["w"], ["w", "v"]),
            region=self.region(),
        )
        if self.journal.prefer(False, False, False, True):
            del plain.__dict__[self.choice(*vars(plain))]
        self.nodes.append(self.choice(plain, plain, Probe(self.journal, "node")))
        return self.choice(*self.nodes)

    def node_list(self) -> Any:
        return [self.node() for _ in range(self.choice(0, 1, 3))]

    def templates(self) -> Any:
        made = [
            SimpleNamespace(
                is_gpu=self.choice(True, False, 1), product_pay_type=self.choice("plan a", "plan b")
            )
            for _ in range(self.choice(0, 1, 3))
        ]
        return self.choice(made, made, Probe(self.journal, "templates"), None)

    def client(self) -> Any:
        plain = SimpleNamespace(
            node=SimpleNamespace(uuid=self.choice("i-1", "i-2", "i-3")), worker_id=self.choice("w-1", "w-2")
        )
        if self.journal.prefer(False, False, False, True):
            del plain.__dict__[self.choice("node", "worker_id")]
        return self.choice(plain, plain, Probe(self.journal, "client"))

    def show_state(self) -> None:
        """Attributes of the facade and of every provider, in the order in which they were set."""
        for target in (self.facade, *self.providers):
            if target is not None:
                for name, value in list(vars(target).items()):
                    self.journal.events.append(("state", name, self.journal.show(value)))
