"""The power is cut while a disk has not written down all that it was given: catalogues are whole, and catch up."""
import collections
import contextlib
import itertools
import os
import random
import shutil
import subprocess
import threading

import pytest

from after_a_kill import left_behind
from deleted_rows import is_purge_end
from moments import seeded
from mounts import fill
from powercut import BLOCK, cut_at, is_flush, moments
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, live_rows
from trees import change_something, make_media_tree

#: How many cuts there are in each phase of a daemon's life, whenever it comes.
CUTS = {"first start": 20, "changes": 6, "purge": 8, "stop": 8, "start": 10, "start after a kill": 10}
#: Less than what a catalogue asks for before it is switched to a write-ahead log.
LITTLE_ROOM = 600_000
#: What a daemon touches to be woken for its stop.
STOP_MARK = "/m/.tickle"


def test_a_disk_keeps_what_was_flushed_and_may_lose_the_rest(arena, disk):
    """So far the tool itself: a file that is overwritten in its place, with a sync of the first content only."""
    path = arena.path("Disk/file")
    disk.mount(arena.path("Disk"), "commit=600")  # seconds in which nothing is flushed that nobody has asked for
    with open(path, "xb", buffering=0) as file:
        file.write(b"old " * BLOCK)
        before = disk.now()
        os.fsync(file.fileno())
        synced = disk.now()
    with open(path, "r+b", buffering=0) as file:
        file.write(b"new " * BLOCK)
        write_back(path)
        wait_for(lambda: disk.now() >= synced + 4 * BLOCK, "the new content on its way to the disk")
        written = len(disk.records())
        os.fsync(file.fileno())
    records = disk.records()
    assert any(is_flush(record) for record in records if before <= record.position < synced)
    assert not any(is_flush(record) for record in records[:written] if record.position >= synced)
    assert any(map(is_flush, records[written:]))
    disk.unmount()

    found = collections.Counter()
    for cut in cut_at(disk, records, [written] * 40 + [len(records)], seeded("blocks")):
        with mounted(disk, cut, "") as name, open(arena.path(f"{name}/file"), "rb") as file:
            content = file.read()
        assert len(content) == 4 * BLOCK and {content[at:at + 4] for at in range(0, len(content), 4)} <= {b"old ", b"new "}
        found[content[::BLOCK].decode()] += 1
    assert content == b"new " * BLOCK  # after the second sync
    assert found["oooo"] > 0 and found["nnnn"] > 0 and len(found) > 4


@contextlib.contextmanager
def mounted(disk, cut, options):
    path = f"{cut.image} mounted"
    disk.mounts.disk(cut.image, path, options)
    yield os.path.basename(path)
    disk.mounts.remove(path)
    os.unlink(cut.image)


def write_back(path):
    """Has the kernel begin to write a file to its disk, as it does where memory is short: without a flush."""
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.posix_fadvise(descriptor, 0, 0, os.POSIX_FADV_DONTNEED)
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def early_write_back(folder):
    """Has files of a folder written back all the time, in no order with what the daemon syncs."""
    over, choice = threading.Event(), random.Random(1)

    def work():
        while not over.wait(choice.uniform(0, 0.01)):
            with contextlib.suppress(OSError, IndexError):  # nothing there yet, or no longer
                write_back(f"{folder}/{choice.choice(os.listdir(folder))}")

    thread = threading.Thread(target=work)
    thread.start()
    try:
        yield
    finally:
        over.set()
        thread.join()


def live_paths(rows):
    return {row.path for kind in live_rows(rows) for row in kind}


class History:
    """What a volume went through, in positions of the disk's notes."""

    def __init__(self, disk, volume, has_log):
        self.disk = disk
        self.volume = volume
        self.has_log = has_log
        self.phases = []  # name, start and end
        self.trees = set()  # the rows for all that ever was in the tree
        self.recorded = [(0, None)]  # since when, which paths the catalogue must have; None while it may be absent

    @contextlib.contextmanager
    def phase(self, name):
        since = self.disk.now()
        yield
        self.phases.append((name, since, self.disk.now()))
        self.note_tree()

    def note_tree(self):
        tree = self.volume.tree()
        for kind in live_rows(tree):
            self.trees.update(kind)
        if self.recorded[-1][1]:  # what is gone now may come back, but its row only with the next walk
            self.recorded.append((self.disk.now(), self.recorded[-1][1] & live_paths(tree)))

    def note_walk(self):
        """The walk of a tree that does not change has ended, with a checkpoint of the log. Without a log all is synced, but
        the journal of the last transaction may come back, which undoes it; so only the catalogue as such is sure."""
        self.recorded.append((self.disk.now(), live_paths(self.volume.tree()) if self.has_log else set()))

    def note_removal(self):
        self.recorded.append((self.disk.now(), None))

    def phase_at(self, position):
        return next(name for name, since, until in self.phases if since < position <= until)

    def must_have(self, position):
        return [paths for since, paths in self.recorded if since < position][-1]


