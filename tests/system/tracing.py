"""The daemon below a tracer, which kills it before a system call: each life of a daemon ends at another call."""
import collections
import os
import re
import shutil
import signal
import subprocess

import pytest

from after_a_kill import all_left_behind
from daemon import sanitizer_options
from lines import is_walk_end
from moments import batches
from quarrow_driver.waiting import wait_for

ENV, STRACE, SETPRIV = "/usr/bin/env", "/usr/bin/strace", "/usr/bin/setpriv"

#: The system calls that change a file or a folder, and those that make a change last.
CHANGING = ("mkdir", "openat", "pwrite64", "write", "ftruncate", "fallocate", "fsync", "fdatasync", "rename", "renameat",
            "linkat", "unlink", "unlinkat", "fchown", "fchmod", "chmod")
#: What the daemon changes in a volume, as paths below it.
FILES = [f"/.quarrow{name}" for name in ("", "/quarrow.db", "/quarrow.db.tmp", "/quarrow.db-journal", "/quarrow.db-wal",
                                         "/quarrow.db-shm", "/quarrow-volume.xml", "/quarrow-volume.xml.tmp")]
#: How often a point is tried that a life did not come to: where two threads share the work out otherwise each time.
ATTEMPTS = 5

#: The Nth call of this name that concerns this file, in whichever thread comes that far first.
Point = collections.namedtuple("Point", "file call number")

#: A step of a life: what to do with the daemon, and whether its lines say that the step is over.
Step = collections.namedtuple("Step", "act is_over")


def may_trace():
    return all(os.access(tool, os.X_OK) for tool in (STRACE, SETPRIV)) and subprocess.run(
        [STRACE, "-f", "-o", "/dev/null", SETPRIV, "--pdeathsig", "KILL", "/bin/true"], check=False, capture_output=True
    ).returncode == 0


needs_tracer = pytest.mark.skipif(not may_trace(), reason="strace or setpriv is not there, or tracing is not allowed")


def traced(*options):
    """The command that runs the command behind it below a tracer."""
    return [STRACE, "-f", "-qq", *options]


def without_leak_search():
    """The environment of what is traced: leaks are looked for by tracing, too."""
    return {"ASAN_OPTIONS": sanitizer_options()["ASAN_OPTIONS"] + ":detect_leaks=0"}


def start_traced(arena, volume, *options, **settings):
    """Starts the daemon below a tracer, which ends as the daemon does. Whatever else ends the tracer ends the daemon, too. Both
    run in a folder that nobody opens, for the tracer takes a bare name also for what it leads to from there."""
    return arena.start([volume], wrapper=[ENV, "-C", "/usr", *traced(*options), SETPRIV, "--pdeathsig", "KILL"],
                       environment=without_leak_search(), **settings)


def kill_before(call, number):
    """The tracer's option that kills the daemon before the Nth call of this name in a thread."""
    return f"--inject={call}:signal=KILL:when={number}"


# Steps of a life

def traced_pid(daemon):
    """The process below the tracer, of a daemon or another process; None when it has ended."""
    try:
        with open(f"/proc/{daemon.pid}/task/{daemon.pid}/children", encoding="ascii") as file:
            return int(file.read().split()[0])
    except (OSError, IndexError):
        return None


def send(number):
    """Sends the traced daemon a signal, unless it has ended."""
    def act(daemon):
        pid = traced_pid(daemon)
        try:
            if pid is not None:
                os.kill(pid, number)
        except ProcessLookupError:
            pass
    return act


def nothing(_):
    pass


def has_walked(times=1):
    return lambda lines: sum(is_walk_end(line) for line in lines) >= times


def until_the_end(_):
    return False


WALK = Step(nothing, has_walked())
STOP = Step(send(signal.SIGTERM), until_the_end)
KILL = Step(send(signal.SIGKILL), until_the_end)


def take_steps(daemons, steps):
    """Takes the daemons through their life, step by step, each as far as it comes."""
    for step in steps:
        for daemon in daemons:
            step.act(daemon)
        for daemon in daemons:
            wait_for(lambda: daemon.has_ended() or step.is_over(daemon.lines), "the next step of its life")


# Traces

