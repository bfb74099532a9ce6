"""The daemon run in a sandbox, and what it logs."""
import json
import os
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time

from lines import AWAKE, BURST_END, SLEEP, info, is_walk_end
from quarrow_driver.log import LogReceiver, parse
from quarrow_driver.process import DaemonProcess
from quarrow_driver.waiting import BOUND, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))
BINARY = os.environ.get("QUARROW_BINARY", "")
MIME_TABLE = os.environ.get("QUARROW_MIME_TABLE", os.path.normpath(os.path.join(HERE, "../../data/mime_types.txt")))


class LogSink(LogReceiver):
    """Keeps what the program of the given name logs as a list of LogLine."""

    def __init__(self, folder, ident):
        super().__init__(folder)
        self.ident = ident
        self.lines = []
        self.damaged = []  # datagrams that are no message of the daemon's
        self.start()

    def take(self, datagram):
        line = parse(datagram, self.ident)
        if line is None:
            self.damaged.append(datagram)
        else:
            self.lines.append(line)


def is_linked_with(library):
    """False for the script that starts a program of another architecture: those are built without sanitizers."""
    return library in subprocess.run(["ldd", BINARY], capture_output=True, text=True, check=False).stdout


def has_thread_sanitizer():
    return is_linked_with("libtsan")


def has_address_sanitizer():
    return is_linked_with("libasan")


def sanitizer_options():
    """The runtimes are not preloaded before the clock, though the first one asks for it: the daemon's children, which know
    nothing of sanitizers, do not survive that. Their allocators hold a lock while they ask for the time of a release, and
    the clock allocates on its first call: so they release nothing. And the daemon's handlers do real work on purpose,
    where the main thread is at rest: what may be called in a handler is no question here."""
    options = {"ASAN_OPTIONS": "verify_asan_link_order=0:allocator_release_to_os_interval_ms=-1",
               "TSAN_OPTIONS": "allocator_release_to_os_interval_ms=-1:report_signal_unsafe=0"}
    return {name: ":".join(filter(None, [os.environ.get(name), value])) for name, value in options.items()}


def sandbox_command(arena, folder, argv, log, mime_table=MIME_TABLE, binds=(), closed=(), user=None, environment=None,
                    **limits):
    """The command that runs `argv` in a sandbox whose own files lie in `folder`."""
    for name in ("root", "tmp"):
        os.makedirs(os.path.join(folder, name), exist_ok=True)
    os.chmod(os.path.join(folder, "tmp"), 0o1777)
    binary_folder = os.path.dirname(BINARY)
    if binary_folder.startswith("/tmp/"):  # the whole build folder, for the counters of a coverage build
        binary_folder = "/".join(binary_folder.split("/")[:3])
    settings = {"argv": argv, "root": os.path.join(folder, "root"), "tmp": os.path.join(folder, "tmp"), "log": log,
                "mime_table": mime_table, "keep": [arena.folder, binary_folder], "binds": list(binds),
                "mounts": arena.mount_points, "closed": list(closed), "user": user, "environment": environment or {}, **limits}
    return [sys.executable, "-S", "-E", "-s", "-B", os.path.join(HERE, "sandbox.py"), json.dumps(settings)]


