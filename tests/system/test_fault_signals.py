"""Signals in any number, at any moment, whatever the daemon is about: it never hangs, and ends with status 0."""
import os
import shutil
import signal
import sqlite3
import threading
import time

import pytest

from after_a_kill import assert_part_of_a_walk
from catalogue import assert_same, edit
from daemon import BINARY
from deleted_rows import DUE_AFTER, THRESHOLD, copy_of, with_deleted_rows
from lines import AWAKE, SLEEP, info, is_walk_end
from moments import BANNER, batches, seeded, send_at
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged
from trees import make_media_tree, media_volumes

GOT_USR1, DONE_USR1 = info("Got a usr1 signal\n"), info("Done with usr1 signal\n")
GOT_TERM, DONE_TERM = info("Got a signal to stop\n"), info("Done with the stop\n")
JOINED = info("The thread join has returned with a return code of 0 \n")
CLOSED = info("sqlite3 handle closed\n")
STORM = 10_000
USR1, TERM = signal.SIGUSR1, signal.SIGTERM

#: A name that a shell would act on, and that ends every kind of quoting.
AWKWARD = "$(touch pwned) \"'; x"


def assert_stopped(daemon, volumes):
    """The daemon has ended by itself, after one whole stop; what it was told besides was heard or never served."""
    assert daemon.wait_exit() == 0
    lines = daemon.lines
    assert lines.count(GOT_TERM) == lines.count(DONE_TERM) >= 1
    assert lines.count(GOT_USR1) == lines.count(DONE_USR1)
    assert lines.count(JOINED) == 1
    assert lines.count(CLOSED) == len(volumes)
    for volume in volumes:
        if os.path.exists(volume.catalogue.path):
            assert volume.catalogue.is_sound()
            assert not os.path.exists(volume.catalogue.path + "-wal")
    daemon.close()


def small_volume(arena, name, crawl="/m"):
    volume = arena.volume(name, crawl=[crawl])
    make_media_tree(volume, crawl, folders=20, files=60, seed=len(name))
    return volume


def storm(daemon, numbers, times=STORM):
    """Sends the signals in turn, as fast as that goes, for as long as the daemon is there."""
    for count in range(times):
        if daemon.has_ended():
            return
        daemon.process.send_signal(numbers[count % len(numbers)])  # nothing, should it have been waited for meanwhile


def wait_at_rest(daemon, served):
    """Returns when more wake-ups than that have been served, and the control loop has taken its first turn and one for each
    of them."""
    def is_at_rest(lines):
        return served < lines.count(GOT_USR1) == lines.count(AWAKE) - 1 == lines.count(SLEEP) - 2

    wait_for(lambda: is_at_rest(daemon.lines), "a loop at rest")


# Storms

def test_a_storm_in_the_first_minute_and_one_in_the_control_loop(arena, clock):
    """However many signals become one on their way: each that is served is one turn of the loop, and no more than that."""
    volume = small_volume(arena, "V")
    daemon = arena.start([volume], clock=clock)
    daemon.wait_line(BANNER)
    storm(daemon, [USR1])
    daemon.wait_walks()
    daemon.signal(USR1)  # in case that nothing of the storm was left when the minute began
    wait_at_rest(daemon, served=0)
    for number in range(50):  # on a busy machine more of a storm become one, and it takes more storms
        if number >= 3 and daemon.count(GOT_USR1) > 100:
            break
        before = daemon.count(GOT_USR1)
        storm(daemon, [USR1])
        wait_at_rest(daemon, before)
    assert daemon.count(GOT_USR1) > 100
    assert sum(map(is_walk_end, daemon.lines)) == 1  # the clock stood still
    assert_same(volume.rows(), volume.tree())
    daemon.signal(TERM)
    assert_stopped(daemon, [volume])
    assert daemon.errors() == []


