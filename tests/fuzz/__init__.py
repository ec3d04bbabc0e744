"""Searches for bytes from outside that a reader does not expect; each module is one reader."""
