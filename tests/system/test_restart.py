"""What changed while no daemon was running is in the catalogue after the next walk."""
import os
import shutil

from catalogue import assert_same, edit, insert_chain
from lines import info
from model import as_32_bit, after_walk
from trees import make_media_tree, make_strangers


def run(arena, volumes, walks, **settings):
    """Lets a daemon walk the volumes and stops it. Returns it with what each catalogue said, and ought to say of the tree,
    before the stop left its mark there."""
    daemon = arena.start(volumes, **settings)
    daemon.wait_walks(walks)
    rows = [volume.rows() for volume in volumes]
    trees = [volume.tree() for volume in volumes]
    daemon.stop()
    for volume in volumes:
        assert volume.catalogue.is_sound()
    return daemon, rows, trees


def test_everything_that_can_happen_to_a_tree(arena):
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m/random", folders=60, files=400, seed=3)
    for name in ("keep", "grow", "touch", "same size and time", "delete", "rename"):
        volume.make_file(f"/m/f/{name}.mp3", b"12345", modified=1_500_000_000)
    volume.make_file("/m/gone/deep/er/x.jpg", b"x")
    volume.make_file("/m/gone/y.jpg", b"x")
    volume.make_file("/m/moved/deep/z.jpg", b"x")
    volume.make_folder("/m/file or folder", "/m/empty")
    volume.make_file("/m/folder or file", b"x")
    _, [before], _ = run(arena, [volume], 1)
    ids = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}

    volume.make_file("/m/f/grow.mp3", b"123456", modified=1_500_000_000)
    volume.make_file("/m/f/touch.mp3", b"12345", modified=1_500_000_001)
    volume.make_file("/m/f/same size and time.mp3", b"54321", modified=1_500_000_000)
    volume.make_file("/m/f/new.MP3", b"1")
    os.unlink(volume.path("/m/f/delete.mp3"))
    os.rename(volume.path("/m/f/rename.mp3"), volume.path("/m/f/renamed.mkv"))
    shutil.rmtree(volume.path("/m/gone"))
    os.rename(volume.path("/m/moved"), volume.path("/m/f/was moved"))
    os.rmdir(volume.path("/m/file or folder"))
    volume.make_file("/m/file or folder", b"x")
    os.unlink(volume.path("/m/folder or file"))
    volume.make_folder("/m/folder or file")
    volume.make_file("/m/new/folder/of/files.png", b"x")
    daemon, [after], [tree] = run(arena, [volume], 1)
    expected = after_walk(before, tree)
    assert_same(after, expected)
    assert {row.path for row in expected.folders if row.deleted} == {
        "/m/gone", "/m/gone/deep", "/m/gone/deep/er", "/m/moved", "/m/moved/deep", "/m/file or folder"}
    kept = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}
    for path in ("/m/gone", "/m/f/delete.mp3", "/m/f/grow.mp3", "/m/f", "/m/moved/deep/z.jpg"):
        assert kept[path] == ids[path]
    # Marking a folder says so once, for the topmost folder that is gone.
    removed = sorted(text for text in daemon.texts() if text.startswith("Removing"))
    assert removed == sorted(f"Removing {volume.path(path)} \n" for path in ("/m/gone", "/m/moved", "/m/file or folder"))
    assert sorted(daemon.output().splitlines()) == sorted(
        f"Deleting file {ids[path]}" for path in ("/m/f/delete.mp3", "/m/f/rename.mp3", "/m/folder or file"))

    # Back they come, under the ids they had.
    volume.make_file("/m/gone/deep/er/x.jpg", b"xyz")
    volume.make_file("/m/f/delete.mp3", b"new")
    os.rename(volume.path("/m/f/was moved"), volume.path("/m/moved"))
    daemon, [again], [tree] = run(arena, [volume], 1)
    expected = after_walk(after, tree)
    assert_same(again, expected)
    assert {row.path for row in expected.folders if row.deleted} == {"/m/file or folder", "/m/f/was moved", "/m/f/was moved/deep"}
    revived = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}
    assert revived == {**kept, **{path: revived[path] for path in revived.keys() - kept.keys()}}
    for path in ("/m/gone", "/m/gone/deep", "/m/gone/deep/er", "/m/moved", "/m/moved/deep"):
        assert daemon.count(info(f"Row for folder {path} exists in the DB so updating it\n")) == 1
    for path in ("/m/gone/deep/er/x.jpg", "/m/f/delete.mp3", "/m/moved/deep/z.jpg"):
        assert daemon.count(info(f"Row for file {path} exists in the DB so updating it\n")) == 1
    assert daemon.errors() == []


