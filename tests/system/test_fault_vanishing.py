"""What disappears or is exchanged under the running daemon: volumes, start folders, catalogues, folders in mid-walk."""
import os
import random
import shutil
import threading

import pytest

from catalogue import Catalogue, Rows, assert_same
from moments import seeded
from quarrow_driver.mounting import check, libc
from quarrow_driver.waiting import wait_for
from recovery import RUNS, assert_converged, failed_walks, good_volume, is_converged, live_rows, settle, walk_again
from trees import make_media_tree


#: The end of a watch that a walk has given up is reported for a descriptor that nobody knows any more.
UNKNOWN = "No listener/directory found for \n"


def assert_media_converged(volume):
    """The rows below /m, without those of a catalogue that is in its own volume and changes while it is written."""
    below = lambda rows: Rows(*([row for row in kind if f"{row.path}/".startswith("/m/")] for kind in live_rows(rows)))
    assert_same(below(volume.rows()), below(volume.tree()))
    assert volume.catalogue.is_sound()


class Churn:
    """Turns a volume upside down on a thread of its own until the end of the block."""

    def __init__(self, step):
        self.step = step
        self.ended = threading.Event()
        self.failure = None
        self.steps = 0
        self.thread = threading.Thread(target=self.run)

    def run(self):
        try:
            while not self.ended.is_set():
                self.step()
                self.steps += 1
        except Exception as failure:  # told by the test's own thread
            self.failure = failure

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()
        if self.failure is not None:
            raise self.failure


def files_of(folder):
    return {name: read(os.path.join(folder, name)) for name in os.listdir(folder)}


def test_another_volume_is_mounted_in_place_of_the_first(arena, mounts, clock):
    """What is open stays with the first; the second is not touched by it, and has its turn at the next start."""
    volume, good = arena.volume("Volume", crawl=["/m"]), good_volume(arena)
    place, first, second = volume.folder, arena.path("first"), arena.path("second")
    for path in (second, first):  # alike to the last inode
        mounts.tmpfs(path)
        mounts.bind(path, place)
        volume.make_file(f"/m/sub/{os.path.basename(path)}.mp3", b"x")
        daemon = arena.start([volume, good], clock=clock)
        daemon.wait_walks(2)
        if path is second:
            daemon.kill()  # and left with a log that is still to be read
            assert os.path.getsize(volume.catalogue.path + "-wal") > 0
            mounts.remove(place)

    mounts.remove(place, lazily=True)
    walk_again(daemon, clock, 2)  # nothing is mounted there
    mounts.bind(second, place)
    before = files_of(second + "/.quarrow")
    for name in "23":
        good.make_file(f"/m/sub/{name}.mp3", b"x")
        volume.make_file(f"/m/sub/{name}.mp3", b"x")
        walk_again(daemon, clock, 2)
        assert_converged(good)
    daemon.stop()
    assert set(daemon.errors()) <= {UNKNOWN}
    assert files_of(second + "/.quarrow") == before
    assert Catalogue(first + "/.quarrow/quarrow.db").is_sound()

    for path in (second, first):
        daemon = arena.start([volume])
        daemon.wait_walks()
        assert_converged(volume)
        assert f"/m/sub/{os.path.basename(path)}.mp3" in volume.catalogue.live()
        daemon.stop()
        if path is second:
            mounts.remove(place)
            mounts.bind(first, place)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def test_a_disk_below_a_start_folder_is_unmounted_and_mounted_again(arena, mounts, clock):
    """Its watches end with it. While it is gone so are its rows, which come back with it under their old ids."""
    volume, good = arena.volume("Volume", crawl=["/m", "/n"]), good_volume(arena)
    disk, elsewhere = volume.path("/m/disk"), arena.path("elsewhere")
    mounts.tmpfs(elsewhere)
    os.makedirs(disk)
    mounts.bind(elsewhere, disk)
    make_media_tree(volume, "/m/disk/tree", folders=30, files=200, seed=1)
    volume.make_file("/n/1.mp3", b"x")
    daemon = arena.start([volume, good], clock=clock)
    daemon.wait_walks(3)
    assert_converged(volume)
    ids = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}
    for _ in range(2 * RUNS):
        mounts.remove(disk)
        walk_again(daemon, clock, 3)
        assert_converged(volume)
        assert not any(path.startswith("/m/disk/") for path in volume.catalogue.live())
        mounts.bind(elsewhere, disk)
        walk_again(daemon, clock, 3)
        assert_converged(volume)
        assert {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()} == ids
    volume.create("/m/disk/tree/new.mp3")
    wait_for(lambda: "/m/disk/tree/new.mp3" in volume.catalogue.live(), "a change after the return")
    daemon.stop()
    assert set(daemon.errors()) <= {UNKNOWN}


