"""The walks over the list read attributes and compare as Python does, whatever is done to the classes."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest

from tests.fakes import is_free, make_node
from tovarincore.cloud_def import AWSCloudNode, CloudNode, NodeState

LOOKUPS: dict[str, tuple[str, Callable[[Any], Any]]] = {
    "find_node_by_instance_id": ("instance_id", lambda manager: manager.find_node_by_instance_id("wanted")),
    "find_node_by_uuid": ("uuid", lambda manager: manager.find_node_by_uuid("wanted")),
    "get_ready_node_next_in_line": ("ready", lambda manager: manager.get_ready_node_next_in_line()),
}
every_lookup = pytest.mark.parametrize(("attribute", "look"), LOOKUPS.values(), ids=LOOKUPS)


@pytest.fixture
def filled(manager: Any) -> Any:
    """A manager of three nodes that has been asked before, so that anything it remembers is remembered."""
    manager.set_node_list([make_node(i) for i in "abc"])
    for _, look in LOOKUPS.values():
        assert look(manager) is None
    manager.change_node_state("none", NodeState.STOPPED)
    return manager


@every_lookup
@pytest.mark.parametrize("cls", [AWSCloudNode, CloudNode], ids=["own class", "base class"])
def test_a_property_put_on_a_class_later_wins_over_the_instance(
    filled: Any, monkeypatch: pytest.MonkeyPatch, attribute: str, look: Callable[[Any], Any], cls: type
) -> None:
    """It is a data descriptor; the node found is the first for which it gives what is wanted."""
    name = property(lambda self: "wanted" if self.name == "-" else "", lambda self, value: None)
    monkeypatch.setattr(cls, attribute, name, raising=False)
    found = look(filled)
    assert found is not None
    monkeypatch.undo()
    assert look(filled) is None


@every_lookup
def test_a_class_attribute_serves_where_the_instance_has_none(
    filled: Any, monkeypatch: pytest.MonkeyPatch, attribute: str, look: Callable[[Any], Any]
) -> None:
    """Without one the attribute is missing, as Python says it."""
    second = filled._NodeManager__node_list[1]
    delattr(second, attribute)
    if attribute in vars(CloudNode):  # The fields with defaults have a class attribute.
        monkeypatch.delattr(CloudNode, attribute)
    with pytest.raises(AttributeError, match=f"'AWSCloudNode' object has no attribute '{attribute}'"):
        look(filled)
    assert is_free(filled._NodeManager__node_list_lock)
    monkeypatch.setattr(AWSCloudNode, attribute, "wanted", raising=False)
    assert look(filled) == second


@every_lookup
@pytest.mark.parametrize("hook", ["__getattribute__", "__getattr__"])
def test_attribute_hooks_put_on_a_class_later_are_asked(
    filled: Any, monkeypatch: pytest.MonkeyPatch, attribute: str, look: Callable[[Any], Any], hook: str
) -> None:
    """The one for every attribute, and the one for missing attributes."""
    first = filled._NodeManager__node_list[0]
    if hook == "__getattr__":
        delattr(first, attribute)
        if attribute in vars(CloudNode):
            monkeypatch.delattr(CloudNode, attribute)

    def asked(self: Any, name: str) -> Any:
        if name == attribute:
            return "wanted"
        if hook == "__getattr__":
            raise AttributeError(name)
        return object.__getattribute__(self, name)

    monkeypatch.setattr(CloudNode, hook, asked, raising=False)
    assert look(filled) is not None


def test_set_node_reads_its_list_at_each_turn(filled: Any) -> None:
    """For the length, for each node and for the place of the new one, as its own attribute access sees."""
    reads: list[str] = []

    class Noticing(type(filled)):  # type: ignore[misc]
        def __getattribute__(self, name: str) -> Any:
            reads.append(name)
            return super().__getattribute__(name)

    filled.set_node(make_node("c"))
    filled.__class__ = Noticing
    filled.set_node(make_node("c"))
    assert reads.count("_NodeManager__node_list") == 5


def test_set_node_searches_the_list_that_a_replaced_len_puts_there(
    filled: Any, cloud_node: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """As many turns as the old list was long, through the new one."""
    filled.set_node(make_node("c"))
    nodes = [make_node(i) for i in "cd"]

    def exchange(old: list[Any]) -> int:
        filled._NodeManager__node_list = nodes
        return len(old)

    monkeypatch.setattr(cloud_node, "len", exchange, raising=False)
    new = make_node("c")
    filled.set_node(new)
    assert nodes[0] == new
    assert [node.instance_id for node in nodes] == ["c", "d"]


def test_a_node_that_changes_its_class_is_read_as_the_new_one(filled: Any) -> None:
    """Nothing remembered of the old class is used."""

    class Other(AWSCloudNode):
        uuid = property(lambda self: "wanted", lambda self, value: None)  # type: ignore[assignment]

    filled._NodeManager__node_list[2].__class__ = Other
    assert filled.find_node_by_uuid("wanted").instance_id == "c"


def test_a_state_change_goes_through_hooks_put_on_a_class_later(
    filled: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A __setattr__, and a property with a setter."""
    written: list[Any] = []
    monkeypatch.setattr(CloudNode, "__setattr__", lambda self, name, value: written.append((name, value)))
    filled.change_node_state("b", NodeState.STOPPED, 5)
    monkeypatch.undo()
    setter = property(lambda self: None, lambda self, value: written.append(value))
    monkeypatch.setattr(AWSCloudNode, "state", setter, raising=False)
    filled.change_node_state("b", NodeState.STOPPED, ready=6)
    assert written == [("state", NodeState.STOPPED), ("ready", 5), NodeState.STOPPED]
    assert filled._NodeManager__node_list[1].ready == 6