def test_a_walk_writes_only_what_changed(arena, clock):
    """Seen by the time of each row's last update. A size that 32 bits cannot hold never reads back as it is, so such a
    file is written at every walk."""
    volume = arena.volume(crawl=["/m"])
    make_media_tree(volume, "/m", folders=20, files=100, seed=4)
    make_strangers(volume, "/m")
    start = clock.now
    _, [before], _ = run(arena, [volume], 1, clock=clock)
    first = volume.catalogue.updated()
    assert set(first.values()) == {start}

    os.utime(volume.path("/m"), (5, 5))  # the mark of the stop may have come within the second of the row's time
    clock.advance(1000)
    _, [after], [tree] = run(arena, [volume], 1, clock=clock)
    assert_same(after, after_walk(before, tree))
    large = {row.path for row in after.files if row.size != as_32_bit(row.size)}
    assert len(large) == 4
    second = volume.catalogue.updated()
    assert {path for path, time in second.items() if time == start + 1000} == large | {"/m", "/m/.tickle"}
    assert {time for path, time in second.items() if path not in large | {"/m", "/m/.tickle"}} == {start}


def test_a_file_of_over_four_gigabytes_loses_its_upper_half_when_it_comes_back_until_the_next_walk(arena):
    volume = arena.volume(crawl=["/m"])
    size = 5 * 2**30 + 7
    read = lambda rows: next(row.size for row in rows.files if row.name == "large.mkv")
    volume.make_file("/m/large.mkv", size=size)
    sizes = []
    for there in (True, False, True, True):
        if there:
            volume.make_file("/m/large.mkv", size=size)
        elif os.path.exists(volume.path("/m/large.mkv")):
            os.unlink(volume.path("/m/large.mkv"))
        sizes.append(read(run(arena, [volume], 1)[1][0]))
    assert sizes == [size, size, 2**30 + 7, size]


def test_top_level_folders_that_are_no_crawl_path_any_more_are_removed(arena):
    volume = arena.volume(crawl=["/a", "/c"])
    for path in ("/a/1.mp3", "/a/sub/2.mp3", "/b/3.mp3", "/c/4.mp3", "/c/sub/5.mp3"):
        volume.make_file(path, b"x")
    _, [before], _ = run(arena, [volume], 2)

    volume.crawl = ["/a", "/b"]
    daemon, [after], [tree] = run(arena, [volume], 2)
    expected = after_walk(before, tree)
    assert_same(after, expected)
    assert {row.path for row in expected.folders if row.deleted} == {"/c", "/c/sub"}
    started = [line.text for line in daemon.lines if line.text.startswith(("Checking if", "not found", "For folder"))]
    assert started == ["Checking if the folder /a exists in the path list", "Checking if the folder /c exists in the path list",
                       "not found /c so removing\n", f"For folder {volume.path('/a')}", f"For folder {volume.path('/a/sub')}",
                       f"For folder {volume.path('/b')}"]


def test_from_the_whole_volume_to_crawl_paths_and_back(arena):
    """The row of the volume itself is the only one without a parent, so with it go all; the walk brings back its part."""
    volume = arena.volume()
    for path in ("/a/1.mp3", "/a/sub/2.mp3", "/b/3.mp3"):
        volume.make_file(path, b"x")
    run(arena, [volume], 1)
    ids = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}

    volume.crawl = ["/a"]
    daemon, [rows], _ = run(arena, [volume], 1)
    assert daemon.count(info("not found  so removing\n")) == 1
    assert {row.path for row in rows.folders + rows.files if not row.deleted} == {"/a", "/a/1.mp3", "/a/sub", "/a/sub/2.mp3"}
    assert next(row.parent for row in rows.folders if row.path == "/a") is None

    volume.crawl = []
    _, [rows], _ = run(arena, [volume], 1)
    live = {row.path for row in rows.folders + rows.files if not row.deleted}
    assert {"", "/a", "/a/1.mp3", "/a/sub", "/a/sub/2.mp3", "/b", "/b/3.mp3", "/.quarrow", "/.quarrow/quarrow.db"} <= live
    now = {**volume.catalogue.folder_ids(), **volume.catalogue.file_ids()}
    assert {path: now[path] for path in ids} == ids


