"""``tovarin-nodes exporter``: the state of nodes as metrics for a monitoring system."""
