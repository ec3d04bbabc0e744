"""Tests of the environment that a demo runs in."""

from __future__ import annotations

import os

import pytest

from demo.environment import environment


def test_the_users_own_variables_are_hidden_and_come_back(monkeypatch: pytest.MonkeyPatch) -> None:
    """A profile or a setting of the user's must not reach the demo, and is there again after it."""
    monkeypatch.setenv("AWS_PROFILE", "somebody")
    monkeypatch.setenv("TOVARIN_NETWORK__AWS_CUSTOM_VPC", "vpc-of-somebody")
    monkeypatch.setenv("OTHER", "kept")
    before = dict(os.environ)
    with environment({"AWS_REGION": "us-east-1"}):
        assert [name for name in os.environ if name.startswith(("AWS_", "TOVARIN_"))] == ["AWS_REGION"]
        assert os.environ["OTHER"] == "kept"
    assert dict(os.environ) == before


def test_variables_come_back_after_an_exception() -> None:
    """What the body did to the environment is undone, whatever ended it."""
    before = dict(os.environ)
    with pytest.raises(LookupError), environment({"AWS_REGION": "us-east-1"}):
        os.environ["SOMETHING_NEW"] = "1"
        raise LookupError
    assert dict(os.environ) == before
