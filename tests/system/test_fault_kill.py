"""SIGKILL at any moment, and before each single change of a file, costs nothing that the next start cannot bring back."""
import collections
import itertools
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import time
from xml.etree import ElementTree

import pytest

from catalogue import Catalogue, Rows, assert_same, edit
from deleted_rows import DUE_AFTER, THRESHOLD, copy_of, is_purge_end, last_purge_time, with_deleted_rows, without_deleted
from harness import info, is_walk_end, sanitizer_options
from model import after_walk
from moments import BANNER, batches, seeded, send_at
from quarrow_driver.waiting import wait_for
from recovery import RUNS
from trees import make_empty_folders, make_media_tree

SLEEP = info("Going to sleep.\n")
STRACE, SETPRIV = "/usr/bin/strace", "/usr/bin/setpriv"

#: The system calls that change a file or a folder, and those that make a change last.
CHANGING = ("mkdir", "openat", "pwrite64", "write", "ftruncate", "fallocate", "fsync", "fdatasync", "rename", "linkat", "unlink",
            "fchown", "fchmod", "chmod")
#: What the daemon changes in a volume, as paths below it.
FILES = [f"/.quarrow{name}" for name in ("", "/quarrow.db", "/quarrow.db.tmp", "/quarrow.db-journal", "/quarrow.db-wal",
                                         "/quarrow.db-shm", "/quarrow-volume.xml", "/quarrow-volume.xml.tmp")]

#: The Nth call of this name that concerns this file, in whichever thread comes that far first.
Point = collections.namedtuple("Point", "file call number")


def has_walked(times=1):
    return lambda lines: sum(is_walk_end(line) for line in lines) >= times


# What a kill may leave

def left_behind(arena, volume):
    """The rows that a kill has left, after a check of each file. The volume itself is left for the daemon to put right."""
    if not os.path.exists(volume.path("/.quarrow")):
        return Rows([], [])
    copy = arena.path(f"copy of {volume.name}")
    shutil.copytree(volume.path("/.quarrow"), copy)
    try:
        if os.path.exists(f"{copy}/quarrow-volume.xml"):
            state = ElementTree.parse(f"{copy}/quarrow-volume.xml").getroot()
            assert [child.tag for child in state.find("Volume")] == ["last_updated_time", "last_purge_time"]
        if not os.path.exists(f"{copy}/quarrow.db"):
            return Rows([], [])
        with open(f"{copy}/quarrow.db", "rb") as file:
            assert file.read(16) == b"SQLite format 3\0"
        connection = sqlite3.connect(f"{copy}/quarrow.db")  # as any program that may write: it undoes what was only begun
        assert connection.execute("pragma integrity_check").fetchall() == [("ok",)]
        kinds = collections.Counter(kind for kind, in connection.execute("select type from sqlite_master where sql is not null"
                                                                         " and name <> 'sqlite_sequence'"))
        assert kinds == {"table": 2, "index": 9}
        connection.execute("pragma journal_mode=delete")  # which a reader may open wherever it is
        connection.close()
        rows = Catalogue(f"{copy}/quarrow.db").rows()
        for kind in rows:
            assert len(kind) == len({row.path for row in kind}), "a path has more than one row"
        return rows
    finally:
        shutil.rmtree(copy)


def assert_recovered(arena, volumes, before, rest=()):
    """One more start brings every catalogue up to its disk, and its stop leaves the two files and no rest of the kill, save for
    one that is said to wait for a later occasion."""
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    for volume in volumes:
        assert_same(volume.rows(), after_walk(before[volume], volume.tree()))
    daemon.stop()
    assert daemon.errors() == []
    for volume in volumes:
        assert volume.catalogue.is_sound()
        assert set(os.listdir(volume.path("/.quarrow"))) - set(rest) == {"quarrow-volume.xml", "quarrow.db"}
    for run in arena.daemons:
        run.close()


# Before each change of a file

def may_trace():
    return all(os.access(tool, os.X_OK) for tool in (STRACE, SETPRIV)) and subprocess.run(
        [STRACE, "-f", "-o", "/dev/null", SETPRIV, "--pdeathsig", "KILL", "/bin/true"], check=False, capture_output=True
    ).returncode == 0


needs_tracer = pytest.mark.skipif(not may_trace(), reason="strace or setpriv is not there, or tracing is not allowed")


