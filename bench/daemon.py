"""Drives the daemon and the receiver of its log lines."""
import ctypes
import os
import signal
import subprocess
import threading
import time
from xml.sax.saxutils import escape

LOG_SOCKET = "/dev/log"
PATIENCE = 600  # seconds; a walk of a large tree on a slow disk still ends within it
TICK = os.sysconf("SC_CLK_TCK")
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


class Daemon:
    """The daemon over one volume, from start to SIGTERM."""

    def __init__(self, program, volume, work, crawl_paths=(), tracer=(), environment=None):
        config = f"{work}/quarrow-host.xml"
        paths = "".join(f"<Path>{escape(path)}</Path>" for path in crawl_paths)
        with open(config, "w", encoding="utf-8") as file:
            file.write("<Quarrow><Version>1.0</Version><last_updated_time>1</last_updated_time>"
                       "<quarrow_enabled>true</quarrow_enabled><Volumes><Volume><Name>bench</Name>"
                       f"<Root>{escape(volume)}</Root><CrawlPaths>{paths}</CrawlPaths></Volume></Volumes></Quarrow>\n")
        self.started = time.monotonic()
        self.process = subprocess.Popen([*tracer, program], stdout=subprocess.DEVNULL, preexec_fn=end_with_parent,
                                        env={**os.environ, "QUARROW_CONFIG_FILE": config, **(environment or {})})
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(120)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = "none within 120 s after SIGTERM"
        if kind is None and status != 0:
            raise RuntimeError(f"the daemon's exit status was {status}")

    def processor_seconds(self):
        """User and system time so far, of threads that ended as well; in steps of a clock tick."""
        with open(f"/proc/{self.pid}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK

    def memory(self):
        """The kB values of /proc/PID/status, by name."""
        with open(f"/proc/{self.pid}/status", encoding="utf-8", errors="replace") as file:
            return {line.split(":")[0]: int(line.split()[1]) for line in file if line.rstrip().endswith("kB")}

    def walk_thread_seconds(self):
        """How long the walk thread lived, by looking every few milliseconds: it is the only thread that ends by itself.
        For a daemon that nobody hears. Includes the tidying of the catalogue after the walk."""
        tasks = f"/proc/{self.pid}/task"
        first_seen = {}
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            now = time.monotonic()
            present = set(os.listdir(tasks))
            for task in present:
                first_seen.setdefault(task, now)
            ended = first_seen.keys() - present
            if ended:
                return now - first_seen[ended.pop()]
            time.sleep(0.003)
        raise RuntimeError(f"no thread ended within {PATIENCE} s")
