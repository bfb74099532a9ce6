"""Trees, names, paths and times at the edge of what a disk and a clock can hold."""
import os
import shutil
import signal
import subprocess

import pytest

from catalogue import assert_same, insert_chain, Rows
from harness import Volume, inotify_limit
from lines import info
from model import after_walk
from moments import seeded, send_at
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged
from trees import make_empty_folders, make_media_tree

#: What is said of the record that ends the watch of a folder that has gone.
GONE = "No listener/directory found for \n"


#: Seconds for what takes a minute, on a machine that is busy with more than this.
LONG = 600


def restart_and_check(arena, volume, before, **settings):
    daemon = arena.start([volume], **settings)
    daemon.wait_walks(max(1, len(volume.crawl)), LONG)
    assert_same(volume.rows(), after_walk(before, volume.tree()))
    daemon.stop_without_errors()
    assert volume.catalogue.is_sound()


# Depth

DEPTH = 2000


@pytest.mark.parametrize("at_once", [True, False], ids=["moved away", "removed piece by piece"])
def test_two_thousand_levels_that_go_while_they_are_walked(arena, at_once):
    volume = arena.volume(crawl=["/m"])
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    os.unlink(volume.path("/m/.tickle"))
    insert_chain(volume.catalogue.path, DEPTH)
    volume.make_folder("/m" + "/d" * DEPTH)
    daemon = arena.start([volume])
    daemon.wait_log(lambda lines: sum(line.text.startswith("For folder") for line in lines) > 200, "the upper levels")
    if at_once:
        os.rename(volume.path("/m/d"), arena.path("away"))
        # One record of one folder, so the burst cannot miss it.
        wait_for(lambda: volume.catalogue.live() == {"/m"}, "all levels marked as deleted")
    else:
        subprocess.run(["rm", "-rf", volume.path("/m/d")], check=True)
    daemon.wait_walks()
    daemon.stop()
    assert set(daemon.errors()) <= {GONE}
    restart_and_check(arena, volume, volume.rows())
    rows = volume.rows()
    assert sum(row.deleted for row in rows.folders) == sum(row.deleted for row in rows.files) == DEPTH
    assert volume.catalogue.live() <= {"/m", "/m/.tickle"}


def test_a_deep_tree_from_the_first_walk_to_its_end(arena):
    """The time for a level grows with its depth: by hand there is enough for all."""
    depth = DEPTH if RUNS > 1 else 500
    volume = arena.volume(crawl=["/m"])
    volume.make_folder("/m" + "/d" * depth)
    daemon = arena.start([volume])
    daemon.wait_log(lambda lines: any(line.text.startswith("Finished walk") for line in lines), "the walk", bound=3600)
    assert_same(volume.rows(), volume.tree())
    assert len(volume.rows().folders) == depth + 1
    os.rename(volume.path("/m/d"), volume.path("/m/e"))
    wait_for(lambda: "/m/e" + "/d" * (depth - 1) in volume.catalogue.live(), "the lowest level under its new path", bound=3600)
    subprocess.run(["rm", "-rf", volume.path("/m/e")], check=True)
    daemon.stop()
    restart_and_check(arena, volume, volume.rows())
    assert volume.catalogue.live() <= {"/m", "/m/.tickle"}


# Number

def test_very_many_files_in_one_folder(arena):
    count = 200_000
    volume = arena.volume(crawl=["/m"])
    volume.make_folder("/m/many")
    for number in range(count):
        volume.create(f"/m/many/{number}.mp3")
    daemon = arena.start([volume])
    daemon.wait_walks(bound=LONG)
    assert_same(volume.rows(), volume.tree())
    assert len(volume.rows().files) == count
    # The folder goes as a whole and comes back under another name: one folder's change each.
    os.rename(volume.path("/m/many"), arena.path("away"))
    daemon.wait_bursts(2, LONG)  # the second has only the end of the folder's watch, which would hide what else it has
    assert volume.catalogue.live() == {"/m"}
    os.rename(arena.path("away"), volume.path("/m/back"))
    daemon.wait_bursts(3, LONG)
    assert len(volume.catalogue.live()) == count + 2
    daemon.stop()
    assert set(daemon.errors()) <= {GONE}
    for number in range(0, count, 2):
        os.unlink(volume.path(f"/m/back/{number}.mp3"))
    restart_and_check(arena, volume, volume.rows())


def test_very_many_folders(arena):
    count = 100_000
    watches_suffice = inotify_limit("max_user_watches") > count + 20_000
    volume = arena.volume(crawl=["/m"])
    make_empty_folders(volume, "/m", count)
    daemon = arena.start([volume])
    daemon.wait_log(lambda lines: info(f"Total folders/files (re)indexed: {count}/0\n") in lines, "the walk", bound=LONG)
    daemon.wait_log(lambda lines: any(line.text.startswith("Actively watching") for line in lines), "the end of the walk")
    assert_same(volume.rows(), volume.tree())
    if watches_suffice:  # fewer are given where there is little memory
        assert daemon.count(info(f"Actively watching {count} folders\n")) == 1
        assert daemon.kernel_watches() == count
    daemon.stop_without_errors()
    for number in range(0, 40, 2):
        shutil.rmtree(volume.path(f"/m/{number}"))
    before = volume.rows()
    restart_and_check(arena, volume, before)
    assert count / 3 < sum(row.deleted for row in volume.rows().folders) < count * 3 / 4


