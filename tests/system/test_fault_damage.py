"""Damage that somebody has done to a catalogue."""
import os
import random

import pytest

from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, good_volume, is_converged
from trees import volume_of_files

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)


def spoil(page, kind, choice):
    if kind == "random":
        return choice.randbytes(len(page))
    if kind == "zeros":
        return bytes(len(page))
    if kind == "type":
        return bytes([page[0] ^ 0x0F]) + page[1:]
    return page[:3] + b"\xff\xff" + page[5:]  # far too many cells


@pytest.mark.parametrize("kind", ["random", "zeros", "type", "cells"])
def test_one_page_of_a_catalogue_cannot_be_read_for_a_while(arena, kind):
    """The daemon lives, says so and serves the other volume. What it could do it did in a way that fits the page: once that
    is as it was, the catalogue is sound, has every row that it had, and one walk puts it right."""
    complaints = 0
    for run in range(6 * RUNS):
        seed = 5000 + run
        choice = random.Random(f"{kind} {seed}")
        volume, other = volume_of_files(arena, f"A{run}", 40, 30), good_volume(arena, f"B{run}")
        first = arena.start([volume, other])
        first.wait_walks(2)
        first.stop()
        before = volume.catalogue.live()
        size = os.path.getsize(volume.catalogue.path)
        number = choice.randrange(1, size // 4096)  # behind the page of the schema
        with open(volume.catalogue.path, "r+b") as file:
            file.seek(number * 4096)
            page = file.read(4096)
            spoilt = spoil(page, kind, choice)
            file.seek(number * 4096)
            file.write(spoilt)
        print(f"run {run}, seed {seed}: page {number + 1} of {size // 4096}")

        for folder in range(0, 40, 2):
            volume.make_file(f"/m/{folder}/a0.mp3", b"longer")
            volume.make_file(f"/m/{folder}/b.mp3", b"x")
            os.unlink(volume.path(f"/m/{folder}/a1.mp3"))
        volume.make_file("/m/new/1.mp3", b"x")
        other.make_file("/m/new.mp3", b"x")
        daemon = arena.start([volume, other], environment=CLOCK)
        daemon.wait_walks_of(other, 1)
        daemon.wait_idle()
        assert_converged(other)
        with daemon.frozen():  # so that it reads the three at once, and sees the folder of the first and the last
            for each, path in ((other, "/m/sub/live.mp3"), (volume, "/m/3/live.mp3"), (other, "/m/sub/last.mp3")):
                each.create(path)
        wait_for(lambda: is_converged(other), "the live changes of the other volume")
        daemon.stop()
        assert other.catalogue.is_sound()
        complaints += bool(daemon.errors())

        with open(volume.catalogue.path, "r+b") as file:
            file.seek(number * 4096)
            if file.read(4096) == spoilt:
                file.seek(number * 4096)
                file.write(page)
        assert volume.catalogue.is_sound()
        kept = {path for path in before if os.path.exists(volume.path(path))}
        assert kept <= volume.catalogue.live()
        again = arena.start([volume, other])
        again.wait_walks(2)
        again.stop_without_errors()
        again = arena.start([volume, other])  # the mark of that stop
        again.wait_walks(2)
        assert_converged(volume)
        again.stop()
    assert complaints > 0, "no run met the damage"
