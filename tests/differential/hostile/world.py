"""What a hostile program plays with: a facade and a registry of genuine objects, and bad deeds."""

from __future__ import annotations

import gc
import random
import threading
from enum import Enum
from typing import Any, Callable

from tovarincore.cloud_def import CloudInstances, CloudNode, CloudRegion, NodeState
from tovarincore.core_def import OPResult

REGION = CloudRegion(name="here", cloud="local")
TYPE = CloudInstances.get_default_local_instance_type()
NAMES = ("uuid", "instance_id", "ready", "state", "worker_id_list", "node", "worker_id")


class Refused(Exception):
    """What hostile code raises."""


class Key(str):
    """A name in a class body: found by its hash, it does its class's deed, and is equal to nothing."""

    deed: Callable[[], None] | None = None
    turns = 0

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        if Key.deed is not None:
            Key.turns -= 1
            if Key.turns <= 0:
                deed, Key.deed = Key.deed, None
                deed()
        return False


class Quiet:
    """A logger that says nothing."""

    def debug(self, *args: Any, **kwargs: Any) -> None: ...

    error = info = warning = debug


class LockWrittenInPython:
    def __init__(self) -> None:
        self.inner = threading.Lock()

    def acquire(self, timeout: float = -1) -> bool:
        return self.inner.acquire(timeout=timeout)

    def release(self) -> None:
        self.inner.release()

    def locked(self) -> bool:
        return self.inner.locked()