def start_traced(arena, volume, *options, **settings):
    """Starts the daemon below a tracer, which ends as the daemon does. Whatever else ends the tracer ends the daemon, too."""
    no_leaks = sanitizer_options()["ASAN_OPTIONS"] + ":detect_leaks=0"  # which are looked for by tracing, too
    return arena.start([volume], wrapper=[STRACE, "-f", "-qq", *options, SETPRIV, "--pdeathsig", "KILL"],
                       environment={"ASAN_OPTIONS": no_leaks}, **settings)


def below(daemon):
    """The traced daemon, below its tracer; None when it has ended."""
    try:
        with open(f"/proc/{daemon.process.pid}/task/{daemon.process.pid}/children", encoding="ascii") as file:
            return int(file.read().split()[0])
    except (OSError, IndexError):
        return None


def send(number):
    def to(daemon):
        pid = below(daemon)
        try:
            if pid is not None:
                os.kill(pid, number)
        except ProcessLookupError:
            pass
    return to


def live(daemons, steps):
    """Takes the daemons through their life, step by step, each as far as it comes: what to do, and what to wait for."""
    for act, reached in steps:
        for daemon in daemons:
            act(daemon)
        for daemon in daemons:
            wait_for(lambda: daemon.has_ended() or reached(daemon.lines), "the next step of its life")


def changes_in(trace, volume):
    """The points of a daemon's life, in order."""
    points, counts = [], collections.Counter()
    with open(trace, encoding="utf-8", errors="surrogateescape") as file:
        for line in file:
            match = re.match(r"(\d+) +(\w+)\((.*)", line)
            if match is None:  # the second half of a call
                continue
            thread, call, rest = match.groups()
            names = dict.fromkeys(re.findall(r'[<"](/[^">]*)[">]', rest))
            for name in list(names)[:1] if call == "rename" else names:  # the tracer goes by its first path
                place = name[len(volume.folder):]
                if not name.startswith(volume.folder) or place not in FILES:
                    continue
                counts[thread, place, call] += 1
                if call != "openat" or "O_CREAT" in rest:
                    points.append(Point(place, call, counts[thread, place, call]))
    return list(dict.fromkeys(points))


def kill_at_each_change(arena, make_volume, steps, recovery, files=FILES, refuse=None, **settings):
    """One volume lives its life in full and shows its changes of the given files. Then, for each of these, another volume
    lives as far as that; where two threads share the work out otherwise and none comes so far, it is tried again. Returns the
    points that were reached. `refuse` may have the tracer refuse an openat() of every life; none is a point to kill at then,
    for the tracer does but one thing to a call."""
    fault = refuse or (lambda volume: ())
    model = make_volume("Model")
    trace = arena.path("trace")
    watched = [word for file in files for word in ("-P", model.path(file))]
    daemon = start_traced(arena, model, "-y", *watched, "-e", f"trace={','.join(CHANGING)}", "-o", trace, *fault(model), **settings)
    live([daemon], steps)
    assert daemon.wait_exit() == 0
    points = [point for point in changes_in(trace, model) if refuse is None or point.call != "openat"]
    reached, waiting = [], points
    for _ in range(5):
        missed = []
        for batch in batches(waiting, 12):
            volumes = {point: make_volume("{0.file} {0.call} {0.number}".format(point).replace("/", " ")) for point in batch}
            daemons = {point: start_traced(
                arena, volume, "-P", volume.path(point.file), "-e", f"trace=openat,{point.call}", "-o", "/dev/null",
                f"--inject={point.call}:signal=KILL:when={point.number}", *fault(volume), **settings)
                for point, volume in volumes.items()}
            live(list(daemons.values()), steps)
            statuses = {point: daemon.wait_exit() for point, daemon in daemons.items()}
            assert set(statuses.values()) <= {0, -signal.SIGKILL}
            reached += [point for point, status in statuses.items() if status != 0]
            missed += [point for point, status in statuses.items() if status == 0]
            recovery(list(volumes.values()), {volume: left_behind(arena, volume) for volume in volumes.values()})
            for volume in volumes.values():
                shutil.rmtree(volume.folder)
        waiting = missed
    print(f"{len(reached)} kills, {len(waiting)} points that no life came to again")
    return reached


