"""Servers for tests and demos."""
