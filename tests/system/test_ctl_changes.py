"""`quarrowctl changes`: no row is left out, and what cannot be told is said."""
import json
import os
import shutil
import signal
import sqlite3
import subprocess
import sys
import time

import pytest

from catalogue import edit
from change_stream import Follower, Mirror, Reader, catalogue_lines, cursor_of, events_in, parse, rows_in
from ctl import Ctl
from daemon import sanitizer_options
from moments import seeded
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from tracing import STRACE, needs_tracer
from trees import AWKWARD_NAMES, change_something, media_volume, volume_of_files

THRESHOLD = 1000


def catalogued(arena, volume, clock=None, **settings):
    """One life of a daemon: one walk."""
    daemon = arena.start([volume], clock=clock, **settings)
    daemon.wait_walks()
    daemon.stop()


def small_volume(arena, clock=None, name="Volume1"):
    volume = volume_of_files(arena, name, 2, 2)
    catalogued(arena, volume, clock)
    return volume


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


def test_purged_rows_that_were_not_seen_are_told(arena, clock):
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume], purge_threshold=THRESHOLD), volume, clock.environment())
    reader.run()
    unseen = Reader(reader.ctl, volume, clock.environment())
    unseen.run()
    os.unlink(volume.path("/m/0/a0.mp3"))
    clock.advance(10)
    catalogued(arena, volume, clock, purge_threshold=THRESHOLD)
    assert "/m/0/a0.mp3" in reader.changed()
    clock.advance(THRESHOLD + 1)
    volume.make_file("/m/0/late.mp3", b"x")
    volume.write_state(clock.now - 2 * THRESHOLD)
    daemon = arena.start([volume], clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks()
    daemon.end_first_sleep()
    daemon.rewalk(clock)
    daemon.stop()
    assert volume.catalogue.query("select count(*) from Files where is_deleted = 1") == [(0,)]
    before = unseen.cursor
    assert events_in(unseen.run(status=3)) == [("restart-needed", "purged")]
    assert unseen.cursor == before
    assert events_in(unseen.run("--full")) == [("full-listing", None)]
    unseen.mirror.assert_equals(volume)
    clock.advance(10)  # a clock that stands still looks as if it were set back all the time
    assert unseen.changed() == []


def test_a_quiet_volume_needs_no_restart_as_long_as_somebody_asks(arena, clock):
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume], purge_threshold=THRESHOLD), volume, clock.environment())
    reader.run()
    for _ in range(10):
        clock.advance(THRESHOLD // 2)
        assert rows_in(reader.run()) == []
    clock.advance(THRESHOLD // 2 + 1)
    assert events_in(reader.run(status=3)) == [("restart-needed", "purged")]


@pytest.mark.parametrize("change", ["insert", "delete", "nothing"])
def test_a_clock_that_was_set_back_is_told(arena, clock, change):
    """By new rows that are too old, and by the reader's clock."""
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume]), volume, clock.environment())
    reader.run()
    clock.advance(-5000)
    if change == "insert":
        volume.make_file("/m/0/new.mp3", b"x")
    elif change == "delete":
        os.unlink(volume.path("/m/0/a0.mp3"))
    catalogued(arena, volume, clock)
    clock.advance(10000 if change == "insert" else 0)
    result = reader.ctl.run("changes", "--since", reader.cursor, environment=clock.environment())
    assert result.status == 3
    assert events_in(parse(result.bytes)) == [("restart-needed", "clock-back")]
    assert volume.catalogue.path in result.errors and "--full" in result.errors
    reader.run("--full")
    reader.mirror.assert_equals(volume)
    clock.advance(1)
    volume.make_file("/m/1/newer.mp3", b"x")
    catalogued(arena, volume, clock)
    assert "/m/1/newer.mp3" in reader.changed()
    reader.mirror.assert_equals(volume)


