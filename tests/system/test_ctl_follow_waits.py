"""What `quarrowctl changes --follow` waits for, and how long, call by call."""
import os
import re
import signal
import sqlite3
import subprocess
import sys
import time

from change_stream import Follower, cursor_of, small_volume
from ctl import Ctl
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from tracing import SETPRIV, needs_tracer, traced, traced_pid, wait_stopped, without_leak_search


class TracedFollower(Follower):
    """A follower of which each call is seen. It ends with its tracer."""

    def __init__(self, ctl, *options, environment=None):
        self.trace = f"{ctl.folder}/trace"
        open(self.trace, "wb").close()
        super().__init__(ctl, *options, wrapper=[*traced("-o", self.trace), SETPRIV, "--pdeathsig", "KILL"],
                         environment={**without_leak_search(), **(environment or {})})

    def calls(self):
        with open(self.trace, encoding="utf-8", errors="replace") as file:
            return file.read().splitlines()

    def wait_poll(self, milliseconds, after=0):
        """Returns when it waits that long, or without an end for -1, having made more calls than those."""
        def waits():
            calls = self.calls()
            return len(calls) > after and re.search(rf"poll\(.*, 4, {milliseconds}$", calls[-1])
        wait_for(waits, f"the wait of {milliseconds} ms")

    def stop(self, number=signal.SIGTERM):
        os.kill(int(self.calls()[-1].split()[0]), number)
        assert self.process.wait(BOUND) == 0, self.said()
        return self.lines()


@needs_tracer
def test_following_is_at_rest_while_nothing_happens(arena):
    volume = small_volume(arena)
    daemon = arena.start([volume])
    daemon.wait_walks()
    with TracedFollower(Ctl(arena, [volume])) as follower:
        follower.wait_path("/m/1/a1.mp3")
        follower.wait_poll(-1)
        before = follower.calls()
        time.sleep(1.5)
        assert follower.calls() == before
        follower.stop()
    daemon.stop()


@needs_tracer
def test_rows_that_show_a_moment_after_the_kernel_has_reported_them(arena):
    """The writer is held when it has written the log and not yet said so to readers. When it goes on, the kernel has nothing
    more to report."""
    volume = small_volume(arena)
    change = "import sqlite3, sys; c = sqlite3.connect(sys.argv[1]); c.execute(\"update Files set size = size + 77," \
             " last_updated_time = strftime('%s', 'now')\"); c.commit()"
    log = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    log.execute("pragma journal_mode=wal")
    log.execute("update Files set category = 4")  # so that the log has its beginning
    sizes = volume.catalogue.query("select size from Files")
    trace = arena.path("writer")
    with TracedFollower(Ctl(arena, [volume]), environment=fast_clock(0.15)) as follower:  # slow: it looks again much later
        follower.wait_path("/m/1/a1.mp3")
        follower.wait_poll(-1)
        calls = len(follower.calls())
        before = follower.lines()
        command = traced("-o", trace, "-P", f"{volume.catalogue.path}-wal", "--inject=fdatasync:signal=STOP", sys.executable,
                         "-c", change, volume.catalogue.path)
        writer = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        try:
            wait_stopped(trace)
            follower.wait_poll("[0-9]{4,}", after=calls)  # it has looked
            assert volume.catalogue.query("select size from Files") == sizes and follower.lines() == before
        finally:
            os.kill(traced_pid(writer), signal.SIGCONT)
            assert writer.wait(BOUND) == 0
        follower.wait(lambda lines: sum(line.get("size", 0) > 77 for line in lines) == len(sizes), "the rows")
        follower.stop()
    log.close()


@needs_tracer
def test_the_stop_prints_a_cursor_that_moved_without_a_row(arena):
    volume = small_volume(arena)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    with TracedFollower(ctl, "--cursor-file", path) as follower:
        follower.wait_path("/m/1/a1.mp3")
        follower.wait_poll(-1)
        before, calls = follower.lines(), len(follower.calls())
        volume.make_file("/.quarrow/quarrow.db-note", b"x")
        follower.wait_poll(-1, after=calls)  # it has looked twice, seconds apart
        assert follower.lines() == before
        lines = follower.stop()
    assert lines[:-1] == before and list(lines[-1]) == ["cursor"] and lines[-1] != before[-1]
    with open(path, encoding="ascii") as file:
        assert file.read() == cursor_of(lines) + "\n"


@needs_tracer
def test_a_catalogue_in_trouble_is_tried_again(arena):
    """It is locked, and unlocked without a sign. Seconds are milliseconds here: a pause doubles up to ten minutes."""
    volume = small_volume(arena)
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin exclusive")
    with TracedFollower(Ctl(arena, [volume]), environment=fast_clock(1000)) as follower:
        def pauses():
            ended = (re.search(r"poll\(.*, 4, ([0-9]+)\) += 0 \(Timeout\)", call) for call in follower.calls())
            return [int(pause.group(1)) for pause in ended if pause and int(pause.group(1)) >= 10]
        wait_for(lambda: len(pauses()) >= 9, "the pauses")
        assert pauses()[:9] == [10, 20, 40, 80, 160, 320, 600, 600, 600]
        assert follower.said().count(volume.catalogue.path) == 1 and follower.bytes().count(b"kind") == 0
        writer.execute("rollback")
        follower.wait_path("/m/1/a1.mp3")
        follower.wait_poll(-1)
        tried = len(pauses())
        writer.execute("begin exclusive")
        volume.make_file("/.quarrow/quarrow.db-note", b"x")
        wait_for(lambda: len(pauses()) >= tried + 2, "the pauses")
        assert pauses()[tried:tried + 2] == [10, 20]
        follower.stop()
    writer.close()