@needs_tracer
def test_a_kill_before_each_change_of_the_very_first_start_and_its_stop(arena):
    def make_volume(name):
        volume = arena.volume(name, crawl=["/m"])
        volume.make_file("/m/a/1.mp3", b"x")
        volume.make_file("/m/2.jpg")
        return volume

    def recovery(volumes, before):
        for volume in volumes:
            known = {row.path: row for kind in volume.tree() for row in kind}
            found = {row.path: row for kind in before[volume] for row in kind}
            # A stop leaves its mark in /m, whose time the catalogue then does not know yet.
            assert all(known[path] == row or path == "/m" and ".tickle" in os.listdir(volume.path("/m"))
                       for path, row in found.items())
        assert_recovered(arena, volumes, before)

    points = kill_at_each_change(
        arena, make_volume, [(lambda _: None, has_walked()), (send(signal.SIGTERM), lambda _: False)], recovery)
    assert len(points) > 80
    assert {(point.file[9:], point.call) for point in points} >= {
        ("", "mkdir"), ("/quarrow.db.tmp", "openat"), ("/quarrow.db.tmp", "write"), ("/quarrow.db.tmp", "rename"),
        ("/quarrow.db-journal", "unlink"), ("/quarrow.db", "pwrite64"), ("/quarrow.db-wal", "pwrite64"),
        ("/quarrow.db", "ftruncate"), ("/quarrow.db-wal", "unlink"), ("/quarrow.db-shm", "unlink"),
        ("/quarrow-volume.xml", "linkat")}


@needs_tracer
def test_a_kill_before_each_system_call_of_the_very_first_start(arena):
    """Up to the end of the first walk, also where nothing is changed."""
    def make_volume(name):
        volume = arena.volume(name, crawl=["/m"])
        volume.make_file("/m/a/1.mp3", b"x")
        return volume

    def live_until_walked(daemons):
        live(daemons, [(lambda _: None, has_walked()), (send(signal.SIGKILL), lambda _: False)])
        assert {daemon.wait_exit() for daemon in daemons} == {-signal.SIGKILL}

    trace = arena.path("trace")
    live_until_walked([start_traced(arena, make_volume("Model"), "-o", trace)])
    counts, calls = collections.Counter(), collections.Counter()
    with open(trace, encoding="utf-8", errors="surrogateescape") as file:
        for line in file:
            match = re.match(r"(\d+) +(\w+)\(", line)
            if match:
                counts[match.groups()] += 1
                calls[match[2]] = max(calls[match[2]], counts[match.groups()])
    points = [(call, number) for call, most in calls.items() for number in range(1, most + 1)
              if (call, number) != ("execve", 1)]  # that of the tracer's own child
    in_time = 0
    for batch in batches(points, 24):
        volumes = {point: make_volume("{} {}".format(*point)) for point in batch}
        daemons = [start_traced(arena, volume, "-e", f"trace={call}", "-o", "/dev/null",
                                f"--inject={call}:signal=KILL:when={number}") for (call, number), volume in volumes.items()]
        live_until_walked(daemons)
        in_time += sum(not has_walked()(daemon.lines) for daemon in daemons)
        before = {volume: left_behind(arena, volume) for volume in volumes.values()}
        for volume in volumes.values():
            known = {row.path: row for kind in volume.tree() for row in kind}
            assert all(known[row.path] == row for kind in before[volume] for row in kind)
        assert_recovered(arena, list(volumes.values()), before)
        for volume in volumes.values():
            shutil.rmtree(volume.folder)
    print(f"{in_time} kills of {len(points)} in time")
    assert in_time > 400


@needs_tracer
def test_a_kill_before_each_change_of_a_new_state_file_on_a_file_system_without_nameless_files(arena):
    """Half a state file would be taken for a broken one, and its volume be left alone from then on."""
    def make_volume(name):
        volume = arena.volume(name, crawl=["/m"])
        volume.make_file("/m/a/1.mp3", b"x")
        return volume

    # The second time that the folder is opened by this name; the first time it is synced, with the new catalogue in it.
    refuse = lambda volume: ("-P", volume.path("/.quarrow/"), "--inject=openat:error=EOPNOTSUPP:when=3")
    points = kill_at_each_change(
        arena, make_volume, [(lambda _: None, has_walked()), (send(signal.SIGTERM), lambda _: False)],
        lambda volumes, before: assert_recovered(arena, volumes, before, rest=["quarrow-volume.xml.tmp"]),  # of the next purge
        ["/.quarrow/quarrow-volume.xml", "/.quarrow/quarrow-volume.xml.tmp"], refuse)
    assert {"write", "fsync"} <= {point.call for point in points}


