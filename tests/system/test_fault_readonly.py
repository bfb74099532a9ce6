"""Volumes that cannot be written: from the start, or from one moment to the next because the disk has a fault."""
import errno
import fcntl
import os
import signal
import struct
import subprocess

import pytest

from catalogue import assert_same
from lines import err
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, failed_walks, good_volume, settle, walk_again
from trees import make_media_tree

def contents(folder):
    result = {}
    for name in os.listdir(folder):
        with open(os.path.join(folder, name), "rb") as file:
            result[name] = file.read()
    return result


def media_volume(arena, name):
    volume = arena.volume(name, crawl=["/m"])
    make_media_tree(volume, "/m/tree", folders=10, files=50, seed=1)
    volume.make_file("/m/sub/changed.mp3", b"x")
    volume.make_file("/m/sub/gone.mp3", b"x")
    return volume


def change(volume):
    """Something new, changed and gone, and a start folder that is certain to look new itself."""
    volume.make_file("/m/new/new.mp3", b"x")
    volume.make_file("/m/sub/new.mp3", b"x")
    volume.make_file("/m/sub/changed.mp3", b"longer")
    os.unlink(volume.path("/m/sub/gone.mp3"))
    os.utime(volume.path("/m"), (5, 5))


def cannot_write(volume):
    try:
        os.mkdir(volume.path("/probe"))
    except OSError as error:
        return error.errno in (errno.EROFS, errno.EIO)
    os.rmdir(volume.path("/probe"))
    return False


def test_starts_on_read_only_volumes(arena, mounts, clock):
    """Without a catalogue there is nothing to serve; with one it is left as it is, whatever state that is in."""
    for name in ("None", "Stopped", "Same", "Killed", "Bare"):
        mounts.tmpfs(arena.path(name))
    none, stopped, same, killed, bare = (media_volume(arena, name) for name in ("None", "Stopped", "Same", "Killed", "Bare"))
    good = good_volume(arena)
    for volume in (stopped, same, same):
        daemon = arena.start([volume])
        daemon.wait_walks()
        daemon.stop()
    [modified] = same.catalogue.query("select modified_time from Files where path = '/m/.tickle'")
    os.utime(same.path("/m/.tickle"), modified * 2)  # the mark of the second stop; now nothing is new
    daemon = arena.start([killed, bare])
    daemon.wait_walks(2)
    daemon.kill()
    assert os.path.getsize(killed.catalogue.path + "-wal") > 0
    os.unlink(bare.catalogue.path + "-shm")  # the log's index can then neither be read nor be made
    old = [stopped, same, killed, bare]
    for volume in (none, stopped, killed, bare):
        change(volume)
    before = {volume: contents(volume.path("/.quarrow")) for volume in old}
    rows = {volume: volume.rows() for volume in (stopped, same, killed)}
    for volume in (none, *old):
        mounts.remount(volume.folder, read_only=True)

    daemon = arena.start([none, *old, good], clock=clock)
    settle(daemon)
    assert daemon.errors().count("Could not open the volume cfg file DBOperationException occurred\n") == 1
    assert daemon.count(err("Could not initialize the manager for the volume None\n")) == 1
    for volume in (stopped, killed):
        assert daemon.count(err(f"Error in checking for the file {volume.path('/m')} in the DB\n")) == 1
    assert failed_walks(daemon, bare) == 1
    assert not any(same.name in text for text in daemon.errors())
    assert daemon.walks_of(same) == daemon.walks_of(good) == 1
    assert_converged(good)
    for volume in rows:
        assert_same(volume.rows(), rows[volume])
    assert not os.path.exists(none.path("/.quarrow"))
    walk_again(daemon, clock, 4)
    daemon.stop()
    for volume in old:
        assert contents(volume.path("/.quarrow")) == before[volume]

    for volume in (none, *old):
        mounts.remount(volume.folder, read_only=False)
    daemon = arena.start([none, *old])
    daemon.wait_walks(5)
    for volume in (none, *old):
        assert_converged(volume)
    daemon.stop_without_errors()


def test_a_volume_that_was_read_only_at_the_start_is_served_by_the_next_one(arena, mounts, clock):
    """What was opened for reading stays so, and says so at every walk."""
    mounts.tmpfs(arena.path("Volume"))
    volume = media_volume(arena, "Volume")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    change(volume)
    rows = volume.rows()
    mounts.remount(volume.folder, read_only=True)
    daemon = arena.start([volume], clock=clock)
    settle(daemon)
    mounts.remount(volume.folder, read_only=False)
    walk_again(daemon, clock, 1)
    assert daemon.count(err(f"Error in checking for the file {volume.path('/m')} in the DB\n")) == 2
    assert_same(volume.rows(), rows)
    daemon.stop()
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_converged(volume)
    daemon.stop()