# Names

def every_byte():
    """Names with each byte that a name may have: alone, first, in the middle and last."""
    for number in sorted(set(range(1, 256)) - {ord("/")}):
        byte = os.fsdecode(bytes([number]))
        if byte != ".":
            yield byte
        yield from (f"{byte}first", f"mid{byte}dle.mp3", f"last.{byte}")


def test_every_byte_in_names_of_files_and_folders(arena):
    """Found by a walk, by a burst, and gone by a walk."""
    volume = arena.volume(crawl=["/files", "/folders"])
    for name in every_byte():
        volume.create(f"/files/{name}")
        volume.make_file(f"/folders/{name}/{name}", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    assert_same(volume.rows(), volume.tree())
    names = list(every_byte())
    assert len(names) == len(set(names)) == 4 * 254 - 1
    assert {f"/files/{name}" for name in names} | {f"/folders/{name}/{name}" for name in names} <= volume.catalogue.live()
    assert daemon.count(info(f"Actively watching {len(names) + 2} folders\n")) == 1
    for name in names:
        os.rename(volume.path(f"/files/{name}"), volume.path(f"/files/{name}{name}"))
    everything = lambda: {row.path for kind in volume.tree() for row in kind}
    wait_for(lambda: volume.catalogue.live() == everything(), "the new names")
    daemon.stop_without_errors()
    for name in names[::2]:
        shutil.rmtree(volume.path(f"/folders/{name}"))
        os.unlink(volume.path(f"/files/{name}{name}"))
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    assert volume.catalogue.live() == everything()
    daemon.stop_without_errors()
    assert volume.catalogue.is_sound()


# Volumes in each other's way

def test_two_volumes_with_one_path_and_one_within_it(arena):
    """They write one catalogue from three sides at once, are stopped and killed at it, and change in between."""
    choice = seeded("one path")
    volume = arena.volume("A", crawl=["/m"])
    make_media_tree(volume, "/m", folders=60, files=200, seed=1)
    exclude = ["/.quarrow"]
    volume.exclude = exclude
    twin, inner = Volume("B", volume.root + "/", ["/m"], exclude), Volume("C", volume.path("/m/inner"), ["/deep"])
    inner.make_file("/deep/er/1.mp3", b"x")
    volumes = [volume, twin, inner]
    for number in range(10 * RUNS):
        daemon = arena.start(volumes)
        send_at({daemon: [(choice.uniform(0, 0.3), choice.choice([signal.SIGTERM, signal.SIGKILL]))]})
        assert daemon.wait_exit() in (0, -signal.SIGKILL)
        assert daemon.errors() == []
        inner.make_file(f"/deep/{number}/{number}.mp3", b"x")
        tree = volume.tree()
        os.unlink(volume.path(choice.choice([row.path for row in tree.files if "/inner/" not in row.path])))
    daemon = arena.start(volumes)
    daemon.wait_walks(3)
    everything = lambda place: {row.path for kind in place.tree() for row in kind}
    assert volume.catalogue.live() == everything(volume)
    assert inner.catalogue.live() == everything(inner)
    for rows in (volume.rows(), inner.rows()):
        for kind in rows:
            assert len(kind) == len({row.path for row in kind}), "a path has more than one row"
    # One watch is there for all of them, with the name of whoever came last; its catalogue follows.
    volume.create("/m/new.mp3")
    wait_for(lambda: "/m/new.mp3" in volume.catalogue.live(), "the new file")
    daemon.stop_without_errors()
    assert volume.catalogue.is_sound() and inner.catalogue.is_sound()
    assert sorted(os.listdir(volume.path("/.quarrow"))) == ["quarrow-volume.xml", "quarrow.db"]


# Paths

def make_long_path(arena, length):
    """A path of that many bytes below the arena, whose last two folders are still to be made."""
    path = arena.folder
    while length - len(os.fsencode(path)) > 152:
        path += "/" + "v" * 150
    path += "/" + "v" * ((length - len(os.fsencode(path))) // 2 - 1)
    path += "/" + "w" * (length - len(os.fsencode(path)) - 1)
    assert len(os.fsencode(path)) == length
    os.makedirs(os.path.dirname(os.path.dirname(path)), exist_ok=True)
    return path


def test_a_volume_path_as_long_as_a_catalogue_can_have(arena):
    """SQLite takes paths of up to 512 bytes, with its own endings."""
    volume = Volume("Long", make_long_path(arena, 480), ["/m"])
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop_without_errors()
    assert volume.rows() == Rows([], [])
    make_media_tree(volume, "/m", folders=30, files=100, seed=1)
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_same(volume.rows(), volume.tree())
    volume.create("/m/new.mp3")
    wait_for(lambda: "/m/new.mp3" in volume.catalogue.live(), "the new file")
    daemon.stop_without_errors()
    assert ".tickle" in os.listdir(volume.path("/m"))
    restart_and_check(arena, volume, volume.rows())


def test_a_volume_path_of_1100_bytes_is_refused_and_the_others_are_served(arena):
    """The daemon itself has room for any path, down to the folders that it makes; its catalogue has not."""
    volume, other = Volume("Long", make_long_path(arena, 1100), ["/m"]), arena.volume("Other", crawl=["/m"])
    other.make_file("/m/1.mp3", b"x")
    for _ in range(2):
        daemon = arena.start([volume, other])
        daemon.wait_walks()
        assert_converged(other)
        daemon.stop()
        assert daemon.errors() == ["open() failed, handleStatus: 14\n",
                                   "Could not open the volume cfg file DBOperationException occurred\n",
                                   "Could not initialize the manager for the volume Long\n"]
        assert os.listdir(volume.path("/.quarrow")) == []


# Times

MOMENTS = {"1970": 1_000, "2001": 1_000_000_000, "2023": 1_700_000_000, "2037": 2_140_000_000, "end": 2**31 - 2,
           "2040": 2_210_000_000, "2100": 4_102_444_800, "wrapped": 2**32 + 1_000_000_000}


def test_a_clock_that_jumps_by_years(arena, clock):
    """Whenever it stands still at a new time there is a change, a wake-up, perhaps a walk or a purge. What is on disk never
    leaves the catalogue, and once the clock is right again, a start makes up for every walk that it has cost."""
    choice = seeded("clock")
    right = clock.now
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m", folders=20, files=100, seed=1)
    daemon = arena.start([volume], purge_threshold=3600, clock=clock)
    daemon.wait_walks()
    daemon.end_first_sleep()
    kept = {row.path for kind in volume.tree() for row in kind}
    for number in range(40 * RUNS):
        moment = choice.choice(list(MOMENTS))
        clock.set(MOMENTS[moment] + choice.randrange(100_000) * (moment != "end"))
        volume.make_file(f"/m/passing {number % 3}.mp3", bytes(number))
        if number % 4 == 3:
            os.unlink(volume.path(f"/m/passing {number % 3}.mp3"))
        daemon.wake()
        assert kept <= volume.catalogue.live(), moment
    daemon.stop_without_errors()

    clock.set(right + 10_000)
    daemon = arena.start([volume], purge_threshold=3600, clock=clock)
    daemon.wait_walks()
    assert_converged(volume)
    daemon.end_first_sleep()
    os.unlink(volume.path(sorted(row.path for row in volume.tree().files)[0]))
    daemon.rewalk(clock)
    assert_converged(volume)
    daemon.stop_without_errors()


@pytest.mark.parametrize("now", MOMENTS.values(), ids=MOMENTS)
def test_a_life_at_any_time(arena, clock, now):
    """A start, a change, a walk, a purge that may be due, a stop and one more start."""
    clock.set(now)
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m", folders=10, files=50, seed=1)
    for _ in range(2):
        daemon = arena.start([volume], purge_threshold=3600, clock=clock)
        daemon.wait_walks()
        daemon.end_first_sleep()
        os.unlink(volume.path(sorted(row.path for row in volume.tree().files)[0]))
        volume.make_file("/m/new.mp3", b"x")
        daemon.rewalk(clock)
        assert_converged(volume)
        daemon.stop_without_errors()


def test_files_from_beyond_2038_and_before_1970(arena, clock):
    """Times are stored in 32 bits and compared so: no walk writes such a file anew, and a step of 2**32 seconds is none."""
    times = [-2**31, -1, 0, 1, 2**31 - 1, 2**31, 2**31 + 1, 2**32 - 1, 2**32, 2**32 + 1_000_000_000, 2**33 + 7, 15_000_000_000]
    volume = arena.volume(crawl=["/m"])
    for time in times:
        volume.make_file(f"/m/{time}/file.mp3", b"x", modified=time)
        os.utime(volume.path(f"/m/{time}"), (time, time))
    os.utime(volume.path("/m"), (5, 5))
    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    assert_same(volume.rows(), volume.tree())
    rows = {row.path: row.modified for kind in volume.rows() for row in kind}
    assert min(rows.values()) < 0 and len(set(rows.values())) > 8
    daemon.stop()
    first = volume.catalogue.updated()

    os.utime(volume.path("/m/1/file.mp3"), (1 + 2**32, 1 + 2**32))
    os.utime(volume.path("/m/0/file.mp3"), (2**31, 2**31))
    clock.advance(1000)
    before = volume.rows()
    restart_and_check(arena, volume, before, clock=clock)
    second = volume.catalogue.updated()
    assert {path for path in first if first[path] != second[path]} == {"/m", "/m/0/file.mp3"}