def calls_in(trace):
    """The calls that a trace has, in order: thread, name, the rest of the line."""
    with open(trace, encoding="utf-8", errors="surrogateescape") as file:
        for line in file:
            match = re.match(r"(\d+) +(\w+)\((.*)", line)
            if match is not None:  # not the second half of a call
                yield match.groups()


def wait_stopped(trace, times=1):
    """Returns when the tracer has stopped a thread that often."""
    def is_stopped():
        if not os.path.exists(trace):
            return False
        with open(trace, encoding="utf-8", errors="surrogateescape") as file:
            return file.read().count("--- SIGSTOP {") >= times
    wait_for(is_stopped, "the stop at a call")


def changes_in(trace, volume, files):
    """The points of a daemon's life at which it changes these files of the volume, in order."""
    points, counts = [], collections.Counter()
    for thread, call, rest in calls_in(trace):
        for file in concerned(files, volume, call, rest):
            counts[thread, file, call] += 1
            if call != "openat" or "O_CREAT" in rest:
                points.append(Point(file, call, counts[thread, file, call]))
    return list(dict.fromkeys(points))


def concerned(files, volume, call, arguments):
    """Which of these files the tracer takes a call to concern, when it is given their paths and names."""
    paths = re.findall(r'[<"](/[^">]*)[">]', arguments)
    if call == "rename":  # it goes by the first path alone
        del paths[1:]
    names = re.findall(r'"([^"/]+)"', arguments)  # in a folder that is held open
    return [file for file in files if volume.path(file) in paths or os.path.basename(file) in names]


def only(volume, *files):
    """The tracer's options that leave out what does not concern these files."""
    return [word for file in files for word in ("-P", volume.path(file), "-P", os.path.basename(file))]


# Lives

class Life:
    """What a daemon goes through on one volume: `make_volume(name)` makes it, the steps are taken, and `settings` are the
    daemon's. `refuse(volume)` gives options that have the tracer refuse an openat() of every life."""

    def __init__(self, arena, make_volume, steps, refuse=None, **settings):
        self.arena = arena
        self.make_volume = make_volume
        self.steps = steps
        self.refuse = refuse
        self.settings = settings

    def start(self, volume, *options):
        refusal = () if self.refuse is None else self.refuse(volume)
        return start_traced(self.arena, volume, *options, *refusal, **self.settings)

    def changes(self, files):
        """Lives in full on one volume; returns the points at which it changes the given files."""
        volume, trace = self.make_volume("Model"), self.arena.path("trace")
        daemon = self.start(volume, "-y", *only(volume, *files), "-e", f"trace={','.join(CHANGING)}", "-o", trace)
        take_steps([daemon], self.steps)
        assert daemon.wait_exit() == 0
        # The tracer does but one thing to a call: what it refuses it cannot kill at.
        return [point for point in changes_in(trace, volume, files) if self.refuse is None or point.call != "openat"]

    def until_killed(self, points):
        """Lives once for each point, on a volume of its own, until it comes to the point or the end. Returns the volumes and
        the points that were reached."""
        volumes = [self.make_volume("{0.file} {0.call} {0.number}".format(point).replace("/", " ")) for point in points]
        daemons = [self.start(volume, *only(volume, point.file), "-e", f"trace=openat,{point.call}", "-o", "/dev/null",
                              kill_before(point.call, point.number)) for point, volume in zip(points, volumes)]
        take_steps(daemons, self.steps)
        statuses = [daemon.wait_exit() for daemon in daemons]
        assert set(statuses) <= {0, -signal.SIGKILL}
        return volumes, [point for point, status in zip(points, statuses) if status != 0]


def kill_at_each_change(life, recovery, files=FILES):
    """Kills a life at each of its changes of the given files. After every few kills, `recovery(volumes, before)` is told what
    rows each of these volumes was left with. Returns the points that were reached."""
    reached, waiting = [], life.changes(files)
    for _ in range(ATTEMPTS):
        for batch in batches(waiting, 12):
            volumes, killed = life.until_killed(batch)
            reached += killed
            recovery(volumes, all_left_behind(life.arena, volumes))
            remove(volumes)
        waiting = [point for point in waiting if point not in reached]
    print(f"{len(reached)} kills, {len(waiting)} points that no life came to again")
    return reached


def remove(volumes):
    for volume in volumes:
        shutil.rmtree(volume.folder)
