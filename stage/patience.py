"""How long a set-up may take before it counts as hanging."""

# What takes a second on an idle machine takes twenty on one that twenty other processes share. This notices
# a hang and no more; the limits that tests state about the product are theirs, and much shorter.
SETUP_SECONDS = 180