def assert_purge_is_whole(volume, all_rows, found):
    """Files go in one step and folders in another; a live row is never touched."""
    purged = without_deleted(all_rows)
    live_rows = without_deleted(found)
    assert [row.path for kind in live_rows for row in kind if "tickle" not in row.path] == [
        row.path for kind in purged for row in kind if "tickle" not in row.path]
    assert len(found.files) - len(live_rows.files) in (0, len(all_rows.files) - len(purged.files))
    assert len(found.folders) - len(live_rows.folders) in (0, len(all_rows.folders) - len(purged.folders))
    with open(volume.state_file, encoding="ascii") as file:
        return int(re.search(r"<last_purge_time>(\d+)<", file.read())[1])


def assert_purged_after(arena, clock, volumes, before, recorded):
    """The start after the kill walks, the control loop purges what was not purged or recorded, and all catalogues agree."""
    clock.advance(2 * DUE_AFTER)
    daemon = arena.start(volumes, purge_threshold=THRESHOLD, clock=clock)
    daemon.wait_walks(len(volumes))
    daemon.end_first_sleep()
    daemon.rewalk(clock)
    daemon.wait_log(lambda lines: sum(map(is_purge_end, lines)) >= list(recorded.values()).count(False), "every purge that is due")
    for volume in volumes:
        assert_same(volume.rows(), without_deleted(after_walk(before[volume], volume.tree())))
    daemon.stop()
    assert daemon.errors() == []
    for volume in volumes:
        assert volume.catalogue.is_sound()
        assert sorted(os.listdir(volume.path("/.quarrow"))) == ["quarrow-volume.xml", "quarrow.db"]
    for run in arena.daemons:
        run.close()


@needs_tracer
def test_a_kill_before_each_change_of_a_purge(arena, clock):
    """In the life of a daemon on a catalogue that is there already."""
    template = with_deleted_rows(arena, clock)
    all_rows, start, unpurged = template.rows(), clock.now, last_purge_time(clock)

    def recovery(volumes, before):
        recorded = {volume: assert_purge_is_whole(volume, all_rows, before[volume]) != unpurged
                    for volume in volumes}
        for volume in volumes:  # what the state file says is true
            assert not recorded[volume] or not any(row.deleted for kind in before[volume] for row in kind)
        assert_purged_after(arena, clock, volumes, before, recorded)
        clock.set(start)

    steps = [(lambda _: None, has_walked()),
             (send(signal.SIGUSR1), lambda lines: lines.count(SLEEP) >= 3),
             (lambda _: clock.set(start + 2 * DUE_AFTER), lambda _: True),
             (send(signal.SIGUSR1), lambda lines: any(map(is_purge_end, lines)) and has_walked(2)(lines)),
             (send(signal.SIGTERM), lambda _: False)]
    reset = lambda name: (clock.set(start), copy_of(arena, template, name))[1]
    points = kill_at_each_change(arena, reset, steps, recovery, purge_threshold=THRESHOLD, clock=clock)
    assert {point.call for point in points if point.file == "/.quarrow/quarrow-volume.xml.tmp"} >= {
        "unlink", "openat", "write", "fsync", "rename"}
    assert sum(point.file == "/.quarrow/quarrow.db-wal" for point in points) > 20


# At any moment

def undisturbed(arena, volume, since, until, **settings):
    """How long it takes from one line to the other: the measure for moments in between."""
    daemon = arena.start([volume], **settings)
    daemon.wait_line(since)
    start = time.monotonic()
    daemon.wait_log(lambda lines: until(lines), "the second line")
    seconds = time.monotonic() - start
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


def test_kills_at_random_moments_of_the_first_start(arena):
    choice = seeded("first start")

    def make_volume(number):
        volume = arena.volume(f"V{number}", crawl=["/m"])
        make_media_tree(volume, "/m", folders=20, files=60, seed=number)
        return volume

    usual = undisturbed(arena, make_volume(-1), BANNER, has_walked())
    kills, made = 0, itertools.count()
    while kills < 80 * RUNS:
        volumes = [make_volume(number) for number in itertools.islice(made, 8)]
        kills += kill_at({arena.start([volume]): choice.uniform(0, 3 * usual) for volume in volumes}, has_walked())
        before = {volume: left_behind(arena, volume) for volume in volumes}
        for volume in volumes:
            known = {row.path: row for kind in volume.tree() for row in kind}
            assert all(known[row.path] == row for kind in before[volume] for row in kind)
        assert_recovered(arena, volumes, before)
        for volume in volumes:
            shutil.rmtree(volume.folder)


