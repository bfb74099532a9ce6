"""SIGKILL at any moment, and before each single change of a file, costs nothing that the next start cannot bring back."""
import collections
import itertools
import os
import shutil
import signal
import time

from after_a_kill import (all_left_behind, assert_part_of_a_walk, assert_purged_after, assert_recovered,
                          recorded_purges)
from catalogue import edit
from deleted_rows import DUE_AFTER, THRESHOLD, copy_of, is_purge_end, last_purge_time, with_deleted_rows
from lines import SLEEP, info
from moments import BANNER, batches, seeded, send_at
from recovery import RUNS
from tracing import (KILL, STOP, WALK, Life, Step, calls_in, has_walked, kill_at_each_change, kill_before, needs_tracer, remove,
                     send, start_traced, take_steps)
from trees import change_something, make_empty_folders, media_volume, media_volumes


def has_purged(lines):
    return any(map(is_purge_end, lines))


def small_volume(arena, name):
    volume = arena.volume(name, crawl=["/m"])
    volume.make_file("/m/a/1.mp3", b"x")
    return volume


# Before each change of a file, and each system call

@needs_tracer
def test_a_kill_before_each_change_of_the_very_first_start_and_its_stop(arena):
    def make_volume(name):
        volume = small_volume(arena, name)
        volume.make_file("/m/2.jpg")
        return volume

    def recovery(volumes, before):
        for volume in volumes:
            # A stop leaves its mark in /m, whose time the catalogue then does not know yet.
            has_mark = ".tickle" in os.listdir(volume.path("/m"))
            assert_part_of_a_walk(volume, before[volume], may_differ=["/m"] if has_mark else [])
        assert_recovered(arena, volumes, before)

    points = kill_at_each_change(Life(arena, make_volume, [WALK, STOP]), recovery)
    assert len(points) > 80
    found = {(point.file[9:], point.call) for point in points}
    wanted = {
        ("", "mkdir"), ("/quarrow.db.tmp", "openat"), ("/quarrow.db.tmp", "write"), ("/quarrow.db.tmp", "renameat"),
        ("/quarrow.db-journal", "unlinkat"), ("/quarrow.db", "pwrite64"), ("/quarrow.db-wal", "pwrite64"),
        ("/quarrow.db", "ftruncate"), ("/quarrow.db-wal", "unlinkat"), ("/quarrow.db-shm", "unlinkat"),
        ("/quarrow-volume.xml", "linkat")}
    assert wanted - found == set()


def take_until_walked(daemons):
    take_steps(daemons, [WALK, KILL])
    assert {daemon.wait_exit() for daemon in daemons} == {-signal.SIGKILL}


def calls_of_a_first_start(arena):
    """Each call up to the end of the first walk, as its name and its number of that name in the thread that makes the most."""
    trace = arena.path("trace")
    take_until_walked([start_traced(arena, small_volume(arena, "Model"), "-o", trace)])
    counts, most = collections.Counter(), collections.Counter()
    for thread, call, _ in calls_in(trace):
        counts[thread, call] += 1
        most[call] = max(most[call], counts[thread, call])
    points = [(call, number) for call, last in most.items() for number in range(1, last + 1)]
    points.remove(("execve", 1))  # that of the tracer's own child
    return points


@needs_tracer
def test_a_kill_before_each_system_call_of_the_very_first_start(arena):
    """Up to the end of the first walk, also where nothing is changed."""
    points = calls_of_a_first_start(arena)
    in_time = 0
    for batch in batches(points, 24):
        volumes = [small_volume(arena, "{} {}".format(*point)) for point in batch]
        daemons = [start_traced(arena, volume, "-e", f"trace={call}", "-o", "/dev/null", kill_before(call, number))
                   for volume, (call, number) in zip(volumes, batch)]
        take_until_walked(daemons)
        in_time += sum(not has_walked()(daemon.lines) for daemon in daemons)
        before = all_left_behind(arena, volumes)
        for volume in volumes:
            assert_part_of_a_walk(volume, before[volume])
        assert_recovered(arena, volumes, before)
        remove(volumes)
    print(f"{in_time} kills of {len(points)} in time")
    assert in_time > 400


