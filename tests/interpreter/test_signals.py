"""Ctrl-C, by a real signal, while the main thread stands inside a method."""

import pytest

PROLOGUE = """
import os, signal, threading, time
from tovarincore import cloud_node
from tovarincore.cloud_def import AWSCloudAuth, CloudRegion

def interrupt_soon():
    threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()

class Ec2:
    def start_instances(self, **kwargs): return {}
    def get_waiter(self, name): return self
    def wait(self, **kwargs): time.sleep(30)

class Logger:
    lines = []
    def debug(self, message, exc_info=None): self.lines.append((message, exc_info))
    def error(self, message, exc_info=None): self.lines.append((message, exc_info))

manager = cloud_node.AWSNodeManager(CloudRegion(name="here", cloud="AWS"), AWSCloudAuth(), "user")
manager._get_client = Ec2
manager.logger = Logger()
began = time.monotonic()
"""

EPILOGUE = """
assert time.monotonic() - began < 2.5
assert not manager._NodeManager__node_list_lock.locked()
print("as it should be")
"""

BODIES = {
    "a refresh, which catches everything": """
manager.list_instances = lambda: time.sleep(30)
interrupt_soon()
result = manager.refresh_node_list()
assert result.error and "KeyboardInterrupt" in result.traceback_text, result
""",
    "the wait of a start, which catches everything": """
interrupt_soon()
assert manager.start_node("i-1", wait_until_cloud_provider_ready=True) is None
assert Logger.lines[-1] == ("AWS wait failed.", True), Logger.lines
""",
    "the wait for a lock, from which it travels on": """
lock = manager._NodeManager__node_list_lock
lock.acquire()
interrupt_soon()
try:
    manager.get_node_list()
except KeyboardInterrupt:
    lock.release()
else:
    raise SystemExit("not interrupted")
assert manager.get_node_list() == []
""",
    "the body of a lock, which is free afterwards": """
class Record:
    uuid = property(lambda self: time.sleep(30))
manager._NodeManager__node_list.append(Record())
interrupt_soon()
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
