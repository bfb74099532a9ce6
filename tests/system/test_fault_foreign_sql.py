"""SQL that a user of the volume has left in a catalogue: triggers, views, checks and logs that bring them along.

The daemon, which runs as root, runs none of it. The volume is refused, and the others are walked.
"""
import os
import shutil
import sqlite3

import pytest

from catalogue import edit
from recovery import assert_converged, good_volume
from strangers import (CANNOT_OPEN, DAMAGED, NOT_AUTHORIZED, USER, assert_of_root, assert_refused, hand_over,
                       plain_catalogue, quarrow_path, refusal, start_and_stop, volume_of_user)

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")


ENDLESS = "with recursive Numbers(n) as (select 1 union all select n + 1 from Numbers) select count(*) from Numbers"
FOREIGN_SQL = {
    "files inserted": f"create trigger Trap after insert on Files begin select ({ENDLESS}); end",
    "files updated": f"create trigger Trap before update on Files begin select ({ENDLESS}); end",
    "folders inserted": f"create trigger Trap before insert on Folders begin select ({ENDLESS}); end",
    "folders updated": f"create trigger Trap after update on Folders begin select ({ENDLESS}); end",
    "view": "alter table Files rename to Kept; create view Files as select * from Kept",
    "endless view": f"drop table Files; create view Files as {ENDLESS}",
    "virtual table": "create virtual table Texts using fts5(text)",
    "check": "create index Slow on Files(path like '%a%a%a%a%a%a%a%a%a%a%b')",
    "huge schema": "begin;" + "".join(f"create table Table{number}(x);" for number in range(2000)) + "commit",
}


def run_sql(path, script):
    """Runs statements on a catalogue that no daemon has open."""
    connection = sqlite3.connect(path, isolation_level=None)
    connection.executescript(script)
    connection.close()


def volume_with_log(arena, name, made, trap):
    """What runs with the daemon's statements is in the log alone, as a program leaves it that was killed."""
    volume, copy = volume_of_user(arena, name, made), arena.path("with-log.db")
    shutil.copyfile(made, copy)
    connection = sqlite3.connect(copy, isolation_level=None)
    connection.execute("pragma journal_mode = wal")
    connection.execute("pragma wal_autocheckpoint = 0")
    connection.execute(trap)
    for suffix in ("", "-wal"):
        shutil.copyfile(copy + suffix, volume.catalogue.path + suffix)
    connection.close()
    hand_over(quarrow_path(volume), USER)
    return volume


def volume_with_journal(arena, name, made, trap):
    """What runs with the daemon's statements comes back with the roll-back of a transaction that took it out."""
    volume, copy = volume_of_user(arena, name, made), arena.path("with-journal.db")
    shutil.copyfile(made, copy)
    connection = sqlite3.connect(copy, isolation_level=None)
    connection.execute(trap)
    connection.execute("pragma cache_size = 1")
    connection.execute("begin immediate")
    connection.execute("drop trigger Trap")
    connection.execute("create table Filler(bytes)")
    for _ in range(100):  # more than the cache holds: the journal becomes valid before anything is written to the file
        connection.execute("insert into Filler values(zeroblob(4000))")
    shutil.copyfile(copy + "-journal", volume.catalogue.path + "-journal")
    connection.execute("rollback")
    connection.close()
    hand_over(quarrow_path(volume), USER)
    return volume


def assert_holds_no_trigger(path):
    """The main file alone."""
    connection = sqlite3.connect(f"file:{path}?immutable=1", uri=True)
    assert connection.execute("select count(*) from sqlite_master where type = 'trigger'").fetchall() == [(0,)]
    connection.close()


def test_a_catalogue_with_the_sql_of_a_user_is_refused(arena):
    """At each start: that root owns the file from the first one on does not make the text root's."""
    made = plain_catalogue(arena)
    volumes = []
    for name, script in FOREIGN_SQL.items():
        volumes.append(volume_of_user(arena, name, made))
        run_sql(volumes[-1].catalogue.path, script)
    good = good_volume(arena)
    for _ in range(3):
        assert_refused(start_and_stop(arena, volumes, good), volumes, NOT_AUTHORIZED)


