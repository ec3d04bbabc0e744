"""Tests of the shell in which newcomers try things."""

from __future__ import annotations

import sys

from demo.playground import main, playground
from tovarincore.core_conf import core_conf_glbl

LOOK = """
import os
assert os.environ["AWS_ENDPOINT_URL_EC2"].startswith("http://127.0.0.1:")
import boto3
images = boto3.client("ec2", "us-east-1").describe_images(Owners=["self"])["Images"]
raise SystemExit(len(images))
"""


def test_a_command_runs_on_the_emulated_ec2() -> None:
    """A program started in it reaches the emulator and its images; its exit status is passed on."""
    assert main([sys.executable, "-c", LOOK]) == 4


def test_only_nodes_named_silent_get_the_silent_worker(own_settings: None) -> None:
    """Node names decide which of the two workers is reached; afterwards the settings are the old ones."""
    with playground():
        addresses = core_conf_glbl.get_worker_address

        class Node:
            uuid = dns_address = "-"

            def __init__(self, name: str) -> None:
                self.name = name

        silent, answering = addresses(Node("silent-1")), addresses(Node("first"))
    assert silent is not None and answering is not None
    assert silent != answering
    assert addresses(Node("second")) is None
