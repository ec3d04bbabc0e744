"""What the modules that read configuration files share: errors, paths, hints, TOML, private files."""
