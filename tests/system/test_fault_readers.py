"""Readers of a catalogue that stay, come and go while the daemon writes.

They may hold the daemon up on their own volume, never elsewhere, and see whole folders only.
"""
import os
import sqlite3
import subprocess
import sys
import time

import pytest

from catalogue import Catalogue
from harness import inotify_limit
from lines import info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import assert_converged, is_converged
from trees import volume_of_files

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)
READER_SECONDS = float(os.environ.get("QUARROW_READER_SECONDS", "30"))


# Readers

def test_a_reader_that_keeps_its_transaction_open(arena):
    """It goes on seeing what it began with. Everybody else sees every change, and once it is gone the log is used anew."""
    volume = volume_of_files(arena, "A", 60, 5)
    daemon = arena.start([volume], environment=CLOCK)
    daemon.wait_walks()
    log = volume.catalogue.path + "-wal"
    reader = volume.catalogue.open()
    reader.execute("begin")
    contents = lambda: sorted(reader.execute("select path, is_deleted, modified_time from Files"))
    first = contents()
    assert len(first) == 300
    end = time.monotonic() + READER_SECONDS
    rounds = 0
    while rounds < 3 or time.monotonic() < end:
        rounds += 1
        for folder in range(60):
            os.rename(volume.path(f"/m/{folder}/a0.mp3"), volume.path(f"/m/{folder}/renamed.mp3"))
            volume.make_file(f"/m/{folder}/a1.mp3", b"x" * (rounds + 1))
        daemon.rewalk()
        wait_for(lambda: is_converged(volume), "the changes in the catalogue")
        for folder in range(60):
            os.rename(volume.path(f"/m/{folder}/renamed.mp3"), volume.path(f"/m/{folder}/a0.mp3"))
        daemon.rewalk()
        wait_for(lambda: is_converged(volume), "the changes taken back")
        assert contents() == first
    reader.close()
    sizes = []
    for size in (1, 2, 3, 4):
        for folder in range(60):
            volume.make_file(f"/m/{folder}/a1.mp3", b"y" * 100 * size)
        daemon.rewalk()
        wait_for(lambda: is_converged(volume), "the changes in the catalogue")
        sizes.append(os.path.getsize(log))
    assert sizes == sizes[:1] * 4
    os.mkdir(arena.path("copy"))
    with open(volume.catalogue.path, "rb") as source, open(arena.path("copy/quarrow.db"), "wb") as target:
        target.write(source.read())
    sqlite3.connect(arena.path("copy/quarrow.db")).execute("pragma journal_mode=delete")
    copy = Catalogue(arena.path("copy/quarrow.db"))
    assert copy.is_sound() and copy.rows() == volume.rows()
    assert_converged(volume)
    daemon.stop()
    assert not os.path.exists(log)
    assert daemon.errors() == []


#: Reads a catalogue over and over; prints a line for each observation: per folder, which files it offers, in short. Who may
#: not write sometimes meets an index of the log that is being changed, which SQLite calls a read-only database: try again.
READER = """
import sqlite3, sys
path, stay = sys.argv[1], sys.argv[2] == "stay"
connect = lambda: sqlite3.connect(f"file:{path}?mode=ro&readonly_shm=1", uri=True, timeout=60)

def look(connection):
    states = {}
    connection.execute("begin")
    for folder, kind, count in connection.execute(
            "select o.path, substr(i.name, 1, 1), count(i.file_id) from Folders o left join Files i"
            " on i.folder_id = o.folder_id and i.is_deleted = 0 where o.is_deleted = 0 and o.path like '/m/%' group by 1, 2"):
        states.setdefault(folder, {})[kind] = count
    stray = connection.execute("select count(*) from Files where is_deleted = 0 and folder_id not in"
                               " (select folder_id from Folders where is_deleted = 0)").fetchone()[0]
    connection.execute("commit")
    return states, stray

connection = connect()
while True:
    if not stay:
        connection.close()
        connection = connect()
    try:
        states, stray = look(connection)
    except sqlite3.OperationalError as error:
        if error.sqlite_errorname not in ("SQLITE_READONLY_RECOVERY", "SQLITE_READONLY_CANTINIT"):
            raise
        print(error.sqlite_errorname, file=sys.stderr, flush=True)
        if connection.in_transaction:
            connection.execute("rollback")
        continue
    kinds = {}
    for state in states.values():
        kind = "".join(f"{kind}{count}" for kind, count in sorted(state.items(), key=str))
        kinds[kind] = kinds.get(kind, 0) + 1
    print(stray, *(f"{kind}={count}" for kind, count in sorted(kinds.items())), flush=True)
"""


class Readers:
    """Processes that read a catalogue in a loop, while inside."""

    def __init__(self, arena, volume, count, nice=0):
        self.outputs = [arena.path(f"reader-{number}") for number in range(count)]
        self.errors = [arena.path(f"reader-{number}-errors") for number in range(count)]
        self.command = lambda number: ["nice", "-n", str(nice), sys.executable, "-S", "-E", "-B", "-c", READER,
                                       volume.catalogue.path, "stay" if number % 2 else "go"]

    def __enter__(self):
        self.processes = []
        for number, (output, errors) in enumerate(zip(self.outputs, self.errors)):
            with open(output, "wb") as stdout, open(errors, "wb") as stderr:
                self.processes.append(subprocess.Popen(self.command(number), stdout=stdout, stderr=stderr))
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()
            process.wait()

    def check_alive(self):
        for process, errors in zip(self.processes, self.errors):
            if process.poll() is not None:
                with open(errors, encoding="utf-8") as file:
                    raise AssertionError(f"a reader has ended: {file.read()}")

    def observations(self):
        """[number of files without a live folder, {state: number of folders}], in whole lines."""
        found = []
        for output in self.outputs:
            with open(output, encoding="ascii") as file:
                text = file.read()
            for line in text[:text.rfind("\n") + 1].splitlines():
                stray, *kinds = line.split(" ")
                found.append((int(stray), {kind: int(count) for kind, count in (each.split("=") for each in kinds)}))
        return found

    def retries(self):
        return sum(os.path.getsize(errors) > 0 for errors in self.errors)

    def wait_for_a_round(self):
        counts = [os.path.getsize(output) for output in self.outputs]
        wait_for(lambda: self.check_alive() or all(os.path.getsize(output) > count
                                                   for output, count in zip(self.outputs, counts)), "an observation of each")


