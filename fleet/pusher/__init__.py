"""The parts of fleet/push."""
