"""What the kernel limits for those who watch: watches, inotify instances and queued events.

The daemon does without, no row is lost, and full walks see what it is not told of. Watches and instances are limited in a
user namespace of the daemon's own.
"""
import contextlib
import os
import signal
import sqlite3
import subprocess
import sys

import pytest

from catalogue import assert_same
from harness import in_a_user_namespace, inotify_limit
from lines import info
from quarrow_driver.clock import fast_clock
from quarrow_driver.mounting import CLONE_NEWUSER
from quarrow_driver.waiting import wait_for
from recovery import assert_converged
from trees import many_folders

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)

#: Sets a limit in the user namespace of another process, whose first argument is its id.
SETTER = f"""
import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
namespace = os.open(f"/proc/{{sys.argv[1]}}/ns/user", os.O_RDONLY)
if libc.setns(namespace, {CLONE_NEWUSER:#x}) != 0:
    sys.exit(os.strerror(ctypes.get_errno()))
with open(f"/proc/sys/user/{{sys.argv[2]}}", "w") as file:
    file.write(sys.argv[3])
"""


def set_user_limit(daemon, name, limit):
    # Only ever in the daemon's own namespace: this process's limits are the machine's.
    assert os.stat(f"/proc/{daemon.pid}/ns/user").st_ino != os.stat("/proc/self/ns/user").st_ino
    subprocess.run([sys.executable, "-S", "-E", "-B", "-c", SETTER, str(daemon.pid), name, str(limit)], check=True)


def watched_inodes(daemon):
    [number] = [number for number, target in daemon.descriptors().items() if target == "anon_inode:inotify"]
    with open(f"/proc/{daemon.pid}/fdinfo/{number}", encoding="ascii") as file:
        return {int(line.split("ino:")[1].split()[0], 16) for line in file if line.startswith("inotify ")}


# Watches

@in_a_user_namespace
def test_the_last_watch_is_given_away_in_mid_walk(arena):
    """The catalogue is complete all the same; only changes in unwatched folders wait for the next full walk, which also
    tries to watch them again."""
    machine = inotify_limit("max_user_watches")
    volumes = [many_folders(arena, "A", 100), many_folders(arena, "B", 100)]
    daemon = arena.start(volumes, environment=CLOCK, user_limits={"max_inotify_watches": 60})
    daemon.wait_walks(2)
    assert daemon.kernel_watches() == 60
    assert max(line.text for line in daemon.lines if line.text.startswith("Actively")) == "Actively watching 60 folders\n"
    for volume in volumes:
        assert_same(volume.rows(), volume.tree())

    watched = watched_inodes(daemon)
    folders = [(volume, row.path) for volume in volumes for row in volume.tree().folders]
    seen = [place for place in folders if os.stat(place[0].path(place[1])).st_ino in watched]
    unseen = [place for place in folders if place not in seen]
    assert len(seen) == 60 and len(unseen) == len(folders) - 60
    innermost = next(place for place in seen if place[1].count("/") == 3)  # its walk looks at no other folder
    for volume, folder in (unseen[0], unseen[-1], innermost):
        volume.create(f"{folder}/late.mp3")
    volume, folder = innermost
    wait_for(lambda: f"{folder}/late.mp3" in volume.catalogue.live(), "the new file in a watched folder")
    for volume, folder in (unseen[0], unseen[-1]):
        assert f"{folder}/late.mp3" not in volume.catalogue.live()

    set_user_limit(daemon, "max_inotify_watches", 10000)
    daemon.rewalk()
    for volume in volumes:
        assert_converged(volume)
    assert daemon.kernel_watches() == len(folders)
    volume, folder = unseen[-1]
    volume.create(f"{folder}/later.mp3")
    wait_for(lambda: f"{folder}/later.mp3" in volume.catalogue.live(), "the new file in a folder that is watched now")
    daemon.stop_without_errors()
    assert inotify_limit("max_user_watches") == machine


def assert_full_walks_do(arena, volume, watches):
    """With so few watches, full walks alone keep the catalogue right."""
    daemon = arena.start([volume], environment=CLOCK, user_limits={"max_inotify_watches": watches})
    daemon.wait_walks()
    assert daemon.kernel_watches() == watches
    assert_same(volume.rows(), volume.tree())
    volume.create("/m/3/3/late.mp3")
    daemon.rewalk()
    assert_converged(volume)
    daemon.stop_without_errors()


@in_a_user_namespace
def test_a_stop_when_there_is_no_watch_left(arena):
    """Other programs may have taken all but one. Whatever the watcher thread waits for, a stop ends it."""
    volume = many_folders(arena, "A", 20)
    assert_full_walks_do(arena, volume, watches=1)


