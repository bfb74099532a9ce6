"""`quarrowctl changes`: no row is left out, and what cannot be told is said."""
import os
import shutil
import sqlite3
import subprocess

import pytest

from catalogue import edit
from change_stream import Reader, catalogued, cursor_of, events_in, parse, rows_in, small_volume
from ctl import Ctl
from moments import seeded
from quarrow_driver.waiting import BOUND
from tracing import needs_tracer, traced, without_leak_search
from trees import AWKWARD_NAMES, change_something, media_volume, volume_of_files


def test_the_first_run_lists_all_rows_and_the_next_one_none(arena):
    volume = media_volume(arena, "V", 60, 150, seed=3)
    assert len(AWKWARD_NAMES) < 60
    catalogued(arena, volume)
    reader = Reader(Ctl(arena, [volume]), volume)
    lines = reader.run()
    assert lines[0] == {"event": "full-listing", "volume": "V"}
    assert list(lines[-1]) == ["cursor"]
    assert len(rows_in(lines)) == len(lines) - 2 == len(volume.rows().folders) + len(volume.rows().files)
    reader.mirror.assert_equals(volume)
    assert [list(line) for line in reader.run()] == [["cursor"]]
    before = reader.cursor
    assert len(rows_in(reader.run("--full"))) == len(rows_in(lines))
    assert before.isprintable() and " " not in before and reader.cursor.split(".")[0] == before.split(".")[0]


@pytest.mark.parametrize("step", [0, 1, 7])
def test_random_changes_applied_to_a_mirror_give_the_catalogue(arena, clock, step):
    """Daemons come and go, some by a kill in mid-walk; the clock stands still or goes on. A reader runs now and then, and while
    a daemon is at work. It has the real clock, against which one that stands still would be set back all the time."""
    choice = seeded("random changes")
    volume = media_volume(arena, "V", 30, 60, seed=step)
    reader = Reader(Ctl(arena, [volume]), volume)
    catalogued(arena, volume, clock)
    for number in range(10):
        change_something(volume, choice, number)
        if number % 3 == 0:  # a file's place becomes a folder's, or the other way round
            swap(volume, "/m/kind")
        daemon = arena.start([volume], clock=clock)
        if choice.random() < 0.5:
            reader.run()
            daemon.kill()
        else:
            daemon.wait_walks()
            if choice.random() < 0.7:
                reader.run()
            daemon.stop()
        clock.advance(step)
    catalogued(arena, volume, clock)
    reader.run()
    reader.mirror.assert_equals(volume)
    assert rows_in(reader.run()) == []


def swap(volume, path):
    if os.path.isdir(volume.path(path)):
        shutil.rmtree(volume.path(path))
        volume.make_file(path, b"x")
    else:
        if os.path.exists(volume.path(path)):
            os.unlink(volume.path(path))
        volume.make_file(f"{path}/sub/file.mp3", b"x")


def test_what_one_second_brings_after_it_was_read(arena, clock):
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume]), volume)
    reader.run()
    for name in ("new", "newer"):
        volume.make_file(f"/m/0/{name}.mp3", b"x")
        catalogued(arena, volume, clock)
        assert f"/m/0/{name}.mp3" in reader.changed()
    reader.mirror.assert_equals(volume)
    assert reader.changed() == []


def test_rows_become_visible_long_after_their_time(arena):
    """A folder's transaction may be open for long. Readers come by while it is: what they see is as old as its beginning."""
    volume = small_volume(arena)
    reader = Reader(Ctl(arena, [volume]), volume)
    reader.run()
    now = "strftime('%s', 'now')"
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    try:
        writer.execute("pragma journal_mode=wal")
        writer.execute(f"update Files set last_updated_time = {now} where path = '/m/0/a0.mp3'")
        writer.execute("begin immediate")
        writer.execute(f"update Files set size = 77, last_updated_time = {now} where path = '/m/0/a1.mp3'")
        begun = writer.execute("select last_updated_time from Files where size = 77").fetchone()[0]
        while writer.execute(f"select {now} > ?", [str(begun + 1)]).fetchone() == (0,):
            assert 77 not in sizes(reader.run())
        writer.execute("commit")
        assert 77 in sizes(reader.run())
        writer.execute("pragma journal_mode=delete")
    finally:
        writer.close()
    reader.mirror.assert_equals(volume)


def sizes(lines):
    return {line.get("size") for line in rows_in(lines)}


def test_damaged_cursors_are_refused(arena):
    volume = small_volume(arena)
    ctl = Ctl(arena, [volume])
    good = cursor_of(parse(ctl.good("changes").bytes))
    for bad in (good[:-1], good + "0", good.replace("qc1", "qc2"), "nonsense", good[:20] + "x" + good[21:]):
        result = ctl.run("changes", "--since", bad)
        assert (result.status, result.bytes) == (2, b"")
        assert "--since: " in result.errors and "full listing" in result.errors
    path = f"{ctl.folder}/cursor"
    with open(path, "w", encoding="ascii") as file:
        file.write(good[:-1])
    result = ctl.run("changes", "--cursor-file", path)
    assert (result.status, result.bytes) == (2, b"")
    assert path in result.errors
    assert ctl.run("changes", "--cursor-file", f"{ctl.folder}/no folder/cursor").status == 2
    assert ctl.run("changes", "--cursor-file", path, "--since", good).status == 2


