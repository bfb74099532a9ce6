"""Volumes without room: in a walk, under live changes, in a purge, at the start."""
import fcntl
import os
import re
import signal
import sqlite3
import struct
import subprocess

import pytest

from catalogue import Rows, assert_same, edit
from deleted_rows import without_deleted
from harness import state_document
from lines import err, info
from moments import seeded
from mounts import SMALLEST, disks_work, fill
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, failed_walks, good_volume, is_converged, settle, walk_again
from trees import make_media_tree

def used_bytes(path):
    status = os.statvfs(path)
    return (status.f_blocks - status.f_bfree) * status.f_frsize


#: Names go where others were.
EXT4_OPTIONS = ("-N", "6000", "-O", "^dir_index")
#: Nothing is set aside for files that may grow, and given back only when room is short.
MOUNT_OPTIONS = {"xfs": "allocsize=4k"}


def small_volume(arena, mounts, name, kind):
    """A volume on a file system of its own, with room in plenty so far."""
    folder = arena.path(name)
    if kind == "memory":
        mounts.tmpfs(folder)
    else:
        image = mounts.image(f"{name}.img", max(48 << 20, SMALLEST[kind]), *(EXT4_OPTIONS if kind == "ext4" else ()), kind=kind)
        mounts.disk(image, folder, MOUNT_OPTIONS.get(kind, ""), kind)
    return arena.volume(name, crawl=["/m"])


def filler(volume):
    return volume.path("/filler")


DISKS = ["ext4", "xfs", "btrfs"]
KINDS = pytest.mark.parametrize("kind", ["memory", *DISKS])


@pytest.fixture
def volumes_of(kind, arena, mounts):
    """Makes volumes of the parameter's kind."""
    if kind != "memory" and not disks_work(kind):
        pytest.skip(f"no image of {kind} can be mounted on this machine")
    return lambda name: small_volume(arena, mounts, name, kind)


def make_room(daemon, clock, volumes, good):
    """Takes the fillers away, after which one walk puts every volume right; how many errors there were until then."""
    for volume in volumes:
        os.unlink(filler(volume))
    quiet = len(daemon.errors())
    walk_again(daemon, clock, len(volumes) + 1)
    for volume in [*volumes, good]:
        assert_converged(volume)
    return quiet


@KINDS
def test_a_volume_fills_up_in_its_first_walk(arena, volumes_of, kind, clock):
    """Each volume with less or more room than its catalogue takes, below and above what is asked for a write-ahead log."""
    choice = seeded("rooms and trees")
    for run in range(RUNS):
        names = [f"V{number}.{run}" for number in range(8)]
        # On btrfs the former may be too little to make a catalogue at all.
        limits = [(1_060_000, 3_000_000) if kind == "btrfs" else (150_000, 800_000), (1_060_000, 3_000_000)] * 4
        rooms = [choice.randrange(*limit) for limit in limits]
        volumes = [volumes_of(name) for name in names]
        for volume, room in zip(volumes, rooms):
            make_media_tree(volume, "/m", folders=40, files=1000, seed=choice.randrange(1 << 30))
            fill(filler(volume), leave=room)
        good = good_volume(arena, f"Z{run}")
        daemon = arena.start([*volumes, good], clock=clock)
        daemon.wait_walks(len(volumes) + 1)
        assert_converged(good)
        short = [volume for volume in volumes if not is_converged(volume)]
        assert len(short) >= 3, rooms
        for volume in volumes:
            named = any(volume.folder + "/" in text for text in daemon.errors()) or failed_walks(daemon, volume) > 0
            assert (volume in short) == named
            assert volume.catalogue.is_sound()
            known = {row.path for row in volume.tree().folders + volume.tree().files}
            assert volume.catalogue.live() <= known

        # As long as there is no room, another walk makes nothing worse.
        found = {volume: volume.catalogue.live() for volume in volumes}
        walk_again(daemon, clock, len(volumes) + 1)
        for volume in volumes:
            assert volume.catalogue.live() >= found[volume] and volume.catalogue.is_sound()

        quiet = make_room(daemon, clock, volumes, good)
        assert daemon.errors()[quiet:] == []
        daemon.stop()
        for volume in volumes:
            assert volume.catalogue.is_sound() and not os.path.exists(volume.catalogue.path + "-wal")


