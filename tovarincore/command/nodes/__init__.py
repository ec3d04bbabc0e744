"""Nodes as the command sees them: listed, found, probed, waited for, and checked to be the user's own."""
