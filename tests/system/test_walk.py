"""The first walk of a volume: every row of the catalogue against a model made from the tree alone."""
import os
import re
from collections import deque

import pytest

from catalogue import assert_same, without
from lines import info, walk_lines
from trees import AWKWARD_NAMES, extensions, make_empty_folders, make_media_tree, make_strangers

SUMMARY = re.compile(r"For folder (.*)", re.DOTALL)


def folder_summaries(lines):
    """The summary of each folder, in the order walked: path, files added and deleted, folders added and deleted."""
    summaries = []
    walk = deque(line.text for line in walk_lines(lines))
    while walk:
        match = SUMMARY.fullmatch(walk.popleft())
        if match:
            files = re.fullmatch(r"Add file count = (\d+), Delete file count = (\d+)", walk.popleft())
            folders = re.fullmatch(r"Add folder count = (\d+), Delete folder count = (\d+)", walk.popleft())
            summaries.append((match[1], *map(int, files.groups()), *map(int, folders.groups())))
    return summaries


def test_a_large_tree_row_by_row(arena):
    volume = arena.volume("Volume1", crawl=["/media"])
    make_media_tree(volume, "/media", folders=300, files=3000, seed=1)
    make_strangers(volume, "/media")
    daemon = arena.start([volume])
    daemon.wait_walks()
    rows, tree = volume.rows(), volume.tree()
    assert len(tree.folders) == 301 and len(tree.files) == 3011  # the model saw what was made
    assert_same(rows, tree)
    assert {row.category for row in rows.files} == {1, 2, 3, 4}

    # Every folder has its summary, parents before children, with all its files new.
    summaries = folder_summaries(daemon.lines)
    here = {volume.path(row.path): 0 for row in tree.folders}
    for row in tree.files:
        here[volume.path(row.folder)] += 1
    assert sorted(summaries) == sorted((path, count, 0, 0, 0) for path, count in here.items())
    order = {summary[0]: place for place, summary in enumerate(summaries)}
    depths = [path.count("/") for path in order]
    assert depths == sorted(depths)
    assert daemon.count(info("Total folders/files (re)indexed: 301/3011\n")) == 1
    assert daemon.count(info("Actively watching 301 folders\n")) == 1
    assert daemon.errors() == []
    daemon.stop()
    assert_same(without(volume.rows(), "/media/.tickle"), tree)
    assert volume.catalogue.is_sound()


