"""Refuses to start without the extension that shows the object layer to these tests."""

from importlib.util import find_spec

import pytest

if find_spec("tests.python._object_layer") is None:
    raise pytest.UsageError("the tests' extension is not built for this interpreter: run `make build-tests`")
