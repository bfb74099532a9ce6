"""Other programs that write to a catalogue, in between, again and again.

They may hold the daemon up on their own volume, never elsewhere, and no row is lost without a word.
"""
import os
import random
import sqlite3
import subprocess
import threading
import time

import pytest

from lines import info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from recovery import RUNS, assert_converged, good_volume, is_converged
from trees import volume_of_files

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)
STRACE = "/usr/bin/strace"


def folder_summaries(daemon, volume):
    return sum(line.text.startswith(f"For folder {volume.path('/m')}") for line in daemon.lines)


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
