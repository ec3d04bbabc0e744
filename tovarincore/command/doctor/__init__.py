"""The checks of the sub-command `doctor`."""
