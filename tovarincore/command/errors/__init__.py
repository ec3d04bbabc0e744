"""What ends a command: exit codes, failures with their remedies, and what exceptions amount to."""
