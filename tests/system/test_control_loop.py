"""The control loop: woken by SIGUSR1, it walks idle volumes at most every 300 seconds, and never in standby."""
import os
import re
import signal
import sqlite3
import time

from catalogue import assert_same
from lines import AWAKE, SLEEP, info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for

SIGNAL = [info("Got a usr1 signal\n"), info("Done with usr1 signal\n")]
STANDBY = info("Volume in standby, ignoring purge")


def too_soon(last, elapsed):
    return info(f"Woke up too soon. Going back {last} === {elapsed}\n")


def loop_lines(daemon):
    """What the main thread says from its first signal on."""
    ours = [line for line in daemon.lines if line in (SLEEP, AWAKE, *SIGNAL) or line.text.startswith("Woke up")]
    return ours[ours.index(SIGNAL[0]):]


def wake(daemon, *expected):
    """Sends SIGUSR1 and returns when the loop is asleep again; its lines in between are the expected ones."""
    before = len(loop_lines(daemon))
    daemon.wake()
    assert loop_lines(daemon)[before:] == [*SIGNAL, AWAKE, *expected, SLEEP]


def test_the_first_signal_ends_the_first_minute(arena, clock):
    """The semaphore then counts two, one from its making and one from the signal: the loop turns twice."""
    daemon = arena.start([arena.volume(crawl=["/m"])], clock=clock)
    daemon.wait_walks()
    daemon.end_first_sleep()
    start = clock.now
    assert loop_lines(daemon) == [*SIGNAL, SLEEP, AWAKE, too_soon(start, 0), SLEEP, AWAKE, too_soon(start, 0), SLEEP]
    daemon.stop()


def test_without_a_signal_the_loop_begins_after_a_minute(arena):
    daemon = arena.start([arena.volume(crawl=["/m"])], environment=fast_clock(60))
    daemon.wait_line(SLEEP, 2)
    lines = [line.text for line in daemon.lines if line in (SLEEP, AWAKE) or line.text.startswith("Woke up")]
    assert lines[:2] == ["Going to sleep.\n", AWAKE.text]
    assert lines[2].startswith("Woke up too soon. Going back ") and lines[3:] == ["Going to sleep.\n"]
    assert "Got a usr1 signal\n" not in daemon.texts()
    daemon.stop()


def test_a_walk_at_most_every_300_seconds(arena, clock):
    volumes = [arena.volume("B", crawl=["/m"]), arena.volume("A", crawl=["/m"])]
    for volume in volumes:
        volume.make_file("/m/sub/1.mp3", b"x")
    daemon = arena.start(volumes, clock=clock)
    daemon.wait_walks(2)
    daemon.end_first_sleep()
    start = clock.now

    clock.set(start + 299)
    wake(daemon, too_soon(start, 299))
    clock.set(start - 100)  # somebody put the clock back
    wake(daemon, too_soon(start, -100))
    for volume in volumes:
        volume.make_file("/m/sub/2.mp3", b"x")
    clock.set(start + 300)
    wake(daemon)
    daemon.wait_walks(4)
    for volume in volumes:
        assert daemon.count(info(f"Finished walk. Walk started at {volume.path('/m')}\n")) == 2
        assert_same(volume.rows(), volume.tree())
    wake(daemon, too_soon(start + 300, 0))
    clock.set(start + 599)
    wake(daemon, too_soon(start + 300, 299))
    clock.set(start + 600)
    wake(daemon)
    daemon.wait_walks(6)
    assert daemon.errors() == []
    daemon.stop()


