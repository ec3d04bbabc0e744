"""Goes through README and Getting started as a newcomer would: `python -m scripts.first_hour [--clone]`.

Each shell that is installed starts in an empty home with the start-up lines of pyenv, which put its folder of
stand-ins in front of the search path, opens the playground, and runs every command and program of both pages
there. It prints what each took. With --clone it begins with a clone of the repository and two `make demo`.
"""

from __future__ import annotations

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

from tests.docs.samples import ROOT, commands_of, programs_of, samples_of

PAGES = ("README.md", "docs/getting-started.md")
START_UP = {"bash": ".bashrc", "zsh": ".zshrc"}
# Where packages come from belongs to the machine, not to the user's home.
KEPT = ("PIP_", "SSL_", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY", "http_proxy", "https_proxy", "no_proxy")
PATIENCE_SECONDS = 600
_RESULT = re.compile(r"^<<(?P<status>\d+) (?P<seconds>[\d.]+)>> (?P<command>.*)$", re.MULTILINE)


def main() -> int:
    """Run all; the exit status is 1 when a command failed or another one than the tree's was found."""
    parser = argparse.ArgumentParser(prog="first_hour", description=__doc__)
    parser.add_argument("--clone", action="store_true", help="begin with a clone and `make demo`, twice")
    options = parser.parse_args()
    failed = False
    with tempfile.TemporaryDirectory(prefix="tovarin-first-hour-") as name:
        folder = Path(name)
        tree = ROOT
        if options.clone:
            tree = folder / "tovarincore"
            failed = _clone(tree, folder)
        for shell in START_UP:
            program = shutil.which(shell)
            if program is None:
                print(f"{shell} is not installed: left out")
                continue
            for page in PAGES:
                home = folder / f"home-{shell}-{Path(page).stem}"
                home.mkdir()
                print(f"\n{page} on {shell}, in an empty home with pyenv", flush=True)
                failed = _read(tree, ROOT / page, program, home) or failed
    print("\nsomething stumbles" if failed else "\nnothing stumbles")
    return int(failed)


def _clone(tree: Path, folder: Path) -> bool:
    home = folder / "home-clone"
    home.mkdir()
    environment = _environment(home, "/bin/sh")
    commands = [["git", "clone", "--quiet", str(ROOT), str(tree)]]
    commands += [["make", "-C", str(tree), "demo"]] * 2
    failed = False
    for command in commands:
        started = time.monotonic()
        done = subprocess.run(command, env=environment, capture_output=True, text=True)
        _tell(done.returncode, time.monotonic() - started, " ".join(command[:1] + command[3:]))
        if done.returncode:
            print(done.stdout[-2000:], done.stderr[-2000:])
            failed = True
    return failed


def _read(tree: Path, page: Path, program: str, home: Path) -> bool:
    """Run a page's commands in the playground; say whether one failed."""
    (home / START_UP[Path(program).name]).write_text(_pyenv(home))
    lines = [f"cd {tree}", ".venv/bin/python -m demo.playground", f"cd {home}"]
    lines += [_timed("command -v tovarin-nodes python")]
    lines += [_timed(command) for command in _commands(page, home)]
    lines += ["exit", "exit", ""]
    done = subprocess.run(
        [program, "-i"],
        input="\n".join(lines),
        env=_environment(home, program),
        cwd=home,
        capture_output=True,
        text=True,
        timeout=PATIENCE_SECONDS,
    )
    results = list(_RESULT.finditer(done.stdout))
    for result in results:
        _tell(int(result["status"]), float(result["seconds"]), result["command"])
    found = [line for line in done.stdout.splitlines() if line.endswith(("bin/tovarin-nodes", "bin/python"))]
    wanted = [str(tree / ".venv" / "bin" / name) for name in ("tovarin-nodes", "python")]
    complete = len(results) == len(lines) - 6 and found[:2] == wanted
    if complete and not any(int(result["status"]) for result in results):
        return False
    print(f"found {found[:2]}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}")
    return True


def _commands(page: Path, home: Path) -> Iterator[str]:
    """The commands of a page in its order; a program is saved first, as its reader would."""
    programs = {sample.line: text for sample, text in programs_of(page)}
    for sample in samples_of(page):
        if sample.reason:
            continue
        if sample.language == "python":
            if sample.line in programs:
                path = home / f"first-{sample.line}.py"
                path.write_text(programs[sample.line])
                yield f"python {path.name}"
        else:
            yield from (command for command, _ in commands_of(sample))


def _timed(command: str) -> str:
    shown = command.replace("'", "")
    return (
        f'began=$(date +%s.%N); {command}; code=$?; printf "\\n<<%d %.2f>> %s\\n" $code'
        f" $(echo \"$(date +%s.%N) $began\" | awk '{{print $1 - $2}}') '{shown}'"
    )


def _pyenv(home: Path) -> str:
    """The lines that pyenv's own instructions add; without pyenv, something that does the same."""
    pyenv = shutil.which("pyenv")
    if pyenv is None:
        shims = home / "shims"
        shims.mkdir()
        for name in ("python", "tovarin-nodes"):
            (shims / name).write_text("#!/bin/sh\necho stand-in: no such version >&2\nexit 127\n")
            (shims / name).chmod(0o755)
        return f'export PATH="{shims}:$PATH"\n'
    root = Path(pyenv).parent.parent
    return (
        f'export PYENV_ROOT="{root}"\nexport PATH="$PYENV_ROOT/bin:$PATH"\n'
        'eval "$(pyenv init - --no-rehash)"\n'
    )


def _environment(home: Path, program: str) -> dict[str, str]:
    kept = {name: value for name, value in os.environ.items() if name.startswith(KEPT)}
    path = "/usr/local/bin:/usr/bin:/bin"
    return {**kept, "HOME": str(home), "PATH": path, "SHELL": program, "TERM": "xterm", "LANG": "C.UTF-8"}


def _tell(status: int, seconds: float, command: str) -> None:
    print(f"{'ok' if status == 0 else f'FAILED ({status})':<12}{seconds:7.2f} s  {command}", flush=True)


if __name__ == "__main__":
    sys.exit(main())
