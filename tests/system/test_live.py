"""Changes while the daemon runs: what the watcher makes of kernel records, and how the catalogue follows.

A burst ends after five seconds of quiet, so each test gathers what it can in one. Where the order of records within one
read matters, the daemon is stopped while they arise: it then reads them all at once.
"""
import os
import shutil
import threading

import pytest

from catalogue import assert_same, edit, same, without
from harness import inotify_limit
from lines import info
from model import after_walk
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import assert_converged, live_rows


def handled(lines):
    """What the burst loop did with each changed folder."""
    return [line.text for line in lines if line.text.startswith(("Going to walk", "Skipping because", "No listener"))]


def going(path, found=0):
    return f"Going to walk {path} in handleChangeFolder and found is {found}\n"


def walked(rows, tree, *folders):
    """The rows after each of the folders has been walked."""
    for folder in folders:
        rows = after_walk(rows, tree, within=folder)
    return rows


def idle_daemon(arena, volumes, **settings):
    daemon = arena.start(volumes, **settings)
    daemon.wait_walks(sum(max(1, len(volume.crawl)) for volume in volumes))
    return daemon


def test_the_lines_of_a_burst(arena, clock):
    """One new file in a folder below a start folder, in a start folder itself, and in a volume without crawl paths."""
    below, start = arena.volume("Below", crawl=["/m"]), arena.volume("Start", crawl=["/m"])
    whole = arena.volume("Whole")
    for volume in (below, start, whole):
        volume.make_file("/m/sub/old.mp3", b"x")
    daemons = {volume: idle_daemon(arena, [volume], clock=clock) for volume in (below, start, whole)}
    quiet = {volume: len(daemon.lines) for volume, daemon in daemons.items()}
    below.create("/m/sub/new.mp3")
    start.create("/m/new.mp3")
    whole.create("/m/sub/new.mp3")

    walks = {
        below: [going(below.path("/m/sub")), f"For folder {below.path('/m/sub')}", 1,
                f"Finished walk. Walk started at {below.path('/m/sub')}\n", "Total folders/files (re)indexed: 1/2\n",
                "Actively watching 2 folders\n"],
        start: [going(start.path("/m"), 1), f"For folder {start.path('/m')}", 1, f"For folder {start.path('/m/sub')}", 0,
                f"Finished walk. Walk started at {start.path('/m')}\n", "Total folders/files (re)indexed: 2/2\n",
                "Actively watching 2 folders\n"],
        whole: [going(whole.path("/m/sub")), f"For folder {whole.path('/m/sub')}", 1,
                f"Finished walk. Walk started at {whole.path('/m/sub')}\n", "Total folders/files (re)indexed: 1/2\n",
                "Actively watching 4 folders\n"],
    }
    for volume, daemon in daemons.items():
        daemon.wait_bursts(1)
        expected = ["Processed 1 events\n", "Rate of inotify event 0\n"]
        for step in walks[volume]:
            if isinstance(step, int):
                expected += [f"Add file count = {step}, Delete file count = 0", "Add folder count = 0, Delete folder count = 0"]
            else:
                expected.append(step)
        expected.insert(len(expected) - 1, "The time taken: 0\n")
        expected += ["Handled 1 events in 0 seconds ", "======\n"]
        assert daemon.lines[quiet[volume]:] == [info(text) for text in expected]

    # Nothing that the daemon itself wrote has woken it: the next burst is that of the next file alone.
    whole.create("/another.mp3")
    daemons[whole].wait_bursts(2)
    assert [text for text in daemons[whole].texts() if text.startswith("Processed")] == ["Processed 1 events\n"] * 2
    for daemon in daemons.values():
        daemon.stop()
    assert {"/m/sub/new.mp3", "/another.mp3"} <= whole.catalogue.live()