@needs_tracer
@pytest.mark.parametrize("call, failure", [("fsync", "{}: The cursor cannot be stored"),
                                           ("fdatasync", "standard output: Not all of it")])
def test_a_cursor_is_stored_only_when_it_lasts(arena, call, failure):
    """The cursor's file and standard output, when the disk fails."""
    volume = small_volume(arena)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    ctl.good("changes", "--cursor-file", path)
    with open(path, "rb") as file:
        before = file.read()
    edit(volume.catalogue.path, "update Files set size = 5, last_updated_time = strftime('%s','now')")
    result = ctl.run("changes", "--cursor-file", path, environment=without_leak_search(),
                     wrapper=traced("-o", "/dev/null", f"--inject={call}:error=EIO"))
    assert result.status == 2 and 5 in sizes(parse(result.bytes))
    assert failure.format(path) in result.errors and "Input/output error" in result.errors
    with open(path, "rb") as file:
        assert file.read() == before
    assert [name for name in os.listdir(ctl.folder) if name.startswith("cursor")] == ["cursor"]
    assert 5 in sizes(parse(ctl.good("changes", "--cursor-file", path).bytes))


def test_a_volume_whose_reading_fails_half_way_prints_nothing(arena):
    good, broken = small_volume(arena, name="Good"), volume_of_files(arena, "Broken", 10, 40)
    catalogued(arena, broken)
    edit(broken.catalogue.path, "update Files set is_deleted = 1 where file_id <= 10")
    [(last,)] = broken.catalogue.query("select path from Files order by file_id desc limit 1")
    damage_table(broken.catalogue.path, os.fsencode(last))
    assert len(broken.catalogue.query("select path from Files where file_id <= 10 and is_deleted = 1")) == 10
    result = Ctl(arena, [broken, good]).run("changes")
    assert result.status == 1 and f"{broken.catalogue.path}: The catalogue is damaged" in result.errors
    lines = parse(result.bytes)
    assert {line.get("volume") for line in lines[:-1]} == {"Good"} and cursor_of(lines) is not None


def damage_table(path, text, page_size=4096):
    """Empties the table's page with this text."""
    with open(path, "r+b") as file:
        content = file.read()
        [page] = [start for start in range(0, len(content), page_size)
                  if content[start] == 13 and text in content[start:start + page_size]]  # 13: a leaf of a table
        file.seek(page)
        file.write(bytes(page_size))


def test_a_broken_volume_does_not_hold_up_another(arena):
    good, broken = small_volume(arena, name="Good"), small_volume(arena, name="Broken")
    ctl = Ctl(arena, [good, broken])
    path = f"{ctl.folder}/cursor"
    ctl.good("changes", "--cursor-file", path)
    shutil.move(broken.catalogue.path, arena.path("aside"))
    with open(broken.catalogue.path, "wb") as file:
        file.write(b"no catalogue" * 1000)
    edit(good.catalogue.path, "update Files set size = 5, last_updated_time = strftime('%s','now') where path = '/m/0/a0.mp3'")
    result = ctl.run("changes", "--cursor-file", path)
    assert result.status == 1 and broken.catalogue.path in result.errors
    assert {line["volume"] for line in rows_in(parse(result.bytes))} == {"Good"}
    # Its place in the cursor has been kept.
    shutil.move(arena.path("aside"), broken.catalogue.path)
    edit(broken.catalogue.path, "update Files set size = 6, last_updated_time = strftime('%s','now') where path = '/m/0/a0.mp3'")
    lines = parse(ctl.good("changes", "--cursor-file", path, "--volume", "Broken").bytes)
    assert events_in(lines) == [] and ("Broken", 6) in {(line["volume"], line.get("size")) for line in rows_in(lines)}
    assert events_in(parse(ctl.good("changes", "--cursor-file", path).bytes)) == []


def test_a_reader_without_rights_beside_a_running_daemon(arena):
    volume = volume_of_files(arena, "V", 3, 3)
    daemon = arena.start([volume])
    daemon.wait_walks()
    reader = Reader(Ctl(arena, [volume], user=65534), volume)
    reader.run()
    reader.mirror.assert_equals(volume)
    assert os.path.exists(volume.catalogue.path + "-wal")
    daemon.stop_without_errors()


def test_a_slow_consumer_holds_up_no_writer(arena):
    """Of a catalogue with a rollback journal, which cannot be written while somebody reads it."""
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop_without_errors()
    edit(volume.catalogue.path, """
        with recursive n(i) as (select 1 union all select i + 1 from n where i < 60000)
        insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted, last_updated_time)
            select 1, '/m/file number ' || i, 'file number ' || i, 4, 1, 1, 1, 0, 1 from n""")
    process = subprocess.Popen(Ctl(arena, [volume]).command("changes"), stdout=subprocess.PIPE)
    first = process.stdout.readline()  # all is read by then, and far more than a pipe takes is still to be written
    writer = sqlite3.connect(volume.catalogue.path, timeout=0, isolation_level=None)
    writer.execute("begin exclusive")
    writer.execute("rollback")
    writer.close()
    lines = [first, *process.stdout]
    assert process.wait(BOUND) == 0
    process.stdout.close()
    assert len(lines) == 1 + 60000 + 2 + 1  # the event, the files, file and folder of the daemon's, the cursor
    assert len(b"".join(lines)) > 10 << 20
