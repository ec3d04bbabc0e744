"""The kinds of hostile programs: what each puts into the world, and what it arms around an operation.

`exact` is false where the place of the disturbance cannot be the same on both sides. Then what must hold of
each side by itself is checked instead.
"""

from __future__ import annotations

import functools
import gc
import signal
import sys
import time
import types
from typing import Any, Callable

from tests.differential.hostile import allocations
from tests.differential.hostile.operations import Argument
from tests.differential.hostile.world import Key, Refused, World, put

# Where there is no memory for it, a frame of Python code fails without an error in CPython itself: in 3.10,
# and from 3.11 on. Of a function in C that does, it says that it "returned NULL".
INTERPRETERS_OWN = ("_PyEval_EvalFrame", "error return without exception set")


class Kind:
    exact = True
    # How often a difference must show again, with the classes at other places in the interpreter's cache.
    tries = 0

    def __init__(self, world: World) -> None:
        self.world = world
        self.dice = world.dice

    def arm(self) -> None:
        """Called right before an operation."""

    def around(self, operation: Callable[[], Any]) -> Any:
        """Does the operation."""
        return operation()

    def disarm(self) -> None:
        """Called right behind it, also when it failed."""

    def close(self) -> None:
        """Called at the end of the program."""

    def problems(self, result: Any) -> list[str]:
        """What is wrong about the last operation, for kinds that are not exact."""
        if isinstance(result, SystemError) and not any(text in str(result) for text in INTERPRETERS_OWN):
            return [str(result)]
        return []


class Mortal:
    """Does a deed when it dies."""

    def __init__(self, world: World, label: str) -> None:
        self.world, self.label, self.deed = world, label, world.deed()

    def __deepcopy__(self, memo: Any) -> Any:
        return Mortal(self.world, self.label + "'")

    def __del__(self) -> None:
        self.world.note("finalised", self.label)
        try:
            self.deed()
        except Exception:
            pass


class Finalisers(Kind):
    """Objects in the registry and in the pool that use the module, or empty its containers, when they die."""

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill()
        for each in world.lists():
            for number, record in enumerate(each):
                if self.dice.random() < 0.4:
                    put(record, mortal=Mortal(world, f"m{number}"))


class Collections(Kind):
    """Finalisers in garbage, which a collection somewhere inside an operation runs."""

    exact = False

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill()

    def arm(self) -> None:
        if sys.version_info[:2] == (3, 11):
            # It gives a record two dictionaries where a finaliser asks for the first while that is made.
            for each in self.world.lists():
                for record in each:
                    getattr(record, "__dict__", None)
        for _ in range(self.dice.choice((1, 3))):
            mortal = Mortal(self.world, "in a cycle")
            mortal.own = mortal  # type: ignore[attr-defined]
        del mortal
        gc.set_threshold(gc.get_count()[0] + self.dice.randrange(1, 60))

    def disarm(self) -> None:
        gc.set_threshold(700, 10, 10)


class ClassKeys(Kind):
    """Names in class bodies and of keyword arguments whose comparison runs code.

    How often it runs depends on whether two classes share a place in the interpreter's cache, too.
    """

    tries = 40

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill(40, world.record_class(keys=True))

    def arm(self) -> None:
        Key.turns = self.dice.choice((1, 1, 1, 2, 3))
        Key.deed = self.world.deed()
        Argument.deed = self.world.deed()
        for cls in self.world.classes:
            if self.dice.random() < 0.3:
                cls.unrelated = self.dice.random()  # type: ignore[attr-defined]

    def disarm(self) -> None:
        Key.deed = Argument.deed = None


class Interrupted(BaseException): ...


LOST_INTERRUPT = "the interrupt was lost"


class TimedSignals(Kind):
    """A signal while an operation runs, whose handler raises, or does a deed."""

    exact = False

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill(self.dice.choice((12, 12, 60)))
        self.fired = self.raised = 0
        self.deed = world.deed() if self.dice.random() < 0.3 else None
        self.before = signal.signal(signal.SIGALRM, self.handle)

    def handle(self, *_: Any) -> None:
        self.fired += 1
        if self.deed is None:
            raise Interrupted
        try:
            self.deed()
        except Refused:
            raise
        except Exception:
            pass  # the module, called among what another deed has left

    def arm(self) -> None:
        self.fired = self.raised = 0
        self.late = False

    def around(self, operation: Callable[[], Any]) -> Any:
        delay = self.dice.choice((20, 100, 400)) * self.dice.random() * 1e-6
        signal.setitimer(signal.ITIMER_REAL, max(delay, 1e-6))
        return operation()

    def disarm(self) -> None:
        try:
            while self.fired == 0:
                time.sleep(0.001)
        except Interrupted:
            self.late = True
        except Refused:
            pass

    def close(self) -> None:
        signal.signal(signal.SIGALRM, self.before)

    def problems(self, result: Any) -> list[str]:
        found = super().problems(result)
        if self.fired != 1:
            found.append(f"{self.fired} interrupts")
        # A refresh makes every error its result. CPython 3.10 itself puts a TypeError without a text in the
        # place of what is raised while it compares the names of arguments.
        is_replaced = isinstance(result, TypeError) and not result.args
        seen = self.late or isinstance(result, Interrupted) or getattr(result, "error", False) or is_replaced
        if self.deed is None and not seen:
            found.append(f"{LOST_INTERRUPT}: {result!r}")
        return found


