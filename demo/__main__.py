"""Entry of the demos: `python -m demo [--json] [--local]`."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence


def main(arguments: Sequence[str] | None = None) -> int:
    """Run one demo; returns 0 when every step showed what it should, else 1."""
    parser = argparse.ArgumentParser(prog="demo", description="Work through the node manager, step by step.")
    parser.add_argument("--json", action="store_true", help="print JSON lines instead of text")
    parser.add_argument("--local", action="store_true", help="use the local container engine instead of EC2")
    options = parser.parse_args(arguments)
    # Imported here, so that each demo needs no more than its own SDK.
    if options.local:
        from demo.local import run_local_demo

        return run_local_demo(options.json)
    from demo.ec2_tour import run_ec2_demo

    return run_ec2_demo(options.json)


if __name__ == "__main__":
    sys.exit(main())
