"""A pusher that is killed, again and again: one clean run brings everything."""
import time

import pytest
from push_server import FULL
from push_world import seeded

FAULTS = (None, None, None, FULL, "answer lost", "half a request")


@pytest.mark.parametrize("seed", range(3))
def test_killed_pushers_lose_nothing(world, seed):
    """At any moment, while the server fails now and then."""
    choice = seeded(f"kill {seed}")
    volumes = [world.volume("V", 300), world.volume("W", 40)]
    begin = time.monotonic()
    world.good()
    usual = time.monotonic() - begin
    for _ in range(8):
        for volume in volumes:
            volume.change(choice)
        if choice.random() < 0.25:
            volumes[1].make_anew(choice.randrange(60))
        world.server.faults.extend(choice.choice(FAULTS) for _ in range(4))
        process = world.start(*(["--follow"] if choice.random() < 0.3 else []))
        time.sleep(choice.random() * 1.2 * usual)  # until a moment that chance chooses
        process.kill()
        process.communicate()
        if choice.random() < 0.3:
            world.server.faults.clear()
            assert world.run().status == 0
            world.assert_complete()
    world.server.faults.clear()
    assert world.run().status == 0
    world.assert_complete()
