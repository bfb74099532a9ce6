"""Waiting for a condition, always with an end."""
import time

#: Generous: a condition that holds is seen within milliseconds, this only ends a wait that fails.
BOUND = 180


def poll(condition, seconds, pause=0.02):
    """Returns the first true value of `condition()`, or what it gave last when there is none in time."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(pause)


def wait_for(condition, what, bound=BOUND):
    """Returns the first true value of `condition()`; fails, naming `what`, when there is none in time."""
    value = poll(condition, bound)
    assert value, f"not within {bound} s: {what}"
    return value
