"""Volumes on which files cannot be mapped for sharing: some network file systems, and those of user space without a cache."""
import os
import subprocess

import pytest

from recovery import assert_converged, good_volume, walk_again


@pytest.fixture
def unmappable(arena, mounts):
    """Shows the folder of a volume through a file system without mappings, as a volume under the returned path."""
    def show(volume):
        place = f"{volume.folder}-unmappable"
        os.mkdir(place)
        try:
            subprocess.run(["bindfs", "-o", "direct_io", volume.folder, place], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError):
            pytest.skip("bindfs does not work on this machine")
        arena.mount_points.append(place)
        shown = arena.volume(volume.name + "Shown", crawl=volume.crawl, folder=os.path.basename(place))
        return shown
    return show


@pytest.mark.parametrize("state", ["new", "plain", "with a log", "killed"])
def test_a_catalogue_where_nothing_can_be_mapped(arena, mounts, clock, unmappable, state):
    """Nobody could read a catalogue in write-ahead mode there, those who read it so far neither."""
    volume, good = good_volume(arena, "Volume"), good_volume(arena)
    if state != "new":
        first = arena.start([volume])
        first.wait_walks()
        if state == "killed":
            first.kill()
        else:
            first.stop()
    shown = unmappable(volume)
    shown.make_file("/m/sub/2.mp3", b"x")
    daemon = arena.start([shown, good], clock=clock)
    daemon.wait_walks(2)
    assert_converged(shown)
    assert_converged(good)
    shown.make_file("/m/sub/3.mp3", b"x")
    walk_again(daemon, clock, 2)
    assert_converged(shown)
    assert daemon.errors() == []
    daemon.stop()
    assert shown.catalogue.query("pragma journal_mode") == [("delete",)]
    assert_converged(shown)
