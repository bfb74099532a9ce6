"""The process of a daemon, by its id: figures of /proc, signals, its end."""
import os
import signal
import subprocess

TICK = os.sysconf("SC_CLK_TCK")


class DaemonProcess:
    """One run of the daemon, which reads the given host configuration (None: the one that the machine has)."""

    def __init__(self, command, config=None, environment=None, **settings):
        """`environment` comes on top of the caller's own; the `settings` are those of subprocess.Popen."""
        own = {} if config is None else {"QUARROW_CONFIG_FILE": config}
        self.process = subprocess.Popen(command, env={**os.environ, **own, **(environment or {})}, **settings)
        self.pid = self.process.pid

    def has_ended(self):
        return self.process.poll() is not None

    def threads(self):
        """The ids of its threads."""
        return os.listdir(f"/proc/{self.pid}/task")

    def status(self):
        """The lines of /proc/PID/status: name to words."""
        with open(f"/proc/{self.pid}/status", encoding="utf-8", errors="replace") as file:
            return {name: words.split() for name, _, words in (line.partition(":") for line in file)}

    def memory(self):
        """What is in KiB of these, by name."""
        return {name: int(words[0]) for name, words in self.status().items() if words[-1:] == ["kB"]}

    def processor_seconds(self):
        """User and system time so far, of threads that ended as well; in steps of a clock tick."""
        with open(f"/proc/{self.pid}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK

    def terminate(self, bound=None):
        """Stops it with SIGTERM and returns its exit status; None when it has not ended within the bound, and was killed."""
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(bound)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None