@needs_tracer
def test_a_kill_before_each_change_of_a_new_state_file_on_a_file_system_without_nameless_files(arena):
    """Half a state file would be taken for a broken one, and its volume be left alone from then on."""
    def refuse(_):
        return "-P", ".", "--inject=openat:error=EOPNOTSUPP:when=1"  # the folder that it would be made in, by that name

    def recovery(volumes, before):
        assert_recovered(arena, volumes, before, rest=["quarrow-volume.xml.tmp"])  # that the next purge removes

    life = Life(arena, lambda name: small_volume(arena, name), [WALK, STOP], refuse)
    points = kill_at_each_change(life, recovery, ["/.quarrow/quarrow-volume.xml", "/.quarrow/quarrow-volume.xml.tmp"])
    assert {"write", "fsync"} <= {point.call for point in points}


@needs_tracer
def test_a_kill_before_each_change_of_a_purge(arena, clock):
    """In the life of a daemon on a catalogue that is there already."""
    template = with_deleted_rows(arena, clock)
    all_rows, start, unpurged = template.rows(), clock.now, last_purge_time(clock)

    def make_volume(name):
        clock.set(start)
        return copy_of(arena, template, name)

    def recovery(volumes, before):
        recorded = recorded_purges(volumes, all_rows, before, unpurged)
        for volume in volumes:  # what the state file says is true
            assert not recorded[volume] or not any(row.deleted for kind in before[volume] for row in kind)
        assert_purged_after(arena, clock, volumes, before, recorded)
        clock.set(start)

    end_first_sleep = Step(send(signal.SIGUSR1), lambda lines: lines.count(SLEEP) >= 3)
    make_due = Step(lambda _: clock.set(start + 2 * DUE_AFTER), lambda _: True)
    purge = Step(send(signal.SIGUSR1), lambda lines: has_purged(lines) and has_walked(2)(lines))
    life = Life(arena, make_volume, [WALK, end_first_sleep, make_due, purge, STOP], purge_threshold=THRESHOLD, clock=clock)
    points = kill_at_each_change(life, recovery)
    assert {point.call for point in points if point.file == "/.quarrow/quarrow-volume.xml.tmp"} >= {
        "unlinkat", "openat", "write", "fsync", "renameat"}
    assert sum(point.file == "/.quarrow/quarrow.db-wal" for point in points) > 20


# At any moment

def seconds_between(daemon, since, is_over):
    """How long the daemon takes from one line until its lines say that it is over: the measure for moments in between."""
    daemon.wait_line(since)
    start = time.monotonic()
    daemon.wait_log(is_over, "the end of what is measured")
    return time.monotonic() - start


def undisturbed(arena, volume, since, is_over):
    daemon = arena.start([volume])
    seconds = seconds_between(daemon, since, is_over)
    daemon.stop()
    return seconds


def kill_at(plan, is_over, since=BANNER):
    """Kills each daemon at its moment, in seconds after the given line; returns how many were killed before it was over."""
    send_at({daemon: [(moment, signal.SIGKILL)] for daemon, moment in plan.items()}, since)
    in_time = 0
    for daemon in plan:
        assert daemon.wait_exit() == -signal.SIGKILL
        in_time += not is_over(daemon.lines)
        daemon.close()
    return in_time


def start_each(arena, volumes, **settings):
    """A daemon for each volume."""
    return [arena.start([volume], **settings) for volume in volumes]


def test_kills_at_random_moments_of_the_first_start(arena):
    choice = seeded("first start")
    make_volume = lambda number: media_volume(arena, f"V{number}", folders=20, files=60, seed=number)
    usual = undisturbed(arena, make_volume(-1), BANNER, has_walked())
    kills, made = 0, itertools.count()
    while kills < 80 * RUNS:
        volumes = [make_volume(number) for number in itertools.islice(made, 8)]
        kills += kill_at({daemon: choice.uniform(0, 3 * usual) for daemon in start_each(arena, volumes)}, has_walked())
        before = all_left_behind(arena, volumes)
        for volume in volumes:
            assert_part_of_a_walk(volume, before[volume])
        assert_recovered(arena, volumes, before)
        remove(volumes)


