"""What callers of the module wait for, measured beside a plain-Python twin of the same algorithms."""
