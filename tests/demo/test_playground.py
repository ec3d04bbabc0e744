"""Tests of the shell in which newcomers try things."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from demo.playground import main
from stage.playground import playground
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


@pytest.mark.parametrize(("name", "start_up"), [("bash", ".bashrc"), ("zsh", ".zshrc")])
def test_a_start_up_file_that_reorders_the_path_does_not_hide_the_command(
    tmp_path: Path, name: str, start_up: str
) -> None:
    """The user's file is read, then this environment comes first, and the prompt names the place."""
    program = shutil.which(name)
    if program is None:
        pytest.skip(f"{name} is not installed")
    shims = tmp_path / "shims"
    shims.mkdir()
    (shims / "tovarin-nodes").write_text("#!/bin/sh\necho shim\n")
    (shims / "tovarin-nodes").chmod(0o755)
    (tmp_path / start_up).write_text(f'export PATH="{shims}:$PATH" READ=yes; PS1="mine> "\n')
    done = subprocess.run(
        [sys.executable, "-m", "demo.playground"],
        cwd=Path(__file__).resolve().parents[2],
        env={**os.environ, "HOME": str(tmp_path), "SHELL": program},
        input='echo "found=$(command -v tovarin-nodes) read=$READ prompt=$PS1"\nexit\n',
        capture_output=True,
        text=True,
        timeout=120,
    )
    expected = f"found={Path(sys.executable).with_name('tovarin-nodes')} read=yes prompt=(playground) mine> "
    assert expected in done.stdout, done.stdout + done.stderr
