"""Tovarin core: cloud nodes, their records, configuration and clients; import the modules you need."""