class Daemon(DaemonProcess):
    """One run of the daemon. `pid` is the daemon itself: it is signalled and waited for directly."""

    def __init__(self, arena, arguments=(), environment=None, mime_table=MIME_TABLE, binds=(), closed=(), standby=False,
                 wrapper=(), **limits):
        """`limits` and `user_limits` are what the sandbox makes of them. `wrapper` is a command, its program with an absolute
        path, that is run in the sandbox and is to run the daemon's, which comes behind it."""
        self.arena = arena
        self.folder = tempfile.mkdtemp(prefix="run-", dir=arena.folder)
        self.log = LogSink(self.folder, os.path.basename(BINARY))
        self.exit_status = None
        inherited = {key: value for key, value in os.environ.items()
                     if key != "QUARROW_CONFIG_FILE" and not key.startswith("FAKETIME")}
        command = sandbox_command(arena, self.folder, [*wrapper, BINARY, *arguments], self.log.path, mime_table, binds, closed,
                                  environment={**inherited, **sanitizer_options(), **(environment or {})}, **limits)
        if standby:
            self.set_standby(True)
        with open(self.output_path("stdout"), "wb") as stdout, open(self.output_path("stderr"), "wb") as stderr:
            super().__init__(command, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr)
        arena.daemons.append(self)

    # What it writes

    def output_path(self, name):
        return os.path.join(self.folder, name)

    def output(self, name="stdout"):
        with open(self.output_path(name), encoding="utf-8", errors="surrogateescape") as file:
            return file.read()

    def sanitizer_report(self):
        text = self.output("stderr")
        return text if re.search(r"(Address|Thread|Leak)Sanitizer|runtime error:", text) else ""

    @property
    def lines(self):
        with self.log.changed:
            return list(self.log.lines)

    def texts(self, priority=None):
        return [line.text for line in self.lines if priority in (None, line.priority)]

    def errors(self):
        return self.texts("ERR")

    def count(self, line):
        return self.lines.count(line)

    # Waiting for it

    def wait_log(self, condition, what, bound=BOUND):
        """Returns the first true value of `condition(lines)`, asked anew whenever a line comes in."""
        deadline = time.monotonic() + bound
        while True:
            ended = self.has_ended()
            if ended:
                self.log.settle(BOUND)
            with self.log.changed:
                value = condition(self.log.lines)
                if value:
                    return value
                assert not ended, f"the daemon ended with {self.process.returncode} before: {what}"
                assert time.monotonic() < deadline, f"not within {bound} s: {what}\n{self.tail()}"
                self.log.changed.wait(0.2)

    def wait_line(self, line, times=1):
        self.wait_log(lambda lines: lines.count(line) >= times, f"{times} of {line}")

    def wait_walks(self, times=1, bound=BOUND):
        """Returns when that many walks in all have logged their end, and no walk thread is left."""
        self.wait_log(lambda lines: sum(is_walk_end(line) for line in lines) >= times, f"the end of {times} walks", bound)
        self.wait_idle()

    def is_idle(self):
        return self.thread_count() <= self.steady_threads()

    def wait_idle(self, bound=BOUND):
        """Returns when no walk thread is left."""
        wait_for(self.is_idle, "the end of the walk threads", bound)

    def walks_of(self, volume):
        """How many walks of a volume with one start folder have ended."""
        start = volume.path(volume.crawl[0].rstrip("/") if volume.crawl else "")
        return self.count(info(f"Finished walk. Walk started at {start}\n"))

    def wait_walks_of(self, volume, times):
        self.wait_log(lambda _: self.walks_of(volume) >= times, f"{times} walks of {volume.name}")

    def wait_bursts(self, times, bound=BOUND):
        self.wait_log(lambda lines: lines.count(BURST_END) >= times, f"the end of {times} bursts", bound)

    def bursts(self):
        return self.count(BURST_END)

    def thread_count(self):
        return len(self.threads())

    @staticmethod
    def steady_threads():
        """Main, watcher and purge thread; the thread sanitizer keeps one of its own."""
        return 3 + has_thread_sanitizer()

    def tail(self, lines=30):
        return "\n".join(f"{line.priority:4} {line.text[:250]!r}" for line in self.log.lines[-lines:])

    # Acting on it

    def signal(self, number):
        assert not self.has_ended(), f"the daemon has ended with {self.process.returncode}"
        os.kill(self.pid, number)

    def wait_exit(self):
        """Waits for the end of the daemon; returns its exit status, negative for a signal."""
        try:
            status = self.process.wait(BOUND)
        except subprocess.TimeoutExpired as expired:
            raise AssertionError(f"the daemon still runs after {BOUND} s\n{self.tail()}") from expired
        self.log.settle(BOUND)
        return status

    def stop(self):
        """Stops the daemon in the regular way, which always succeeds."""
        self.signal(signal.SIGTERM)
        status = self.wait_exit()
        assert status == 0, f"exit status {status}\n{self.output('stderr')}\n{self.tail()}"

    def stop_without_errors(self):
        """Stops the daemon; it has not logged an error in all its life."""
        self.stop()
        assert self.errors() == [], self.errors()

    def kill(self):
        self.signal(signal.SIGKILL)
        assert self.wait_exit() == -signal.SIGKILL

    def end_first_sleep(self):
        """Cuts short the minute between start-up and the control loop; returns when the loop waits.

        The loop's semaphore then counts two, the initial one and the signal's, so the loop turns twice."""
        before = self.count(SLEEP)
        assert before == 0
        self.signal(signal.SIGUSR1)
        self.wait_line(SLEEP, 3)

    def wake(self):
        """Wakes the control loop; returns when it has done its round and waits again."""
        sleeps = self.count(SLEEP)
        self.signal(signal.SIGUSR1)
        self.wait_line(SLEEP, sleeps + 1)

    def rewalk(self, clock=None, bound=BOUND):
        """Has the control loop walk every volume once; returns when no walk thread is left. Without the clock that it was
        started with, the daemon needs one that runs fast: signals that come too soon are repeated."""
        rounds = lambda lines: lines.count(AWAKE) - sum(line.text.startswith("Woke up too soon") for line in lines)
        self.wait_idle()
        before = rounds(self.lines)
        while rounds(self.lines) == before:
            if clock is not None:
                clock.advance(300)
            woken = self.count(AWAKE)
            self.signal(signal.SIGUSR1)
            self.wait_log(lambda lines: woken < lines.count(AWAKE) < lines.count(SLEEP), "the control loop back at its wait")
            time.sleep(0.05)
        self.wait_idle(bound)

    def limit(self, name, limit=None):
        """Sets a soft resource limit of the running daemon, as in limit("NOFILE", 20); without a value, lifts it."""
        number = getattr(resource, f"RLIMIT_{name}")
        hard = resource.prlimit(self.pid, number)[1]
        resource.prlimit(self.pid, number, (hard if limit is None else limit, hard))

    def descriptors(self):
        """What the daemon has open: descriptor to the file it leads to."""
        folder, found = f"/proc/{self.pid}/fd", {}
        for number in os.listdir(folder):
            try:
                found[int(number)] = os.readlink(f"{folder}/{number}")
            except FileNotFoundError:  # closed meanwhile
                pass
        return found

    def kernel_watches(self):
        """How many watches the kernel keeps for the daemon."""
        [number] = [number for number, target in self.descriptors().items() if target == "anon_inode:inotify"]
        with open(f"/proc/{self.pid}/fdinfo/{number}", encoding="ascii") as file:
            return sum(line.startswith("inotify ") for line in file)

    def set_standby(self, present):
        marker = os.path.join(self.folder, "tmp", "standby")
        if present:
            os.makedirs(os.path.dirname(marker), exist_ok=True)
            open(marker, "wb").close()
        else:
            os.unlink(marker)

    class Frozen:
        """While inside, the daemon is stopped: all kernel records that arise are read in one piece afterwards."""

        def __init__(self, daemon):
            self.daemon = daemon

        def __enter__(self):
            os.kill(self.daemon.pid, signal.SIGSTOP)
            _, status = os.waitpid(self.daemon.pid, os.WUNTRACED)
            assert os.WIFSTOPPED(status)

        def __exit__(self, *_):
            os.kill(self.daemon.pid, signal.SIGCONT)

    def frozen(self):
        return self.Frozen(self)

    def close(self):
        if not self.has_ended():
            self.process.kill()
            self.process.wait()
        if self.log is not None and self.log.thread.is_alive():
            self.log.close()
            assert self.log.damaged == [], "datagrams without the daemon's name or facility"
