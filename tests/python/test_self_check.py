"""Where an interpreter is laid out otherwise than its headers said, nothing is read of it or remembered."""

import subprocess
import sys

from tests.python.test_deep_copy import needs_native

PROGRAM = """
from tests.python import _object_layer as layer

class Record:
    def __init__(self, name):
        self.name = name

def answers():
    records = [Record("name-%04d" % number) for number in range(20)]
    found, passed, _ = layer.turns_for_text(records, "name-0012")
    copied = layer.native_deepcopy([records[0], records[0]])
    assert sorted(one.name for one in found + passed) == [one.name for one in records]
    assert copied[0] is copied[1] is not records[0] and copied[0].name == "name-0000"
    assert [layer.get_name(one) for one in records] == [one.name for one in records]
    return len(passed)

assert layer.is_native(None) and answers() > 0
layer.distrust_layout(None)
assert not layer.is_native(None)

class Record(Record):  # what was remembered of the other class stays true
    pass

assert answers() == 0
"""


@needs_native
def test_a_look_that_fails_leaves_the_general_ways() -> None:
    subprocess.run([sys.executable, "-X", "dev", "-W", "error", "-c", PROGRAM], check=True, timeout=60)
