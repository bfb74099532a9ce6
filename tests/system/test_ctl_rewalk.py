"""quarrowctl rewalk: the signal, whom it is for, and what is said about what came of it."""
import os
import re
import signal
import sqlite3
import subprocess
import sys
import time

from ctl import Ctl
from lines import info
from quarrow_driver.waiting import BOUND, wait_for
from tracing import calls_in, needs_tracer, traced, without_leak_search

STRANGER = 65534
SIGNALLED = info("Got a usr1 signal\n")


def sample_volume(arena, name="Volume1"):
    volume = arena.volume(name, crawl=["/m"])
    volume.make_file("/m/a/1.mp3", b"x")
    return volume


def ready(arena, *volumes, **settings):
    """A daemon whose loop waits, with the configuration that it has read."""
    daemon = arena.start(list(volumes), **settings)
    daemon.wait_walks(len(volumes))
    daemon.end_first_sleep()
    return daemon, ("--config", arena.path(f"quarrow-host-{len(arena.daemons) - 1}.xml"))


def assert_refused(result, text):
    assert result.status == 1 and result.bytes == b"" and text in result.errors, result.errors


def test_a_walk_begins(arena, clock):
    """One that is over in a moment is seen as well, again and again."""
    volume = sample_volume(arena)
    daemon, config = ready(arena, volume, clock=clock)
    ctl = Ctl(arena, [volume])
    for number in range(5):
        clock.advance(300)
        result = ctl.good("rewalk", *(["--wait"] if number % 2 else []), *config)
        assert re.match(rf"The daemon \(process {daemon.pid}\) (walks|has walked) the volumes\.\n", result.text)
        daemon.wait_walks_of(volume, number + 2)
    assert daemon.count(SIGNALLED) == 1 + 5  # the first one ended the first minute
    daemon.stop_without_errors()


