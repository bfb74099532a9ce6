"""Limits that the kernel sets: on watches, inotify instances, queued events, descriptors and memory.

What the daemon cannot have it does without: it lives on, no row is lost, and one walk after the limit is lifted puts the
catalogue right. Watches and instances are limited in a user namespace of the daemon's own.
"""
import contextlib
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import sys

import pytest

from catalogue import assert_same
from daemon import has_address_sanitizer, has_thread_sanitizer
from harness import inotify_limit
from lines import SLEEP, info
from quarrow_driver.clock import fast_clock
from quarrow_driver.mounting import CLONE_NEWUSER
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, assert_next_start_converges

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


def user_namespaces_work():
    script = f"import ctypes, sys; sys.exit(ctypes.CDLL(None).unshare({CLONE_NEWUSER:#x}) != 0)"
    return subprocess.run([sys.executable, "-c", script], check=False).returncode == 0


in_a_user_namespace = pytest.mark.skipif(not user_namespaces_work(), reason="user namespaces are not permitted here")
#: The sanitizers reserve more address space than any limit leaves, and end the process when there is none.
with_little_memory = pytest.mark.skipif(has_address_sanitizer() or has_thread_sanitizer(),
                                        reason="sanitizers do not survive a lack of memory")
with_few_descriptors = pytest.mark.skipif(has_address_sanitizer(), reason="sanitizers open a pipe to look at an object's memory")


#: Standard input, output and error, the log's socket, inotify's, the watcher's event, and two of libfaketime's.
OTHER_DESCRIPTORS = 8


def set_user_limit(daemon, name, limit):
    # Only ever in the daemon's own namespace: this process's limits are the machine's.
    assert os.stat(f"/proc/{daemon.pid}/ns/user").st_ino != os.stat("/proc/self/ns/user").st_ino
    subprocess.run([sys.executable, "-S", "-E", "-B", "-c", SETTER, str(daemon.pid), name, str(limit)], check=True)


def watched_inodes(daemon):
    [number] = [number for number, target in daemon.descriptors().items() if target == "anon_inode:inotify"]
    with open(f"/proc/{daemon.pid}/fdinfo/{number}", encoding="ascii") as file:
        return {int(line.split("ino:")[1].split()[0], 16) for line in file if line.startswith("inotify ")}


def many_folders(arena, name, folders, files=2, long_names=False):
    volume = arena.volume(name, crawl=["/m"])
    for number in range(folders):
        for file in range(files):
            volume.make_file(f"/m/{number % 7}/{number}/{file}{' and so on' * 20 * long_names}.mp3", b"x")
    return volume


def offered(volume):
    """The live paths, but for the mark that a stop leaves in the first watched folder."""
    return {path for path in volume.catalogue.live() if not path.endswith("/.tickle")}


def on_disk(volume):
    tree = volume.tree()
    return {row.path for row in tree.folders + tree.files if row.name != ".tickle"}


def assert_complete(volume):
    assert offered(volume) == on_disk(volume)
    assert volume.catalogue.is_sound()


def assert_nothing_wrong(volume):
    """Rows may be missing, but no row is wrong."""
    assert offered(volume) <= on_disk(volume)
    assert volume.catalogue.is_sound()


def assert_recovers(daemon, volumes, resource):
    """One walk after the limit is lifted puts every catalogue right."""
    daemon.limit(resource)
    daemon.rewalk()
    for volume in volumes:
        assert_converged(volume)


def wait_for_threads(daemon, walks):
    """Returns when all threads have started, of which so many walk."""
    daemon.wait_line(info("pthread_sigmask returned 0\n"), 2 + walks)


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


# Descriptors

def descriptors_at_rest(daemon, volumes):
    """What is open once nothing is being done: three files for each catalogue, and no number is free among them."""
    def found():
        open_now = daemon.descriptors()
        catalogues = [target for target in open_now.values() if "/.quarrow/quarrow.db" in target]
        others = [target for target in open_now.values() if target not in catalogues]
        settled = (len(catalogues) == 3 * len(volumes) and len(others) == OTHER_DESCRIPTORS
                   and max(open_now) == len(open_now) - 1)
        return open_now if settled else None
    return wait_for(found, "nothing open for a moment only")


@with_few_descriptors
def test_no_descriptor_left_while_running(arena):
    """No folder can be opened, so none is reconciled: nothing new is found, and nothing is taken for gone."""
    volumes = [many_folders(arena, "A", 30), many_folders(arena, "B", 30)]
    daemon = arena.start(volumes, standby=True, environment=CLOCK)
    daemon.wait_line(info("Volume in standby, ignoring purge"), 2)
    daemon.set_standby(False)  # from here on: what a walk opens must not leave a gap among what is opened at the start
    daemon.rewalk()
    befores = [volume.rows() for volume in volumes]
    usual = descriptors_at_rest(daemon, volumes)
    daemon.limit("NOFILE", max(usual) + 1)
    for volume in volumes:
        volume.make_file("/m/new/1.mp3", b"x")
        os.unlink(volume.path("/m/1/1/0.mp3"))
    daemon.wait_bursts(1)
    daemon.rewalk()
    for volume, before in zip(volumes, befores):
        assert offered(volume) == {row.path for row in before.folders + before.files}
        assert volume.catalogue.is_sound()
    assert descriptors_at_rest(daemon, volumes) == usual

    assert_recovers(daemon, volumes, "NOFILE")
    assert daemon.errors() == []

    daemon.limit("NOFILE", max(usual) + 1)
    daemon.stop()
    for volume in volumes:
        assert volume.catalogue.is_sound()


