"""Private to `tovarincore.container_helper`; this file imports nothing."""
