"""The built module alone, for what only the extension shows."""

from __future__ import annotations

import importlib
from types import ModuleType

import pytest

from tests.conftest import IMPLEMENTATIONS, MODULES


@pytest.fixture
def extension(own_settings: None) -> ModuleType:
    """The built module."""
    if "extension" not in IMPLEMENTATIONS:
        pytest.skip("TOVARIN_TESTS_ONLY leaves the extension out")
    return importlib.import_module(MODULES["extension"])
