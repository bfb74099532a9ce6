"""Other programs at a catalogue: readers that stay, writers that get in between, and damage that somebody has done.

Neighbours may hold the daemon up on their own volume, never elsewhere, and no row is lost without a word.
"""
import os
import random
import sqlite3
import subprocess
import sys
import threading
import time

import pytest

from catalogue import Catalogue
from harness import inotify_limit
from lines import info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from recovery import RUNS, assert_converged, good_volume, is_converged

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)
STRACE = "/usr/bin/strace"
READER_SECONDS = float(os.environ.get("QUARROW_READER_SECONDS", "30"))


def volume_of_files(arena, name, folders, files, prefix="a"):
    volume = arena.volume(name, crawl=["/m"])
    for number in range(folders):
        write_files(volume, number, files, prefix)
    return volume


def write_files(volume, folder, files, prefix):
    for file in range(files):
        volume.make_file(f"/m/{folder}/{prefix}{file}.mp3", b"x")


def folder_summaries(daemon, volume):
    return sum(line.text.startswith(f"For folder {volume.path('/m')}") for line in daemon.lines)


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


# Writers

def test_a_writer_takes_the_lock_in_mid_walk(arena):
    """The walk waits and goes on; meanwhile everybody can read, and the other volume is walked."""
    for run in range(3 * RUNS):
        seed = 3000 + run
        place = random.Random(seed).randrange(1, 150)
        print(f"run {run}, seed {seed}: at folder {place}")
        volume, other = volume_of_files(arena, f"A{run}", 200, 10), volume_of_files(arena, f"B{run}", 200, 10)
        daemon = arena.start([volume, other], environment=CLOCK)
        daemon.wait_log(lambda _: folder_summaries(daemon, volume) >= place, "some folders")
        writer = sqlite3.connect(volume.catalogue.path, isolation_level=None, timeout=BOUND)
        writer.execute("begin exclusive")
        held_at = volume.catalogue.query("select count(*) from Folders")
        daemon.wait_walks_of(other, 1)
        assert_converged(other)
        volume.create("/m/0/late.mp3")
        assert volume.catalogue.query("select count(*) from Folders") == held_at
        writer.execute("rollback")
        writer.close()
        daemon.wait_walks_of(volume, 1)
        wait_for(lambda: is_converged(volume), "the whole tree in the catalogue")
        assert_converged(volume)
        daemon.stop_without_errors()


class SlowThread:
    """A thread that takes its time, while inside: a tracer holds it up in each of its system calls."""

    def __init__(self, thread):
        self.command = [STRACE, "-e", "trace=futex", "-o", "/dev/null", "-p", str(thread)]

    def __enter__(self):
        self.tracer = subprocess.Popen(self.command, stderr=subprocess.PIPE)
        message = self.tracer.stderr.readline()
        if b"attached" not in message:
            self.__exit__()
            raise PermissionError(message)

    def __exit__(self, *_):
        self.tracer.terminate()  # which lets the thread go
        self.tracer.communicate()


def may_trace():
    with subprocess.Popen(["/bin/sleep", "60"]) as process:
        try:
            with SlowThread(process.pid):
                return True
        except OSError:
            return False
        finally:
            process.kill()


