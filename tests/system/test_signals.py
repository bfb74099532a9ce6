"""SIGTERM at any moment ends the daemon with status 0 and a sound catalogue; SIGKILL costs nothing that a walk cannot
bring back."""
import os
import shutil
import signal
import sqlite3
import threading

import pytest

from catalogue import assert_same, without
from lines import AWAKE, SLEEP, info, walk_lines
from model import after_walk
from quarrow_driver.waiting import wait_for
from trees import make_empty_folders, make_media_tree

GOT = info("Got a signal to stop\n")
JOINED = info("The thread join has returned with a return code of 0 \n")
CLOSED = info("sqlite3 handle closed\n")
DONE = info("Done with the stop\n")


def assert_stopped(daemon, volumes):
    """The daemon has gone through its stop once, in order, and left every catalogue sound."""
    assert daemon.wait_exit() == 0
    lines = daemon.lines
    assert lines.count(JOINED) == 1
    assert lines.count(CLOSED) == len(volumes)
    assert lines.count(GOT) == lines.count(DONE)
    assert lines.index(GOT) < lines.index(JOINED) < lines.index(CLOSED) < lines.index(DONE)
    assert daemon.errors() == []
    for volume in volumes:
        assert volume.catalogue.is_sound()
        assert not os.path.exists(volume.catalogue.path + "-wal")


def test_a_stop_at_any_moment_of_start_and_first_walk(arena):
    delays = [0, 0.001, 0.002, 0.004, 0.008, 0.015, 0.03, 0.05, 0.08, 0.12, 0.2, 0.4]
    volumes = [arena.volume(f"V{number}", crawl=["/m", "/n"]) for number in range(4)]
    for number, volume in enumerate(volumes):
        make_media_tree(volume, "/m", folders=60, files=300, seed=number)
        make_media_tree(volume, "/n", folders=5, files=30, seed=number)
    for volume in volumes[2:]:  # these exist already, the others are new to the first daemon
        run = arena.start([volume])
        run.wait_walks(2)
        run.stop()
    for place, delay in enumerate(delays):
        group = volumes if place % 2 else volumes[::-1]
        daemon = arena.start(group)
        daemon.wait_line(info("================\n"))
        threading.Event().wait(delay)
        daemon.signal(signal.SIGTERM)
        assert_stopped(daemon, group)
        assert SLEEP not in daemon.lines  # stopped before the control loop, which then has nothing to do
    daemon = arena.start(volumes)
    daemon.wait_walks(8)
    for volume in volumes:
        live, tree = volume.catalogue.live(), volume.tree()
        assert live == {row.path for row in tree.folders + tree.files}
        assert_same(volume.rows(), after_walk(volume.rows(), tree))
    daemon.stop()


def test_a_stop_of_an_idle_daemon(arena):
    """In the first minute, in the control loop, and with the clock far ahead. Each leaves its mark in the first folder."""
    volume = arena.volume(crawl=["/m", "/n"])
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    daemon.signal(signal.SIGTERM)
    assert_stopped(daemon, [volume])
    assert daemon.lines[-1] == DONE
    assert os.listdir(volume.path("/m")) == [".tickle"] and os.listdir(volume.path("/n")) == []
    assert os.path.getsize(volume.path("/m/.tickle")) == 0


def test_a_stop_in_the_control_loop(arena, clock):
    volume = arena.volume(crawl=["/m"])
    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    daemon.end_first_sleep()
    daemon.signal(signal.SIGTERM)
    assert_stopped(daemon, [volume])
    assert daemon.lines[-3:] == [DONE, AWAKE, info(f"Woke up too soon. Going back {clock.now} === 0\n")]

    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    daemon.end_first_sleep()
    clock.advance(1000)
    daemon.signal(signal.SIGTERM)
    assert_stopped(daemon, [volume])
    assert daemon.lines[-2:] == [DONE, AWAKE]


def test_more_than_one_signal_to_stop(arena):
    volumes = [arena.volume(name, crawl=["/m"]) for name in "AB"]
    for volume in volumes:
        make_media_tree(volume, "/m", folders=30, files=100, seed=1)
    runs = []
    for numbers in ([15, 15], [15, 10, 15], [10, 15, 10, 15], [15] * 20, [10, 15] * 20):
        for walked in (False, True):
            daemon = arena.start(volumes)
            daemon.wait_line(info("================\n"))
            if walked:
                daemon.wait_walks(2)
            for number in numbers:
                os.kill(daemon.pid, number)
            assert_stopped(daemon, volumes)
            runs.append(daemon)
    assert all(1 <= daemon.count(GOT) <= 20 for daemon in runs)