@with_few_descriptors
def test_descriptors_run_out_at_any_moment_of_the_first_walk(arena):
    incomplete = 0
    for run in range(6 * RUNS):
        seed = 1000 + run
        choice = random.Random(seed)
        folders = choice.randrange(60)
        free = choice.randrange(2)
        print(f"run {run}, seed {seed}: {free} descriptors from folder {folders} on")
        volumes = [many_folders(arena, f"A{run}", 50), many_folders(arena, f"B{run}", 50)]
        daemon = arena.start(volumes, environment=CLOCK)
        wait_for_threads(daemon, walks=2)
        daemon.wait_log(lambda lines: sum(line.text.startswith("For folder") for line in lines) >= folders, "some folders")
        daemon.limit("NOFILE", max(daemon.descriptors()) + 1 + free)
        daemon.wait_walks(2)
        for volume in volumes:
            assert_nothing_wrong(volume)
            incomplete += offered(volume) != on_disk(volume)
        assert_recovers(daemon, volumes, "NOFILE")
        daemon.stop()
    assert incomplete > 0, "no walk was short of descriptors"


@with_few_descriptors
def test_a_start_with_few_descriptors(arena):
    """From none at all to enough. A volume that cannot be opened is skipped, one without a write-ahead log works without."""
    known = many_folders(arena, "Known", 10)
    first = arena.start([known])
    first.wait_walks()
    first.stop()
    outcomes = set()
    for limit in range(5, 22):
        new = many_folders(arena, f"New {limit}", 10)
        before = offered(known)
        known.make_file(f"/m/{limit}.mp3", b"x")
        daemon = arena.start([known, new], environment=CLOCK, limits={"NOFILE": limit})
        # The purge thread is the last thing that is started.
        wait_for(lambda: daemon.has_ended() or daemon.count(info("pthread_sigmask returned 0\n")) >= 2
                 or "Going to sleep.\n" in daemon.texts(), "an outcome")
        status = daemon.process.poll()
        if status is None:
            daemon.wait_idle()
            daemon.stop()
            outcomes.add("could not initialise" if any(text.startswith("Could not initialize") for text in daemon.errors())
                         else "complete" if offered(new) == on_disk(new) else "incomplete")
        else:
            assert status in (-signal.SIGABRT, 0, 1, 127), f"limit {limit}"
            outcomes.add("ended")
        after = offered(known)
        assert before <= after <= on_disk(known) and known.catalogue.is_sound(), f"limit {limit}"

        assert_next_start_converges(arena, known, new, check=assert_complete)
    assert {"complete", "could not initialise"} <= outcomes


# Memory

@with_little_memory
@pytest.mark.parametrize("resource", ["AS", "DATA"])
def test_memory_runs_out_while_walks_run(arena, resource):
    """Folders for which there is no memory are undone or passed, with or without a word; no row is wrong."""
    failures = 0
    for run in range(4 * RUNS):
        seed = 2000 + run
        choice = random.Random(seed)
        more = choice.choice([0, 20, 50, 100, 200])
        folders = choice.randrange(8)
        print(f"run {run}, seed {seed}: {more} KiB from folder {folders} on")
        volumes = [many_folders(arena, f"{name}{run}", 150, 4, long_names=True) for name in "AB"]
        for volume in volumes:  # the folder of the folders that are walked ninth and later
            for number in range(4000):
                volume.make_file(f"/m/{number % 7}/large/{number}{' and so on' * 10}.mp3")
        # One arena, whose memory is the limited kind: others reserve much and use little.
        daemon = arena.start(volumes, environment={**CLOCK, "MALLOC_ARENA_MAX": "1"})
        wait_for_threads(daemon, walks=2)
        top = info(f"For folder {volumes[0].path('/m')}")  # which the changes below need watched
        daemon.wait_log(lambda lines: top in lines and sum(line.text.startswith("For folder") for line in lines) >= folders
                        or daemon.is_idle(), "some folders")
        daemon.limit(resource, (daemon.memory()[{"AS": "VmSize", "DATA": "VmData"}[resource]] + more) * 1024)
        daemon.wait_idle()
        for number in range(200):  # and for the watcher thread
            volumes[0].create(f"/m/{number % 7}/{number % 150 // 7 * 7 + number % 7}/late {number}.mp3" if number % 150 < 140
                              else f"/m/late {number}.mp3")
        daemon.wait_bursts(1)
        failures += bool(daemon.errors())
        for volume in volumes:
            assert_nothing_wrong(volume)
        assert_recovers(daemon, volumes, resource)
        daemon.stop()
    assert failures > 0, "no run was short of memory"


