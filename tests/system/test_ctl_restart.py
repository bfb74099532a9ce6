"""`quarrowctl changes` where the changes cannot be told, or hardly: rows that were purged, clocks that were set back, other
catalogues."""
import os
import signal

import pytest

from change_stream import Reader, catalogued, events_in, parse, rows_in, small_volume
from ctl import Ctl
from tracing import needs_tracer, start_traced, traced_pid, wait_stopped

THRESHOLD = 1000


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


@pytest.mark.parametrize("former, later", [(THRESHOLD, 9 * THRESHOLD), (9 * THRESHOLD, THRESHOLD)])
def test_of_two_purge_thresholds_the_shorter_one_counts(arena, clock, former, later):
    """The daemon may have purged with the former one, and by now does so with the later one."""
    volume = small_volume(arena, clock)
    reader = Reader(Ctl(arena, [volume], purge_threshold=former), volume, clock.environment())
    reader.run()
    clock.advance(THRESHOLD + 1)
    reader.ctl = Ctl(arena, [volume], purge_threshold=later)
    assert events_in(reader.run(status=3)) == [("restart-needed", "purged")]
    reader.run("--full")
    clock.advance(later // 2 - 1)
    assert events_in(reader.run()) == []


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


@needs_tracer
def test_transactions_that_are_open_when_the_clock_is_set_back(arena, clock):
    """The daemon is held between two files, in the transaction of a folder: first while the clock is set back, then in another
    folder while a reader has rows of the first one, whose times are of before the step."""
    volume = small_volume(arena, clock)
    # The folder above is to have nothing new. The daemon's stop touches a file in it.
    touched = volume.path("/m/.tickle")
    modified = os.stat(touched).st_mtime
    catalogued(arena, volume, clock)
    os.utime(touched, (modified, modified))
    for folder in (0, 1):
        for name in ("early", "late"):
            volume.make_file(f"/m/{folder}/{name}.mp3", b"x")
    reader = Reader(Ctl(arena, [volume]), volume, clock.environment())
    clock.advance(100)
    reader.run()
    trace = arena.path("trace")
    daemon = start_traced(arena, volume, "-P", "late.mp3", "-o", trace, "--inject=newfstatat,statx:signal=STOP", clock=clock)
    for number, step in enumerate((-50, 60)):
        wait_stopped(trace, number + 1)
        clock.advance(step)
        rows = rows_in(reader.run())
        assert sum(row["name"] == "early.mp3" for row in rows) == number
        assert all(row["last_updated_time"] <= clock.now for row in rows)
        os.kill(traced_pid(daemon), signal.SIGCONT)
    daemon.wait_walks()
    os.kill(traced_pid(daemon), signal.SIGTERM)
    assert daemon.wait_exit() == 0
    times = volume.catalogue.query("select last_updated_time - 1700000000 from Files where name glob '[el]*' order by 1")
    assert times == [(50,), (50,), (100,), (110,)]
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