class SignalsInHooks(Kind):
    """A signal that is raised by the n-th call of a record's own code."""

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill()
        self.before = signal.signal(signal.SIGALRM, self.handle)
        self.turns = 0
        kind = self

        def uuid(this: Any) -> str:
            kind.turn()
            return f"u-{this.worker_id}"

        def copied(this: Any, memo: Any) -> Any:
            kind.turn()
            return this

        for cls in world.classes:
            for name, value in (("uuid", property(uuid, lambda *_: None)), ("__deepcopy__", copied)):
                if self.dice.random() < 0.6:
                    setattr(cls, name, value)

    def turn(self) -> None:
        self.turns -= 1
        if self.turns == 0:
            signal.raise_signal(signal.SIGALRM)
            for _ in range(3):
                pass

    def handle(self, *_: Any) -> None:
        raise Interrupted

    def arm(self) -> None:
        self.turns = self.dice.randrange(1, 12)

    def disarm(self) -> None:
        self.turns = 0

    def close(self) -> None:
        signal.signal(signal.SIGALRM, self.before)


class Lazy:
    """A callable that puts the genuine one, or another of its kind, in its own place when it is called."""

    def __init__(self, world: World, owner: Any, name: str) -> None:
        self.world, self.owner, self.name, self.deed = world, owner, name, world.deed()
        self.genuine: Any = (
            vars(owner)[name] if name in vars(owner) else getattr(world.module, name, None) or BUILT_IN[name]
        )

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        setattr(self.owner, self.name, self.genuine)
        gc.collect()
        self.world.note("replaced itself", self.name)
        self.deed()
        return self.genuine(*args, **kwargs)


BUILT_IN = {"len": len, "isinstance": isinstance, "str": str, "TimeoutError": TimeoutError}


class SelfReplacingNames(Kind):
    """Functions of modules and of classes that replace themselves when they are called."""

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill()
        self.undo: list[Callable[[], None]] = []

    def targets(self) -> list[tuple[Any, tuple[str, ...]]]:
        import copy
        import logging
        import threading

        module = self.world.module
        return [
            (
                module,
                ("deepcopy", "OPResult", "PingRequest", "WebSocketClient", "CloudConfManager", *BUILT_IN),
            ),
            (logging, ("getLogger",)),
            (threading, ("Lock",)),
            (copy, ("_reconstruct", "_keep_alive", "deepcopy")),
            (type(self.world.manager), ("list_instances",)),
            (module.NodeManager, ("set_node", "get_node_list", "find_node_by_uuid", "set_node_list")),
            (module.CloudManager, ("_get_node_manager", "_get_cached_node_manager")),
        ]

    def arm(self) -> None:
        for _ in range(self.dice.choice((1, 2, 3))):
            owner, names = self.dice.choice(self.targets())
            name = self.dice.choice(names)
            there, before = name in vars(owner), vars(owner).get(name)
            if not there and name not in BUILT_IN:
                continue  # a deed has taken it away
            lazy: Any = Lazy(self.world, owner, name)
            shape = self.dice.choice(("object", "function", "remembering", "partial", "method"))
            if shape == "function" or isinstance(owner, type):
                lazy = (lambda inner: lambda *args, **kwargs: inner(*args, **kwargs))(lazy)
            elif shape == "remembering":
                lazy = functools.lru_cache(None)(lazy)
            elif shape == "partial":
                lazy = functools.partial(lazy)
            elif shape == "method":
                lazy = types.MethodType((lambda inner: lambda this, *a, **k: inner(*a, **k))(lazy), 1)
            self.undo.append(functools.partial(put_back, owner, name, there, before))
            setattr(owner, name, lazy)
            del lazy

    def disarm(self) -> None:
        while self.undo:
            self.undo.pop()()


def put_back(owner: Any, name: str, there: bool, before: Any) -> None:
    if there:
        setattr(owner, name, before)
    elif name in vars(owner):
        delattr(owner, name)


class FailingAllocations(Kind):
    """One allocation, or all from one on, fails: the interpreter's, those of C++, or both."""

    exact = False

    def __init__(self, world: World) -> None:
        super().__init__(world)
        world.fill()

    def arm(self) -> None:
        gc.collect()  # CPython keeps sixteen MemoryErrors for such times: none stays in the garbage of others
        # CPython crashes where an iterator of a dictionary has no memory for a pair; freed ones serve it.
        pairs = [(self, None) for _ in range(100)]
        del pairs

    def around(self, operation: Callable[[], Any]) -> Any:
        start = int(self.dice.random() ** 2 * 250)
        stop = 0 if self.dice.random() < 0.4 else start + 1
        which = (
            self.dice.choice(("interpreter", "C++", "both")) if allocations.reaches_cpp() else "interpreter"
        )
        if which != "interpreter":
            start = start // 60 if which == "C++" else start
            allocations.fail_cpp(start // 20, 0 if stop == 0 else start // 20 + 1)
        if which != "C++":
            allocations.fail_interpreter(start, stop)
        try:
            return operation()
        finally:
            allocations.give_memory_back()
            allocations.fail_none()


KINDS: dict[str, type[Kind]] = {
    "finalisers": Finalisers,
    "finalisers in collections": Collections,
    "class keys": ClassKeys,
    "timed signals": TimedSignals,
    "signals in hooks": SignalsInHooks,
    "self-replacing names": SelfReplacingNames,
    "failing allocations": FailingAllocations,
}