def test_waiting_for_the_end_of_the_walk(arena, clock):
    volumes = [sample_volume(arena, name) for name in "AB"]
    daemon, config = ready(arena, *volumes, clock=clock)
    writer = sqlite3.connect(volumes[1].catalogue.path, isolation_level=None)
    writer.execute("begin immediate")  # the walk of the second volume waits for it
    clock.advance(300)
    ctl = Ctl(arena, volumes)
    with subprocess.Popen(ctl.command("rewalk", "--wait", *config), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as waiting:
        assert waiting.stdout.readline() == f"The daemon (process {daemon.pid}) walks the volumes.\n"
        daemon.wait_walks_of(volumes[0], 2)
        # A second wish finds the other walk at work, and is too soon.
        assert_refused(ctl.run("rewalk", *config), "No walk has been seen to begin: 1 of 2 configured volumes was being walked")
        assert waiting.poll() is None
        writer.execute("rollback")
        writer.close()
        output, errors = waiting.communicate(timeout=BOUND)
    assert (waiting.returncode, errors) == (0, "")
    assert re.fullmatch(r"The walk has ended after \d+ s\.\n", output)
    assert daemon.walks_of(volumes[1]) == 2
    daemon.stop()


def test_a_walk_of_everything_is_as_good_as_a_new_one(arena):
    volume = sample_volume(arena)
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")
    daemon = arena.start([volume])
    daemon.wait_line(info("Checking if the folder /m exists in the path list"))
    wait_for(lambda: daemon.thread_count() == 4, "main, watcher, purge and walk thread")
    result = Ctl(arena, [volume]).good("rewalk", "--config", arena.path("quarrow-host-1.xml"))
    assert result.text == f"The daemon (process {daemon.pid}) was walking every volume already.\n"
    writer.execute("rollback")
    writer.close()
    daemon.wait_walks()
    daemon.stop()


def test_a_wish_that_comes_too_soon(arena):
    volume = sample_volume(arena)
    daemon, config = ready(arena, volume)
    before = int(time.time())
    result = Ctl(arena, [volume]).run("rewalk", "--wait", *config)
    assert_refused(result, f"quarrowctl: process {daemon.pid}: No walk has been seen to begin")
    [(moment, seconds)] = re.findall(r"Try again at (\S+ \S+), in (\d+ min \d+ s|\d+ s): ", result.errors)
    at = time.mktime(time.strptime(moment, "%Y-%m-%d %H:%M:%S"))
    assert before + 300 <= at <= time.time() + 300 and seconds in ("5 min 0 s", "4 min 59 s")
    assert daemon.count(SIGNALLED) == 2 and daemon.walks_of(volume) == 1
    daemon.stop()


def test_in_standby_the_signal_is_saved(arena, clock):
    volume = sample_volume(arena)
    daemon, config = ready(arena, volume, clock=clock)
    clock.advance(300)
    daemon.set_standby(True)
    ctl = Ctl(arena, [volume])
    assert_refused(ctl.run("rewalk", *config), "In standby no walk begins")
    daemon.set_standby(False)
    assert daemon.count(SIGNALLED) == 1
    ctl.good("rewalk", *config)  # which the daemon still owes
    daemon.wait_walks_of(volume, 2)
    daemon.stop()


def test_only_the_daemon_of_the_configuration_is_signalled(arena):
    volumes = [sample_volume(arena, "One"), sample_volume(arena, "Two")]
    (one, _), (two, config) = (ready(arena, volume) for volume in volumes)
    ctl = Ctl(arena, [volumes[0]])
    assert_refused(ctl.run("rewalk"), "but with another configuration: " + arena.path("quarrow-host-0.xml"))
    stranger = Ctl(arena, [volumes[0]], user=STRANGER)
    assert_refused(stranger.run("rewalk"), "This user may not send signals to the daemon. Run this as root.")
    one.stop()
    assert_refused(ctl.run("rewalk"), "The daemon of this configuration does not run")
    assert_refused(ctl.run("rewalk", "--config", arena.path("quarrow-host-0.xml")), "does not run")
    assert two.count(SIGNALLED) == 1
    ctl.run("rewalk", *config)
    assert two.count(SIGNALLED) == 2
    two.stop()


def test_what_does_not_handle_the_signal_is_not_ended_by_it(arena):
    """A daemon in its first moments, or another program of that name."""
    volume = sample_volume(arena)
    ctl = Ctl(arena, [volume])
    script = "import ctypes, sys; ctypes.CDLL(None).prctl(15, b'quarrow', 0, 0, 0); print(flush=True); sys.stdin.read()"
    with subprocess.Popen([sys.executable, "-c", script], env={"QUARROW_CONFIG_FILE": ctl.config}, stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as other:
        other.stdout.readline()
        assert_refused(ctl.run("rewalk"), f"process {other.pid}: The daemon is just starting")
        assert other.poll() is None
        other.stdin.close()
        assert other.wait(BOUND) == 0


def test_a_daemon_that_is_held_up_or_ends(arena):
    volume = sample_volume(arena)
    daemon, config = ready(arena, volume)
    command = Ctl(arena, [volume]).command("rewalk", *config)
    with daemon.frozen():
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        output, errors = process.communicate(timeout=BOUND)
        assert (process.returncode, output) == (1, "") and "has not taken the signal yet" in errors
    wait_for(lambda: daemon.count(SIGNALLED) == 2, "the signal")
    os.kill(daemon.pid, signal.SIGSTOP)
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    pending = 1 << (signal.SIGUSR1 - 1)
    wait_for(lambda: int(daemon.status()["ShdPnd"][0], 16) & pending, "the signal that waits")
    daemon.kill()
    output, errors = process.communicate(timeout=BOUND)
    assert (process.returncode, output) == (1, "") and "The daemon has ended" in errors


@needs_tracer
def test_a_kernel_without_descriptors_of_processes(arena, clock):
    volume = sample_volume(arena)
    daemon, config = ready(arena, volume, clock=clock)
    clock.advance(300)
    trace = arena.path("trace")
    result = Ctl(arena, [volume]).run("rewalk", *config, environment=without_leak_search(), wrapper=traced(
        "-o", trace, "-e", "trace=pidfd_open,pidfd_send_signal,kill", "--inject=pidfd_open:error=ENOSYS"))
    assert (result.status, result.errors) == (0, "")
    daemon.wait_walks_of(volume, 2)
    calls = [(call, rest.split(")")[0]) for _, call, rest in calls_in(trace)]
    assert ("kill", f"{daemon.pid}, SIGUSR1") in calls and {call for call, _ in calls} == {"pidfd_open", "kill"}
    daemon.stop()


def test_arguments(arena):
    ctl = Ctl(arena, [sample_volume(arena)])
    assert ctl.run("rewalk", "--nothing").status == 2
    assert ctl.run("rewalk", "--config", "/nowhere.xml").status == 2
