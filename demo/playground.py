"""A shell to try things in: `python -m demo.playground [command ...]`.

An emulated EC2, a worker that answers and one that never does, and a separate configuration folder, all on
this machine and gone at the end. The region is us-east-1; nodes whose name begins with "silent" get the
worker that never answers.
"""

from __future__ import annotations

import os
import shlex
import subprocess
import sys
import tempfile
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from pathlib import Path

from stage.ec2_endpoint import ACCESS_KEY_ID, REGION_NAME, SECRET_ACCESS_KEY, Ec2Endpoint
from stage.ports import HOST
from stage.settings import settings_of
from tovarincore.testing.reference_worker import ReferenceWorker

IMAGE_NAMES = [f"TOVARIN_AI_{kind}_{plan}_1.4.0" for kind in ("CPU", "GPU") for plan in ("PLAN_A", "PLAN_B")]
# Comes last in a shell's start-up, so that it wins: the programs of this environment first, and what `hash`
# remembers of earlier look-ups forgotten.
_LAST = 'export PATH={}:"$PATH"; hash -r; PS1=\'(playground) \'"$PS1"'


@contextmanager
def playground() -> Iterator[Ec2Endpoint]:
    """Run the body, and the programs that it starts, in the playground's environment."""
    with (
        Ec2Endpoint() as endpoint,
        ReferenceWorker() as worker,
        ReferenceWorker(answer=False) as silent,
        tempfile.TemporaryDirectory(prefix="tovarin-playground-") as folder,
    ):
        endpoint.prepare_account(IMAGE_NAMES)
        addresses = {"silent*": f"{HOST}:{silent.port}", "*": f"{HOST}:{worker.port}"}
        variables = {
            "AWS_ENDPOINT_URL_EC2": endpoint.url,
            "AWS_ACCESS_KEY_ID": ACCESS_KEY_ID,
            "AWS_SECRET_ACCESS_KEY": SECRET_ACCESS_KEY,
            # The command of this very environment, whatever else is installed.
            "PATH": os.pathsep.join([os.path.dirname(sys.executable), os.environ.get("PATH", os.defpath)]),
        }
        with settings_of(Path(folder), {"worker_addresses": addresses}, **variables):
            yield endpoint


def shell(folder: Path) -> list[str]:
    """Return the command of an interactive shell that finds this environment's programs first.

    The user's own start-up file runs before, since it may put other folders first on the path. Other shells
    than bash and zsh start as they are.

    :param folder: an existing folder for the shell's start-up file
    """
    program = os.environ.get("SHELL", "/bin/sh")
    bin_folder = shlex.quote(os.path.dirname(sys.executable))
    if os.path.basename(program) == "bash":
        _write(
            folder / "bashrc",
            "[ -f ~/.bashrc ] && . ~/.bashrc",
            _LAST.format(bin_folder),
            "unset PROMPT_COMMAND",
        )
        return [program, "--rcfile", str(folder / "bashrc"), "-i"]
    if os.path.basename(program) == "zsh":
        # zsh reads its start-up files from ZDOTDIR, which the user may have set, or set in the first of them.
        users, ours = (shlex.quote(str(name)) for name in (os.environ.get("ZDOTDIR", Path.home()), folder))
        _write(
            folder / ".zshenv",
            f"ZDOTDIR={users}",
            "[[ -f $ZDOTDIR/.zshenv ]] && . $ZDOTDIR/.zshenv",
            f"playground_zdotdir=$ZDOTDIR ZDOTDIR={ours}",
        )
        _write(
            folder / ".zshrc",
            "ZDOTDIR=$playground_zdotdir",
            "[[ -f $ZDOTDIR/.zshrc ]] && . $ZDOTDIR/.zshrc",
            _LAST.format(bin_folder),
            "precmd_functions=()",
        )
        return ["env", f"ZDOTDIR={folder}", program, "-i"]
    return [program]


def _write(path: Path, *lines: str) -> None:
    path.write_text("\n".join([*lines, ""]), encoding="utf-8")


def main(arguments: Sequence[str] | None = None) -> int:
    """Run a command, or a shell, in the playground; returns its exit status."""
    command = list(sys.argv[1:] if arguments is None else arguments)
    with playground() as endpoint:
        if not command:
            command = shell(Path(os.environ["TOVARIN_CONF"]).parent)
            print(f"An emulated EC2 listens on {endpoint.url} as region {REGION_NAME}; `exit` ends it.")
            print(f"Begin with: tovarin-nodes configure {REGION_NAME} --user-name ada --sdk")
        return subprocess.run(command, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
