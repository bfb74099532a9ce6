"""Limits of a process that the kernel sets: on descriptors, memory and the sizes of files.

What the daemon cannot have it does without: it lives on, no row is lost, and one walk after the limit is lifted puts the
catalogue right.
"""
import os
import random
import signal

import pytest

from catalogue import assert_same
from daemon import has_address_sanitizer, has_thread_sanitizer
from lines import SLEEP, info
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, assert_next_start_converges, offered
from trees import many_folders

#: Time runs so fast that a round of the control loop is due every second; nothing here depends on how fast.
CLOCK = fast_clock(300)
#: The sanitizers reserve more address space than any limit leaves, and end the process when there is none.
with_little_memory = pytest.mark.skipif(has_address_sanitizer() or has_thread_sanitizer(),
                                        reason="sanitizers do not survive a lack of memory")
with_few_descriptors = pytest.mark.skipif(has_address_sanitizer(), reason="sanitizers open a pipe to look at an object's memory")


#: Standard input, output and error, the log's socket, inotify's, the watcher's event, and two of libfaketime's.
OTHER_DESCRIPTORS = 8


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