#: Files made, by folder, while the daemon stands still; the folders then walked; the folders skipped because of the first.
REDUCTIONS = {
    "one folder": (["a", "a", "a"], ["a"], []),
    "the folder of the last records is not seen": (["a", "a", "b"], ["a"], []),
    "unless the records return to another": (["a", "b", "a"], ["a", "b"], []),
    "or a third follows": (["c", "b", "a"], ["b", "c"], []),
    "in byte order, not in order of time": (["c", "a", "b", "c"], ["a", "b", "c"], []),
    "below the smallest": (["a", "a/x", "a/x/y", "a"], ["a"], ["a/x", "a/x/y"]),
    "a name that begins like the smallest": (["a", "ab", "a"], ["a"], ["ab"]),
    "below a folder that is not the smallest": (["b", "b/x", "a", "b"], ["a", "b", "b/x"], []),
    "only the child": (["b/x", "b/x", "a"], ["b/x"], []),
}


def test_how_records_are_reduced_to_folders(arena):
    runs = []
    for number, (case, (made, walks, skips)) in enumerate(REDUCTIONS.items()):
        volume = arena.volume(f"V{number}", crawl=["/m"])
        volume.make_folder("/m/a/x/y", "/m/ab", "/m/b/x", "/m/c")
        daemon = idle_daemon(arena, [volume])
        before = volume.rows()
        with daemon.frozen():
            for place, folder in enumerate(made):
                volume.create(f"/m/{folder}/{place}.mp3")
        runs.append((case, made, walks, skips, volume, daemon, before))
    for case, made, walks, skips, volume, daemon, before in runs:
        daemon.wait_bursts(1)
        path = lambda folder: volume.path(f"/m/{folder}")
        assert (case, handled(daemon.lines)) == (case, [going(path(folder)) for folder in walks] + [
            f"Skipping because {path(folder)} is in {path(walks[0])}\n" for folder in skips])
        assert (case, daemon.count(info(f"Processed {len(made)} events\n"))) == (case, 1)
        assert_same(volume.rows(), walked(before, volume.tree(), *(f"/m/{folder}" for folder in walks)))

    # What was not seen is found with the next change there.
    late = [(volume, daemon, made[-1]) for _, made, walks, _, volume, daemon, _ in runs if made[-1] not in walks]
    assert len(late) == 3
    for volume, daemon, folder in late:
        assert not same(volume.rows(), volume.tree())
        volume.create(f"/m/{folder}/late.mp3")
    for volume, daemon, folder in late:
        daemon.wait_bursts(2)
        assert_same(without(volume.rows(), "/m/b/x"), without(volume.tree(), "/m/b/x"))
    for *_, daemon, _ in runs:
        daemon.stop()


