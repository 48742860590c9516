"""What the scripts that measure have in common, and what they do besides their main purpose."""
