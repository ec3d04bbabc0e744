"""The sub-commands, one module per subject."""