def small_volumes(arena, mounts, suffix=""):
    """One in memory, and one on each kind of disk that can be had."""
    return [small_volume(arena, mounts, f"{kind}{suffix}", kind)
            for kind in ["memory", *filter(disks_work, DISKS)]]


def change_in_place(path, new_path):
    """Renames a file; where even that takes room, gives it another time."""
    try:
        os.rename(path, new_path)
    except OSError:
        os.utime(path, (7, 7))


def test_volumes_are_full_while_they_change(arena, mounts, clock):
    volumes, good = small_volumes(arena, mounts), good_volume(arena)
    for volume in volumes:
        make_media_tree(volume, "/m", folders=20, files=300, seed=1)
        volume.make_folder("/m/live")
        for number in range(1500):
            volume.create(f"/m/live/old {number:04}.mp3")
        for number in range(50):
            volume.create(f"/m/live/room for another name {number}")
        for number in range(50):
            os.unlink(volume.path(f"/m/live/room for another name {number}"))
    first = arena.start(volumes)
    first.wait_walks(len(volumes))
    first.stop()
    daemon = arena.start([*volumes, good], clock=clock)  # whose logs have hardly any room yet that they could use again
    daemon.wait_walks(len(volumes) + 1)
    before = {volume: volume.rows() for volume in volumes}
    for volume in volumes:
        assert_converged(volume)

    with daemon.frozen():  # one read, the last folder of which is not seen
        for volume in volumes:
            fill(filler(volume))
            for number in range(1500):
                change_in_place(volume.path(f"/m/live/old {number:04}.mp3"), volume.path(f"/m/live/new {number:04}.jpg"))
        good.create("/m/sub/2.mp3")
        good.create("/m/3.mp3")
    daemon.wait_bursts(1)
    for volume in volumes:
        assert failed_walks(daemon, volume) == 1
        assert_same(volume.rows(), before[volume])  # what could not be done in full was not done at all
        assert volume.catalogue.is_sound()
    assert "/m/sub/2.mp3" in good.catalogue.live()

    quiet = make_room(daemon, clock, volumes, good)
    with daemon.frozen():
        for volume in volumes:
            volume.create("/m/live/after.mp3")
        good.create("/m/sub/after.mp3")
    daemon.wait_bursts(2)
    for volume in volumes:
        assert "/m/live/after.mp3" in volume.catalogue.live()
    assert daemon.errors()[quiet:] == []
    daemon.stop()
    for volume in [*volumes, good]:
        assert volume.catalogue.is_sound()