@with_little_memory
def test_memory_runs_out_for_the_watcher(arena):
    """There is none for the names of the changed folders: the burst is lost, the watcher is not."""
    volume = arena.volume(crawl=["/m"])
    base = "/m" + f"/{'deep' * 60}" * 13
    folders = [f"{base}/{number}" for number in range(300)]
    volume.make_folder(*folders)
    daemon = arena.start([volume], environment=CLOCK)
    daemon.wait_walks()
    daemon.limit("DATA", daemon.memory()["VmData"] * 1024)
    with daemon.frozen():
        for folder in folders:
            volume.create(f"{folder}/1.mp3")
    daemon.wait_bursts(1)
    assert "Got an exception during the walking of volumeManager \n" in daemon.errors()
    assert any(f"{folder}/1.mp3" not in volume.catalogue.live() for folder in folders)
    daemon.limit("DATA")
    bursts = daemon.bursts()
    volume.create(f"{folders[0]}/2.mp3")
    daemon.wait_bursts(bursts + 1)
    assert f"{folders[0]}/2.mp3" in volume.catalogue.live()
    daemon.rewalk()
    assert_converged(volume)
    daemon.stop()


@with_little_memory
def test_a_start_with_little_memory(arena):
    """From too little for the program itself to enough. Whatever becomes of the start, the next one finds nothing broken."""
    known = many_folders(arena, "Known", 40, 4, long_names=True)
    one_arena = {"MALLOC_ARENA_MAX": "1"}  # others reserve much and use little
    first = arena.start([known], environment=one_arena)
    first.wait_walks()
    needed = first.memory()["VmPeak"]
    first.stop()
    outcomes = set()
    runs = 16 * RUNS
    for run in range(runs):
        new = many_folders(arena, f"New {run}", 40, 4, long_names=True)
        before = offered(known)
        known.make_file(f"/m/{run}.mp3", b"x")
        limit = needed * (40 + 70 * run // max(1, runs - 1)) // 100
        daemon = arena.start([known, new], limits={"AS": limit * 1024, "CORE": 0}, environment=one_arena)
        wait_for(lambda: daemon.has_ended() or (
            any(line.text.startswith(("Purging", "Volume in", "Finished walk", "Could not init")) for line in daemon.lines)
            and daemon.is_idle()), "an outcome")
        if not daemon.has_ended():
            daemon.stop()
            outcomes.add("lived")
        else:
            outcomes.add("ended")
        after = offered(known)
        assert before <= after <= on_disk(known) and known.catalogue.is_sound(), f"limit {limit} KiB"
        assert_next_start_converges(arena, known, new, check=assert_complete)
    assert outcomes == {"lived", "ended"}


# Sizes of files

def start_with_small_files(arena, volumes, limit):
    """A daemon whose files may not grow beyond that many bytes, when each of its volumes has been walked or refused."""
    daemon = arena.start(volumes, environment=CLOCK, limits={"FSIZE": limit})
    daemon.wait_line(SLEEP)
    daemon.wait_idle()
    return daemon


@pytest.mark.parametrize("limit", [16 << 10, 64 << 10, 200 << 10, 1 << 20])
def test_files_that_may_not_grow(arena, limit):
    """The kernel then refuses to write, and sends a signal that would end the daemon. A catalogue or a folder that does not fit
    is left out as a whole, as on a full volume; one volume's size is no other's fault."""
    volume, small = many_folders(arena, "A", 100, 20, long_names=True), many_folders(arena, "B", 1)
    daemon = start_with_small_files(arena, [volume, small], limit)
    refused = limit < 50_000  # an empty catalogue has that many bytes
    if refused:
        assert [os.listdir(each.path("/.quarrow")) for each in (volume, small)] == [[], []]
        assert sum(text.startswith("Could not initialize") for text in daemon.errors()) == 2
    else:
        assert "Got an exception during the walking of volumeManager A\n" in daemon.errors()
        tree = volume.tree()
        for folder in offered(volume) & {row.path for row in tree.folders}:
            assert offered(volume) >= {row.path for row in tree.files if row.folder == folder}
    if limit >= 200 << 10:
        assert_same(small.rows(), small.tree())
        small.create("/m/0/0/late.mp3")
        wait_for(lambda: "/m/0/0/late.mp3" in small.catalogue.live(), "a live change")
        assert not any(text.endswith("B\n") for text in daemon.errors())
    daemon.stop()

    # The next one may write what it wants, the one after that may not: its catalogue is larger than that already.
    for each in (volume, small):
        each.create("/m/late.mp3")
    assert_next_start_converges(arena, volume, small)
    before = volume.rows()
    for number in range(100):
        os.unlink(volume.path(f"/m/{number % 7}/{number}/0{' and so on' * 20}.mp3"))
    small.create("/m/later.mp3")
    daemon = start_with_small_files(arena, [volume, small], limit)
    daemon.stop()
    assert "Got an exception during the walking of volumeManager A\n" in daemon.errors()
    assert {row.path for row in before.folders} <= offered(volume) <= {row.path for kind in before for row in kind}
    assert refused or "/m/later.mp3" in small.catalogue.live()
    assert_next_start_converges(arena, volume, small)


# Standard output and error

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
