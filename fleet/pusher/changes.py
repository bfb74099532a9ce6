"""`quarrowctl` as a child."""
import contextlib
import fcntl
import json
import os
import select
import signal
import subprocess

from pusher.problem import Problem, Unusable, reason_of
from pusher.rows import original

CHUNK = 1 << 16
PIPE = 1 << 20
END_BOUND = 10
LONGEST_LINE = 1 << 20  # a path has 4 KiB at most, and an escape six characters per byte


class Changes:
    """`quarrowctl changes`, and the lines that it prints. What it has to complain of goes to our standard error."""

    def __init__(self, settings, arguments):
        command = [settings.quarrowctl, "changes", *arguments]
        self.process = None
        try:
            with put_off(signal.SIGTERM, signal.SIGINT):
                self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, bufsize=0)
        except OSError as failure:
            raise not_run(settings, failure) from None
        except BaseException:
            if self.process:
                self.__exit__()
            raise
        with contextlib.suppress(OSError):  # it is a matter of speed, and a machine may forbid it
            fcntl.fcntl(self.process.stdout, fcntl.F_SETPIPE_SZ, PIPE)
        self.rest = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        """The child is told to end before its output is closed, of which it would complain."""
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(END_BOUND)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()

    def lines(self, seconds=None):
        """The next complete lines; none when there was none for so long; None at the end."""
        output = self.process.stdout
        if seconds is not None and not select.select([output], [], [], seconds)[0]:
            return []
        chunk = output.read(CHUNK)
        if not chunk:
            return None
        text, end, rest = chunk.rpartition(b"\n")
        if not end:
            self.rest += rest
            if len(self.rest) > LONGEST_LINE:
                raise Problem("quarrowctl changes", "A line has no end", "Is this the program of this release? Set 'quarrowctl'")
            return []
        text, self.rest = self.rest + text, rest
        return text.decode("utf-8", "surrogateescape").split("\n")

    def status(self):
        return self.process.wait()


@contextlib.contextmanager
def put_off(*numbers):
    """Signals that come meanwhile are handled afterwards: within Popen() they would leave a child that nobody knows. They are
    not blocked, because a child inherits that."""
    came = []
    handlers = {number: signal.signal(number, lambda number, _: came.append(number)) for number in numbers}
    try:
        yield
    finally:
        for number, handler in handlers.items():
            signal.signal(number, handler)
        if came:
            handlers[came[0]](came[0], None)


def ask(settings, *arguments):
    """What a short command prints, and its status."""
    try:
        process = subprocess.run([settings.quarrowctl, *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
    except OSError as failure:
        raise not_run(settings, failure) from None
    return process.stdout, process.returncode


def not_run(settings, failure):
    return Unusable(settings.quarrowctl, f"The program cannot be run: {reason_of(failure)}",
                    f"Install it, or name it with 'quarrowctl' in {settings.place}")


def software(settings):
    """The name and version of what is installed, on one line."""
    return ask(settings, "--version")[0].decode("utf-8", "surrogateescape").strip()


def configured_volumes(settings):
    """The roots of the volumes that are to be sent, by name, and the file that has them. Raises when the daemon's configuration
    cannot be used."""
    output, status = ask(settings, "check", "--json")
    try:
        report = json.loads(output)
        if not report["accepted"]:
            raise ValueError
        file = original(report, "configuration")
        volumes = {original(volume, "name"): original(volume, "root") for volume in report["volumes"]}
    except (ValueError, KeyError, TypeError):
        raise Problem("quarrowctl check", f"It ended with {status} and did not list the volumes",
                      "Run 'quarrowctl check' as this user, and correct what it says") from None
    wanted = settings.volume or volumes
    for name in wanted:
        if name not in volumes:
            raise Unusable(settings.place, f"There is no volume '{name}' in the daemon's configuration",
                           "Correct 'volume', or remove it: what is left out here is hidden in the fleet")
    return {name: os.fsencode(root).rstrip(b"/") for name, root in volumes.items() if name in wanted}, file
