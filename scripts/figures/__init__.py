"""What the scripts that measure print: tables and plots, with the machine and the date."""