def check(observations, folders, allowed):
    """No file without its folder, and of each folder all files of one generation or, in a first walk, none yet."""
    for stray, kinds in observations:
        assert stray == 0
        assert set(kinds) <= allowed, "a folder was seen with some of its files, or with those of two generations"
        assert len(kinds) <= 2, "folders of three generations were seen at once"
        assert sum(kinds.values()) == folders or len(kinds) <= 1, "folders were gone while others changed"


@pytest.mark.parametrize("count, nice, folders, files, walks", [(4, 0, 300, 20, 4), (50, 19, 1000, 50, 2)])
def test_readers_in_a_loop_see_whole_folders_only(arena, count, nice, folders, files, walks):
    """During a first walk and walks that find every folder changed."""
    volume = volume_of_files(arena, "A", folders, files)
    daemon = arena.start([volume], standby=True, environment=CLOCK)
    daemon.wait_line(info("Volume in standby, ignoring purge"))
    partial = 0
    generations = "abcdefghijklmnopqrstuvwxyz"
    with Readers(arena, volume, count, nice) as readers:
        readers.wait_for_a_round()
        daemon.set_standby(False)
        daemon.rewalk(bound=600)  # they take their share of the machine
        wait_for(lambda: is_converged(volume), "the first walk")
        for number, (old, new) in enumerate(zip(generations, generations[1:]), 2):
            with daemon.frozen():  # so that it cannot see a folder with some of its files either
                for folder in range(folders):
                    for file in range(files):
                        os.rename(volume.path(f"/m/{folder}/{old}{file}.mp3"), volume.path(f"/m/{folder}/{new}{file}.mp3"))
            daemon.rewalk(bound=600)
            wait_for(lambda: is_converged(volume), "the changes in the catalogue")
            readers.wait_for_a_round()
            observations = readers.observations()
            check(observations, folders, {f"{each}{files}" for each in generations[:number]})
            partial = sum(len(kinds) == 2 or 0 < sum(kinds.values()) < folders for _, kinds in observations)
            if number >= walks and partial >= 20:
                break
    print(f"{number} walks, {len(observations)} observations, {partial} of them in mid-walk, {readers.retries()} readers tried again")
    assert partial >= 20, "nobody looked while a walk was running"
    assert_converged(volume)
    daemon.stop()
    # More changes than the kernel queues: what it drops is found by the walk.
    overflows = 2 * folders * files > inotify_limit("max_queued_events")
    assert set(daemon.errors()) <= ({"No listener/directory found for \n"} if overflows else set())


def test_readers_in_a_loop_from_before_the_start(arena):
    """The catalogue has no write-ahead log yet, so that readers could keep a writer waiting."""
    folders, files = 40, 20
    volume = volume_of_files(arena, "A", folders, files)
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    for folder in range(folders):
        for file in range(files):
            os.rename(volume.path(f"/m/{folder}/a{file}.mp3"), volume.path(f"/m/{folder}/b{file}.mp3"))
    with Readers(arena, volume, 4) as readers:
        readers.wait_for_a_round()
        daemon = arena.start([volume])
        daemon.wait_walks()
        assert_converged(volume)
        readers.wait_for_a_round()
        daemon.stop()
        readers.wait_for_a_round()
        check(readers.observations(), folders, {f"a{files}", f"b{files}"})
    assert daemon.errors() == []


class Hold:
    """A reader with an open transaction, while inside; it tells how many folders it was offered that had new files."""

    def __init__(self, volume):
        self.volume = volume

    def __enter__(self):
        self.connection = self.volume.catalogue.open()
        self.connection.execute("begin")
        return self.connection.execute("select count(*) from Files where name = 'b0.mp3'").fetchone()[0]

    def __exit__(self, *_):
        self.connection.close()


def test_a_reader_that_goes_again_during_the_first_walk(arena):
    """While it reads, the catalogue cannot get its write-ahead log. The walk tries that anew with each folder: without a log it
    would wait for every reader that comes until its end, and each reader for its commits."""
    folders = 1500
    volume = volume_of_files(arena, "A", folders, 1)
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    for folder in range(folders):
        volume.create(f"/m/{folder}/b0.mp3")
    log = volume.catalogue.path + "-wal"
    with Hold(volume):
        daemon = arena.start([volume])
        wait_for(lambda: os.path.exists(volume.catalogue.path + "-journal"), "the first folder's transaction")
        assert not os.path.exists(log)
    with daemon.log.changed:  # nothing is taken from the log's socket, so that the walk stays somewhere among its folders
        wait_for(lambda: os.path.exists(log), "the write-ahead log, with most of the walk still to come")
    with Hold(volume) as count:
        assert count < folders
        daemon.wait_walks()
        assert_converged(volume)
    daemon.stop()
    assert not os.path.exists(log)
    assert daemon.errors() == []
