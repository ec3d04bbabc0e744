"""One hostile program: a world, one kind of disturbance, a few operations, and what is seen of it."""

from __future__ import annotations

import gc
import random
import sys
from dataclasses import dataclass
from itertools import zip_longest
from types import SimpleNamespace
from typing import Any, Callable, Optional

from tests.differential.hostile.kinds import KINDS, Interrupted
from tests.differential.hostile.operations import draw
from tests.differential.hostile.world import LockWrittenInPython, Refused, World, depth
from tovarincore.core_def import OPResult


@dataclass(frozen=True)
class HostileCase:
    """Enough to run a program again."""

    kind: str
    seed: int

    def __str__(self) -> str:
        return f"{self.kind}, seed {self.seed}"


@dataclass
class Seen:
    """What a program left: its events, and what is wrong whatever the other side does."""

    events: list[tuple[str, ...]]
    problems: list[str]


class WebSocketClient:
    """A worker that answers."""

    def __init__(self, node: Any, **options: Any) -> None:
        self.node = node

    def api_get_op_result(self, request: Any) -> Any:
        return OPResult(success=True)

    def refresh_system_stat(self) -> None:
        self.node.ready = True


def without_frames(error: BaseException) -> BaseException:
    """Plain Python's tracebacks hold frames, and what their variables name; the extension has no frames."""
    seen: set[int] = set()
    rest: list[Optional[BaseException]] = [error]
    while rest:
        each = rest.pop()
        if each is not None and id(each) not in seen:
            seen.add(id(each))
            rest += [each.__cause__, each.__context__]
            each.__traceback__ = None
    return error


def outcome(action: Callable[[], Any]) -> Any:
    try:
        return action()
    except (Exception, Interrupted) as error:
        return without_frames(error)


def run(module: Any, case: HostileCase) -> Seen:
    """Runs the program; the module's names are as before afterwards."""
    names = vars(module)
    before = dict(names)
    names["WebSocketClient"] = WebSocketClient
    names["CloudConfManager"] = SimpleNamespace
    try:
        return _run(module, case)
    finally:
        names.clear()
        names.update(before)
        gc.enable()


def _run(module: Any, case: HostileCase) -> Seen:
    if KINDS[case.kind].exact:
        gc.disable()  # a collection's moment is no program's business
    world = World(module, random.Random(str(case)))
    kind = KINDS[case.kind](world)
    seen = Seen([], [])
    calls = depth()
    for _ in range(world.dice.choice((1, 2, 3, 4))):
        name, operation = draw(world)
        _disturbed(world, kind, seen, name, operation)
    kind.close()
    if depth() != calls:
        seen.problems.append(f"{depth() - calls} levels of calls were lost")
    if sys.exc_info() != (None, None, None):
        seen.problems.append("an error stays the handled one")
    for each in world.lists():
        world.note("state", world.show(each))
    for each in world.lists():
        each.clear()
    gc.collect()
    # Whatever dies later is no part of it, and does nothing to the programs behind it.
    seen.events, world.events, world.deeds_left = world.events, [], 0
    return seen


def _disturbed(world: World, kind: Any, seen: Seen, name: str, operation: Callable[[], Any]) -> None:
    kind.arm()
    try:
        result = outcome(lambda: kind.around(operation))
    except (Interrupted, Refused) as error:  # right behind the operation
        result = without_frames(error)
    finally:
        try:
            kind.disarm()
        except Interrupted:  # at its first line: newer interpreters look at signals there
            kind.late = True
        except Refused:
            pass
    world.note("did", name, world.show(result))
    if kind.exact:
        world.note("locked", str(world.locked()))
        return
    seen.problems += [f"{name}: {problem}" for problem in kind.problems(result)]
    if world.locked() and not _may_stay_locked(world):
        seen.problems.append(f"{name}: a lock is held")


def _may_stay_locked(world: World) -> bool:
    """An interrupt may come in the release of a lock that is written in Python, in Python too."""
    return isinstance(world.manager._NodeManager__node_list_lock, LockWrittenInPython)


def difference(extension: Any, twin: Any, case: HostileCase) -> Optional[str]:
    """None where nothing is wrong, else what is. The extension runs first: its first use may be this one."""
    ours = run(extension, case)
    if ours.problems:
        return f"{case}: {'; '.join(ours.problems)}"
    if not KINDS[case.kind].exact:
        return None
    plain = run(twin, case)
    all_ours, all_plain = [ours.events], [plain.events]
    for tries_left in reversed(range(KINDS[case.kind].tries + 1)):
        if any(events in all_plain for events in all_ours):
            return None
        if tries_left:
            move_in_the_type_cache()
            ours, plain = run(extension, case), run(twin, case)
            all_ours.append(ours.events)
            all_plain.append(plain.events)
    for number, (a, b) in enumerate(zip_longest(ours.events, plain.events)):
        if a != b:
            before = "\n".join(
                f"    {str(event)[:300]}" for event in plain.events[max(0, number - 6) : number]
            )
            return (
                f"{case}, event {number}:\n{before}\n  extension: {_from(a, b)}\n  twin:      {_from(b, a)}"
            )
    return None


def move_in_the_type_cache() -> None:
    """Gives the classes that are made next other places in the interpreter's cache of attributes of types."""
    for number in range(random.randrange(1, 500)):
        type(f"Passing{number}", (), {}).__dict__.get("nothing")


def _from(event: Optional[tuple[str, ...]], other: Optional[tuple[str, ...]]) -> str:
    """The event, from shortly before where it begins to differ."""
    text = str(event)
    same = next((i for i, (a, b) in enumerate(zip(text, str(other), strict=False)) if a != b), 0)
    return f"{text[:40]} ... {text[max(40, same - 60) : same + 200]}"
