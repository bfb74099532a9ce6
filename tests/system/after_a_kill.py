"""What a kill may leave of a volume, and that the next start makes it whole."""
import collections
import os
import re
import shutil
import sqlite3
from xml.etree import ElementTree

from catalogue import Catalogue, Rows, assert_same
from deleted_rows import DUE_AFTER, THRESHOLD, is_purge_end, without_deleted
from model import after_walk


# What is left

def left_behind(arena, volume):
    """The rows that a kill has left, after a check of each file. The volume itself is left for the daemon to put right."""
    if not os.path.exists(volume.path("/.quarrow")):
        return Rows([], [])
    copy = arena.path(f"copy of {volume.name}")
    shutil.copytree(volume.path("/.quarrow"), copy)
    try:
        if os.path.exists(f"{copy}/quarrow-volume.xml"):
            assert_whole_state_file(f"{copy}/quarrow-volume.xml")
        if not os.path.exists(f"{copy}/quarrow.db"):
            return Rows([], [])
        undo_what_was_begun(f"{copy}/quarrow.db")
        rows = Catalogue(f"{copy}/quarrow.db").rows()
        for kind in rows:
            assert len(kind) == len({row.path for row in kind}), "a path has more than one row"
        return rows
    finally:
        shutil.rmtree(copy)


def all_left_behind(arena, volumes):
    return {volume: left_behind(arena, volume) for volume in volumes}


def assert_whole_state_file(path):
    state = ElementTree.parse(path).getroot()
    assert [child.tag for child in state.find("Volume")] == ["last_updated_time", "last_purge_time"]


def undo_what_was_begun(path):
    """Opens a catalogue as any program does that may write, which undoes what was only begun. It must be whole then."""
    with open(path, "rb") as file:
        assert file.read(16) == b"SQLite format 3\0"
    connection = sqlite3.connect(path)
    assert connection.execute("pragma integrity_check").fetchall() == [("ok",)]
    kinds = collections.Counter(kind for kind, in connection.execute("select type from sqlite_master where sql is not null"
                                                                     " and name <> 'sqlite_sequence'"))
    assert kinds == {"table": 2, "index": 9}
    connection.execute("pragma journal_mode=delete")  # which a reader may open wherever it is
    connection.close()


def assert_part_of_a_walk(volume, found, may_differ=()):
    """Each row is as a whole walk makes it, save for those of the given paths."""
    known = {row.path: row for kind in volume.tree() for row in kind}
    for row in (row for kind in found for row in kind):
        assert row.path in known, row
        assert row == known[row.path] or row.path in may_differ


def assert_purge_is_whole(volume, all_rows, found):
    """Files go in one step and folders in another; a live row is never touched. Returns the time of the last purge that the
    state file has."""
    purged = without_deleted(all_rows)
    live_rows = without_deleted(found)
    assert [row.path for kind in live_rows for row in kind if "tickle" not in row.path] == [
        row.path for kind in purged for row in kind if "tickle" not in row.path]
    assert len(found.files) - len(live_rows.files) in (0, len(all_rows.files) - len(purged.files))
    assert len(found.folders) - len(live_rows.folders) in (0, len(all_rows.folders) - len(purged.folders))
    return int(re.search(r"<last_purge_time>(\d+)<", volume.read_state())[1])


def recorded_purges(volumes, all_rows, before, unpurged):
    """By volume, whether its state file says more than the time `unpurged`. Each purge is whole or has not begun."""
    return {volume: assert_purge_is_whole(volume, all_rows, before[volume]) != unpurged for volume in volumes}


# The next start

def assert_stopped_in_order(daemon, volumes, rest=()):
    """The stop leaves the two files and nothing else, save for what is said to wait for a later occasion."""
    daemon.stop_without_errors()
    for volume in volumes:
        assert volume.catalogue.is_sound()
        assert set(os.listdir(volume.path("/.quarrow"))) - set(rest) == {"quarrow-volume.xml", "quarrow.db"}
    for run in daemon.arena.daemons:
        run.close()


def assert_recovered(arena, volumes, before, rest=()):
    """One more start brings every catalogue up to its disk."""
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    for volume in volumes:
        assert_same(volume.rows(), after_walk(before[volume], volume.tree()))
    assert_stopped_in_order(daemon, volumes, rest)


def assert_purged_after(arena, clock, volumes, before, recorded):
    """The start after the kill walks, the control loop purges what was not purged or recorded, and all catalogues agree."""
    clock.advance(2 * DUE_AFTER)
    daemon = arena.start(volumes, purge_threshold=THRESHOLD, clock=clock)
    daemon.wait_walks(len(volumes))
    daemon.end_first_sleep()
    daemon.rewalk(clock)
    daemon.wait_log(lambda lines: sum(map(is_purge_end, lines)) >= list(recorded.values()).count(False), "every purge that is due")
    for volume in volumes:
        assert_same(volume.rows(), without_deleted(after_walk(before[volume], volume.tree())))
    assert_stopped_in_order(daemon, volumes)