@pytest.mark.slow
def test_everything_that_can_happen_in_folders(arena):
    """In one burst of two volumes. The last record of a read is not seen, so each ends with one that does not matter."""
    volume, second = arena.volume("First", crawl=["/m"]), arena.volume("Second", crawl=["/m", "/n"])
    for name in ("change", "rename", "touch", "delete", "replace"):
        volume.make_file(f"/m/{name}/old.mp3", b"12345", modified=1_500_000_000)
    volume.make_folder("/m/new", "/m/mkdir", "/m/copied", "/m/strange", "/m/to", "/m/zz", "/m/rmdir/empty", "/m/into")
    for path in ("rmtree/tree/a", "moved out/tree/a", "from/tree/a", "renamed/tree/a", "copy of"):
        volume.make_file(f"/m/{path}/f.mp3", b"x")
    volume.make_file("/m/from/single.mp3", b"x")
    volume.make_folder("/m/replace/folder")
    second.make_file("/n/old.mp3", b"x")
    outside = arena.volume("Outside")
    outside.make_file("/tree/a/f.jpg", b"x")
    daemon = idle_daemon(arena, [volume, second])
    before, before_second = volume.rows(), second.rows()

    with daemon.frozen():
        second.make_file("/n/new.mp3", b"x")
        volume.make_file("/m/new/file.mp3", b"x")
        volume.make_file("/m/new/.hidden.mp3", b"x")
        volume.make_file("/m/new/\udcff.jpg", b"x")
        volume.make_file("/m/new/large.mkv", size=2**32 + 5)
        volume.make_file("/m/change/old.mp3", b"123456", modified=1_500_000_000)
        os.rename(volume.path("/m/rename/old.mp3"), volume.path("/m/rename/new.mkv"))
        os.utime(volume.path("/m/touch/old.mp3"), (1_500_000_001, 1_500_000_001))
        os.unlink(volume.path("/m/delete/old.mp3"))
        volume.make_file("/m/mkdir/x/y/z/deep.mp3", b"x")
        shutil.copytree(volume.path("/m/moved out"), volume.path("/m/copied/tree"))
        os.rmdir(volume.path("/m/rmdir/empty"))
        shutil.rmtree(volume.path("/m/rmtree/tree"))
        os.unlink(volume.path("/m/replace/old.mp3"))
        volume.make_folder("/m/replace/old.mp3")
        os.rmdir(volume.path("/m/replace/folder"))
        volume.make_file("/m/replace/folder", b"x")
        os.symlink("old.mp3", volume.path("/m/strange/link.mp3"))
        os.mkfifo(volume.path("/m/strange/fifo.mp3"))
        os.rename(volume.path("/m/moved out/tree"), arena.path("tree"))
        os.rename(volume.path("/m/renamed/tree"), volume.path("/m/renamed/named"))
        os.rename(volume.path("/m/from/tree"), volume.path("/m/to/tree"))
        os.rename(volume.path("/m/from/single.mp3"), volume.path("/m/to/single.MP3"))
        os.rename(outside.path("/tree"), volume.path("/m/into/tree"))
        volume.create("/m/zz/unseen")
    daemon.wait_bursts(1)
    changed = ["new", "change", "rename", "touch", "delete", "mkdir", "copied", "rmdir", "rmtree", "replace", "strange",
               "moved out", "renamed", "from", "to", "into"]
    after = walked(before, volume.tree(), *(f"/m/{name}" for name in changed))
    assert_same(volume.rows(), after)
    assert_same(second.rows(), walked(before_second, second.tree(), "/n"))
    assert "/m/zz/unseen" not in volume.catalogue.live()
    assert {going(volume.path(f"/m/{name}")) for name in changed} | {going(second.path("/n"), 1)} <= set(daemon.texts())
    ids = volume.catalogue.file_ids()
    assert set(daemon.output().splitlines()) <= {f"Deleting file {number}" for number in ids.values()}
    assert daemon.errors() == []

    # The watches of the three folders that live on elsewhere were given up, which the kernel reports on descriptors that
    # nobody knows any more. No folder can be told from that.
    daemon.wait_bursts(2)
    assert daemon.errors() == ["No listener/directory found for \n"]
    assert daemon.count(info("Processed 3 events\n")) == 1

    # What came is watched, under the path that it has now.
    with daemon.frozen():
        came = ["mkdir/x/y/z", "copied/tree/tree/a", "renamed/named/a", "to/tree/a", "into/tree/a", "replace/old.mp3"]
        for path in came:
            volume.create(f"/m/{path}/after.mp3")
        volume.create("/m/zz/unseen too")
    daemon.wait_bursts(3)
    assert handled(daemon.lines)[-len(came):] == [going(volume.path(f"/m/{path}")) for path in sorted(came)]
    assert_same(volume.rows(), walked(after, volume.tree(), *(f"/m/{path}" for path in came)))
    assert daemon.errors() == ["No listener/directory found for \n"]
    daemon.stop()


