"""What a shell completes."""

from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

import pytest

from stage.ec2 import IMAGE_NAME, Ec2World
from tests.command.conftest import Run
from tests.conftest import ROOT


def complete(run: Run, words: str, monkeypatch: pytest.MonkeyPatch) -> list[str]:
    """The words offered behind a command line, whose last word is what was typed of it."""
    monkeypatch.setenv("_TOVARIN_NODES_COMPLETE", "bash_complete")
    monkeypatch.setenv("COMP_WORDS", words)
    monkeypatch.setenv("COMP_CWORD", str(len(words.split(" ")) - 1))
    result = run()
    monkeypatch.delenv("_TOVARIN_NODES_COMPLETE")
    return [line.partition(",")[2] for line in result.stdout.splitlines() if line]


def test_regions_nodes_types_and_images_are_completed(
    run: Run, ec2: Ec2World, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Nodes and images are those of the last listing: EC2 is not asked while somebody types."""
    instance_id = ec2.run_instance("cold-1")
    run("list", "us-east-1", "--no-probe")
    run("templates", "us-east-1")
    with ec2.faults() as endpoint:
        assert complete(run, "tovarin-nodes ter", monkeypatch) == ["terminate"]
        assert complete(run, "tovarin-nodes show us-", monkeypatch) == ["us-east-1"]
        assert complete(run, "tovarin-nodes show us-east-1 c", monkeypatch) == ["cold-1"]
        assert complete(run, "tovarin-nodes wait us-east-1 cold-1 i-", monkeypatch) == [instance_id]
        assert complete(run, "tovarin-nodes wait us-east-1 --for st", monkeypatch) == ["stopped"]
        assert complete(run, "tovarin-nodes top us-", monkeypatch) == ["us-east-1"]
        assert complete(run, "tovarin-nodes exporter --ev", monkeypatch) == ["--every"]
        assert complete(run, "tovarin-nodes terminate us-east-1 cold-1 i-", monkeypatch) == [instance_id]
        assert complete(run, "tovarin-nodes launch us-east-1 --type t3.smal", monkeypatch) == ["t3.small"]
        assert complete(run, "tovarin-nodes launch us-east-1 --template T", monkeypatch) == [IMAGE_NAME]
        assert "eu-west-1" in complete(run, "tovarin-nodes configure eu-", monkeypatch)
        assert complete(run, "tovarin-nodes keypair create us-east-1 ", monkeypatch) == []
        assert endpoint.actions() == []


@pytest.mark.parametrize("shell", ["bash", "zsh", "fish"])
def test_the_printed_text_is_a_program_of_its_shell(run: Run, tmp_path: Path, shell: str) -> None:
    """The shell itself, where there is one, takes it without an error."""
    result = run("completion", shell)
    assert (result.exit_code, "_TOVARIN_NODES_COMPLETE" in result.stdout) == (0, True)
    program = shutil.which(shell)
    if program is None:
        pytest.skip(f"{shell} is not installed")
    path = tmp_path / "completion"
    path.write_text(result.stdout)
    checked = subprocess.run([program, "-n", str(path)], capture_output=True, env=os.environ, cwd=ROOT)
    assert (checked.returncode, checked.stderr) == (0, b"")
