"""Following regions in the background, for what lasts: a screen, or metrics."""
