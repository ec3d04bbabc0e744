"""Reading of configuration files: the table of settings, the checks and the store's file handling."""