def test_kills_at_random_moments_of_walks_over_what_has_changed(arena):
    """The same volumes again and again, which change while no daemon runs; only in the end is there a walk in full."""
    choice = seeded("walks")
    volumes = media_volumes(arena, 6, folders=100, files=300)
    usual = undisturbed(arena, volumes[0], BANNER, has_walked())
    kills, rounds = 0, itertools.count()
    while kills < 60 * RUNS:
        number = next(rounds)
        for volume in volumes:
            change_something(volume, choice, number)
        kills += kill_at({daemon: choice.uniform(0, 2 * usual) for daemon in start_each(arena, volumes)}, has_walked())
        before = all_left_behind(arena, volumes)
    assert_recovered(arena, volumes, before)


def test_kills_at_random_moments_of_purges(arena, clock):
    choice = seeded("purges")
    template = with_deleted_rows(arena, clock, folders=20, files=50)
    all_rows, start, unpurged = template.rows(), clock.now, last_purge_time(clock)
    begun = info(f"Purging the DB at {start + 2 * DUE_AFTER}\n")

    def start_purges(volumes):
        clock.set(start)
        daemons = start_each(arena, volumes, purge_threshold=THRESHOLD, clock=clock)
        for daemon in daemons:
            daemon.wait_walks()
            daemon.end_first_sleep()
        clock.set(start + 2 * DUE_AFTER)
        for daemon in daemons:
            daemon.signal(signal.SIGUSR1)
        return daemons

    [daemon] = start_purges([copy_of(arena, template, "Measured")])
    usual = seconds_between(daemon, begun, has_purged)
    daemon.stop()
    kills, rounds = 0, itertools.count()
    while kills < 30 * RUNS:
        number = next(rounds)
        volumes = [copy_of(arena, template, f"V{number} {copy}") for copy in range(6)]
        kills += kill_at({daemon: choice.uniform(0, usual) for daemon in start_purges(volumes)}, has_purged, begun)
        before = all_left_behind(arena, volumes)
        recorded = recorded_purges(volumes, all_rows, before, unpurged)
        clock.set(start)
        assert_purged_after(arena, clock, volumes, before, recorded)
        remove(volumes)


def seconds_of_a_stop(arena, volume):
    daemon = arena.start([volume])
    daemon.wait_walks()
    start = time.monotonic()
    daemon.stop()
    return time.monotonic() - start


def test_kills_at_random_moments_of_stops(arena):
    choice = seeded("stops")
    volumes = media_volumes(arena, 8, folders=10, files=30)
    usual = seconds_of_a_stop(arena, volumes[0])
    ends = collections.Counter()
    while ends[-signal.SIGKILL] < 40 * RUNS:
        daemons = start_each(arena, volumes)
        for daemon in daemons:
            daemon.wait_walks()
        for daemon in daemons:
            daemon.signal(signal.SIGTERM)
        send_at({daemon: [(choice.uniform(0, usual), signal.SIGKILL)] for daemon in daemons}, info("Got a signal to stop\n"))
        for daemon in daemons:
            ends[daemon.wait_exit()] += 1
            daemon.close()
        before = all_left_behind(arena, volumes)
        for volume in volumes:
            live_paths = {row.path for kind in before[volume] for row in kind if not row.deleted}
            assert {row.path for kind in volume.tree() for row in kind} - live_paths <= {"/m/.tickle"}
    assert set(ends) <= {0, -signal.SIGKILL}
    assert_recovered(arena, volumes, before)


def test_kills_at_random_moments_of_bursts(arena):
    choice = seeded("bursts")
    volumes = media_volumes(arena, 12 * RUNS, folders=20, files=60)
    daemons = start_each(arena, volumes)
    for daemon in daemons:
        daemon.wait_walks()
    for volume in volumes:
        for number in range(50):
            volume.create(f"/m/new {number}.mp3")
    send_at({daemon: [(choice.uniform(0, 0.05), signal.SIGKILL)] for daemon in daemons}, info("Processed 50 events\n"))
    for daemon in daemons:
        assert daemon.wait_exit() == -signal.SIGKILL
    assert_recovered(arena, volumes, all_left_behind(arena, volumes))


