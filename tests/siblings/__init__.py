"""Tests of the Python modules beside the extension."""
