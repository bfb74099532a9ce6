"""The files in a volume's .quarrow: the catalogue's schema, who can read it when, and the state file."""
import os
import sqlite3

import pytest

from harness import state_document
from lines import info

SCHEMA = [
    ("table", "Folders", "create table Folders(folder_id integer primary key AUTOINCREMENT, parent_id integer not null, "
     "path text not null , name text not null, category int default(-1) not null, created_time int not null, "
     "modified_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, "
     "is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null)"),
    ("table", "sqlite_sequence", "CREATE TABLE sqlite_sequence(name,seq)"),
    ("table", "Files", "create table Files(file_id integer primary key AUTOINCREMENT, folder_id integer not null, "
     "path text not null, name text not null, category int not null, size int not null, modified_time int not null, "
     "created_time int not null, is_deleted boolean not null, is_backup boolean default(0) not null, "
     "is_hidden boolean default(0) not null, is_system boolean default(0) not null, last_updated_time int not null, "
     "FOREIGN KEY(folder_id) REFERENCES Folders(folder_id) ON DELETE CASCADE)"),
    ("index", "Files_path", "create index Files_path on Files(path)"),
    ("index", "Files_last_updated_time", "create index Files_last_updated_time on Files(last_updated_time)"),
    ("index", "Files_folder_id", "create index Files_folder_id on Files(folder_id)"),
    ("index", "Files_name", "create index Files_name on Files(name)"),
    ("index", "Files_path_pame", "create index if not exists Files_path_pame on Files(path, name)"),
    ("index", "Folders_path", "create index Folders_path on Folders(path)"),
    ("index", "Folders_last_updated_time", "create index Folders_last_updated_time on Folders(last_updated_time)"),
    ("index", "Folders_parent_id", "create index Folders_parent_id on Folders(parent_id)"),
    ("index", "Folders_name", "create index Folders_name on Folders(name)"),
]


def as_sqlite_keeps(entries):
    """SQLite keeps the text of a statement from its third word on, behind its own "CREATE TABLE" or "CREATE INDEX"."""
    connection = sqlite3.connect(":memory:")
    for kind, name, text in entries:
        if name != "sqlite_sequence":
            connection.execute(text)
    kept = connection.execute("select type, name, sql from sqlite_master order by rowid").fetchall()
    connection.close()
    return kept


def mode(path):
    return oct(os.stat(path).st_mode & 0o7777)


def journal_version(path):
    """1: a plain file with a rollback journal, 2: write-ahead log."""
    with open(path, "rb") as file:
        header = file.read(20)
    assert header[18] == header[19]
    return header[18]


def test_schema_of_a_new_catalogue(arena):
    volume = arena.volume(crawl=["/m"])
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    stored = volume.catalogue.query("select type, name, sql from sqlite_master order by rowid")
    assert stored == as_sqlite_keeps(SCHEMA)
    assert [row[:2] for row in stored] == [row[:2] for row in SCHEMA]
    # What SQLite keeps of a statement is its text but for the first words.
    for (_, _, sql), (_, _, text) in zip(stored, SCHEMA):
        assert sql.split("(", 1)[1] == text.split("(", 1)[1]


def test_a_second_start_generates_nothing_and_keeps_every_id(arena):
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/a/b.mp3", b"x")
    runs = []
    for _ in range(2):
        daemon = arena.start([volume])
        daemon.wait_walks()
        daemon.stop()
        runs.append((volume.catalogue.folder_ids(), volume.catalogue.file_ids(), daemon.texts().count("Generating schema")))
    assert runs[0][2] == 1 and runs[1][2] == 0
    assert runs[1][0] == runs[0][0]
    # The first stop left its mark in the first watched folder.
    assert runs[1][1] == {**runs[0][1], "/m/.tickle": max(runs[0][1].values()) + 1}


def test_missing_folders_up_to_the_catalogue_are_made(arena):
    volume = arena.volume(folder="not/yet/there", crawl=["/m"])
    for path in ("not/yet/there/m", "not/yet/there", "not/yet", "not"):
        os.rmdir(arena.path(path))
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    assert [mode(arena.path(path)) for path in ("not", "not/yet", "not/yet/there", "not/yet/there/.quarrow")] == ["0o755"] * 4
    assert volume.rows() == ([], [])


def test_names_and_modes_of_the_files(arena):
    volume = arena.volume(crawl=["/m"])
    folder = volume.path("/.quarrow")
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert sorted(os.listdir(folder)) == ["quarrow-volume.xml", "quarrow.db", "quarrow.db-shm", "quarrow.db-wal"]
    assert {mode(os.path.join(folder, name)) for name in os.listdir(folder)} == {"0o644"}
    assert mode(folder) == "0o755"
    daemon.stop()
    assert sorted(os.listdir(folder)) == ["quarrow-volume.xml", "quarrow.db"]
    assert {mode(os.path.join(folder, name)) for name in os.listdir(folder)} == {"0o644"}


