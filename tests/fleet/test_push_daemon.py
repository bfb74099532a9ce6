"""Catalogues that the daemon makes, pushed by an ordinary user: the fleet has what is on the disk."""
import os
import shutil

import pytest
from harness import Arena, configuration
from push_world import catalogue_rows
from quarrow_driver.clock import Clock
from quarrow_driver.waiting import wait_for
from trees import make_media_tree

NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
THRESHOLD = 1000


class Catalogued:
    """A volume of the arena, as the world looks at one."""

    def __init__(self, volume):
        self.volume = volume
        self.name = volume.name

    def rows(self):
        return catalogue_rows(self.volume.catalogue.path)


@pytest.fixture
def arena():
    made = Arena()
    yield made
    assert made.close() == ""


def use(world, volumes):
    """They are what is pushed, by a user who owns nothing but the state and the password."""
    world.volumes = [Catalogued(volume) for volume in volumes]
    world.write("host.xml", configuration(volumes, THRESHOLD))
    os.mkdir(world.state_folder)
    for path in (world.folder, volumes[0].folder, os.path.dirname(volumes[0].folder)):
        os.chmod(path, 0o755)
    for path in (world.state_folder, world.path("password")):
        os.chown(path, 65534, 65534)
    world.environment["TMPDIR"] = world.environment["HOME"] = world.state_folder


def on_disk(volume):
    """The paths of the regular files, as bytes."""
    root = os.fsencode(volume.folder)
    paths = {os.path.join(place, name) for place, _, names in os.walk(root) for name in names if b"/.quarrow" not in place}
    return {path[len(root):] for path in paths if os.path.isfile(path) and not os.path.islink(path)}


def live_in_fleet(world):
    return {row["path"] for row in world.server.valid("files").values() if row["deleted"] == b"0"}


def test_what_the_daemon_catalogues_arrives(world, arena):
    """Awkward names, a tree that vanishes, files that are new; while the daemon runs, and after it has ended."""
    volume = arena.volume("V", crawl=["/m"])
    make_media_tree(volume, "/m", 60, 300, seed=3)
    use(world, [volume])
    daemon = arena.start([volume])
    daemon.wait_walks()
    world.good(wrapper=NOBODY)
    world.assert_complete()
    assert live_in_fleet(world) == on_disk(volume)
    below = next(entry.path for entry in os.scandir(volume.path("/m")) if entry.is_dir())
    shutil.rmtree(below)
    volume.make_file("/m/new.mp3", b"x")
    volume.make_file("/m/invalid \udcff\n.mp3", b"xyz")
    daemon.stop()
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    world.good(wrapper=NOBODY)
    world.assert_complete()
    assert live_in_fleet(world) == on_disk(volume)


def test_what_the_daemon_purges_is_told(world, arena):
    volume = arena.volume("V", crawl=["/m"])
    clock = Clock(arena.path("clock"), 1_700_000_000)
    for name in ("kept", "gone early", "gone late"):
        volume.make_file(f"/m/{name}.mp3", b"x")
    use(world, [volume])
    os.chown(world.state_folder, os.geteuid(), os.getegid())  # the clock's semaphore does not outlive a change of the user

    def walk_and_push(is_purge_due=False):
        before = volume.read_state()
        daemon = arena.start([volume], clock=clock, purge_threshold=THRESHOLD)
        daemon.wait_walks()
        if is_purge_due:
            volume.create("/m/wake")  # a volume that is idle is purged when something changes
            wait_for(lambda: volume.read_state() != before, "the purge")
        daemon.stop()
        world.good(environment=clock.environment())

    volume.write_state(clock.now - THRESHOLD, clock.now)  # as after a purge
    walk_and_push()
    for name in ("early", "late"):
        clock.advance(THRESHOLD // 4)
        os.unlink(volume.path(f"/m/gone {name}.mp3"))
        walk_and_push()
    clock.advance(THRESHOLD * 7 // 8)
    walk_and_push(is_purge_due=True)
    rest = {b"/m/kept.mp3", b"/m/gone late.mp3"}
    assert {row[2] for row in catalogue_rows(volume.catalogue.path)["files"].values() if b".mp3" in row[2]} == rest
    before = int(world.server.volumes()["V"]["purged_before"])
    sent = [row for row in world.server.valid("files").values() if b".mp3" in row["path"]]
    assert {row["path"] for row in sent if row["deleted"] == b"0" or int(row["last_updated_time"]) >= before} == rest
    assert len(sent) == 3