def test_every_extension_of_the_table_in_every_spelling(arena):
    volume = arena.volume(crawl=["/m"])
    for extension in extensions():
        for spelling in {extension, extension.upper(), extension.lower(), extension.swapcase()}:
            volume.make_file(f"/m/name.{spelling}")
        volume.make_file(f"/m/{extension}")
        volume.make_file(f"/m/.{extension}")
        volume.make_file(f"/m/x.{extension}.")
        volume.make_file(f"/m/x.mp3.{extension}x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_same(volume.rows(), volume.tree())
    assert len(volume.rows().files) > 4 * len(extensions()) > 400
    daemon.stop()


def test_the_whole_volume_with_the_folder_of_the_catalogue_itself(arena):
    volume = arena.volume()
    make_media_tree(volume, "/", folders=30, files=100, seed=2)
    daemon = arena.start([volume])
    daemon.wait_walks()
    rows, tree = volume.rows(), volume.tree()
    assert_same(without(rows, "/.quarrow"), without(tree, "/.quarrow"))
    root = next(row for row in rows.folders if row.path == "")
    assert (root.name, root.parent, root.hidden) == ("", None, 0)
    # The catalogue changes while it is being written, so its own rows are compared by what does not.
    own = {(row.name, row.folder, row.category, row.hidden) for row in rows.files if row.path.startswith("/.quarrow/")}
    assert {("quarrow.db", "/.quarrow", 4, 1), ("quarrow-volume.xml", "/.quarrow", 4, 1)} <= own
    assert {name for name, *_ in own} <= {"quarrow.db", "quarrow.db-wal", "quarrow.db-shm", "quarrow-volume.xml"}
    daemon.stop_without_errors()


def test_several_volumes_keep_to_themselves(arena):
    volumes = [arena.volume(name, crawl=["/media", "/Photos/"]) for name in ("B", "A", "with blank", "ä")]
    for number, volume in enumerate(volumes):
        make_media_tree(volume, "/media", folders=20, files=60 + number, seed=number)
        make_media_tree(volume, "/Photos", folders=5 + number, files=20, seed=10 + number)
    daemon = arena.start(volumes)
    daemon.wait_walks(8)
    for volume in volumes:
        assert_same(volume.rows(), volume.tree())
    for volume in volumes:
        starts = [line for line in daemon.texts() if line.startswith("Finished walk") and volume.path("/") in line]
        assert starts == [f"Finished walk. Walk started at {volume.path(path)}\n" for path in ("/media", "/Photos")]
    daemon.stop()
    assert daemon.count(info("sqlite3 handle closed\n")) == 4
    assert daemon.errors() == []


def test_crawl_paths_overlap_repeat_and_lead_nowhere(arena):
    volume = arena.volume(crawl=["/a/b", "/a", "/a/b", "/c", "/c/d"])
    volume.make_file("/a/b/c/1.mp3", b"x")
    volume.make_file("/a/2.mp3", b"x")
    volume.make_file("/outside/3.mp3", b"x")
    volume.make_file("/c/d/e/4.mp3", b"x")
    volume.make_file("/a file", b"x")
    volume.crawl += ["/nowhere", "/a file"]
    daemon = arena.start([volume])
    daemon.wait_walks(7)
    assert volume.catalogue.live() == {"/a", "/a/2.mp3", "/a/b", "/a/b/c", "/a/b/c/1.mp3", "/c", "/c/d", "/c/d/e", "/c/d/e/4.mp3"}
    # A folder that is walked as a start folder first has no parent, one that is reached from above first has.
    parents = {row.path: row.parent for row in volume.rows().folders}
    assert parents == {"/a": None, "/a/b": None, "/a/b/c": "/a/b", "/c": None, "/c/d": "/c", "/c/d/e": "/c/d"}
    assert_same(volume.rows(), volume.tree())
    daemon.stop_without_errors()


def test_what_lies_above_a_crawl_path_gets_rows_without_times_that_the_next_walk_removes(arena):
    """The first new folder below a crawl path of several elements brings a row for every other folder above it."""
    volume = arena.volume(crawl=["/a/b", "/p/q/r"])
    volume.make_file("/a/b/c/1.mp3", b"x")
    volume.make_file("/p/q/r/s/t/2.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    rows = volume.rows()
    assert_same(rows, volume.tree())
    assert {(row.path, row.name, row.parent, row.created, row.modified) for row in rows.folders if not row.modified} == {
        ("/a", "a", None, 0, 0), ("/p/q", "q", None, 0, 0)}
    daemon.stop()
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    assert {row.path for row in volume.rows().folders if row.deleted} == {"/a", "/p/q"}
    for path in ("/a", "/p/q"):
        assert daemon.count(info(f"not found {path} so removing\n")) == 1
    assert {"/a/b", "/a/b/c", "/a/b/c/1.mp3", "/p/q/r", "/p/q/r/s", "/p/q/r/s/t", "/p/q/r/s/t/2.mp3"} <= volume.catalogue.live()
    daemon.stop()


def test_what_is_excluded(arena):
    """An exclude string counts anywhere in the absolute path, but only in a longer one."""
    volume = arena.volume(crawl=["/m", "/x"])
    volume.exclude = [volume.path("/m/tmp"), "/cache", "-part-", volume.path("/x/"), ".d"]
    volume.make_file("/m/a file of the base.mp3", b"x")
    for path in ("/m/tmp", "/m/tmp/inner", "/m/tmpfiles", "/m/a tmp", "/m/cache", "/m/a/cache", "/m/a/precached", "/m/a-part-b",
                 "/m/a.dir", "/m/keep/me", "/x/below"):
        volume.make_file(f"{path}/1.mp3", b"x")
    volume.make_file("/m/keep/cache", b"a file may be called so")
    daemon = arena.start([volume])
    daemon.wait_walks(2)
    assert_same(volume.rows(), volume.tree())
    # The folder that is itself the exclude string is catalogued with its files; what lies below it is not.
    assert volume.catalogue.live() == {
        "/m", "/m/a file of the base.mp3", "/m/tmp", "/m/tmp/1.mp3", "/m/a tmp", "/m/a tmp/1.mp3", "/m/a", "/m/keep",
        "/m/keep/cache", "/m/keep/me", "/m/keep/me/1.mp3", "/m/a/precached", "/m/a/precached/1.mp3", "/x"}
    assert daemon.count(info("Actively watching 8 folders\n")) == 1
    daemon.stop()


def test_a_link_as_start_folder_is_followed_but_none_below_it(arena):
    volume = arena.volume("Volume1", folder="elsewhere")
    volume.make_file("/m/a.mp3", b"x")
    os.symlink("m", volume.path("/n"))
    os.symlink("..", volume.path("/m/up"))
    os.symlink("elsewhere", arena.path("link"))
    volume.root, volume.crawl = arena.path("link"), ["/n"]
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert volume.catalogue.live() == {"/n", "/n/a.mp3"}
    assert_same(volume.rows(), volume.tree())
    daemon.stop()


def test_awkward_names_of_volumes_and_folders(arena):
    """The stop leaves its mark in the first watched folder, whatever that is called, and runs nothing that is in the name."""
    names = [name for name in AWKWARD_NAMES if name.isprintable() and not name.startswith("x" * 9)][:24]
    names += ["a;touch pwned", "a\ntouch pwned", "a && touch pwned", "a'; touch pwned; '", '"; touch pwned; "', "$HOME", "~", "-a"]
    volumes = [arena.volume(f"V{number}", crawl=["/first"], folder=f"{number}{name}") for number, name in enumerate(names)]
    for volume in volumes:
        volume.make_file("/first/a.mp3", b"x")
    for group in (volumes[0::2], volumes[1::2]):
        daemons = [arena.start([volume]) for volume in group]
        for daemon, volume in zip(daemons, group):
            daemon.wait_walks()
            assert_same(volume.rows(), volume.tree())
            daemon.stop()
            assert sorted(os.listdir(volume.path("/first"))) == [".tickle", "a.mp3"]
    for folder, folders, files in os.walk(arena.folder):
        assert not any("pwned" in name for name in files), folder
        assert folder == arena.folder or "pwned" not in folders


@pytest.mark.slow
def test_progress_is_told_for_every_thousand_folders(arena):
    volume = arena.volume(crawl=["/m"])
    make_empty_folders(volume, "/m", 2500)
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert [text for text in daemon.texts() if text.startswith("Processed")] == [
        "Processed 1000 folders\n", "Processed 2000 folders\n"]
    assert daemon.count(info("Total folders/files (re)indexed: 2500/0\n")) == 1
    assert_same(volume.rows(), volume.tree())
    daemon.stop()


def test_names_that_fill_255_bytes_and_paths_that_reach_the_limit(arena):
    volume = arena.volume(crawl=["/m"])
    volume.make_folder("/m")
    folder = os.open(volume.path("/m"), os.O_PATH)
    length = len(os.fsencode(volume.path("/m")))
    while length < 4600:  # beyond what any path can name
        for name in ("f" * 251 + ".mp3", "g" * 40 + ".jpg", "h"):
            os.close(os.open(name, os.O_CREAT | os.O_WRONLY, 0o644, dir_fd=folder))
        name = "d" * (255 if length < 3000 else 101)
        os.mkdir(name, dir_fd=folder)
        below = os.open(name, os.O_PATH, dir_fd=folder)
        os.close(folder)
        folder = below
        length += len(name) + 1
    os.close(folder)
    daemon = arena.start([volume])
    daemon.wait_walks()
    tree = volume.tree()
    longest = max(len(volume.path(row.path)) for row in tree.folders + tree.files)
    assert 4050 < longest <= 4095
    assert_same(volume.rows(), tree)
    daemon.stop_without_errors()