def test_the_file_system_of_a_start_folder_ends(arena, mounts, clock):
    """The kernel then says of each of its watches that it is over."""
    volume, good = arena.volume("Volume", crawl=["/m"]), good_volume(arena)
    mounts.tmpfs(volume.path("/m"))
    make_media_tree(volume, "/m/tree", folders=30, files=200, seed=1)
    daemon = arena.start([volume, good], clock=clock)
    daemon.wait_walks(2)
    mounts.remove(volume.path("/m"))
    daemon.wait_bursts(1)
    good.make_file("/m/sub/2.mp3", b"x")
    mounts.tmpfs(volume.path("/m"))
    make_media_tree(volume, "/m/tree", folders=20, files=100, seed=2)
    walk_again(daemon, clock, 2)
    assert_converged(volume)
    volume.create("/m/tree/new.mp3")
    wait_for(lambda: is_converged(volume) and is_converged(good), "changes after the exchange")
    daemon.stop()
    assert volume.catalogue.is_sound()


@pytest.mark.parametrize("crawl", [["/m"], []], ids=["start folder", "volume"])
def test_a_root_is_deleted_and_made_again(arena, clock, crawl):
    volume, good = arena.volume("Volume", crawl=crawl), good_volume(arena)
    make_media_tree(volume, "/m", folders=30, files=200, seed=1)
    daemon = arena.start([volume, good], clock=clock)
    daemon.wait_walks(2)
    for number in range(RUNS):
        shutil.rmtree(volume.path("/m"))
        walk_again(daemon, clock, 2)
        make_media_tree(volume, "/m", folders=30, files=150, seed=number)
        walk_again(daemon, clock, 2)
        assert_media_converged(volume)
    if crawl:  # else a read may hold changes in the catalogue's own folder, too, and then not all of it is looked at
        volume.create("/m/new.mp3")
        wait_for(lambda: "/m/new.mp3" in volume.catalogue.live(), "a change in the new folder")
    daemon.stop()
    assert volume.catalogue.is_sound()


def test_the_folder_of_a_volume_is_deleted_and_made_again(arena, clock):
    """The catalogue goes with it. The daemon keeps the one that it has open, unseen; the next start makes a new one."""
    volume, good = arena.volume("Volume"), good_volume(arena)
    make_media_tree(volume, "/m", folders=30, files=200, seed=1)
    daemon = arena.start([volume, good], clock=clock)
    daemon.wait_walks(2)
    shutil.rmtree(volume.folder)
    walk_again(daemon, clock, 2)
    make_media_tree(volume, "/m", folders=30, files=150, seed=2)
    good.create("/m/sub/2.mp3")
    walk_again(daemon, clock, 2)
    assert_converged(good)
    daemon.stop()
    assert not os.path.exists(volume.catalogue.path)
    daemon = arena.start([volume, good])
    daemon.wait_walks(2)
    assert_media_converged(volume)
    daemon.stop_without_errors()


@pytest.mark.parametrize("crawl", [["/m"], []], ids=["start folder", "volume"])
def test_the_folder_of_the_catalogue_is_deleted(arena, clock, crawl):
    """What is open stays open, unseen. The next start makes all anew."""
    volume, good = arena.volume("Volume", crawl=crawl), good_volume(arena)
    make_media_tree(volume, "/m", folders=30, files=200, seed=1)
    daemon = arena.start([volume, good], clock=clock, purge_threshold=100)
    daemon.wait_walks(2)
    shutil.rmtree(volume.path("/.quarrow"))
    for each in (volume, good):
        each.create("/m/2.mp3")
    walk_again(daemon, clock, 2)
    assert_converged(good)
    daemon.stop()
    assert not os.path.exists(volume.path("/.quarrow"))
    daemon = arena.start([volume, good])
    daemon.wait_walks(2)
    assert_media_converged(volume)
    daemon.stop_without_errors()


def replaced_by_garbage(folder):
    with open(folder + "/new", "wb") as file:
        file.write(random.Random(1).randbytes(50_000))
    os.rename(folder + "/new", folder + "/quarrow.db")


def replaced_by_nothing(folder):
    open(folder + "/new", "wb").close()
    os.rename(folder + "/new", folder + "/quarrow.db")


def removed(folder):
    os.unlink(folder + "/quarrow.db")


def all_removed(folder):
    for name in os.listdir(folder):
        os.unlink(folder + "/" + name)


def restored(folder):
    """By a backup of the file, taken while nobody had it open."""
    shutil.copyfile(os.path.dirname(folder) + "/backup/quarrow.db", folder + "/new")
    os.rename(folder + "/new", folder + "/quarrow.db")


def restored_with_log(folder):
    """By a backup of the whole folder, taken from a daemon that had not written its log back."""
    os.rename(folder, folder + ".old")
    shutil.copytree(os.path.dirname(folder) + "/backup with log", folder)


