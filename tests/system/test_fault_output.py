"""A log, a standard output and a standard error that nobody reads, or that nobody is there to receive."""
import os
import shutil
import signal
import sqlite3
import sys

import pytest

from daemon import LogSink
from lines import info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import assert_converged, good_volume, is_converged
from trees import make_media_tree, many_folders

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)


#: Runs a command with a standard output and error that take nothing more, and that nobody reads: its arguments are the kind
#: of both and the command.
UNREAD = """
import os, socket, sys
if sys.argv[1] == "pipe":
    reader, writer = os.pipe()
else:
    reader, writer = (end.detach() for end in socket.socketpair())
os.set_inheritable(reader, True)  # or writing would fail, and not wait
os.set_blocking(writer, False)
try:
    while True:
        os.write(writer, bytes(4096))
except BlockingIOError:
    os.set_blocking(writer, True)
for number in (1, 2):
    os.dup2(writer, number)
os.close(writer)
os.execv(sys.argv[2], sys.argv[2:])
"""


@pytest.mark.parametrize("kind", ["pipe", "socket"])
def test_an_output_that_nobody_reads(arena, kind):
    """What is printed is lost, and nothing else is. Much is printed while rows are marked deleted, in the middle of a
    transaction; errors by the parser of the state files, and by the program that leaves the mark of the stop."""
    volume, refused = many_folders(arena, "A", 70, 100), many_folders(arena, "B", 1)
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    os.unlink(volume.path("/m/.tickle"))
    os.makedirs(refused.path("/.quarrow"))
    with open(refused.state_file, "wb") as file:
        file.write(b"<Quarrow>" + b"<no end>" * 1000)
    for row in volume.tree().files[::2]:
        os.unlink(volume.path(row.path))
    daemon = arena.start([refused, volume], environment=CLOCK,
                         wrapper=[sys.executable, "-S", "-E", "-B", "-c", UNREAD, kind])
    daemon.wait_walks()
    assert_converged(volume)
    assert sum(row.deleted for row in volume.rows().files) > 3000
    shutil.rmtree(volume.path("/m"))
    wait_for(lambda: daemon.kernel_watches() == 0, "the end of the watches")
    daemon.stop()
    assert "Could not initialize the manager for the volume B\n" in daemon.errors()


def test_a_log_that_is_not_read_holds_the_daemon_up_and_loses_nothing(arena):
    """The C library waits for room in the receiver's queue. Whoever takes the log up again gets every line."""
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m", folders=200, files=400, seed=1)
    daemon = arena.start([volume])
    daemon.wait_line(info("================\n"))
    with daemon.log.changed:  # the receiver takes one datagram and then waits for this
        def waits_for_the_receiver():
            for task in os.listdir(f"/proc/{daemon.pid}/task"):
                with open(f"/proc/{daemon.pid}/task/{task}/wchan", encoding="ascii") as file:
                    if "sock_alloc_send" in (where := file.read()) or "unix" in where:
                        return True
            return False

        wait_for(waits_for_the_receiver, "a full queue")
        assert not daemon.has_ended()
        daemon.signal(signal.SIGUSR1)
    daemon.wait_walks()
    assert_converged(volume)
    assert sum(line.text.startswith("For folder") for line in daemon.lines) == 200
    daemon.wait_line(info("Done with usr1 signal\n"))
    daemon.stop_without_errors()


def test_a_log_receiver_that_is_gone_and_comes_back(arena, clock):
    """Lines are lost, and nothing else; the first line after its return arrives."""
    volume = good_volume(arena, "Volume")
    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    ident = daemon.log.ident
    daemon.log.close()
    os.unlink(daemon.log.path)
    volume.make_file("/m/sub/2.mp3", b"x")
    wait_for(lambda: "/m/sub/2.mp3" in volume.catalogue.live(), "a change while nobody reads the log")

    daemon.log = LogSink(daemon.folder, os.fsdecode(ident))
    daemon.signal(signal.SIGUSR1)
    daemon.wait_line(info("Got a usr1 signal\n"))
    volume.make_file("/m/sub/3.mp3", b"x")
    wait_for(lambda: is_converged(volume), "a change after the return")
    daemon.wait_bursts(1)
    daemon.stop()
    assert daemon.lines[-1].text.startswith("Woke up too soon") or daemon.lines[-1] == info("Done with the stop\n")
    assert daemon.errors() == []


def test_a_start_and_a_stop_without_any_log_receiver(arena):
    volume = good_volume(arena, "Volume")
    daemon = arena.start([volume])
    daemon.log.close()
    os.unlink(daemon.log.path)

    def is_walked():
        try:
            return is_converged(volume)
        except sqlite3.OperationalError:  # not there yet, or in the making
            return False

    wait_for(is_walked, "the walk")
    daemon.signal(signal.SIGTERM)
    assert daemon.process.wait(60) == 0
    assert volume.catalogue.is_sound()