def test_a_volume_is_not_made_read_only_while_its_catalogue_is_open(arena, mounts):
    """The kernel refuses, and the daemon does not notice. After the stop it may be."""
    mounts.tmpfs(arena.path("Volume"))
    volume = media_volume(arena, "Volume")
    daemon = arena.start([volume])
    daemon.wait_walks()
    with pytest.raises(OSError) as refusal:
        mounts.remount(volume.folder, read_only=True)
    assert refusal.value.errno == errno.EBUSY
    volume.create("/m/sub/new.mp3")
    wait_for(lambda: "/m/sub/new.mp3" in volume.catalogue.live(), "a change")
    daemon.stop()
    mounts.remount(volume.folder, read_only=True)
    assert volume.catalogue.is_sound()
    assert daemon.errors() == []


@pytest.mark.parametrize("back", [True, False], ids=["and back", "until the stop"])
def test_nothing_new_can_be_made_on_a_volume(arena, mounts, clock, back):
    """What is open can still be written, as on a mount that was covered by a read-only one."""
    mounts.tmpfs(arena.path("Volume"))
    volume, good = media_volume(arena, "Volume"), good_volume(arena)
    volume.write_state(clock.now)
    with open(volume.state_file, encoding="ascii") as file:
        state = file.read()
    daemon = arena.start([volume, good], clock=clock, purge_threshold=100)
    daemon.wait_walks(2)
    settle(daemon)
    change(volume)
    mounts.cover(volume.folder)
    assert cannot_write(volume)
    for _ in range(3 * RUNS):
        walk_again(daemon, clock, 2)
    assert_converged(volume)
    with open(volume.state_file, encoding="ascii") as file:
        assert file.read() == state  # the purges could not be written down
    if back:
        mounts.remove(volume.folder)
        volume.make_file("/m/sub/back.mp3", b"x")
        walk_again(daemon, clock, 2)
        assert_converged(volume)
        with open(volume.state_file, encoding="ascii") as file:
            assert file.read() != state
        assert daemon.errors() == []
    daemon.stop()
    if not back:
        mounts.remove(volume.folder)
    assert volume.catalogue.is_sound()
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_converged(volume)
    daemon.stop()


def turn_read_only(volume):
    """As the kernel does when it has found an error in the file system."""
    device = os.stat(volume.folder).st_dev
    loop = os.path.basename(os.path.realpath(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}"))
    with open(f"/sys/fs/ext4/{loop}/trigger_fs_error", "w", encoding="ascii") as file:
        file.write("a fault test")


def pull_out(volume):
    """As when the disk is gone: nothing can be read or written any more, and what was not on it is lost."""
    folder = os.open(volume.folder, os.O_RDONLY)
    fcntl.ioctl(folder, 0x8004587D, struct.pack("I", 2))  # FS_IOC_SHUTDOWN, without writing anything back
    os.close(folder)


@pytest.mark.parametrize("fault", [turn_read_only, pull_out])
@pytest.mark.parametrize("moment", ["idle", "in a walk", "in a burst"])
def test_a_disk_fails_under_the_daemon(arena, disks, clock, fault, moment):
    """It is told of, the other volumes are served, the daemon can be stopped, and after a check of the disk all is well."""
    image, folder = disks.image("image", 32 << 20, "-N", "6000"), arena.path("Volume")
    disks.disk(image, folder, "errors=remount-ro")
    volume, good = media_volume(arena, "Volume"), good_volume(arena)
    for number in range(1500):
        volume.make_file(f"/m/many/{number % 50}/{number}.mp3")
    daemon = arena.start([volume, good], clock=clock)
    if moment == "in a walk":
        daemon.wait_log(lambda lines: sum(line.text.startswith(f"For folder {folder}") for line in lines) > 10, "some folders")
        with daemon.frozen():
            assert daemon.walks_of(volume) == 0
            os.sync()
            fault(volume)
        settle(daemon)
    else:
        daemon.wait_walks(2)
        settle(daemon)
        with daemon.frozen():
            if moment == "in a burst":
                change(volume)
                for number in range(1500):
                    path = volume.path(f"/m/many/{number % 50}/{number}.")
                    os.rename(path + "mp3", path + "jpg")
            os.sync()
            fault(volume)
            good.create("/m/sub/new.mp3")
            good.create("/m/new.mp3")
        daemon.wait_bursts(1)
    assert cannot_write(volume)
    good.make_file("/m/sub/2.mp3", b"x")
    ended = daemon.walks_of(good)
    clock.advance(300)
    daemon.signal(signal.SIGUSR1)
    daemon.wait_walks_of(good, ended + 1)
    settle(daemon)
    assert_converged(good)
    if moment == "in a burst":
        assert failed_walks(daemon, volume) > 0
    daemon.stop()

    disks.remove(folder, lazily=True)
    wait_for(lambda: not in_use(image), "the end of the file system")
    assert subprocess.run(["e2fsck", "-fy", image], capture_output=True, check=False).returncode in (0, 1)
    disks.disk(image, folder)
    assert not os.path.exists(volume.catalogue.path) or volume.catalogue.is_sound()
    daemon = arena.start([volume, good])
    daemon.wait_walks(2)
    assert_converged(volume)
    daemon.stop_without_errors()


def in_use(image):
    return subprocess.run(["losetup", "-j", image], capture_output=True, check=True).stdout != b""