@pytest.mark.parametrize("replace", [replaced_by_garbage, replaced_by_nothing, removed, all_removed, restored, restored_with_log])
def test_the_catalogue_is_exchanged(arena, clock, replace):
    volume, good = arena.volume("Volume", crawl=["/m"]), good_volume(arena)
    folder = volume.path("/.quarrow")
    make_media_tree(volume, "/m", folders=10, files=50, seed=1)
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    shutil.copytree(folder, volume.path("/backup"))
    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    volume.make_folder("/m/late")
    for number in range(300):
        volume.create(f"/m/late/{number}.mp3")
    reader = volume.catalogue.open()
    reader.execute("begin")
    reader.execute("select * from Files").fetchall()  # keeps the log from being written back
    walk_again(daemon, clock, 1)
    with daemon.frozen():
        shutil.copytree(folder, volume.path("/backup with log"))
    reader.close()
    daemon.stop()
    saved = Catalogue(volume.path("/backup with log/quarrow.db")).live()
    assert "/m/late/7.mp3" in saved

    daemon = arena.start([volume, good], clock=clock)
    daemon.wait_walks(2)
    replace(folder)
    volume.make_file("/m/2.mp3", b"x")
    good.make_file("/m/sub/2.mp3", b"x")
    walk_again(daemon, clock, 2)
    assert_converged(good)
    there = {name: read(f"{folder}/{name}") for name in os.listdir(folder)}
    daemon.stop()
    # What has come is as it was, and nothing of the daemon's own is left beside it: a log is found by its name.
    own = set() if replace is restored_with_log else {"quarrow.db-wal", "quarrow.db-shm"}
    assert {name: read(f"{folder}/{name}") for name in os.listdir(folder)} == {
        name: content for name, content in there.items() if name not in own}

    daemon = arena.start([volume, good])
    settle(daemon)
    if replace in (replaced_by_garbage, replaced_by_nothing):  # which is left to the administrator, as it is
        assert failed_walks(daemon, volume) == 1
    else:
        assert_converged(volume)
        assert daemon.errors() == []
    assert_converged(good)
    daemon.stop()


def test_folders_come_and_go_while_they_are_walked(arena, clock):
    """Made, filled, moved and removed at random, under full walks and live ones. Nothing of that is an error."""
    choice = seeded("changes")
    volume = arena.volume("Volume", crawl=["/m"])
    make_media_tree(volume, "/m", folders=200, files=600, seed=choice.randrange(1 << 30))
    top = volume.path("/m")
    folders = [os.path.join(path, name) for path, names, _ in os.walk(top) for name in names]

    def step():
        place = choice.choice(folders)
        action = choice.randrange(6)
        try:
            if action == 0:
                shutil.rmtree(place)
            elif action == 1:
                os.rename(place, choice.choice(folders))
            elif action == 2:
                os.unlink(os.path.join(place, choice.choice(os.listdir(place))))
            else:
                os.makedirs(place, exist_ok=True)
                open(f"{place}/{choice.randrange(30)}.mp3", "ab").close()
        except (OSError, IndexError):  # gone, not empty, below itself, in place of a file
            pass

    daemon = arena.start([volume], clock=clock)
    with Churn(step) as churn:
        for _ in range(15 * RUNS):
            walk_again(daemon, clock, 1)
    assert churn.steps > 1000
    walk_again(daemon, clock, 1)
    assert_converged(volume)
    daemon.stop()
    assert set(daemon.errors()) <= {UNKNOWN}
    assert volume.catalogue.is_sound()


RENAME_EXCHANGE = 2


def exchange(first, second):
    check(libc.renameat2(-100, os.fsencode(first), -100, os.fsencode(second), RENAME_EXCHANGE), "exchange")


def test_folders_are_replaced_by_links_to_elsewhere_while_they_are_walked(arena, clock):
    """Whatever the moment, not a name from outside gets into the catalogue."""
    volume = arena.volume("Volume", crawl=["/m"])
    outside = arena.volume("Outside")
    for number in range(20):
        for name in ("", "/deep", "/deep/er"):
            for file in range(5):
                volume.make_file(f"/m/a{number}{name}/inside {file}.mp3", b"x")
                outside.make_file(f"/a{number}{name}/secret {file}.mp3", b"x")
        os.symlink(outside.path(f"/a{number}"), arena.path(f"link{number}"))
    os.mkdir(volume.path("/aside"))
    for number in range(20):
        os.rename(arena.path(f"link{number}"), volume.path(f"/aside/a{number}"))
    choice = seeded("exchanges")

    def step():
        name = f"a{choice.randrange(20)}"
        exchange(volume.path(f"/m/{name}"), volume.path(f"/aside/{name}"))

    daemon = arena.start([volume], clock=clock)
    with Churn(step) as churn:
        for _ in range(40 * RUNS):
            walk_again(daemon, clock, 1)
    assert churn.steps > 1000
    names = {row.name for row in volume.rows().files}
    assert not any(name.startswith("secret") for name in names), sorted(names)
    for number in range(20):
        if os.path.islink(volume.path(f"/m/a{number}")):
            exchange(volume.path(f"/m/a{number}"), volume.path(f"/aside/a{number}"))
    walk_again(daemon, clock, 1)
    assert_converged(volume)

    # The same with the daemon looking on: the change that it sees is that of the folder above.
    exchange(volume.path("/m/a0"), volume.path("/aside/a0"))
    open(outside.path("/a0/deep/secret too.mp3"), "wb").close()
    wait_for(lambda: not any(path.startswith("/m/a0") for path in volume.catalogue.live()), "the folder's end")
    assert_converged(volume)
    daemon.stop()
    assert not any(row.name.startswith("secret") for row in volume.rows().files)