def change_something(volume, choice, number):
    """New files, as many that are gone, one that has another size, a folder that moves."""
    tree = volume.tree()
    folder = choice.choice(tree.folders).path
    for extension in ("mp3", "jpg"):
        volume.make_file(f"{folder}/new {number}.{extension}", b"x")
    for row in choice.sample(tree.files, 2):
        os.unlink(volume.path(row.path))
    with open(volume.path(choice.choice(volume.tree().files).path), "ab") as file:
        file.write(b"more")
    leaf = choice.choice([row.path for row in tree.folders if not any(other.parent == row.path for other in tree.folders)])
    os.rename(volume.path(leaf), volume.path(f"/m/moved {number}"))


def test_kills_at_random_moments_of_walks_over_what_has_changed(arena):
    """The same volumes again and again, which change while no daemon runs; only in the end is there a walk in full."""
    choice = seeded("walks")
    volumes = [arena.volume(f"V{number}", crawl=["/m"]) for number in range(6)]
    for number, volume in enumerate(volumes):
        make_media_tree(volume, "/m", folders=100, files=300, seed=number)
    usual = undisturbed(arena, volumes[0], BANNER, has_walked())
    kills, rounds = 0, itertools.count()
    while kills < 60 * RUNS:
        number = next(rounds)
        for volume in volumes:
            change_something(volume, choice, number)
        kills += kill_at({arena.start([volume]): choice.uniform(0, 2 * usual) for volume in volumes}, has_walked())
        before = {volume: left_behind(arena, volume) for volume in volumes}
    assert_recovered(arena, volumes, before)


def test_kills_at_random_moments_of_purges(arena, clock):
    choice = seeded("purges")
    template = with_deleted_rows(arena, clock, folders=20, files=50)
    all_rows, start, unpurged = template.rows(), clock.now, last_purge_time(clock)
    begun = info(f"Purging the DB at {start + 2 * DUE_AFTER}\n")

    def start_with_purge(volumes):
        clock.set(start)
        daemons = [arena.start([volume], purge_threshold=THRESHOLD, clock=clock) for volume in volumes]
        for daemon in daemons:
            daemon.wait_walks()
            daemon.end_first_sleep()
        clock.set(start + 2 * DUE_AFTER)
        return daemons

    [daemon] = start_with_purge([copy_of(arena, template, "Measured")])
    daemon.signal(signal.SIGUSR1)
    daemon.wait_line(begun)
    usual = time.monotonic()
    daemon.wait_log(lambda lines: any(map(is_purge_end, lines)), "the end of the purge")
    usual = time.monotonic() - usual
    daemon.stop()
    kills, rounds = 0, itertools.count()
    while kills < 30 * RUNS:
        number = next(rounds)
        volumes = [copy_of(arena, template, f"V{number} {copy}") for copy in range(6)]
        daemons = start_with_purge(volumes)
        for daemon in daemons:
            daemon.signal(signal.SIGUSR1)
        kills += kill_at({daemon: choice.uniform(0, usual) for daemon in daemons},
                         lambda lines: any(map(is_purge_end, lines)), begun)
        before = {volume: left_behind(arena, volume) for volume in volumes}
        recorded = {volume: assert_purge_is_whole(volume, all_rows, before[volume]) != unpurged
                    for volume in volumes}
        clock.set(start)
        assert_purged_after(arena, clock, volumes, before, recorded)
        for volume in volumes:
            shutil.rmtree(volume.folder)


def test_kills_at_random_moments_of_stops(arena):
    choice = seeded("stops")
    volumes = [arena.volume(f"V{number}", crawl=["/m"]) for number in range(8)]
    for number, volume in enumerate(volumes):
        make_media_tree(volume, "/m", folders=10, files=30, seed=number)
    daemon = arena.start([volumes[0]])
    daemon.wait_walks()
    usual = time.monotonic()
    daemon.stop()
    usual = time.monotonic() - usual
    ends = collections.Counter()
    while ends[-signal.SIGKILL] < 40 * RUNS:
        daemons = [arena.start([volume]) for volume in volumes]
        for daemon in daemons:
            daemon.wait_walks()
        for daemon in daemons:
            daemon.signal(signal.SIGTERM)
        send_at({daemon: [(choice.uniform(0, usual), signal.SIGKILL)] for daemon in daemons}, info("Got a signal to stop\n"))
        for daemon in daemons:
            ends[daemon.wait_exit()] += 1
            daemon.close()
        before = {volume: left_behind(arena, volume) for volume in volumes}
        for volume in volumes:
            live_paths = {row.path for kind in before[volume] for row in kind if not row.deleted}
            assert {row.path for kind in volume.tree() for row in kind} - live_paths <= {"/m/.tickle"}
    assert set(ends) <= {0, -signal.SIGKILL}
    assert_recovered(arena, volumes, before)