def test_a_new_state_file(arena):
    volume = arena.volume(crawl=["/m"])
    daemon = arena.start([volume])
    daemon.wait_walks()
    with open(volume.state_file, encoding="utf-8") as file:
        assert file.read() == state_document(0, 0)
    daemon.stop()
    with open(volume.state_file, encoding="utf-8") as file:
        assert file.read() == state_document(0, 0)


def test_journal_while_running_after_a_stop_and_at_the_next_start(arena):
    volume = arena.volume(crawl=["/m"])
    for _ in range(2):
        daemon = arena.start([volume])
        daemon.wait_walks()
        assert journal_version(volume.catalogue.path) == 2
        daemon.stop()
        assert journal_version(volume.catalogue.path) == 1


def test_the_main_file_is_complete_after_a_walk(arena):
    volume = arena.volume(crawl=["/m"])
    for number in range(50):
        volume.make_file(f"/m/{number}.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    os.mkdir(arena.path("copy"))
    copy = arena.path("copy/quarrow.db")
    with open(volume.catalogue.path, "rb") as source, open(copy, "wb") as target:
        target.write(source.read())
    connection = sqlite3.connect(copy)
    assert connection.execute("select count(*) from Files").fetchall() == [(50,)]
    assert connection.execute("pragma integrity_check").fetchall() == [("ok",)]
    connection.close()
    daemon.stop()


READER = """
import os, sqlite3, sys
connection = sqlite3.connect("file:/tmp/volume/.quarrow/quarrow.db?mode=ro", uri=True, timeout=60)
print(os.getuid(), *connection.execute("select path from Files order by path").fetchall())
"""


@pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
def test_a_user_without_write_permission_reads_while_running_after_a_stop_and_after_a_kill(arena):
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/a.mp3", b"x")
    nobody = 65534
    read = lambda: arena.run_python(READER, binds=[[volume.folder, "/tmp/volume"]], user=nobody)

    daemon = arena.start([volume])
    daemon.wait_walks()
    assert read() == f"{nobody} ('/m/a.mp3',)\n"
    daemon.stop()
    assert read() == f"{nobody} ('/m/a.mp3',)\n"
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.kill()
    assert read() == f"{nobody} ('/m/.tickle',) ('/m/a.mp3',)\n"
    assert volume.catalogue.is_sound()


@pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
def test_a_user_without_write_permission_reads_a_catalogue_that_nobody_has_walked_yet(arena):
    """In standby the daemon opens a catalogue and does nothing with it, for as long as that lasts."""
    volume = arena.volume(crawl=["/m"])
    daemon = arena.start([volume], standby=True)
    daemon.wait_line(info("Volume in standby, ignoring purge"))
    assert arena.run_python(READER, binds=[[volume.folder, "/tmp/volume"]], user=65534) == "65534\n"
    daemon.kill()
    assert arena.run_python(READER, binds=[[volume.folder, "/tmp/volume"]], user=65534) == "65534\n"


def test_a_reader_in_mid_transaction_hinders_neither_the_stop_nor_the_next_start(arena):
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    reader = volume.catalogue.open()
    reader.execute("begin")
    assert reader.execute("select path from Files").fetchall() == [("/m/a.mp3",)]
    daemon.stop()
    assert volume.catalogue.live() == {"/m", "/m/a.mp3"}
    assert volume.catalogue.is_sound()

    os.unlink(volume.path("/m/a.mp3"))
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert reader.execute("select path, is_deleted from Files").fetchall() == [("/m/a.mp3", 0)]  # as of its beginning
    reader.close()
    daemon.stop()
    assert volume.catalogue.live() == {"/m", "/m/.tickle"}
    assert journal_version(volume.catalogue.path) == 1


def test_a_foreign_writer_is_waited_for(arena):
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    volume.make_file("/m/b.mp3", b"x")

    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")
    writer.execute("update Files set is_system = 1 where path = '/m/a.mp3'")
    daemon = arena.start([volume])
    daemon.wait_log(lambda lines: info(f"sqlite version: {sqlite3.sqlite_version}\n") in lines, "the catalogue being opened")
    daemon.end_first_sleep()  # start-up does not wait for the writer
    assert volume.catalogue.live() == {"/m", "/m/a.mp3"}
    writer.execute("commit")
    writer.close()
    daemon.wait_walks()
    daemon.stop()
    assert volume.catalogue.live() == {"/m", "/m/.tickle", "/m/a.mp3", "/m/b.mp3"}
    assert volume.catalogue.query("select is_system from Files where path = '/m/a.mp3'") == [(1,)]
    assert daemon.errors() == []