@pytest.mark.parametrize("failing", ["state", "ready"])
def test_a_write_that_fails_keeps_what_was_written_before_it(
    filled: Any, monkeypatch: pytest.MonkeyPatch, failing: str
) -> None:
    """State comes first; the lock is free afterwards."""
    monkeypatch.setattr(AWSCloudNode, failing, property(lambda self: None), raising=False)
    with pytest.raises(AttributeError):
        filled.change_node_state("a", NodeState.STOPPED, True)
    monkeypatch.undo()
    (node, *_) = filled._NodeManager__node_list
    assert (node.state is NodeState.STOPPED) is (failing == "ready")
    assert node.ready is False
    assert is_free(filled._NodeManager__node_list_lock)


class Meddling:
    """A key that does something to the list whenever it is compared."""

    def __init__(self, meddle: Callable[[], Any], equal: bool = False) -> None:
        self.meddle = meddle
        self.equal = equal
        self.compared = 0

    def __eq__(self, other: object) -> bool:
        self.compared += 1
        self.meddle()
        return self.equal


def test_a_list_that_grows_during_a_walk_is_walked_to_its_new_end(filled: Any) -> None:
    """An iteration goes on as long as there is a next element."""
    nodes = filled._NodeManager__node_list
    key = Meddling(lambda: nodes.append(make_node()) if len(nodes) < 6 else None)
    assert filled.find_node_by_uuid(key) is None
    assert key.compared == 6


def test_a_list_that_shrinks_during_a_walk_ends_it(filled: Any) -> None:
    """Without an error."""
    nodes = filled._NodeManager__node_list
    key = Meddling(nodes.clear)
    assert filled.find_node_by_instance_id(key) is None
    assert key.compared == 1
    assert filled.change_node_state(key, NodeState.STOPPED) is None


def test_a_list_replaced_during_a_walk_does_not_divert_it(filled: Any) -> None:
    """The iteration holds on to the list that it began with."""
    key = Meddling(lambda: setattr(filled, "_NodeManager__node_list", []))
    assert filled.find_node_by_uuid(key) is None
    assert key.compared == 3


def test_set_node_walks_by_index_and_reads_the_list_anew_each_time(filled: Any) -> None:
    """A list that shrinks is an IndexError, a list replaced is used from then on."""
    nodes = filled._NodeManager__node_list
    for node in nodes:
        node.instance_id = Meddling(lambda: None)
    nodes[0].instance_id.meddle = nodes.clear
    with pytest.raises(IndexError):
        filled.set_node(make_node("new"))
    assert is_free(filled._NodeManager__node_list_lock)
    other = [make_node("x"), make_node("new", name="old"), make_node("z")]
    nodes.append(make_node(Meddling(lambda: setattr(filled, "_NodeManager__node_list", other))))  # type: ignore[arg-type]
    nodes += other[1:]
    filled.set_node(make_node("new"))
    assert [(node.instance_id, node.name) for node in other] == [("x", "-"), ("new", "-"), ("z", "-")]


def test_a_list_of_anything_is_walked(manager: Any) -> None:
    """A tuple, a generator, other records: what can be iterated, and has the attribute, serves."""

    class Record:
        instance_id = "i"
        uuid = "u"
        ready = True

        def __deepcopy__(self, memo: Any) -> Any:
            return "copied"

    manager._NodeManager__node_list = (Record(),)
    assert manager.find_node_by_uuid("u") == "copied"
    manager._NodeManager__node_list = iter([Record(), Record()])
    assert manager.get_ready_node_next_in_line() == "copied"
    manager._NodeManager__node_list = 5
    with pytest.raises(TypeError, match="'int' object is not iterable"):
        manager.find_node_by_instance_id("i")
    with pytest.raises(TypeError, match=r"object of type 'int' has no len\(\)"):
        manager.set_node(make_node())
    assert is_free(manager._NodeManager__node_list_lock)


def test_the_stored_value_stands_on_the_left_of_the_comparison(manager: Any) -> None:
    """Unless the type on the right derives from the one on the left, as in Python."""
    asked: list[str] = []

    class Left(str):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            asked.append("left")
            return False

    class Right(Left):
        __hash__ = str.__hash__

        def __eq__(self, other: object) -> bool:
            asked.append("right")
            return False

    manager._NodeManager__node_list = [make_node(Left("a"), uuid="plain")]
    manager.find_node_by_instance_id("a")
    manager.find_node_by_instance_id(Right("a"))
    manager.find_node_by_uuid(Left("plain"))
    manager.set_node(make_node(Right("a")))
    assert asked == ["left", "right", "left", "right"]


@pytest.mark.parametrize("value", [0, "", [], None, 0.0, NotImplemented], ids=repr)
def test_answers_of_comparisons_are_put_to_a_truth_test(manager: Any, value: Any) -> None:
    """Whatever == gives, its truth decides; both sides giving NotImplemented compares identities."""

    class Odd:
        def __eq__(self, other: object) -> Any:
            return value

    manager._NodeManager__node_list = [make_node("a", uuid="u")]
    assert manager.find_node_by_uuid(Odd()) is None
