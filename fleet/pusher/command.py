"""The command: its options, its runs, its exit status."""
import argparse
import contextlib
import os
import signal
import time

from pusher.changes import Changes, configured_volumes
from pusher.problem import Problem, Stopped, say, tell
from pusher.push import Push
from pusher.server import Server
from pusher.settings import read_settings
from pusher.state import State

GOOD, PROBLEMS, RESTART_NEEDED = 0, 1, 3  # what `quarrowctl changes` ends with when it has read what can be read
DEFAULT = "/etc/quarrow/push.conf"
DESCRIPTION = "Sends what has changed in this machine's catalogues to the database of the fleet."
STATUSES = """Exit status: 0 all is sent and confirmed; 1 not all: what is left comes with the next run; 2 nothing was done: the
configuration or the state cannot be used, or another pusher is at work."""


def main():
    options = parse()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, stop)
    try:
        settings = read_settings(options.config)
        settings.password()
        server = Server(settings, is_patient=options.follow)
        if options.check:
            return check(settings, server)
        state = State(settings.state, settings.appliance)
        state.take_lock()
        state.load()
        return follow(settings, state, server) if options.follow else once(settings, state, server, options.full)
    except Problem as problem:
        say(problem)
        return problem.status
    except Stopped as stopped:
        return end_by(stopped.args[0], options.follow)


def parse():
    parser = argparse.ArgumentParser(prog="push", description=DESCRIPTION, epilog=STATUSES)
    parser.add_argument("--config", default=DEFAULT, metavar="FILE", help=f"the configuration (default: {DEFAULT})")
    way = parser.add_mutually_exclusive_group()
    way.add_argument("--once", action="store_true", help="send what has changed since the last time, and end (default)")
    way.add_argument("--follow", action="store_true", help="go on with what changes, until SIGTERM or SIGINT")
    way.add_argument("--full", action="store_true", help="send everything anew, and end")
    way.add_argument("--check", action="store_true", help="only see whether each server would take rows of this machine")
    return parser.parse_args()


def stop(number, _):
    raise Stopped(number)


def end_by(number, was_told_to_stay):
    """To follow until a signal comes is the order, so that is no failure. A run that has not sent all ends by its signal."""
    if was_told_to_stay:
        return 0
    signal.signal(number, signal.SIG_DFL)
    os.kill(os.getpid(), number)
    return 1


def check(settings, server):
    volumes, _ = configured_volumes(settings)
    status = GOOD
    for url in settings.url:
        try:
            server.check(url)
            tell(f"{url}: The server takes the rows of {settings.appliance}, which has {len(volumes)} volumes.")
        except Problem as problem:
            say(problem)
            status = problem.status
    return status


def once(settings, state, server, is_full=False):
    begin = time.monotonic()
    push = Push(settings, state, server)
    status = catch_up(push, is_full)
    tell(push.summary(begin))
    return status


def catch_up(push, is_full):
    """One listing of what has changed, and one of all rows of the volumes that need it. Then again one of what has changed, for
    its status: that of the first says only that a restart was needed."""
    push.roots, push.configuration = configured_volumes(push.settings)
    push.settle()
    push.leave(sorted(push.state.volumes.keys() - push.roots.keys()))
    status = list_changes(push, ["--full"] if is_full else [], push.settings.volume)
    due = sorted((push.unknown | set(push.state.opened)) & push.roots.keys())
    if due:
        push.unknown.clear()
        if list_changes(push, ["--full"], due) == GOOD and not push.listed_all(due):
            raise Problem("quarrowctl changes", "It lists volumes in full without saying so",
                          "Is this the program of this release? Set 'quarrowctl'")
        status = list_changes(push, [], push.settings.volume)
    return GOOD if status == GOOD else PROBLEMS


def list_changes(push, options, volumes):
    """One run of `quarrowctl changes`, of these volumes or all. Returns its status."""
    push.is_complete = False
    with listing(push, options, volumes) as changes:
        while (lines := changes.lines()) is not None:
            push.take(lines)
        status = changes.status()
    if changes.rest or not push.is_complete or status not in (GOOD, PROBLEMS, RESTART_NEEDED):
        raise ended(status, push.is_complete)
    return status


@contextlib.contextmanager
def listing(push, options, volumes):
    names = [argument for volume in volumes for argument in ("--volume", volume)]
    with push.state.cursor_file() as path, Changes(push.settings, [*options, "--cursor-file", path, *names]) as changes:
        yield changes


def ended(status, is_complete):
    how = f"signal {-status}" if status < 0 else f"status {status}"
    return Problem("quarrowctl changes", f"It ended with {how}{', after' if is_complete else ' before'} all was listed",
                   "What it says tells why; what was sent without a cursor is sent again")


def follow(settings, state, server):
    begin = time.monotonic()
    push = Push(settings, state, server)
    try:
        while True:
            catch_up(push, False)
            with listing(push, ["--follow"], settings.volume) as changes:
                if not follow_changes(push, changes):
                    raise ended(changes.status(), False)
            push.forget()
    finally:
        tell(push.summary(begin))


def follow_changes(push, changes):
    """Returns whether it is to begin anew, or quarrowctl has ended."""
    seen = time.monotonic()
    while (lines := changes.lines(max(0, seen + push.settings.contact - time.monotonic()))) is not None:
        push.take(lines)
        if time.monotonic() >= seen + push.settings.contact:
            if push.has_jumped() or are_other_volumes(push):
                return True
            push.contact()
            seen = time.monotonic()
    return False


def are_other_volumes(push):
    """A configuration that is not in order may be about to be: the volumes of before are followed until then. One that was not
    touched is not read: with it go the catalogues, whose disks may sleep."""
    version = file_version(push.configuration)
    if version and version == push.configuration_version:
        return False
    try:
        roots, _ = configured_volumes(push.settings)
    except Problem as problem:
        say(f"{problem} Until then the volumes stay as they were.")
        return False
    push.configuration_version = version
    return roots != push.roots


def file_version(path):
    try:
        status = os.stat(path)
    except OSError:
        return None
    return status.st_dev, status.st_ino, status.st_size, status.st_mtime_ns, status.st_ctime_ns