def add_deleted_rows(volume, folders, files):
    """Rows to be purged. Only the catalogue ever had them, which takes less time than as many files."""
    edit(volume.catalogue.path,
         "with recursive numbers(number) as (values (1) union all select number + 1 from numbers where number < ?)"
         " insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
         " select folder_id, path || '/' || number, number, 1, 1, 1, 1 from Folders, numbers where path = '/m'", folders)
    edit(volume.catalogue.path,
         "with recursive numbers(number) as (values (1) union all select number + 1 from numbers where number < ?)"
         " insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted, last_updated_time)"
         " select folder_id, path || '/' || number || '.mp3', number || '.mp3', 0, 0, 1, 1, 1, 1 from Folders, numbers"
         " where is_deleted = 1", files // folders)


#: What is left when the purge begins. The log of the purge takes 2.6 MB for the 20,000 files below and 0.8 MB more for the
#: 10,000 folders. Before its end a statement writes to it only what a cache of 2 MB does not hold, so the second room is
#: used up in the middle of the first statement and the third one in its commit.
PURGE_ROOMS = (0, 100_000, 2_000_000, 2_900_000, 3_150_000, 10_000_000)


def test_volumes_are_full_when_they_are_purged(arena, mounts, clock):
    """Files are purged first, then folders, in a statement and transaction of its own for each kind: so each is purged wholly
    or not at all. The purge is not taken for done unless both were."""
    log_size = lambda volume: os.path.getsize(volume.catalogue.path + "-wal")
    deleted = lambda volume: [sum(row.deleted for row in rows) for rows in volume.rows()]
    rooms = {volume: room for room in PURGE_ROOMS for volume in small_volumes(arena, mounts, f" {room}")}
    volumes, good = list(rooms), good_volume(arena)
    everyone = [*volumes, good]
    state = state_document(0, clock.now)
    for volume in everyone:
        volume.make_file("/m/keep.mp3", b"x")
    first = arena.start(everyone, clock=clock)
    first.wait_walks(len(everyone))
    first.stop()
    for volume in everyone:
        volume.write_state(clock.now)
        add_deleted_rows(volume, folders=10_000, files=20_000)

    daemon = arena.start(everyone, clock=clock, purge_threshold=200)
    daemon.wait_walks(len(everyone))
    daemon.end_first_sleep()
    before = {volume: volume.rows() for volume in volumes}
    logs = {volume: log_size(volume) for volume in volumes}
    failures = {volume: failed_walks(daemon, volume) for volume in volumes}
    for volume in volumes:
        assert deleted(volume) == [10_000, 20_000]
        fill(filler(volume), leave=rooms[volume])
    clock.advance(400)
    state_when_done = state_document(clock.now, clock.now - 200)
    daemon.wake()
    daemon.wait_walks(2 * len(everyone))
    assert deleted(good) == [0, 0] and good.read_state() == state_when_done
    purged = {}
    for volume in volumes:
        folders, files = (count == 0 for count in deleted(volume))
        assert files or not folders
        live = without_deleted(before[volume])
        assert_same(volume.rows(), Rows(live.folders if folders else before[volume].folders,
                                        live.files if files else before[volume].files))
        assert volume.catalogue.is_sound()
        if folders:
            assert volume.read_state() in (state, state_when_done)  # to rewrite it takes room as well
        else:
            assert failed_walks(daemon, volume) > failures[volume]
            assert volume.read_state() == state
        purged[volume] = "both" if folders else "files" if files else "nothing"
    outcomes = list(purged.values())
    assert set(outcomes) == {"both", "files", "nothing"}
    assert any(purged[volume] == "nothing" and log_size(volume) > logs[volume] + 100_000 for volume in volumes)  # on the way
    for kind, outcome in (("Files", "nothing"), ("Folders", "files")):
        failed = [text for text in daemon.errors() if re.match(rf"purgeDeleted{kind}\(\) failed, handleStatus: \d+\n", text)]
        assert len(failed) == outcomes.count(outcome)
    assert daemon.count(info(f"Done with the purge {clock.now}\n")) == 1 + outcomes.count("both")

    for volume in volumes:
        os.unlink(filler(volume))
    walk_again(daemon, clock, len(everyone))
    daemon.wait_line(info(f"Done with the purge {clock.now}\n"), len(everyone))
    for volume in everyone:
        assert_converged(volume)
        assert deleted(volume) == [0, 0]
        assert volume.read_state() == state_document(clock.now, clock.now - 200)
    daemon.stop()


@pytest.mark.parametrize("index", ["kept", "lost"])
def test_a_start_on_full_volumes_after_a_kill(arena, mounts, clock, index):
    """What the log holds is not lost, though there may be no room to read it: for that takes an index."""
    volumes, good = small_volumes(arena, mounts), good_volume(arena)
    for volume in volumes:
        make_media_tree(volume, "/m", folders=20, files=300, seed=2)
    first = arena.start(volumes)
    first.wait_walks(len(volumes))
    first.kill()
    before = {volume: volume.rows() for volume in volumes}
    for volume in volumes:
        assert os.path.getsize(volume.catalogue.path + "-wal") > 0
        volume.make_folder("/m/many")
        for number in range(2000):
            volume.create(f"/m/many/{number}.mp3")
        if index == "lost":
            os.unlink(volume.catalogue.path + "-shm")
        fill(filler(volume))
    daemon = arena.start([*volumes, good], clock=clock)
    daemon.wait_log(lambda _: all(failed_walks(daemon, volume) for volume in volumes), "the walks of full volumes")
    daemon.wait_walks_of(good, 1)
    assert_converged(good)

    for volume in volumes:
        os.unlink(filler(volume))
    settle(daemon)
    quiet = len(daemon.errors())
    walk_again(daemon, clock, len(volumes) + 1)
    for volume in volumes:
        assert_converged(volume)
        assert {row.path for row in before[volume].files} <= {row.path for row in volume.rows().files}
    assert daemon.errors()[quiet:] == []
    daemon.stop()
    assert all(volume.catalogue.is_sound() for volume in volumes)


def is_copied_on_write(path):
    """Whether the file system copies what is there before it writes over it."""
    get_flags, no_copy = 0x80086601, 0x00800000
    descriptor = os.open(path, os.O_RDONLY)
    try:
        [flags] = struct.unpack("l", fcntl.ioctl(descriptor, get_flags, bytes(struct.calcsize("l"))))
    finally:
        os.close(descriptor)
    return not flags & no_copy


def test_a_catalogue_from_before_is_no_more_copied_on_write(arena, mounts):
    """Nor its index, though only an empty file can be marked: one that a reader uses stays as it is until the next start."""
    if not disks_work("btrfs"):
        pytest.skip("no image of btrfs can be mounted on this machine")
    volume = small_volume(arena, mounts, "Volume", "btrfs")
    volume.make_file("/m/sub/1.mp3", b"x")
    first = arena.start([volume])
    first.wait_walks()
    first.kill()
    folder, old = volume.path("/.quarrow"), volume.path("/.old")
    os.rename(folder, old)
    subprocess.run(["cp", "-a", "--reflink=never", old, folder], check=True)  # which does not know of the mark
    index = volume.catalogue.path + "-shm"
    assert is_copied_on_write(folder) and is_copied_on_write(index)

    reader = sqlite3.connect(volume.catalogue.path)  # one that may write, and so uses the index
    reader.execute("begin")
    rows = reader.execute("select * from Files").fetchall()
    volume.make_file("/m/sub/2.mp3", b"x")
    second = arena.start([volume])
    second.wait_walks()
    assert not is_copied_on_write(folder) and is_copied_on_write(index)
    assert reader.execute("select * from Files").fetchall() == rows
    assert_converged(volume)
    second.kill()
    reader.close()

    third = arena.start([volume])
    third.wait_walks()
    assert not is_copied_on_write(index)
    assert_converged(volume)
    third.stop()
    assert first.errors() + second.errors() + third.errors() == []


def test_no_room_to_make_a_catalogue(arena, mounts):
    """Bytes and inodes from none at all to a few more than it takes. A catalogue is complete or absent."""
    cases = [(None, inodes) for inodes in range(6)] + [(pages * 4096, None) for pages in range(0, 40, 2)]
    volumes = []
    for number, (room, inodes) in enumerate(cases):
        folder = arena.path(f"V{number:02}")
        mounts.tmpfs(folder)
        volume = arena.volume(f"V{number:02}", crawl=["/m"])
        volume.make_file("/m/sub/1.mp3")
        if inodes is not None:
            status = os.statvfs(folder)
            mounts.resize_tmpfs(folder, inodes=status.f_files - status.f_ffree + inodes)
        else:
            mounts.resize_tmpfs(folder, size=max(4096, used_bytes(folder) + room))
            if room == 0:
                fill(filler(volume))
        volumes.append(volume)
    good = good_volume(arena, "Z")
    daemon = arena.start([*volumes, good])
    refused = lambda volume: err(f"Could not initialize the manager for the volume {volume.name}\n") in daemon.lines
    daemon.wait_walks_of(good, 1)
    settle(daemon)
    bad = [volume for volume in volumes if refused(volume)]
    assert 5 <= len(bad) <= len(cases) - 5
    assert daemon.errors().count("Could not open the volume cfg file DBOperationException occurred\n") == len(bad)
    assert refused(volumes[0]) and refused(volumes[6])  # no inode, no byte
    assert_converged(good)
    for volume in volumes:
        files = set(os.listdir(volume.path("/.quarrow"))) if os.path.isdir(volume.path("/.quarrow")) else set()
        if volume in bad:
            assert files == set()
        else:
            assert files - {"quarrow-volume.xml"} <= {"quarrow.db", "quarrow.db-wal", "quarrow.db-shm"} and "quarrow.db" in files
            assert volume.catalogue.is_sound()
            assert len(volume.catalogue.query("select name from sqlite_master where type = 'index'")) == 9
        if "quarrow-volume.xml" in files:
            with open(volume.state_file, encoding="ascii") as file:
                assert file.read() == state_document(0, 0)
    daemon.stop()

    for volume in volumes:
        mounts.resize_tmpfs(volume.folder)
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    for volume in volumes:
        assert_converged(volume)
        assert os.path.exists(volume.state_file)
    daemon.stop_without_errors()


def test_no_room_for_the_folder_of_the_catalogue_on_a_disk(arena, disks):
    """Nor for a new state file beside a catalogue that is there."""
    new, old, good = (small_volume(arena, disks, name, "memory" if name == "Good" else "ext4") for name in ("New", "Old", "Good"))
    for volume in (new, old, good):
        volume.make_file("/m/sub/1.mp3", b"x")
    first = arena.start([old])
    first.wait_walks()
    first.stop()
    os.unlink(old.state_file)
    for volume in (new, old):
        fill(filler(volume))
    daemon = arena.start([new, old, good])
    daemon.wait_walks(2)
    assert daemon.count(err("Could not initialize the manager for the volume New\n")) == 1
    assert daemon.count(err("Could not initialize the manager for the volume Old\n")) == 0
    assert_converged(good)
    assert not os.path.exists(new.path("/.quarrow")) and not os.path.exists(old.state_file)
    assert old.catalogue.is_sound()
    daemon.stop()

    for volume in (new, old):
        os.unlink(filler(volume))
    daemon = arena.start([new, old])
    daemon.wait_walks(2)
    for volume in (new, old):
        assert_converged(volume)
        assert os.path.exists(volume.state_file)
    daemon.stop_without_errors()


def test_no_inode_for_the_state_file_of_a_purge(arena, mounts, clock):
    """The catalogue is purged, the old state file stays whole, and the next start purges once more."""
    volume = small_volume(arena, mounts, "Full", "memory")
    volume.make_file("/m/1.mp3")
    volume.write_state(clock.now)
    daemon = arena.start([volume], clock=clock, purge_threshold=200)
    daemon.wait_walks()
    daemon.end_first_sleep()
    status = os.statvfs(volume.folder)
    mounts.resize_tmpfs(volume.folder, inodes=status.f_files - status.f_ffree)
    clock.advance(400)
    daemon.signal(signal.SIGUSR1)
    daemon.wait_line(info(f"Done with the purge {clock.now}\n"))
    daemon.wait_walks(2)
    with open(volume.state_file, encoding="ascii") as file:
        assert file.read() == state_document(0, clock.now - 400)
    daemon.stop()
    mounts.resize_tmpfs(volume.folder)
    assert sorted(os.listdir(volume.path("/.quarrow"))) == ["quarrow-volume.xml", "quarrow.db"]

    daemon = arena.start([volume], clock=clock, purge_threshold=200)
    daemon.wait_walks()
    volume.create("/m/2.mp3")  # a burst wakes the purge
    daemon.wait_line(info(f"Done with the purge {clock.now}\n"))
    wait_for(lambda: open(volume.state_file, encoding="ascii").read() == state_document(clock.now, clock.now - 200), "the state")
    daemon.stop()