@in_a_user_namespace
def test_no_watch_from_the_start(arena):
    """Full walks keep the catalogue right, and nothing that a stop could have the kernel say is needed to end."""
    volume = many_folders(arena, "A", 20)
    assert_full_walks_do(arena, volume, watches=0)

    # And when the watches come later.
    daemon = arena.start([volume], environment=CLOCK, user_limits={"max_inotify_watches": 0})
    daemon.wait_walks()
    set_user_limit(daemon, "max_inotify_watches", 10000)
    daemon.rewalk()
    volume.create("/m/3/3/later.mp3")
    wait_for(lambda: "/m/3/3/later.mp3" in volume.catalogue.live(), "the new file in a folder that is watched now")
    daemon.stop_without_errors()


#: Runs a command as a user who may pass the root folder, but not read it. That folder is the sandbox's own, and the log is
#: opened to him.
AS_NOBODY = ["/bin/sh", "-c", 'chmod 711 / "$(dirname "$(readlink /dev/log)")" && chmod 666 /dev/log'
             ' && exec /usr/bin/setpriv --reuid 65534 --regid 65534 --clear-groups "$@"', "sh"]


def lose_every_watch(arena, **settings):
    """A daemon that has nothing in its registry but folders that are gone, and whose watcher thread waits for events."""
    volume = arena.volume("Lost", crawl=["/m"])
    for path in (volume.folder, volume.path("/m")):
        os.chmod(path, 0o777)
    daemon = arena.start([volume], **settings)
    daemon.wait_walks()
    assert daemon.kernel_watches() == 1
    os.rmdir(volume.path("/m"))
    wait_for(lambda: daemon.kernel_watches() == 0, "the end of the watch")
    daemon.wait_bursts(1)
    return daemon


@pytest.mark.skipif(os.geteuid() != 0, reason="only root may become another user")
@pytest.mark.skipif(not os.access("/usr/bin/setpriv", os.X_OK), reason="setpriv is not there")
def test_a_stop_of_an_ordinary_user_who_may_watch_nothing(arena):
    """There is no folder left to leave the mark of the stop in, and none that the kernel would say anything about."""
    os.chmod(arena.folder, 0o711)
    daemon = lose_every_watch(arena, wrapper=AS_NOBODY)
    daemon.stop_without_errors()


@in_a_user_namespace
def test_a_stop_when_the_last_watch_has_gone_and_there_is_no_other(arena):
    daemon = lose_every_watch(arena, environment=CLOCK, user_limits={"max_inotify_watches": 1})
    set_user_limit(daemon, "max_inotify_watches", 0)
    daemon.stop_without_errors()


@in_a_user_namespace
def test_no_inotify_instance_left(arena):
    """The daemon ends before it opens a catalogue; the next start works."""
    volume = many_folders(arena, "A", 20)
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    with open(volume.catalogue.path, "rb") as file:
        content = file.read()
    daemon = arena.start([volume], user_limits={"max_inotify_instances": 0})
    assert daemon.wait_exit() == -signal.SIGABRT
    assert daemon.texts() == ["================\n"]
    assert "terminate called after throwing" in daemon.output("stderr")
    with open(volume.catalogue.path, "rb") as file:
        assert file.read() == content
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_converged(volume)
    daemon.stop()


# Events

@pytest.mark.skipif(inotify_limit("max_queued_events") > 1 << 16, reason="the kernel queues more than is made here")
def test_the_event_queue_overflows_while_walks_run(arena):
    """A walk of the watcher thread and a full one wait for a foreign writer meanwhile. What the kernel has dropped, the
    next full walk finds; the other volume's full walk is not held up."""
    volume, other = many_folders(arena, "A", 70), many_folders(arena, "B", 10)
    daemon = arena.start([volume, other], environment=CLOCK)
    daemon.wait_walks(2)
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")
    volume.create("/m/0/0/first.mp3")
    daemon.wait_line(info(f"Going to walk {volume.path('/m/0/0')} in handleChangeFolder and found is 0\n"))
    checks = info("Checking if the folder /m exists in the path list")
    while daemon.count(checks) < 4:  # the control loop's walks are under way
        daemon.signal(signal.SIGUSR1)
        with contextlib.suppress(AssertionError):
            daemon.wait_log(lambda lines: lines.count(checks) >= 4, "full walks", bound=0.5)
    daemon.wait_walks_of(other, 2)
    assert daemon.walks_of(volume) == 1

    limit = inotify_limit("max_queued_events")
    for number in range(limit + 500):
        volume.create(f"/m/{number % 7}/{number}.mp3")
    for number in range(100):
        volume.make_file(f"/m/new {number}/sub/1.mp3", b"x")
        other.make_file(f"/m/new {number}/sub/1.mp3", b"x")
    volume.make_file("/m/6/6/0.mp3", b"longer")
    os.unlink(volume.path("/m/6/13/0.mp3"))
    writer.execute("rollback")
    writer.close()
    daemon.wait_walks_of(volume, 2)
    daemon.wait_line(info(f"Processed {limit + 1} events\n"))
    wait_for(lambda: daemon.bursts() >= 2, "the end of the burst")

    daemon.rewalk()
    for each in (volume, other):
        assert_converged(each)
    assert daemon.kernel_watches() == sum(len(each.tree().folders) for each in (volume, other))
    daemon.stop()
    assert set(daemon.errors()) <= {"No listener/directory found for \n"}
