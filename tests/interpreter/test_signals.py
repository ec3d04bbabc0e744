"""Ctrl-C, by a real signal, while the main thread stands inside a method."""

import pytest

PROLOGUE = """
import os, signal, threading, time
from tovarincore import cloud_node
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion

def interrupt_soon():
    threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()

def long_work():
    # Started here, so that a slow machine is not interrupted before it comes here.
    interrupt_soon()
    time.sleep(60)

class Ec2:
    def start_instances(self, **kwargs): return {}
    def get_waiter(self, name): return self
    def wait(self, **kwargs): long_work()

class Logger:
    lines = []
    def debug(self, message, exc_info=None): self.lines.append((message, exc_info))
    def error(self, message, exc_info=None): self.lines.append((message, exc_info))

manager = cloud_node.AWSNodeManager(CloudRegion(name="here", cloud="AWS"), AWSCloudAuth(), "user")
manager._get_client = Ec2
manager.logger = Logger()
LIMIT = 30
began = time.monotonic()
"""

EPILOGUE = """
assert time.monotonic() - began < LIMIT
assert not manager._NodeManager__node_list_lock.locked()
print("as it should be")
"""

BODIES = {
    "a refresh, which catches everything": """
manager.list_instances = long_work
result = manager.refresh_node_list()
assert result.error and "KeyboardInterrupt" in result.traceback_text, result
""",
    "the wait of a start, which catches everything": """
assert manager.start_node("i-1", wait_until_cloud_provider_ready=True) is None
assert Logger.lines[-1] == ("AWS wait failed.", True), Logger.lines
""",
    "the wait for a lock, from which it travels on": """
lock = manager._NodeManager__node_list_lock
lock.acquire()
LIMIT = 2.9
try:
    interrupt_soon()
    manager.get_node_list()
except KeyboardInterrupt:
    lock.release()
else:
    raise SystemExit("not interrupted")
assert manager.get_node_list() == []
""",
    "the body of a lock, which is free afterwards": """
class Record:
    uuid = property(lambda self: long_work())
manager._NodeManager__node_list.append(Record())
try:
    manager.find_node_by_uuid("u")
except KeyboardInterrupt:
    pass
else:
    raise SystemExit("not interrupted")
""",
}


@pytest.mark.parametrize("body", BODIES.values(), ids=BODIES.keys())
def test_an_interrupt_reaches(run_child, body):
    """Promptly, and with every lock free afterwards."""
    child = run_child(PROLOGUE + body + EPILOGUE)
    assert (child.returncode, child.stdout, child.stderr) == (0, "as it should be\n", "")