def test_changes_made_while_the_daemon_looks_on(arena):
    """Nothing is stopped here, as in real life. Each burst has records of one folder only, so however many reads it takes,
    that folder is seen. (The removal of a watched folder would add a record of its own watch, mostly before its parent's.)"""
    volume, start, deep = (arena.volume(name, crawl=["/m"]) for name in ("Files", "Start", "Deep"))
    for name in "abc":
        volume.make_file(f"/m/sub/{name}.mp3", b"x")
    start.make_file("/m/gone/deep/1.mp3", b"x")
    daemons = [idle_daemon(arena, [each]) for each in (volume, start, deep)]
    befores = [each.rows() for each in (volume, start, deep)]
    volume.make_file("/m/sub/new.mp3", b"123")
    os.rename(volume.path("/m/sub/a.mp3"), volume.path("/m/sub/z.mp3"))
    os.unlink(volume.path("/m/sub/b.mp3"))
    volume.make_file("/m/sub/c.mp3", b"longer")
    os.rename(start.path("/m/gone"), arena.path("gone"))
    deep.make_file("/m" + "/d" * 300 + "/f.mp3", b"x")
    for daemon, each, before in zip(daemons, (volume, start, deep), befores):
        daemon.wait_bursts(1)
        wait_for(lambda: same(each.rows(), after_walk(before, each.tree())), f"the rows of {each.name}")
        daemon.stop()


def test_a_removed_start_folder_keeps_its_rows(arena):
    volume = arena.volume(crawl=["/a", "/b"])
    volume.make_folder("/b/sub")
    daemon = idle_daemon(arena, [volume])
    before = volume.rows()
    os.rmdir(volume.path("/a"))
    daemon.wait_bursts(1)
    assert handled(daemon.lines) == [going(volume.path("/a"), 1)]
    assert daemon.texts()[-9:-2] == [
        f"For folder {volume.path('/a')}", "Add file count = 0, Delete file count = 0",
        "Add folder count = 0, Delete folder count = 0", f"Finished walk. Walk started at {volume.path('/a')}\n",
        "Total folders/files (re)indexed: 1/0\n", "The time taken: 0\n", "Actively watching 3 folders\n"]
    assert_same(volume.rows(), before)
    daemon.stop()
    assert_same(volume.rows(), before)