def test_a_stop_in_mid_walk_keeps_what_is_done_and_the_next_walk_does_the_rest(arena):
    volume = arena.volume(crawl=["/m", "/n"])
    make_empty_folders(volume, "/m", 3000)
    volume.make_file("/n/1.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_line(info("Processed 1000 folders\n"))
    daemon.signal(signal.SIGTERM)
    assert_stopped(daemon, [volume])
    # The walk ended early, and told so like any other; the second start folder was not looked at.
    ends = [line.text for line in walk_lines(daemon.lines) if line.text.startswith(("Finished", "Total"))]
    assert ends[0] == f"Finished walk. Walk started at {volume.path('/m')}\n"
    assert ends[2:] == [f"Finished walk. Walk started at {volume.path('/n')}\n", "Total folders/files (re)indexed: 0/0\n"]
    part, tree = volume.rows(), volume.tree()
    assert 1000 <= len(part.folders) < 3000
    known = {row.path: row for row in tree.folders}
    same_row = lambda row: row == known[row.path] or row.path == "/m"  # in which the stop left its mark since
    assert all(same_row(row) for row in part.folders)

    ids = volume.catalogue.folder_ids()
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    assert_same(volume.rows(), after_walk(part, tree))
    assert {path: number for path, number in volume.catalogue.folder_ids().items() if path in ids} == ids
    daemon.stop()


def test_a_kill_in_mid_walk_and_the_walk_after_it(arena):
    """Several times over, each time a little further into the volume."""
    volume = arena.volume(crawl=["/m"])
    make_empty_folders(volume, "/m", 2500)
    make_media_tree(volume, "/m/media", folders=50, files=500, seed=1)
    shown = 0
    for _ in range(4):
        daemon = arena.start([volume])
        daemon.wait_log(lambda lines: sum(line.text.startswith("For folder") for line in lines) > shown, "some folders")
        daemon.kill()
        assert volume.catalogue.is_sound()
        shown = len(volume.catalogue.live()) + 100
    tree = volume.tree()
    known = {row.path: row for row in tree.folders + tree.files}
    rows = volume.rows()
    assert all(known[row.path] == row for row in rows.folders + rows.files)
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_same(volume.rows(), tree)
    daemon.stop()
    assert volume.catalogue.is_sound()


def test_a_stop_when_a_volume_has_gone_or_cannot_be_written(arena):
    """Nothing can be touched there then, and still the watcher is woken."""
    gone, replaced = arena.volume("A", crawl=["/m"], folder="gone"), arena.volume("A", crawl=["/m"], folder="replaced")
    bare, emptied = arena.volume("A", crawl=["/nowhere"], folder="bare"), arena.volume("A", crawl=["/m"], folder="emptied")
    marked = arena.volume("A", crawl=["/m"], folder="marked")
    os.rmdir(bare.path("/nowhere"))
    daemons = {volume: arena.start([volume]) for volume in (gone, replaced, bare, emptied, marked)}
    for daemon in daemons.values():
        daemon.wait_walks()
    shutil.rmtree(gone.folder)
    os.rmdir(replaced.path("/m"))
    os.symlink("/nonexistent/target", replaced.path("/m"))
    os.symlink("/nonexistent/target", marked.path("/m/.tickle"))
    os.rmdir(emptied.path("/m"))
    for daemon in daemons.values():
        daemon.signal(signal.SIGTERM)
    for volume, daemon in daemons.items():
        assert daemon.wait_exit() == 0
        assert daemon.lines[-1] == DONE
        assert volume is gone or volume.catalogue.is_sound()
    assert os.listdir(bare.folder) == [".quarrow"]
    assert not os.path.exists(gone.folder)


def test_a_stop_while_another_program_holds_the_catalogue(arena):
    """The walk waits for the lock as long as it takes, the stop does not."""
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m", folders=30, files=100, seed=1)
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    before = volume.rows()
    shutil.rmtree(volume.path("/m"))
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")
    daemon = arena.start([volume])
    daemon.wait_line(info("Checking if the folder /m exists in the path list"))
    daemon.signal(signal.SIGTERM)
    assert daemon.wait_exit() == 0
    assert daemon.lines[-1] == DONE and daemon.count(JOINED) == 1
    writer.execute("rollback")
    writer.close()
    assert_same(volume.rows(), before)
    assert volume.catalogue.is_sound()


@pytest.mark.slow
def test_a_stop_in_the_middle_of_a_burst(arena):
    volume = arena.volume(crawl=["/m"])
    make_empty_folders(volume, "/m", 2500)
    daemon = arena.start([volume])
    daemon.wait_walks()
    volume.create("/m/seen.mp3")
    daemon.wait_line(info(f"Going to walk {volume.path('/m')} in handleChangeFolder and found is 1\n"))
    volume.create("/m/unseen.mp3")
    daemon.signal(signal.SIGTERM)
    assert_stopped(daemon, [volume])
    before = volume.rows()
    daemon = arena.start([volume])
    daemon.wait_walks()
    wait_for(lambda: volume.catalogue.live() == {row.path for row in volume.tree().folders + volume.tree().files}, "all rows")
    assert_same(without(volume.rows(), "/m/.tickle"), without(after_walk(before, volume.tree()), "/m/.tickle"))
    daemon.stop()


def test_a_wake_up_during_the_stop_waits_for_its_end(arena):
    """A handler that came into the middle of the other one could find the log or the heap locked by it."""
    volume = arena.volume(crawl=["/m"])
    os.mkdir(arena.path("bin"))
    gate = arena.path("gate")
    os.mkfifo(gate)
    with open(arena.path("bin/touch"), "w", encoding="ascii") as file:
        file.write(f"#!/bin/sh\nread line < '{gate}'\n")  # holds the stop up where it leaves its mark
    os.chmod(arena.path("bin/touch"), 0o755)
    daemon = arena.start([volume], environment={"PATH": f"{arena.path('bin')}:{os.environ['PATH']}"})
    daemon.wait_walks()
    daemon.signal(signal.SIGTERM)
    daemon.wait_line(GOT)
    usr1 = info("Got a usr1 signal\n")

    def is_pending():
        with open(f"/proc/{daemon.pid}/status", encoding="ascii") as status:
            mask = int(next(line for line in status if line.startswith("ShdPnd")).split()[1], 16)
        return mask >> (signal.SIGUSR1 - 1) & 1

    with open(gate, "w", encoding="ascii") as file:  # opens once the command is there
        daemon.signal(signal.SIGUSR1)
        wait_for(lambda: is_pending() or usr1 in daemon.lines, "the signal")
        file.write("go\n")
    assert daemon.wait_exit() == 0
    lines = daemon.lines
    assert GOT in lines and usr1 not in lines[:lines.index(DONE)]