def test_kills_at_random_moments_of_bursts(arena):
    choice = seeded("bursts")
    volumes = [arena.volume(f"V{number}", crawl=["/m"]) for number in range(12 * RUNS)]
    for number, volume in enumerate(volumes):
        make_media_tree(volume, "/m", folders=20, files=60, seed=number)
    daemons = {volume: arena.start([volume]) for volume in volumes}
    for daemon in daemons.values():
        daemon.wait_walks()
    for volume in volumes:
        for number in range(50):
            volume.create(f"/m/new {number}.mp3")
    plan = {daemon: [(choice.uniform(0, 0.05), signal.SIGKILL)] for daemon in daemons.values()}
    send_at(plan, info("Processed 50 events\n"))
    for daemon in daemons.values():
        assert daemon.wait_exit() == -signal.SIGKILL
    assert_recovered(arena, volumes, {volume: left_behind(arena, volume) for volume in volumes})


# Former crawl paths

REMOVING = info("not found /old so removing\n")


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
    same = "category, created_time, modified_time, is_deleted, last_updated_time"
    edit(volume.catalogue.path,
         "with recursive numbers(number) as (select 1 where ?1 > 0 union all select number + 1 from numbers where number < ?1)"
         f" insert into Folders(parent_id, path, name, {same}) select folder_id, path || '/b' || number, 'b' || number, {same}"
         " from Folders, numbers where path like '/old%'", below_each)
    return volume


def is_removed(rows):
    """Whether the rows of the former crawl path are marked deleted: all of them are, or none is."""
    states = {row.deleted for kind in rows for row in kind if row.path.startswith("/old")}
    assert len(states) == 1, "some rows are marked deleted, others are not"
    return states == {1}


@needs_tracer
def test_a_kill_before_each_change_of_the_log_while_a_former_crawl_path_is_removed(arena):
    """Half of it would stay for ever: nobody looks below a deleted folder again."""
    template = with_former_crawl_path(arena, 200)
    outcomes = collections.Counter()

    def recovery(volumes, before):
        outcomes.update(is_removed(rows) for rows in before.values())
        assert_recovered(arena, volumes, before)

    kill_at_each_change(arena, lambda name: copy_of(arena, template, name),
                        [(lambda _: None, has_walked()), (send(signal.SIGTERM), lambda _: False)], recovery,
                        ["/.quarrow/quarrow.db-wal"])
    assert outcomes[False] > 10 and outcomes[True] > 0


def test_kills_at_random_moments_of_the_removal_of_a_former_crawl_path(arena):
    choice = seeded("removals")
    template = with_former_crawl_path(arena, 3000)
    is_over = lambda lines: any(line.text.startswith("For folder") for line in lines)
    usual = undisturbed(arena, copy_of(arena, template, "Measured"), REMOVING, is_over)
    kills, made = 0, itertools.count()
    while kills < 12 * RUNS:
        volumes = [copy_of(arena, template, f"V{number}") for number in itertools.islice(made, 6)]
        kills += kill_at({arena.start([volume]): choice.uniform(0, usual) for volume in volumes}, is_over, REMOVING)
        before = {volume: left_behind(arena, volume) for volume in volumes}
        for rows in before.values():
            is_removed(rows)
        assert_recovered(arena, volumes, before)
        for volume in volumes:
            shutil.rmtree(volume.folder)


def test_stops_at_random_moments_of_the_removal_of_a_former_crawl_path(arena):
    """It is given up and undone, without a word: nothing has failed."""
    choice = seeded("stopped removals")
    template = with_former_crawl_path(arena, 200, below_each=100)
    usual = undisturbed(arena, copy_of(arena, template, "Measured"), REMOVING,
                        lambda lines: any(line.text.startswith("For folder") for line in lines))
    volumes = [copy_of(arena, template, f"V{number}") for number in range(6 * RUNS)]
    for number, volume in enumerate(volumes):  # one by one, so that every other one has hardly begun when it is stopped
        daemon = arena.start([volume])
        send_at({daemon: [(choice.uniform(0, usual) if number % 2 else 0, signal.SIGTERM)]}, REMOVING)
        assert daemon.wait_exit() == 0
        assert daemon.errors() == []
    before = {volume: volume.rows() for volume in volumes}
    assert not all([is_removed(rows) for rows in before.values()])
    assert_recovered(arena, volumes, before)