def test_a_folder_excluded_later_keeps_its_rows(arena):
    """It is still in its parent's listing, so it has not vanished; it is only not looked into any more."""
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/skip/1.mp3", b"x")
    volume.make_file("/m/2.mp3", b"x")
    _, [before], _ = run(arena, [volume], 1)
    volume.exclude = ["/skip"]
    volume.make_file("/m/skip/unseen.mp3", b"x")
    os.unlink(volume.path("/m/skip/1.mp3"))
    daemon, [after], _ = run(arena, [volume], 1)
    kept = lambda rows: [row for row in rows.folders + rows.files if "/skip" in row.path]
    assert kept(after) == kept(before) and len(kept(after)) == 2
    assert daemon.count(info("Actively watching 1 folders\n")) == 1


def test_a_crawl_path_that_is_gone_keeps_its_rows(arena):
    """Nobody lists the folder above it: a volume that is not mounted does not lose its catalogue."""
    volume = arena.volume(crawl=["/a", "/b"])
    volume.make_file("/a/1.mp3", b"x")
    volume.make_file("/b/2.mp3", b"x")
    _, [before], _ = run(arena, [volume], 2)
    os.rename(volume.path("/b"), volume.path("/c"))
    _, [after], _ = run(arena, [volume], 2)
    assert [row for row in after.folders + after.files if row.path.startswith("/b")] == [
        row for row in before.folders + before.files if row.path.startswith("/b")]
    assert "/b/2.mp3" in volume.catalogue.live()


def test_rows_by_another_hand_are_put_right(arena):
    volume = arena.volume(crawl=["/m"])
    for name in ("size", "time", "category", "gone"):
        volume.make_file(f"/m/{name}.mp3", b"12345")
    _, [before], _ = run(arena, [volume], 1)
    edit(volume.catalogue.path, "update Files set size = 77, created_time = 5 where name = 'size.mp3'")
    edit(volume.catalogue.path, "update Files set modified_time = 77 where name = 'time.mp3'")
    edit(volume.catalogue.path, "update Files set category = 77, is_backup = 1 where name = 'category.mp3'")
    edit(volume.catalogue.path, "insert into Files(folder_id, path, name, category, size, modified_time, created_time,"
         " is_deleted, last_updated_time) select folder_id, '/m/ghost.mp3', 'ghost.mp3', 2, 1, 1, 1, 0, 1 from Folders")
    edited = volume.rows()
    _, [after], [tree] = run(arena, [volume], 1)
    assert_same(after, after_walk(edited, tree))
    rows = {row.name: row for row in after.files}
    assert (rows["size.mp3"].size, rows["size.mp3"].created) == (5, 5)
    assert rows["time.mp3"] == next(row for row in before.files if row.name == "time.mp3")
    assert (rows["category.mp3"].category, rows["category.mp3"].backup) == (77, 1)
    assert rows["ghost.mp3"].deleted == 1


def test_a_deep_tree_that_is_gone_is_marked_in_one_walk(arena):
    """Two thousand levels: the walk's small stack must not depend on the depth. The rows are put in by hand, for walking
    such a tree takes its time."""
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/keep.mp3", b"x")
    run(arena, [volume], 1)
    depth = 2000
    insert_chain(volume.catalogue.path, depth)
    before = volume.rows()
    daemon, [after], [tree] = run(arena, [volume], 1)
    assert_same(after, after_walk(before, tree))
    assert sum(row.deleted for row in after.folders) == sum(row.deleted for row in after.files) == depth
    assert daemon.errors() == []
