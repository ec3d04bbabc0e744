"""What the clients of workers, engines and clusters share on the way out; this file imports nothing."""