class World:
    """One facade with one registry, of one implementation; what is random comes from the program's dice."""

    def __init__(self, module: Any, dice: random.Random) -> None:
        self.module = module
        self.dice = dice
        self.events: list[tuple[str, ...]] = []
        self.classes: list[type] = []
        self.deeds_left = 6
        self.manager = self.manager_class()(REGION)
        self.manager.logger = Quiet()
        self.facade = module.CloudManager()
        self.facade._cache_node_manager(REGION, self.manager)
        if dice.random() < 0.15:
            self.manager._NodeManager__node_list_lock = LockWrittenInPython()
        if dice.random() < 0.1:
            self.facade.webs_client_pool_lock = threading.RLock()

    def manager_class(self) -> Any:
        world = self

        class Manager(self.module.NodeManager):  # type: ignore[misc, name-defined]
            def list_instances(self) -> Any:
                return world.records(3), OPResult(success=True)

            def launch_node(self, *args: Any, **kwargs: Any) -> Any: ...

            start_node = stop_node = terminate_node = launch_node
            list_instance_templates = list_instance_types = launch_node

        return Manager

    # what there is

    def record_class(self, keys: bool = False) -> type:
        """A class of records; one that was made before, most of the time."""
        if self.classes and not keys and self.dice.random() < 0.7:
            return self.dice.choice(self.classes)
        names: dict[str, Any] = {}
        if keys:
            names = {Key(name): 1 for name in self.dice.sample(NAMES, 3)}
        elif self.dice.random() < 0.2:
            names = {"ready": False, "unrelated": 1}
        base = self.classes[0] if self.classes and self.dice.random() < 0.2 else object
        made = type(f"Record{len(self.classes)}", (base,), names)
        self.classes.append(made)
        return made

    def record(self, number: int, cls: type | None = None) -> Any:
        """A record that is a node and a client at once."""
        if cls is None and self.dice.random() < 0.4:
            made: Any = CloudNode(
                region=REGION, instance_id=f"i-{number}", instance_type_def=TYPE, uuid=f"u-{number}",
                state=self.dice.choice((NodeState.RUNNING, NodeState.STOPPED)),
                ready=self.dice.random() < 0.2, worker_id_list=[f"w-{number}"],
            )  # fmt: skip
        else:
            made = (cls or self.record_class())()
            put(made, uuid=f"u-{number}", instance_id=f"i-{number}")
            if self.dice.random() < 0.8:
                put(made, ready=self.dice.choice((False, False, True, 0)))
            put(made, state=self.dice.choice((NodeState.STOPPED, NodeState.RUNNING, "odd")))
            put(made, worker_id_list=[f"w-{number}"])
        put(made, node=made if self.dice.random() < 0.9 else None, worker_id=number)
        if self.dice.random() < 0.3:
            put(made, more={"k": (number, [2]), number: {1, 2}})
        return made

    def records(self, most: int, cls: type | None = None) -> list[Any]:
        numbers = [self.dice.randrange(8) for _ in range(self.dice.randint(1, most))]
        made = [self.record(number, cls) for number in numbers]
        if len(made) > 2 and self.dice.random() < 0.2:
            put(made[1], more=made[0])
        return made

    def fill(self, most: int = 12, cls: type | None = None) -> None:
        self.manager._NodeManager__node_list = self.records(most, cls)
        self.facade.webs_client_pool = self.records(most, cls)

    # what hostile code does

    def note(self, *event: str) -> None:
        self.events.append(event)

    def deed(self) -> Callable[[], None]:
        """One deed, drawn now and done later. It uses the module only where no lock is held."""
        deeds = (
            self.clear, self.shorten, self.exchange, self.grow, self.change_classes, self.change_instances,
            self.call_the_module, self.reuse_memory, gc.collect, self.refuse, self.tamper_with_names,
        )  # fmt: skip
        chosen = self.dice.choice(deeds)
        salt = self.dice.random()

        def do() -> None:
            if self.deeds_left <= 0:
                return
            self.deeds_left -= 1
            self.note("deed", chosen.__name__, str(self.locked()))
            before, self.dice = self.dice, random.Random(salt)
            try:
                chosen()
            finally:
                self.dice = before

        return do

    def lists(self) -> list[list[Any]]:
        both = (self.manager.__dict__["_NodeManager__node_list"], self.facade.__dict__["webs_client_pool"])
        return [each for each in both if isinstance(each, list)]

    def clear(self) -> None:
        for each in self.lists():
            each.clear()
        self.reuse_memory()

    def shorten(self) -> None:
        for each in self.lists():
            del each[1:]
        self.reuse_memory()

    def exchange(self) -> None:
        self.fill(3)

    def grow(self) -> None:
        for each in self.lists():
            if len(each) < 100:
                each.insert(0, self.record(7))

    def change_classes(self) -> None:
        for cls in self.classes:
            name = self.dice.choice(("uuid", "ready", "__deepcopy__", "extra"))
            value: Any = property(lambda this: "u-1") if name == "uuid" else (lambda this, memo: this)
            setattr(cls, name, value if name != "extra" else 5)

    def change_instances(self) -> None:
        for each in self.lists():
            for record in each:
                way = self.dice.choice(("class", "clear", "replace", "slot"))
                if way == "class" and type(record) in self.classes:
                    record.__class__ = self.dice.choice(self.classes)
                elif way == "clear":
                    record.__dict__.clear()
                elif way == "replace":
                    record.__dict__ = {"uuid": "u-2", "instance_id": "i-2"}
                else:
                    put(record, uuid="u-3")

    def call_the_module(self) -> None:
        if self.locked():
            return
        self.note("called", self.show(self.facade.get_from_webs_client_pool("u-1")))
        self.note("called", self.show(self.manager.find_node_by_uuid("u-2")))
        self.note("called", self.show(self.facade.get_node_list(REGION)))

    def reuse_memory(self) -> None:
        self.hoard = [bytes(size) for size in range(0, 400, 4)], [(object(),) for _ in range(50)]

    def refuse(self) -> None:
        raise Refused

    def tamper_with_names(self) -> None:
        names = vars(self.module)
        name = self.dice.choice(("deepcopy", "TimeoutError", "OPResult", "len", "PingRequest"))
        if name in names and self.dice.random() < 0.5:
            del names[name]
        else:
            names[name] = len

    # what can be seen of it

    def locked(self) -> bool:
        return any(
            lock._is_owned() if hasattr(lock, "_is_owned") else lock.locked()
            for lock in (
                self.manager.__dict__["_NodeManager__node_list_lock"],
                self.facade.__dict__["webs_client_pool_lock"],
                self.facade.__dict__["_node_manager_hashset_lock"],
            )
        )  # fmt: skip

    def show(self, value: Any, met: dict[int, int] | None = None) -> str:
        """A text of a value and of what it consists of: the same for both sides, aliases included."""
        met = {} if met is None else met
        if value is None or isinstance(value, (str, int, float, bytes)):
            return repr(value)
        if isinstance(value, Enum):
            return value.name
        if isinstance(value, BaseException):
            return show_error(value)
        if isinstance(value, OPResult):
            return f"result {value.success} {value.error} {value.msg}"
        if id(value) in met:
            return f"#{met[id(value)]}"
        met[id(value)] = len(met)
        # Of copies: a finaliser may empty the value meanwhile.
        if isinstance(value, (list, tuple)):
            return f"{type(value).__name__}[{', '.join(self.show(each, met) for each in list(value))}]"
        if isinstance(value, dict):
            pairs = value.copy().items()
            return f"{{{', '.join(f'{self.show(k, met)}: {self.show(v, met)}' for k, v in pairs)}}}"
        if isinstance(value, CloudRegion) or not hasattr(value, "worker_id"):
            return type(value).__name__
        return f"{type(value).__name__}{self.show(vars(value), met)}"


def put(record: Any, **attributes: Any) -> None:
    """Sets attributes one by one, also where a deed has made one of them a property."""
    for name, value in attributes.items():
        try:
            setattr(record, name, value)
        except AttributeError:
            vars(record)[name] = value


def show_error(error: BaseException) -> str:
    return f"{type(error).__name__}: {error}"


def depth() -> int:
    """How many calls are left up to the recursion limit."""

    def down(level: int) -> int:
        try:
            return down(level + 1)
        except RecursionError:
            return level

    return down(0)
