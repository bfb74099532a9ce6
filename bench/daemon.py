"""Drives the daemon and the receiver of its log lines."""
import ctypes
import os
import signal
import subprocess
import threading
import time

from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.process import DaemonProcess
from quarrow_driver.waiting import poll

LOG_SOCKET = "/dev/log"
PATIENCE = 600  # seconds; a walk of a large tree on a slow disk still ends within it
STOP_PATIENCE = 120
WALK_BEGINS = "Crawl paths is empty so starting at "
WALK_ENDS = "Finished walk. Walk started at "


def end_with_parent():
    """In a child: no daemon stays behind when the runner is killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class LogSink:
    """The receiver behind /dev/log. Holds every line but the ones per folder, each with the time of its arrival."""

    def __init__(self, program):
        self.lines = []  # (monotonic seconds, text), appended by the reader thread
        self.arrived = threading.Condition()
        self.process = subprocess.Popen([program, LOG_SOCKET], stdout=subprocess.PIPE, text=True, errors="replace")
        if self.process.stdout.readline() != "ready\n":
            raise RuntimeError("the log receiver did not start")
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.reader.join()
        os.unlink(LOG_SOCKET)

    def read(self):
        for line in self.process.stdout:
            stamp, _, text = line.rstrip("\n").partition(" ")
            with self.arrived:
                self.lines.append((float(stamp), text))
                self.arrived.notify_all()

    def mark(self):
        """A place in the log: what arrives from now on."""
        return len(self.lines)

    def wait_for(self, *beginnings, since):
        """The first line after the mark `since` that begins with one of the given texts: (seconds, text)."""
        deadline = time.monotonic() + PATIENCE
        position = since
        with self.arrived:
            while True:
                for entry in self.lines[position:]:
                    if entry[1].startswith(beginnings):
                        return entry
                position = len(self.lines)
                if not self.arrived.wait(deadline - time.monotonic()):
                    raise RuntimeError(f"no log line {beginnings} within {PATIENCE} s; the last were {self.lines[-5:]}")

    def wait_for_quiet(self, seconds):
        """Returns once no line has arrived for so long."""
        with self.arrived:
            while self.arrived.wait(seconds):
                pass


class Daemon(DaemonProcess):
    """The daemon over one volume and perhaps further ones, from start to SIGTERM."""

    def __init__(self, program, volume, work, crawl_paths=(), tracer=(), environment=None, exclude=(), further=()):
        config = f"{work}/quarrow-host.xml"
        elements = [volume_element("bench", volume, crawl_paths, exclude)]
        elements += [volume_element(f"bench {number}", root, (), exclude) for number, root in enumerate(further, 2)]
        with open(config, "w", encoding="utf-8") as file:
            file.write(host_configuration(elements))
        self.started = time.monotonic()
        super().__init__([*tracer, program], config, environment, stdout=subprocess.DEVNULL, preexec_fn=end_with_parent)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        status = self.terminate(STOP_PATIENCE)
        if kind is None and status != 0:
            raise RuntimeError(f"the daemon's exit status was {status}" if status is not None
                               else f"the daemon had not ended {STOP_PATIENCE} s after SIGTERM")

    def walk_thread_seconds(self):
        """How long the walk thread lived, by looking every few milliseconds: it is the only thread that ends by itself.
        For a daemon that nobody hears. Includes the tidying of the catalogue after the walk."""
        first_seen = {}

        def lifetime():
            now = time.monotonic()
            present = set(self.threads())
            for task in present:
                first_seen.setdefault(task, now)
            ended = first_seen.keys() - present
            return now - first_seen[ended.pop()] if ended else None

        seconds = poll(lifetime, PATIENCE, pause=0.003)
        if seconds is None:
            raise RuntimeError(f"no thread ended within {PATIENCE} s")
        return seconds
