"""``tovarin-nodes top``: all nodes on the full screen."""
