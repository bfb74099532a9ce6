"""Running the daemon from outside: what the system tests, the measurements in bench/ and the quickstart have in common."""