def test_a_small_step_back_of_the_clock_is_made_up_for(arena, clock):
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume]), volume, clock.environment())
    clock.advance(100)
    volume.make_file("/m/0/new.mp3", b"x")
    catalogued(arena, volume, clock)
    reader.run()
    clock.advance(-50)
    os.unlink(volume.path("/m/1/a0.mp3"))
    catalogued(arena, volume, clock)
    assert "/m/1/a0.mp3" in reader.changed()  # the rows of before the step are still in the future
    for number in range(4):
        clock.advance(15)
        os.unlink(volume.path(("/m/1/a1.mp3", "/m/0/a1.mp3", "/m/0/a0.mp3", "/m/0/new.mp3")[number]))
        catalogued(arena, volume, clock)
        reader.run()
        reader.mirror.assert_equals(volume)


def test_a_catalogue_that_was_made_anew_is_told(arena):
    volume = small_volume(arena)
    reader = Reader(Ctl(arena, [volume]), volume)
    reader.run()
    os.unlink(volume.path("/m/0/a0.mp3"))
    volume.make_file("/m/0/a00.mp3", b"x")
    os.unlink(volume.catalogue.path)
    catalogued(arena, volume)
    assert events_in(reader.run(status=3)) == [("restart-needed", "made-anew")]
    assert events_in(reader.run("--full")) == [("full-listing", None)]
    reader.mirror.assert_equals(volume)


def test_a_catalogue_that_was_set_back_in_place_is_told(arena):
    """As by a power cut, or a back-up that is written over the file: the newest row is not what it was, and later ones are."""
    volume = small_volume(arena)
    with open(volume.catalogue.path, "rb") as file:
        earlier = file.read()
    volume.make_file("/m/1/lost.mp3", b"x")
    catalogued(arena, volume)
    reader = Reader(Ctl(arena, [volume]), volume)
    reader.run()
    with open(volume.catalogue.path, "r+b") as file:
        file.write(earlier)
        file.truncate()
    os.unlink(volume.path("/m/1/lost.mp3"))
    volume.make_file("/m/0/found 1.mp3", b"x")
    volume.make_file("/m/0/found 2.mp3", b"x")
    catalogued(arena, volume)
    assert events_in(reader.run(status=3)) == [("restart-needed", "made-anew")]


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


def test_following_survives_what_happens_to_daemon_and_catalogue(arena):
    volume = volume_of_files(arena, "V", 2, 2)
    daemon = arena.start([volume])
    daemon.wait_walks()
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    with Follower(ctl, "--cursor-file", path) as follower:
        follower.wait_path("/m/1/a1.mp3")
        volume.make_file("/m/0/while it runs.mp3", b"x")  # in the daemon's own time, five quiet seconds
        follower.wait_path("/m/0/while it runs.mp3")
        daemon.kill()
        volume.make_file("/m/0/after a kill.mp3", b"x")
        catalogued(arena, volume)
        follower.wait_path("/m/0/after a kill.mp3")
        Mirror().apply(follower.lines()).assert_equals(volume)
        os.unlink(volume.path("/m/0/a0.mp3"))
        shutil.rmtree(os.path.dirname(volume.catalogue.path))
        volume.make_file("/m/0/made anew.mp3", b"x")
        catalogued(arena, volume)
        follower.wait_path("/m/0/made anew.mp3")
        assert ("restart-needed", "made-anew") in events_in(follower.lines())
        Mirror().apply(follower.lines()).assert_equals(volume)
        lines = follower.stop()
    with open(path, encoding="ascii") as file:
        assert file.read() == cursor_of(lines) + "\n"
    assert rows_in(parse(ctl.good("changes", "--cursor-file", path).bytes)) == []
    assert [name for name in os.listdir(ctl.folder) if name.startswith("cursor")] == ["cursor"]