def test_a_storm_while_the_loop_walks_and_a_stop_in_the_middle_of_it(arena, clock):
    volumes = [small_volume(arena, f"V{number}") for number in range(4)]
    daemon = arena.start(volumes, clock=clock)
    daemon.wait_walks(4)
    daemon.end_first_sleep()
    for count in range(20):
        before = daemon.count(GOT_USR1)
        clock.advance(300)
        storm(daemon, [USR1], STORM // 20)
        wait_at_rest(daemon, before)
        daemon.wait_idle()
        for volume in volumes:
            os.unlink(volume.path(volume.tree().files[0].path))
    daemon.rewalk(clock)
    threads = daemon.count(info("pthread_sigmask returned 0\n"))
    assert threads == 2 + 4 * 22  # the watcher, the purge, and a walk of each volume whenever the clock went on
    for volume in volumes:
        assert_converged(volume)

    sender = threading.Thread(target=storm, args=(daemon, [USR1]))
    sender.start()
    wait_for(lambda: daemon.count(GOT_USR1) > 1000 or not sender.is_alive(), "a good part of the storm")
    os.kill(daemon.pid, TERM)
    assert_stopped(daemon, volumes)
    sender.join()
    assert daemon.errors() == []


@pytest.mark.parametrize("numbers", [[TERM], [USR1, TERM], [USR1, USR1, USR1, TERM]], ids=["stop", "both", "mostly wake-ups"])
def test_a_storm_that_stops(arena, numbers):
    volumes = [small_volume(arena, f"V{number}") for number in range(4)]
    for walked in (False, True):
        daemon = arena.start(volumes)
        daemon.wait_line(BANNER)
        if walked:
            daemon.wait_walks(4)
        storm(daemon, numbers)
        assert_stopped(daemon, volumes)
        assert daemon.errors() == []


# Stops at any moment

def send_term(choice):
    """Mostly while the daemon starts, else up to a second after that; once or twice, and at times among wake-ups."""
    first = choice.uniform(0, 0.05) if choice.random() < 0.7 else choice.uniform(0.05, 1)
    signals = [(first, TERM)]
    if choice.random() < 0.5:
        signals.append((first + choice.uniform(0, 0.02), TERM))
    if choice.random() < 0.3:
        signals += [(choice.uniform(0, first + 0.02), USR1) for _ in range(choice.randrange(1, 4))]
    return sorted(signals)


def stop_often(arena, place, volumes, runs, **settings):
    """Starts and stops daemons that often. Several at a time, each on volumes of its own: `volumes` makes those of one."""
    choice = seeded(place)
    groups = [volumes(number) for number in range(16)]
    for group in groups:
        daemon = arena.start(group)
        daemon.wait_walks(len(group))
        daemon.stop()
        for volume in group:
            if os.path.exists(volume.path("/m/.tickle")):
                os.unlink(volume.path("/m/.tickle"))
    for batch in batches(range(runs * RUNS), len(groups)):
        daemons = [arena.start(groups[number % len(groups)], **settings) for number in batch]
        send_at({daemon: send_term(choice) for daemon in daemons})
        for daemon, group in zip(daemons, groups):
            assert_stopped(daemon, group)
            assert daemon.errors() == []
    return groups


def assert_no_worse(arena, groups):
    volumes = [volume for group in groups for volume in group]
    daemon = arena.start(volumes)
    daemon.wait_walks(sum(len(volume.crawl) for volume in volumes))
    for volume in volumes:
        assert_converged(volume)
    daemon.stop_without_errors()


def test_stops_within_the_first_second(arena):
    groups = stop_often(arena, "plain", lambda number: [small_volume(arena, f"V{number}")], 64)
    assert any(".tickle" in os.listdir(volume.path("/m")) for [volume] in groups)
    assert_no_worse(arena, groups)


def test_stops_of_several_volumes_within_the_first_second(arena):
    groups = stop_often(arena, "several", lambda number: [small_volume(arena, f"V{number} {name}") for name in "ABC"], 64)
    assert_no_worse(arena, groups)


def test_stops_in_standby(arena):
    """Nothing is walked and watched then, so there is no first folder for the stop to leave its mark in."""
    groups = stop_often(arena, "standby", lambda number: [small_volume(arena, f"V{number}")], 64, standby=True)
    assert not any(".tickle" in os.listdir(volume.path("/m")) for [volume] in groups)
    assert_no_worse(arena, groups)


def test_stops_with_nothing_to_watch(arena):
    def volumes(number):
        volume = arena.volume(f"V{number}", crawl=["/nowhere"])
        os.rmdir(volume.path("/nowhere"))
        return [volume]

    for [volume] in stop_often(arena, "nothing", volumes, 64):
        assert os.listdir(volume.folder) == [".quarrow"]


def test_stops_with_a_first_folder_whose_name_is_a_command(arena):
    groups = stop_often(arena, "command", lambda number: [small_volume(arena, f"V{number}", crawl=f"/{AWKWARD}")], 64)
    assert any(".tickle" in os.listdir(volume.path(f"/{AWKWARD}")) for [volume] in groups)
    for _, folders, files in os.walk(arena.folder):
        assert "pwned" not in folders + files
    assert_no_worse(arena, groups)


@pytest.mark.skipif(os.geteuid() != 0, reason="only root may mount")
def test_stops_with_a_volume_that_cannot_be_written(arena):
    """Neither the catalogue nor the mark of the stop."""
    choice = seeded("read-only")
    volumes = [small_volume(arena, f"V{number}") for number in range(8)]
    for volume in volumes:
        daemon = arena.start([volume])
        daemon.wait_walks()
        daemon.stop()
        os.unlink(volume.path("/m/.tickle"))
        os.utime(volume.path("/m"), (5, 5))  # so that every walk has something to write
    before = {volume: volume.rows() for volume in volumes}
    script = 'mount --bind "$0" "$0" && mount -o remount,bind,ro "$0" && exec "$@"'  # for this daemon alone
    for _ in range(6 * RUNS):
        daemons = [arena.start([volume], wrapper=["/bin/sh", "-c", script, volume.folder]) for volume in volumes]
        send_at({daemon: send_term(choice) for daemon in daemons})
        for daemon, volume in zip(daemons, volumes):
            assert_stopped(daemon, [volume])
            assert_same(volume.rows(), before[volume])
            assert ".tickle" not in os.listdir(volume.path("/m"))
            assert set(daemon.errors()) <= {"updateFolder() failed, handleStatus: 1\n",
                                            f"Error in checking for the file {volume.path('/m')} in the DB\n"}
    daemon = arena.start([volumes[0]], wrapper=["/bin/sh", "-c", script, volumes[0].folder])
    daemon.wait_walks()
    assert f"Error in checking for the file {volumes[0].path('/m')} in the DB\n" in daemon.errors()
    daemon.stop()
    assert_no_worse(arena, [volumes])


def test_stops_before_there_is_a_handler_and_right_after_it(arena):
    """A signal either ends a process that has not said anything yet, as it ends any, or is served in full."""
    choice = seeded("early")
    volumes = [small_volume(arena, f"V{number}") for number in range(8)]

    def is_there(daemon):
        return os.path.basename(os.readlink(f"/proc/{daemon.pid}/exe")) == os.path.basename(BINARY)

    statuses = set()
    for _ in range(5 * RUNS):
        for volume in volumes:  # one by one: this is about the first milliseconds
            daemon = arena.start([volume])
            while not is_there(daemon):
                assert not daemon.has_ended()
            time.sleep(choice.uniform(0, 0.02))
            os.kill(daemon.pid, TERM)
            status = daemon.wait_exit()
            statuses.add(status)
            if status == -TERM:
                assert daemon.lines == []
                daemon.close()
            else:
                assert_stopped(daemon, [volume])
    assert statuses <= {0, -TERM} and 0 in statuses
    assert_no_worse(arena, [volumes])


# Stops in the middle of something

def test_stops_in_mid_walk(arena):
    """Of the first walk, again and again: what is left of the catalogue is part of what a whole walk makes."""
    choice = seeded("walks")
    volumes = media_volumes(arena, 8, folders=100, files=600)
    for _ in range(6 * RUNS):
        daemons = [arena.start([volume]) for volume in volumes]
        send_at({daemon: [(choice.uniform(0, 0.1), TERM)] for daemon in daemons}, info("Generating schema"))
        for daemon, volume in zip(daemons, volumes):
            assert_stopped(daemon, [volume])
            assert daemon.errors() == []
            assert_part_of_a_walk(volume, volume.rows(), may_differ=["/m", "/m/.tickle"])  # which the stop has changed
            shutil.rmtree(volume.path("/.quarrow"))
    assert_no_worse(arena, [volumes])


def with_many_deleted_rows(arena, template, name, files, folders):
    """A copy with so many more rows to purge, each a copy of one of the template's under a name of its own."""
    volume = copy_of(arena, template, name)
    for table, key, columns, count in (
            ("Files", "file_id", "folder_id, category, size", files), ("Folders", "folder_id", "parent_id, category", folders)):
        columns += ", modified_time, created_time, is_deleted, is_backup, is_hidden, is_system, last_updated_time"
        edit(volume.catalogue.path,
             "with recursive numbers(number) as (values (1) union all select number + 1 from numbers where number < ?)"
             f" insert into {table}(path, name, {columns}) select path || number, name || number, {columns}"
             f" from {table}, numbers where {key} = (select max({key}) from {table} where is_deleted = 1)", count)
    return volume


def is_purged(volume, template, table):
    """Whether all rows to be purged are gone from the table. If not, each is still there as it was."""
    connection = volume.catalogue.open()
    try:
        connection.execute("attach ? as template", [template.catalogue.path])
        deleted = f"{table} where is_deleted = 1"
        [counts] = connection.execute(f"select (select count(*) from {deleted}), (select count(*) from template.{deleted})")
        if counts[0] == 0 < counts[1]:
            return True
        assert counts[0] == counts[1]
        assert connection.execute(f"select * from {deleted} except select * from template.{deleted}").fetchall() == []
        return False
    finally:
        connection.close()


def test_stops_in_mid_purge(arena, clock):
    """A purge that has begun is finished, or gives up and is undone; it never stays half done. Files go before folders, in a
    statement of their own: that one may have been finished when the other gives up. Then the purge is not taken for done."""
    choice = seeded("purges")
    small, start = with_deleted_rows(arena, clock, folders=20, files=100), clock.now
    large = with_many_deleted_rows(arena, small, "Large", files=300_000, folders=50_000)
    live_paths = lambda volume: volume.catalogue.live() - {"/m/.tickle"}
    # The small purge is over before it looks for a stop. In the large one nearly all of the moments come long before its end.
    outcomes = {small: [], large: []}
    for template, copies, latest in [(small, 6, 0.05)] * 2 * RUNS + [(large, 2, 0.3)] * 4 * RUNS:
        clock.set(start)
        volumes = [copy_of(arena, template, f"V{number}") for number in range(copies)]
        daemons = [arena.start([volume], purge_threshold=THRESHOLD, clock=clock) for volume in volumes]
        for daemon in daemons:
            daemon.wait_walks()
            daemon.end_first_sleep()
        clock.set(start + 2 * DUE_AFTER)
        for daemon in daemons:
            daemon.signal(USR1)
        send_at({daemon: [(choice.uniform(0, latest), TERM)] for daemon in daemons}, info(f"Purging the DB at {clock.now}\n"))
        for daemon, volume in zip(daemons, volumes):
            assert_stopped(daemon, [volume])
            assert live_paths(volume) == live_paths(template)
            files, folders = (is_purged(volume, template, table) for table in ("Files", "Folders"))
            assert files or not folders
            assert daemon.errors() == []  # what a stop interrupts has not failed
            assert (volume.read_state() == template.read_state()) == (not folders)
            outcomes[template].append((files, folders))
            shutil.rmtree(volume.folder)
    assert (True, True) in outcomes[small] and (False, False) in outcomes[large]


def test_stops_in_mid_burst(arena):
    """While records are waited for, and while the folders are walked again that they came from."""
    choice = seeded("bursts")
    volumes = [small_volume(arena, f"V{number}") for number in range(24 * RUNS)]
    daemons = [arena.start([volume]) for volume in volumes]
    for daemon in daemons:
        daemon.wait_walks()
    for daemon, volume in zip(daemons, volumes):
        for number in range(50):
            volume.create(f"/m/new {number}.mp3")
    now = info("Actively watching 20 folders\n")
    half = len(daemons) // 2
    send_at({daemon: [(choice.uniform(0, 5.2), TERM)] for daemon in daemons[:half]}, now)
    for daemon in daemons[half:]:
        daemon.wait_line(info("Processed 50 events\n"))
        daemon.signal(TERM)
    for daemon, volume in zip(daemons, volumes):
        assert_stopped(daemon, [volume])
        assert daemon.errors() == []
    assert_no_worse(arena, [volumes])


def test_stops_while_another_program_holds_the_lock(arena):
    """For which a walk waits that cannot even read, one that wants to write, the removal of a former crawl path, and a live
    walk. None of them has failed."""
    names = ("Read", "Write", "Remove", "Live")
    volumes = {name: arena.volume(name, crawl=["/m", "/n"]) for name in names}
    for volume in volumes.values():
        for start in volume.crawl:
            make_media_tree(volume, start, folders=5, files=20, seed=1)
    daemon = arena.start(list(volumes.values()))
    daemon.wait_walks(8)
    daemon.stop()
    volumes["Remove"].crawl.remove("/n")
    for volume in volumes.values():
        volume.make_file("/m/new/1.mp3", b"x")

    daemons, writers = {}, {name: sqlite3.connect(volumes[name].catalogue.path, isolation_level=None) for name in names}
    for name in ("Read", "Write", "Remove"):
        writers[name].execute("begin exclusive" if name == "Read" else "begin immediate")
    for name in names:
        daemons[name] = arena.start([volumes[name]], environment=fast_clock(300))
    daemons["Live"].wait_walks(2)
    writers["Live"].execute("begin immediate")
    volumes["Live"].create("/m/late.mp3")
    daemons["Live"].wait_line(info(f"Going to walk {volumes['Live'].path('/m')} in handleChangeFolder and found is 1\n"))
    daemons["Remove"].wait_line(info("not found /n so removing\n"))
    daemons["Write"].wait_line(info("Checking if the folder /n exists in the path list"))
    assert daemons["Read"].count(info("Checking if the folder /m exists in the path list")) == 0
    for name, daemon in daemons.items():
        daemon.signal(TERM)
        assert daemon.wait_exit() == 0
        assert (name, daemon.errors()) == (name, [])
        writers[name].close()
    for name in ("Read", "Write", "Remove"):
        assert "/m/new/1.mp3" not in volumes[name].catalogue.live() and "/n" in volumes[name].catalogue.live()
    assert_no_worse(arena, [list(volumes.values())])