def test_a_trigger_that_is_called_a_table_is_refused(arena):
    """SQLite reads the text and not the type beside it; where it compares the two, it takes the file for damaged."""
    volume, good = volume_of_user(arena, "A", plain_catalogue(arena)), good_volume(arena)
    run_sql(volume.catalogue.path, FOREIGN_SQL["files inserted"] + ";pragma writable_schema = on;"
            "update sqlite_master set type = 'table' where type = 'trigger'")
    for _ in range(3):
        assert start_and_stop(arena, [volume], good) in (refusal(volume, DAMAGED), refusal(volume, NOT_AUTHORIZED))


@pytest.mark.parametrize("owner", [USER, 0])
@pytest.mark.parametrize("make", [volume_with_log, volume_with_journal])
def test_a_side_file_with_the_sql_of_a_user_is_refused(arena, make, owner):
    """Also beside a catalogue that is root's: who owns the folder can put a file there. Of a journal not even the first page
    is read, since it can name files to be removed."""
    volume, good = make(arena, "A", plain_catalogue(arena), FOREIGN_SQL["files inserted"]), good_volume(arena)
    assert_holds_no_trigger(volume.catalogue.path)
    os.chown(volume.catalogue.path, owner, owner)
    for _ in range(3):
        status = CANNOT_OPEN if make is volume_with_journal else NOT_AUTHORIZED
        assert start_and_stop(arena, [volume], good) == refusal(volume, status)
    # Once the administrator has removed it the volume works.
    if make is volume_with_journal:
        os.unlink(volume.catalogue.path + "-journal")
        assert start_and_stop(arena, [], volume, good) == []
        return
    edit(volume.catalogue.path, "drop trigger Trap")
    for _ in range(2):
        assert start_and_stop(arena, [], volume, good) == []


def test_a_trigger_of_the_administrator_works_and_the_same_one_of_a_user_does_not(arena):
    counting = ("create table Added(path text); create trigger Counting after insert on Files"
                " begin insert into Added values(new.path); end")
    made = plain_catalogue(arena)
    volumes = [volume_of_user(arena, name, made) for name in ("Administrator", "User")]
    for volume, owner in zip(volumes, (0, USER)):
        run_sql(volume.catalogue.path, counting)
        hand_over(quarrow_path(volume), owner)
    good = good_volume(arena)
    for number in range(3, 6):
        daemon = arena.start([*volumes, good])
        daemon.wait_walks(2)
        assert daemon.errors() == refusal(volumes[1], NOT_AUTHORIZED)
        for volume in (volumes[0], good):
            assert_converged(volume)
        daemon.stop()
        volumes[0].make_file(f"/m/sub/{number}.mp3", b"x")
    added = {path for path, in volumes[0].catalogue.query("select path from Added")}
    # The mark of the stop is in whichever folder was watched first: of this volume, or of the other.
    assert added - {"/m/.tickle"} == {"/m/sub/2.mp3", "/m/sub/3.mp3", "/m/sub/4.mp3"}
    assert volumes[1].catalogue.query("select count(*) from Added") == [(0,)]


def test_a_plain_catalogue_of_a_user_becomes_roots(arena):
    """With and without what a killed daemon leaves."""
    made = plain_catalogue(arena)
    volume, killed, good = volume_of_user(arena, "A", made), volume_of_user(arena, "B", made), good_volume(arena)
    first = arena.start([killed])
    first.wait_walks()
    first.kill()
    killed.make_file("/m/sub/3.mp3", b"x")
    hand_over(killed.folder, USER)
    volumes = [volume, killed, good]
    ids = [each.catalogue.file_ids() for each in volumes[:2]]
    for number in range(4, 7):
        daemon = arena.start(volumes)
        daemon.wait_walks(3)
        for each in volumes:
            assert_converged(each)
            assert_of_root(each)
        for each, known in zip(volumes, ids):
            assert known.items() <= each.catalogue.file_ids().items()
        daemon.stop_without_errors()
        for each in volumes:
            each.make_file(f"/m/sub/{number}.mp3", b"x")