# Former crawl paths

REMOVING = info("not found /old so removing\n")

#: Inserts, below each folder of /old, that many (?1) folders that are like it.
MORE_FOLDERS = """
    with recursive numbers(number) as (select 1 where ?1 > 0 union all select number + 1 from numbers where number < ?1)
    insert into Folders(parent_id, path, name, category, created_time, modified_time, is_deleted, last_updated_time)
    select folder_id, path || '/b' || number, 'b' || number, category, created_time, modified_time, is_deleted, last_updated_time
    from Folders, numbers where path like '/old%'"""


def with_former_crawl_path(arena, folders, below_each=0):
    """A volume whose catalogue lists that many folders of a crawl path that is none any more, with a file in each, and so many
    further folders below each of them. The disk does not have them: nobody would look."""
    volume = arena.volume("Template", crawl=["/m", "/old"])
    volume.make_file("/m/1.mp3", b"x")
    make_empty_folders(volume, "/old", folders)
    for folder, _, _ in os.walk(volume.path("/old")):
        os.mknod(f"{folder}/1.mp3")
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    daemon.stop()
    shutil.rmtree(volume.path("/old"))
    volume.crawl.remove("/old")
    edit(volume.catalogue.path, MORE_FOLDERS, below_each)
    return volume


def is_removed(rows):
    """Whether the rows of the former crawl path are marked deleted: all of them are, or none is."""
    states = {row.deleted for kind in rows for row in kind if row.path.startswith("/old")}
    assert len(states) == 1, "some rows are marked deleted, others are not"
    return states == {1}


def walks_folders(lines):
    """The removal is over: the walk has begun."""
    return any(line.text.startswith("For folder") for line in lines)


@needs_tracer
def test_a_kill_before_each_change_of_the_log_while_a_former_crawl_path_is_removed(arena):
    """Half of it would stay for ever: nobody looks below a deleted folder again."""
    template = with_former_crawl_path(arena, 200)
    outcomes = collections.Counter()

    def recovery(volumes, before):
        outcomes.update(is_removed(rows) for rows in before.values())
        assert_recovered(arena, volumes, before)

    life = Life(arena, lambda name: copy_of(arena, template, name), [WALK, STOP])
    kill_at_each_change(life, recovery, ["/.quarrow/quarrow.db-wal"])
    assert outcomes[False] > 10 and outcomes[True] > 0


def test_kills_at_random_moments_of_the_removal_of_a_former_crawl_path(arena):
    choice = seeded("removals")
    template = with_former_crawl_path(arena, 3000)
    usual = undisturbed(arena, copy_of(arena, template, "Measured"), REMOVING, walks_folders)
    kills, made = 0, itertools.count()
    while kills < 12 * RUNS:
        volumes = [copy_of(arena, template, f"V{number}") for number in itertools.islice(made, 6)]
        kills += kill_at({daemon: choice.uniform(0, usual) for daemon in start_each(arena, volumes)}, walks_folders, REMOVING)
        before = all_left_behind(arena, volumes)
        for rows in before.values():
            is_removed(rows)  # or not, but not half
        assert_recovered(arena, volumes, before)
        remove(volumes)


def test_stops_at_random_moments_of_the_removal_of_a_former_crawl_path(arena):
    """It is given up and undone, without a word: nothing has failed."""
    choice = seeded("stopped removals")
    template = with_former_crawl_path(arena, 200, below_each=100)
    usual = undisturbed(arena, copy_of(arena, template, "Measured"), REMOVING, walks_folders)
    volumes = [copy_of(arena, template, f"V{number}") for number in range(6 * RUNS)]
    for number, volume in enumerate(volumes):  # one by one, so that every other one has hardly begun when it is stopped
        daemon = arena.start([volume])
        send_at({daemon: [(choice.uniform(0, usual) if number % 2 else 0, signal.SIGTERM)]}, REMOVING)
        assert daemon.wait_exit() == 0
        assert daemon.errors() == []
    before = {volume: volume.rows() for volume in volumes}
    assert not all([is_removed(rows) for rows in before.values()])
    assert_recovered(arena, volumes, before)