def test_following_loses_nothing_when_it_is_killed(arena, clock):
    """At any moment. The next run goes on from the cursor in the file, which was stored after what was written by then."""
    choice = seeded("killed followers")
    volume = media_volume(arena, "V", 60, 300, seed=5)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    mirror = Mirror()
    catalogued(arena, volume, clock)
    for number in range(8):
        with Follower(ctl, "--cursor-file", path) as follower:
            change_something(volume, choice, number)
            daemon = arena.start([volume], clock=clock)
            time.sleep(choice.random() * 0.7)  # until a moment that chance chooses
            follower.kill()
            mirror.apply(follower.lines())
            if choice.random() < 0.5:
                daemon.kill()
            else:
                daemon.wait_walks()
                daemon.stop()
        clock.advance(choice.randrange(3))
    catalogued(arena, volume, clock)
    mirror.apply(parse(ctl.run("changes", "--cursor-file", path).bytes))
    mirror.assert_equals(volume)


def test_following_a_volume_that_comes_and_goes(arena, mounts):
    """Nothing is there at first, not even the folder. A follower does not keep a volume from being unmounted."""
    volume, other = small_volume(arena, name="V"), small_volume(arena, name="Other")
    disk = arena.path("disk")
    mounts.tmpfs(disk)
    for source in (volume, other):
        shutil.copytree(source.folder, f"{disk}/{source.name}", symlinks=True)
        shutil.rmtree(source.folder)
    ctl = Ctl(arena, [volume, other])
    with Follower(ctl) as follower:
        follower.wait(lambda lines: rows_in(lines) == [], "the cursor")
        assert volume.catalogue.path in follower.said()
        os.rename(f"{disk}/V", arena.path("disk/aside"))
        shutil.copytree(f"{disk}/aside", volume.folder)
        follower.wait_path("/m/0/a0.mp3")
        os.mkdir(other.folder)
        mounts.bind(f"{disk}/Other", other.folder)
        follower.wait(lambda lines: {line["volume"] for line in rows_in(lines)} == {"V", "Other"}, "the other volume")
        mounts.remove(other.folder)
        edit(volume.catalogue.path, "update Files set size = 9, last_updated_time = strftime('%s','now')")
        follower.wait(lambda lines: any(line.get("size") == 9 for line in lines), "a change in the volume that stayed")
        mounts.bind(f"{disk}/Other", other.folder)
        edit(other.catalogue.path, "update Files set size = 8, last_updated_time = strftime('%s','now')")
        follower.wait(lambda lines: any(line.get("size") == 8 for line in lines), "a change in the volume that came back")
        follower.stop(signal.SIGINT)
        mounts.remove(other.folder)


@needs_tracer
def test_following_is_at_rest_while_nothing_happens(arena):
    volume = small_volume(arena)
    daemon = arena.start([volume])
    daemon.wait_walks()
    ctl = Ctl(arena, [volume])
    trace = arena.path("trace")
    no_leaks = {"ASAN_OPTIONS": sanitizer_options()["ASAN_OPTIONS"] + ":detect_leaks=0"}  # they are looked for by tracing
    with Follower(ctl, wrapper=[STRACE, "-f", "-qq", "-o", trace], environment=no_leaks) as follower:
        follower.wait_path("/m/1/a1.mp3")
        def calls():
            with open(trace, encoding="utf-8", errors="replace") as file:
                return file.read()
        def rests():
            last = calls().splitlines()[-1]
            return "poll(" in last and last.endswith(", 4, -1")
        wait_for(rests, "the wait without an end")
        before = calls()
        time.sleep(1.5)
        assert calls() == before
        os.kill(int(before.splitlines()[-1].split()[0]), signal.SIGTERM)
        assert follower.process.wait(BOUND) == 0
    daemon.stop()