def live_through(arena, clock, volume, history, choice):
    """First starts, changes, a purge, stops, and starts over what a stop or a kill has left."""
    numbers = itertools.count()

    def change():
        for _ in range(5):
            change_something(volume, choice, next(numbers))
        history.note_tree()

    def start():
        daemon = arena.start([volume], clock=clock, purge_threshold=200)
        daemon.wait_walks()
        history.note_walk()
        return daemon

    for _ in range(2 * RUNS):
        with history.phase("first start"):
            daemon = start()
        daemon.end_first_sleep()
        with history.phase("changes"):
            with daemon.frozen():  # so that no state in between is catalogued
                change()
            daemon.wait_bursts(1)
        purges = sum(map(is_purge_end, daemon.lines))
        with history.phase("purge"):
            with daemon.frozen():
                change()
            daemon.rewalk(clock)
            history.note_walk()
        assert sum(map(is_purge_end, daemon.lines)) > purges
        with history.phase("stop"):
            daemon.stop()
        change()
        with history.phase("start"):
            daemon = start()
        daemon.kill()
        change()
        with history.phase("start after a kill"):
            daemon = start()
        with history.phase("stop"):
            daemon.stop()
        history.note_removal()
        shutil.rmtree(volume.path("/.quarrow"))


def judge(arena, volume, cut, history):
    """What a cut has left is whole and true; returns how much of it there is."""
    found = left_behind(arena, volume)
    for kind in live_rows(found):
        assert history.trees.issuperset(kind)
    live, on_disk, must_have = live_paths(found), live_paths(volume.tree()), history.must_have(cut.position)
    if not os.path.exists(volume.catalogue.path):
        assert must_have is None
        return "absent"
    assert must_have is None or must_have & on_disk <= live
    return "up to date" if live - {STOP_MARK} == on_disk - {STOP_MARK} else "behind"


def assert_catches_up(arena, volumes):
    """With one start. Its stop leaves two files, and perhaps a temporary one that waits for a purge."""
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    for volume in volumes:
        assert_converged(volume)
    daemon.stop_without_errors()
    for volume in volumes:
        assert volume.catalogue.is_sound()
        assert set(os.listdir(volume.path("/.quarrow"))) - {"quarrow-volume.xml.tmp"} == {"quarrow-volume.xml", "quarrow.db"}
    daemon.close()


@pytest.mark.parametrize("mode, room", [("ordered", None), ("writeback", None), ("ordered", LITTLE_ROOM)],
                         ids=["ordered", "writeback", "little room"])
def test_power_cuts_at_any_moment(arena, disk, clock, mode, room):
    """With content written before the names of its files or whenever, and with so little room that there is no log."""
    choice, options = seeded("life and cuts"), f"commit=1,data={mode}"
    disk.mount(arena.path("Disk"), options)
    volume = arena.volume("Disk", crawl=["/m"])
    make_media_tree(volume, "/m", folders=20, files=150, seed=1)
    if room is not None:
        fill(volume.path("/filler"), leave=room)
    subprocess.run(["sync", "--file-system", volume.folder], check=True)
    history = History(disk, volume, has_log=room is None)
    history.note_tree()
    with early_write_back(volume.path("/.quarrow")):
        live_through(arena, clock, volume, history, choice)
    disk.unmount()
    records = disk.records()
    when = [moment for name, since, until in history.phases for moment in moments(records, since, until, CUTS[name], choice)]

    outcomes, cuts = collections.Counter(), cut_at(disk, records, when, choice)
    while batch := list(itertools.islice(cuts, 8)):
        with contextlib.ExitStack() as stack:
            copies = []
            for cut in batch:
                copy = arena.volume(stack.enter_context(mounted(disk, cut, options)), crawl=volume.crawl)
                copies.append(copy)
                files = [kind for kind in ("journal", "wal") if os.path.exists(f"{copy.catalogue.path}-{kind}")]
                print(f"{copy.name}, {history.phase_at(cut.position)}: {cut.lost} of {cut.unflushed} blocks lost", *files)
                outcomes.update([judge(arena, copy, cut, history), "blocks lost" if cut.lost else "none lost", *files])
            assert_catches_up(arena, copies)
    print(f"{len(when)} cuts: {dict(outcomes)}")
    enough = {"blocks lost": 50, "absent": 2, "behind": 20}
    enough.update({"up to date": 5, "wal": 50} if room is None else {"journal": 50})
    assert all(outcomes[kind] >= number for kind, number in enough.items())
    assert room is None or outcomes["wal"] == 0