@pytest.mark.skipif(not may_trace(), reason="strace is not there, or tracing is not allowed")
def test_a_live_walk_takes_turns_with_a_full_walk(arena):
    """Of the same volume: both want its lock for each folder. Who waits for it gets it next, however long he takes to wake up,
    or a change would wait for the end of the full walk. Seen for folders that are new, and for such that are known."""
    folders, live, files = 1500, 50, 30
    volume = volume_of_files(arena, "A", folders, files)
    volume.crawl.insert(0, "/live")
    for number in range(live - 1):
        for file in range(files):
            volume.make_file(f"/live/{number}/{file}.mp3")
    begun = info(f"Going to walk {volume.path('/live')} in handleChangeFolder and found is 1\n")
    finished = info(f"Finished walk. Walk started at {volume.path('/live')}\n")
    for run in ("new", "known"):
        daemon = arena.start([volume], environment=CLOCK)
        with daemon.log.changed:  # nothing is taken from the log's socket, so the walk does not get far beyond this line
            assert daemon.log.changed.wait_for(lambda: info("Processed 1000 folders\n") in daemon.log.lines, BOUND)
            writer = sqlite3.connect(volume.catalogue.path, isolation_level=None, timeout=BOUND)
            writer.execute("begin immediate")
        volume.create(f"/live/{run}.mp3")
        daemon.wait_line(begun)
        watcher = os.listdir(f"/proc/{daemon.pid}/task")[-3]  # in order of their making; then come the walk and the purge
        with SlowThread(watcher):
            writer.execute("rollback")  # from here on both walks go on
            writer.close()
            wait_for(lambda: daemon.count(finished) == 2, "the end of the live walk")
        daemon.wait_walks(3)
        lines = daemon.lines[daemon.lines.index(begun):]
        lines = lines[:lines.index(finished)]
        summaries = lambda start: sum(line.text.startswith(f"For folder {volume.path(start)}") for line in lines)
        print(f"{run}: {summaries('/m')} folders of the full walk during {summaries('/live')} of the live one")
        assert summaries("/live") == live
        assert summaries("/m") < 5 * live
        assert_converged(volume)
        daemon.stop_without_errors()


class Writer:
    """Commits to a catalogue as fast as it gets the lock: rows of its own table, and rows of the daemon's written as they
    are. Every now and then it keeps the lock for a while."""

    def __init__(self, volume, seed):
        self.path, self.choice = volume.catalogue.path, random.Random(seed)
        self.done, self.commits, self.failure = threading.Event(), 0, None
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.done.set()
        self.thread.join()

    def run(self):
        try:
            connection = sqlite3.connect(self.path, isolation_level=None, timeout=BOUND)
            connection.execute("create table Notes(number integer)")
            while not self.done.is_set():
                connection.execute("begin immediate")
                connection.execute("insert into Notes values(?)", (self.commits,))
                connection.execute("update Files set is_system = is_system where file_id % 7 = ?", (self.commits % 7,))
                if self.commits % 20 == 10:
                    time.sleep(self.choice.random() / 5)
                connection.execute("commit")
                self.commits += 1
                time.sleep(self.choice.random() / 200)
            connection.close()
        except sqlite3.Error as error:
            self.failure = error


def test_a_writer_that_commits_all_the_time(arena):
    """Between any two of the daemon's statements and transactions: first walk, full walk and live changes."""
    volume, other = volume_of_files(arena, "A", 150, 10), good_volume(arena, "B")
    made = arena.start([volume, other], standby=True)
    made.wait_line(info("Volume in standby, ignoring purge"), 2)
    made.stop()
    with Writer(volume, 4000) as writer:
        wait_for(lambda: writer.commits > 3 or writer.failure, "the first commits")
        daemon = arena.start([volume, other], environment=CLOCK)
        daemon.wait_walks(2)
        assert_converged(volume)
        for folder in range(150):
            volume.make_file(f"/m/{folder}/a0.mp3", b"longer")
            os.unlink(volume.path(f"/m/{folder}/a1.mp3"))
            volume.make_file(f"/m/{folder}/new/1.mp3", b"x")
        daemon.rewalk()
        wait_for(lambda: is_converged(volume) or writer.failure, "all changes")
        commits = writer.commits
        volume.create("/m/7/live.mp3")
        wait_for(lambda: "/m/7/live.mp3" in volume.catalogue.live(), "a live change")
        wait_for(lambda: writer.commits > commits or writer.failure, "more commits")
    assert writer.failure is None
    daemon.rewalk()
    assert_converged(volume)
    assert_converged(other)
    assert volume.catalogue.query("select count(*), max(number) from Notes") == [(writer.commits, writer.commits - 1)]
    assert writer.commits > 20
    daemon.stop_without_errors()


# Damage

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