@pytest.mark.slow
@pytest.mark.skipif(inotify_limit("max_queued_events") > 1 << 17, reason="the kernel queues more than is made here")
def test_more_records_than_the_kernel_keeps(arena):
    """The kernel then adds a record without a folder. Only when that record begins a read is it looked up, and hides what
    else there is in the burst; what was not seen is found with the next change."""
    volume = arena.volume(crawl=["/m"])
    volume.make_folder("/m/sub")
    daemon = idle_daemon(arena, [volume])
    limit = inotify_limit("max_queued_events")
    with daemon.frozen():
        for number in range(limit + 500):
            volume.create(f"/m/sub/{number}.mp3")
    daemon.wait_bursts(1)
    assert daemon.count(info(f"Processed {limit + 1} events\n")) == 1
    record = 16 + 16  # the header, and a name of up to fifteen bytes
    begins_a_read = limit % (262144 // record) == 0
    path = volume.path("/m/sub")
    assert handled(daemon.lines) == (
        ["No listener/directory found for \n", f"Skipping because {path} is in \n"] if begins_a_read else [going(path)])
    volume.create("/m/sub/last")
    daemon.wait_bursts(2)
    rows = volume.rows()
    assert len(rows.files) == limit + 501
    assert_same(rows, volume.tree())
    daemon.stop()


def test_a_stream_of_changes_is_cut_after_300_seconds(arena, clock):
    volume = arena.volume(crawl=["/m"])
    daemon = idle_daemon(arena, [volume], clock=clock)
    done = threading.Event()

    def keep_changing():
        number = 0
        while not done.wait(0.2):
            volume.create(f"/m/{number}.mp3")
            number += 1

    stream = threading.Thread(target=keep_changing)
    stream.start()
    try:
        wait_for(lambda: len(os.listdir(volume.path("/m"))) > 3, "some changes")
        assert daemon.bursts() == 0
        clock.advance(300)
        # The stream goes on, so no quiet time can have ended this burst.
        daemon.wait_bursts(1)
        assert "/m/0.mp3" in volume.catalogue.live()
    finally:
        done.set()
        stream.join()
    daemon.wait_bursts(2)
    assert_same(volume.rows(), after_walk(volume.rows(), volume.tree()))
    assert {f"/m/{name}" for name in os.listdir(volume.path("/m"))} <= volume.catalogue.live()
    daemon.stop()


def test_a_burst_wakes_the_purge_thread(arena, clock):
    volume = arena.volume(crawl=["/m"])
    daemon = idle_daemon(arena, [volume], clock=clock, purge_threshold=1000)
    purged = len([text for text in daemon.texts() if text.startswith("Purging")])
    assert purged <= 1  # the thread's first pass comes before the walk has begun, or finds it walking
    volume.create("/m/1.mp3")
    daemon.wait_line(info(f"Done with the purge {clock.now}\n"))
    daemon.wait_bursts(1)
    assert daemon.count(info(f"Purging the DB at {clock.now}\n")) == 1
    daemon.stop()


# Folders that hang on nothing

#: Without a crawl path, and without the catalogue's own folder.
WHOLE = {"exclude": ["/.quarrow"]}


def parents(volume):
    """Of each live folder, the folder that its row hangs on."""
    return {row.path: row.parent for row in volume.rows().folders if not row.deleted}


def ids(volume):
    """The id of each path, which a row keeps for as long as it is there."""
    return {("folder", *each) for each in volume.catalogue.folder_ids().items()} | {
        ("file", *each) for each in volume.catalogue.file_ids().items()}


def test_a_folder_that_is_looked_at_before_the_folder_above_it_is_back(arena):
    """Its row then finds no live parent. The next full walk sees to that, or the row would outlive the folder for ever."""
    volume = arena.volume(**WHOLE)
    volume.make_file("/x/y/1.mp3", b"x")
    daemon = idle_daemon(arena, [volume], environment=fast_clock(300))  # the order matters here, and how long nothing does
    before = ids(volume)
    os.rename(volume.path("/x"), arena.path("x"))
    wait_for(lambda: volume.catalogue.live() == {""}, "all of it marked deleted")
    daemon.wait_bursts(2)  # the second has only the end of the folder's watch, which would hide what else it has

    # /x/y is watched wherever it is. Of the two folders of the read, the last one is not seen.
    with daemon.frozen():
        os.mknod(arena.path("x/y/2.mp3"))
        os.rename(arena.path("x"), volume.path("/x"))
    daemon.wait_bursts(3)
    assert handled(daemon.lines)[-1] == going(volume.path("/x/y"))
    assert parents(volume) == {"": None, "/x/y": None}

    daemon.rewalk()
    assert_converged(volume)
    assert parents(volume) == {"": None, "/x": "", "/x/y": "/x"}
    assert before <= ids(volume)

    os.rename(volume.path("/x"), arena.path("x"))
    wait_for(lambda: "/x" not in volume.catalogue.live(), "the folder marked deleted")
    assert volume.catalogue.live() == {""}
    daemon.stop()


def hang_on_nothing(volume, *paths):
    for path in paths:
        edit(volume.catalogue.path, "update Folders set parent_id = -1 where path = ?", path)


def test_rows_that_hang_on_nothing_since_long_ago(arena):
    """Of folders that are there, their rows get their parents back; of folders that are gone, also those of which nothing
    else would ever tell, they are marked deleted with all below."""
    volume = arena.volume(**WHOLE)
    for path in ("/there/stray/below", "/there/chain/of/strays", "/gone/stray/below", "/gone/chain/of/strays", "/link/stray",
                 "/file/stray"):
        volume.make_file(f"{path}/1.mp3", b"x")
        volume.make_file(f"{os.path.dirname(path)}/1.mp3", b"x")
    daemon = idle_daemon(arena, [volume])
    daemon.stop()
    before = ids(volume)
    hang_on_nothing(volume, "/there/stray", "/there/chain/of", "/there/chain/of/strays", "/gone/stray", "/gone/chain/of",
                    "/gone/chain/of/strays", "/link/stray", "/file/stray")
    for top in ("/gone", "/gone/chain", "/link", "/file"):
        edit(volume.catalogue.path, "update Folders set is_deleted = 1 where path = ?", top)
        edit(volume.catalogue.path, "update Files set is_deleted = 1 where path = ?", f"{top}/1.mp3")
        if os.path.exists(volume.path(top)):
            shutil.rmtree(volume.path(top))
    os.symlink("there", volume.path("/link"))  # what is behind a link is none of the volume's
    volume.make_file("/file", b"x")

    daemon = idle_daemon(arena, [volume])
    assert_converged(volume)
    daemon.stop()
    assert before <= ids(volume)
    assert daemon.errors() == []


@pytest.mark.parametrize("purged", [False, True])
@pytest.mark.parametrize("crawl", [[], ["/crawled"]])
def test_live_rows_below_rows_that_are_not(arena, crawl, purged):
    """A kill of an earlier release could leave them, in the removal of a former crawl path. What is there gets its place
    back, whatever became of the row above it; the rest is marked deleted."""
    volume = arena.volume(**WHOLE)
    for path in ("/crawled/there/below", "/crawled/gone/below", "/former/gone"):
        volume.make_file(f"{path}/1.mp3", b"x")
        volume.make_file(f"{os.path.dirname(path)}/1.mp3", b"x")
    daemon = idle_daemon(arena, [volume])
    daemon.stop()
    volume.crawl = crawl
    for path in ("/former", "/crawled/gone"):
        shutil.rmtree(volume.path(path))
    for top in ("", "/crawled/there", "/crawled/gone", "/former"):
        edit(volume.catalogue.path, "update Folders set is_deleted = 1 where path = ?", top)
    edit(volume.catalogue.path, "update Files set is_deleted = 1 where path = '/crawled/there/1.mp3'")
    if purged:
        edit(volume.catalogue.path, "delete from Folders where is_deleted")
    for _ in range(2):
        daemon = idle_daemon(arena, [volume])
        assert_converged(volume)
        daemon.stop_without_errors()


def test_what_cannot_be_seen_is_not_gone(arena, clock):
    """Rows that hang on nothing, once more: of folders that no walk comes by though they are there, and of a volume whose
    folder is away for a while, they stay as they are."""
    away, excluded, seen = arena.volume("Away", **WHOLE), arena.volume("Excluded", **WHOLE), arena.volume("Seen", **WHOLE)
    volumes = [away, excluded, seen]
    for volume in volumes:
        volume.make_file("/x/stray/below/1.mp3", b"x")
    daemon = idle_daemon(arena, volumes)
    daemon.stop()
    for volume in volumes:
        hang_on_nothing(volume, "/x/stray")
    excluded.exclude.append("/x/s")
    shutil.rmtree(seen.path("/x/stray"))
    before = {volume: live_rows(volume.rows()) for volume in volumes}

    daemon = arena.start(volumes, clock=clock, standby=True)
    daemon.wait_line(info("Volume in standby, ignoring purge"), 3)
    daemon.set_standby(False)
    os.rename(away.folder, arena.path("elsewhere"))
    daemon.rewalk(clock)
    os.rename(arena.path("elsewhere"), away.folder)
    assert_same(live_rows(away.rows()), before[away])
    assert_same(without(live_rows(excluded.rows()), "/x"), without(live_rows(excluded.tree()), "/x"))
    assert seen.catalogue.live() - {"/.tickle"} == {"", "/x"}
    in_x = lambda rows: [row for kind in rows for row in kind if row.path.startswith("/x")]
    assert in_x(live_rows(excluded.rows())) == in_x(before[excluded])
    daemon.stop()
