"""Fixtures of the tests of fleet/."""
import os
import sys

import pytest

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, "../system"), os.path.join(HERE, "../../scripts"), os.path.join(HERE, "../../bench")]

pytest.register_assert_rewrite("push_world", "push_server", "fleet_world")  # for failures that say why

pytest_plugins = ("fleet_world",)  # which brings fixtures of its own


@pytest.fixture
def world():
    """A fleet of one appliance, with a server that only seems to be a database."""
    from push_world import World
    made = World()
    yield made
    made.close()