def test_a_volume_that_is_being_walked_is_passed_over(arena, clock):
    """And does not count as walked: with no other volume, the next signal finds it still due."""
    busy, idle = arena.volume("Busy", crawl=["/m"]), arena.volume("Idle", crawl=["/m"])
    for volume in (busy, idle):
        volume.make_file("/m/1.mp3", b"x")
    first = arena.start([busy, idle])
    first.wait_walks(2)
    first.stop()

    writer = sqlite3.connect(busy.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")  # the walk waits for it
    both, alone = arena.start([busy, idle], clock=clock), None
    both.wait_line(info("Checking if the folder /m exists in the path list"), 2)  # each walk is at work
    both.wait_walks_of(idle, 1)
    wait_for(lambda: both.thread_count() == both.steady_threads() + 1, "the end of the idle volume's walk thread")
    both.end_first_sleep()
    start = clock.now
    clock.set(start + 300)
    wake(both)
    both.wait_walks_of(idle, 2)
    wake(both, too_soon(start + 300, 0))
    assert both.walks_of(busy) == 0
    writer.execute("rollback")
    both.wait_walks_of(busy, 1)
    both.stop()

    writer.execute("begin immediate")
    alone = arena.start([busy], clock=clock)
    alone.wait_log(lambda lines: info("Checking if the folder /m exists in the path list") in lines, "the busy walk")
    alone.end_first_sleep()
    clock.advance(300)
    wake(alone)
    wake(alone)
    assert alone.walks_of(busy) == 0
    writer.execute("rollback")
    writer.close()
    alone.wait_walks(1)
    wake(alone)
    alone.wait_walks(2)
    wake(alone, too_soon(clock.now, 0))
    alone.stop()


def test_standby_keeps_walks_and_purges_away(arena, clock):
    volumes = [arena.volume(name, crawl=["/m"]) for name in "AB"]
    for volume in volumes:
        volume.make_file("/m/1.mp3", b"x")
    daemon = arena.start(volumes, clock=clock, standby=True)
    daemon.wait_line(STANDBY, 2)  # the purge thread's first pass: nobody walks
    daemon.wait_line(info("pthread_sigmask returned 0\n"), 2)
    daemon.end_first_sleep()
    start = clock.now
    for volume in volumes:
        assert volume.rows() == ([], [])

    clock.set(start + 300)
    wake(daemon)
    assert daemon.count(STANDBY) == 4
    # That counts as a walk, although none was started.
    wake(daemon, too_soon(start + 300, 0))
    assert daemon.count(info("pthread_sigmask returned 0\n")) == 2  # of watcher and purge thread alone

    daemon.set_standby(False)
    clock.set(start + 600)
    wake(daemon)
    daemon.wait_walks(2)
    for volume in volumes:
        assert_same(volume.rows(), volume.tree())
    assert daemon.count(STANDBY) == 4

    # A change is followed in standby as well; only the purge after it is put off.
    daemon.set_standby(True)
    volumes[0].create("/m/2.mp3")
    daemon.wait_line(STANDBY, 6)
    assert "/m/2.mp3" in volumes[0].catalogue.live()
    daemon.stop_without_errors()


def test_what_a_walk_cannot_do_on_one_volume_leaves_the_others_alone(arena, clock):
    """The state file of one is spoilt while the daemon runs, so its purge fails in every round."""
    volumes = [arena.volume(name, crawl=["/m"]) for name in "ABC"]
    for volume in volumes:
        volume.make_folder("/m")
        volume.write_state(clock.now)
    daemon = arena.start(volumes, clock=clock, purge_threshold=200)
    daemon.wait_walks(3)
    daemon.end_first_sleep()
    with open(volumes[1].state_file, "wb") as file:
        file.write(b"<Quarrow><Volume>")
    clock.advance(400)
    wake(daemon)
    daemon.wait_walks(6)
    assert daemon.errors() == ["Could not parse the config xml\n",
                               "Got an exception during the walking of volumeManager B\n"]
    assert daemon.count(info(f"Done with the purge {clock.now}\n")) == 2
    with open(volumes[1].state_file, "rb") as file:
        assert file.read() == b"<Quarrow><Volume>"
    wake(daemon, too_soon(clock.now, 0))
    daemon.stop()


def test_many_signals_are_as_good_as_some(arena):
    daemon = arena.start([arena.volume(crawl=["/m"])])
    daemon.wait_log(lambda lines: lines, "the first line")
    deadline = time.monotonic() + 1
    while time.monotonic() < deadline:
        os.kill(daemon.pid, signal.SIGUSR1)
    daemon.wait_walks()
    daemon.wait_line(SLEEP, 3)
    daemon.stop()
    assert daemon.count(SIGNAL[0]) == daemon.count(SIGNAL[1]) >= 1
    assert daemon.errors() == []
    after = daemon.texts()[daemon.texts().index("Done with the stop\n") + 1:]
    assert after[0] == AWAKE.text and after[1].startswith("Woke up too soon") and len(after) == 2


def test_the_loop_begins_a_minute_after_the_start(arena):
    before = int(time.time())  # where the fast clock sets out from, or earlier
    daemon = arena.start([arena.volume(crawl=["/m"])], environment=fast_clock(20))
    [line, *_] = daemon.wait_log(lambda lines: [line.text for line in lines if line.text.startswith("Woke up too soon")],
                                 "the first round")
    assert int(re.search(r"Going back (\d+) ===", line)[1]) - before >= 59
    daemon.stop()
