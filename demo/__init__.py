"""Runnable demonstrations of the node manager: `python -m demo`."""