def test_reading_and_following_do_not_wake_the_daemon(arena):
    """As root, and where the daemon watches its own folder. Its five quiet seconds are a moment here."""
    volume = arena.volume("V")
    volume.make_file("/m/0.mp3", b"x")
    daemon = arena.start([volume], environment=fast_clock(100))
    daemon.wait_walks()
    wait_until_quiet(daemon)
    bursts = daemon.bursts()
    ctl = Ctl(arena, [volume])
    with Follower(ctl) as follower:
        follower.wait_path("/m/0.mp3")
        for _ in range(5):
            ctl.good("changes")
        follower.stop()
    wait_until_quiet(daemon)
    assert daemon.bursts() == bursts
    with open(volume.catalogue.path, "ab"):  # what it would notice
        pass
    daemon.wait_bursts(bursts + 1)
    daemon.stop()


def wait_until_quiet(daemon):
    """Returns when there was no burst for a second."""
    bursts = None
    while bursts != daemon.bursts():
        bursts = daemon.bursts()
        time.sleep(1)


def test_a_full_pipe_does_not_hold_up_the_stop(arena):
    volume = volume_of_files(arena, "V", 100, 40)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    process = subprocess.Popen(ctl.command("changes", "--follow", "--cursor-file", path), stdout=subprocess.PIPE,
                               stdin=subprocess.DEVNULL)
    try:
        start = process.stdout.read(1)
        process.send_signal(signal.SIGTERM)
        assert process.wait(BOUND) == 0
        lines = parse(start + process.stdout.read())
    finally:
        process.kill()
        process.stdout.close()
    assert cursor_of(lines) is None and not os.path.exists(path)
    assert 0 < len(lines) < 4000


def test_a_follower_ends_with_its_reader(arena):
    volume = small_volume(arena)
    process = subprocess.Popen(Ctl(arena, [volume]).command("changes", "--follow"), stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    with process:
        assert any(b"cursor" in line for line in iter(process.stdout.readline, b""))
        process.stdout.close()
        assert process.wait(BOUND) == 2
        assert b"Nobody reads it any more" in process.stderr.read()


EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/examples")


def examples(arena):
    """The commands of the example consumers, of those whose tools are there: at least the Python one."""
    found = [[sys.executable, "-B", f"{EXAMPLES}/mirror.py"]]
    if shutil.which("jq"):
        found.append(["/bin/sh", f"{EXAMPLES}/mirror.sh"])
    if shutil.which("c++"):
        binary = arena.path("mirror")
        subprocess.run(["c++", "-std=c++17", "-Wall", "-Wextra", "-o", binary, f"{EXAMPLES}/mirror.cpp"], check=True)
        found.append([binary])
    return found


def stored(path):
    with open(path, "rb") as file:
        file.readline()
        return sorted(json.dumps(json.loads(line), sort_keys=True) for line in file)


def test_the_example_consumers_end_with_the_same_state(arena, clock):
    choice = seeded("examples")
    volume, other = media_volume(arena, "V", 60, 100, seed=7), small_volume(arena, clock, "Other")
    ctl = Ctl(arena, [volume, other])
    consumers = examples(arena)

    def run(status, *options):
        for number, command in enumerate(consumers):
            state = f"{ctl.folder}/state{number}"
            cursor = ""
            if os.path.exists(state):
                with open(state, encoding="ascii", errors="replace") as file:
                    cursor = file.readline().strip()
            output = ctl.run("changes", "--since", cursor, *options).bytes
            consumer = subprocess.run([*command, state], input=output, check=False, timeout=BOUND)
            assert consumer.returncode == status, command
            # Half a batch is nothing.
            subprocess.run([*command, state], input=output[:len(output) // 2], check=False, timeout=BOUND, capture_output=True)

    for number in range(3):
        change_something(volume, choice, number)
        catalogued(arena, volume, clock)
        run(0)
        clock.advance(1)
    os.unlink(other.catalogue.path)
    os.unlink(other.path("/m/0/a0.mp3"))
    catalogued(arena, other, clock)
    run(3)
    run(0, "--full")
    wanted = sorted(json.dumps(line, sort_keys=True) for each in (volume, other) for line in catalogue_lines(each).values()
                    if not line["deleted"])
    for number in range(len(consumers)):
        assert stored(f"{ctl.folder}/state{number}") == wanted


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
