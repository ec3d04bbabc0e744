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
from collections.abc import Sequence
from pathlib import Path

from stage.ec2_endpoint import REGION_NAME
from stage.playground import playground

# Comes last in a shell's start-up, so that it wins: the programs of this environment first, and what `hash`
# remembers of earlier look-ups forgotten.
_LAST = 'export PATH={}:"$PATH"; hash -r; PS1=\'(playground) \'"$PS1"'


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
