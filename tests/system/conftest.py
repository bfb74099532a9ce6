"""Fixtures of the system tests. QUARROW_BINARY names the daemon, QUARROW_MIME_TABLE the table it is to read."""
import os
import sys

import pytest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, "../../scripts")]

pytest.register_assert_rewrite("after_a_kill", "catalogue", "daemon", "harness", "recovery", "strangers",
                               "tracing")  # for failures that say why

from harness import Arena  # (the path comes first)
from quarrow_driver.clock import Clock

pytest_plugins = ("mounts", "powercut")  # which bring fixtures of their own


@pytest.fixture
def arena():
    """A world of the test's own; whatever the test leaves running in it is ended."""
    world = Arena()
    yield world
    reports = world.close()
    assert reports == ""


@pytest.fixture
def clock(arena):
    """A clock that stands still, at a round moment that is long past for every file."""
    return Clock(arena.path("clock"), 1_700_000_000)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Shows the last lines of the last daemons' logs with a failure."""
    report = (yield).get_result()
    world = getattr(item, "funcargs", {}).get("arena")
    if report.when == "call" and report.failed and world is not None:
        for daemon in world.daemons[-4:]:
            report.sections.append((f"log of process {daemon.pid}", daemon.tail()))
            report.sections.append((f"standard error of process {daemon.pid}", daemon.output("stderr")[-2000:]))
