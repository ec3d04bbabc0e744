"""What one run of the command works with: its options, a region with its credentials, a look at EC2."""
