"""The interpreter ends cleanly while daemon threads stand inside our methods.

Such a thread is ended by unwinding its frames without the interpreter's lock as soon as it wants the
lock back. Each child process keeps the interpreter in its last phase long enough for
that to happen, and must end with status 0.
"""

import pytest

PROLOGUE = """
import sys, threading, time
from tovarincore import cloud_node
from tovarincore.cloud_def import CloudRegion

class Manager(cloud_node.NodeManager):
    def launch_node(self, *args, **kwargs): pass
    def list_instances(self): return inside()
    def start_node(self, *args, **kwargs): pass
    def stop_node(self, *args, **kwargs): pass
    def terminate_node(self, *args, **kwargs): pass
    def list_instance_templates(self, *args, **kwargs): pass
    def list_instance_types(self): pass

def inside():
    entered.release()
    while True:
        time.sleep(0.001)

class Lingering:
    # Dropped in the last phase: sleeping gives the interpreter's lock up, so that the threads ask for
    # it and end.
    sleep = time.sleep
    def __del__(self):
        self.sleep(0.2)

entered = threading.Semaphore(0)
manager = Manager(CloudRegion(name="here", cloud="local"))
"""

EPILOGUE = """
threads = [threading.Thread(target=body, daemon=True) for _ in range(4)]
for thread in threads:
    thread.start()
for _ in threads:
    entered.acquire()
sys.lingering = Lingering()
del threads
"""

BODIES = {
    "in a method": "body = manager.refresh_node_list",
    "in a method called with keywords": """
def body():
    cloud_node.NodeManager.refresh_node_list(self=manager)
""",
    "in the body of a lock": """
class Record:
    uuid = property(lambda self: inside())
manager._NodeManager__node_list.append(Record())
def body():
    manager._NodeManager__node_list_lock = threading.Lock()
    manager.find_node_by_uuid("x")
""",
    "waiting for a lock": """
manager._NodeManager__node_list_lock.acquire()
def body():
    entered.release()
    while True:
        try:
            manager.get_node_list()
        except TimeoutError:
            pass
""",
    "in a finaliser that a method triggers": """
class Record:
    def __del__(self):
        inside()
    def __deepcopy__(self, memo):
        return Record()
def body():
    own = Manager(CloudRegion(name="here", cloud="local"))
    own._NodeManager__node_list = [Record()]
    own.set_node_list([])
""",
    "in a finaliser that an error triggers on its way out": """
class Local:
    def __del__(self):
        inside()
class Odd(Manager):
    _NodeManager__node_list = property(lambda self: Local(), lambda self, value: None)
def body():
    Odd(CloudRegion(name="here", cloud="local")).find_node_by_uuid("x")
""",
    "in a hook of a deep copy": """
class Record:
    def __deepcopy__(self, memo):
        inside()
class Holder:
    def __init__(self):
        self.parts = [Record()]
def body():
    own = Manager(CloudRegion(name="here", cloud="local"))
    own.set_node(Holder())
""",
    "in the handler of a failed refresh": """
class Logger:
    def debug(self, *args, **kwargs):
        inside()
def body():
    own = Manager(CloudRegion(name="here", cloud="local"))
    own.logger = Logger()
    own.list_instances = lambda: 1 / 0
    own.refresh_node_list()
""",
    "in a finally clause of a failed operation": """
class Lock:
    def acquire(self, timeout):
        return True
    def release(self):
        inside()
def body():
    own = Manager(CloudRegion(name="here", cloud="local"))
    own._NodeManager__node_list_lock = Lock()
    own._NodeManager__node_list = None
    own.find_node_by_uuid("x")
""",
}


# The sanitizer takes the frames of a thread that was unwound from outside for frames still in use.
@pytest.mark.no_sanitizer
@pytest.mark.parametrize("body", BODIES.values(), ids=BODIES.keys())
def test_the_interpreter_ends_with_status_0_while_daemon_threads_are(run_child, body):
    """No abort, no crash, nothing on standard error."""
    child = run_child(PROLOGUE + body + EPILOGUE)
    assert (child.returncode, child.stderr) == (0, "")
