"""What fleet/demo.sh runs once everything is built: it tells the truth, and leaves nothing running however it ends."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

import pytest

from fleet_world import TOP, has_servers
from push_world import QUARROWCTL
from quarrow_driver.waiting import poll, wait_for

QUARROW = os.environ.get("QUARROW_BINARY", f"{TOP}/build/release/quarrow")
BOUND = 300
END = 60


class Demo:
    def __init__(self, tools):
        self.output = tempfile.NamedTemporaryFile(dir=tools)
        self.process = subprocess.Popen([sys.executable, "-B", f"{TOP}/fleet/demo/run.py", tools], stdin=subprocess.DEVNULL,
                                        stdout=self.output, stderr=subprocess.STDOUT)

    def said(self):
        with open(self.output.name, encoding="utf-8") as file:
            return file.read()

    def wait_said(self, text):
        wait_for(lambda: text in self.said() or self.process.poll() is not None, f"{text!r} of the demo", BOUND)
        assert text in self.said(), self.said()

    def descendants(self):
        """Process ids, with the times of their starts: an id may be given again."""
        found, parents = set(), [self.process.pid]
        while parents:
            parents = [child for parent in parents for child in children(parent)]
            found |= {(child, started(child)) for child in parents}
        return {(child, start) for child, start in found if start is not None}


def children(number):
    """Of all threads of a process; none when it is gone."""
    try:
        found = []
        for thread in os.listdir(f"/proc/{number}/task"):
            with open(f"/proc/{number}/task/{thread}/children", encoding="ascii") as file:
                found += file.read().split()
        return found
    except (FileNotFoundError, ProcessLookupError):
        return []


def started(number):
    """None when there is no such process, or only what is left of it."""
    try:
        with open(f"/proc/{number}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if fields[0] == "Z" else fields[19]


def command(number):
    try:
        with open(f"/proc/{number}/cmdline", encoding="utf-8", errors="replace") as file:
            return file.read().split("\0")
    except (FileNotFoundError, ProcessLookupError):
        return []


@pytest.fixture
def demo():
    if not has_servers():
        pytest.skip("clickhouse-server is not installed")
    tools = os.path.realpath(tempfile.mkdtemp(prefix="demo-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None))
    for name, binary in (("quarrow", QUARROW), ("quarrowctl", QUARROWCTL)):
        os.symlink(binary, f"{tools}/{name}")
    made = Demo(tools)
    yield made
    if made.process.poll() is None:
        made.process.kill()
        made.process.wait()
    made.output.close()
    shutil.rmtree(tools)


def test_it_shows_what_it_says(demo):
    status = demo.process.wait(BOUND)
    said = demo.said()
    assert status == 0, said
    for text in ("Killed the server that keeps attic's rows, in mid-load", "Killed studio's pusher in mid-send",
                 "all are there, and nothing else.", "Holiday 1998.mkv", "Stopping the daemons and the servers"):
        assert text in said, said
    assert sum(line.endswith("?") and not line.startswith((" ", "Nobody")) for line in said.splitlines()) == 10, said
    growth, _, rest = said.partition("What grew most this week?")[2].partition("Which file lies on several appliances?")
    assert "studio" in growth and "attic" not in growth and "none" not in rest.partition("went silent?")[0], said


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_nothing_goes_on_when_it_is_interrupted(demo, number):
    demo.wait_said("First load")
    demo.process.send_signal(signal.SIGSTOP)  # nothing is started between the look and the signal
    below = demo.descendants()
    assert len(below) >= 5  # two servers and three daemons
    demo.process.send_signal(number)
    demo.process.send_signal(signal.SIGCONT)
    assert demo.process.wait(BOUND) == {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGKILL: -9}[number], demo.said()
    left = lambda: [command(child) for child, start in below if started(child) == start]
    poll(lambda: not left(), END)
    assert left() == []


def test_nothing_starts_when_its_parent_is_gone_already(tmp_path):
    """The kernel is told too late then to end it."""
    parent = ("import subprocess, sys; from demo.server import with_parent\n"
              "subprocess.Popen(['sh', '-c', 'read line; \"$@\"; touch checked', 'sh', *with_parent('touch', 'started')], stdin=0)")
    done = subprocess.Popen([sys.executable, "-B", "-c", parent], cwd=tmp_path, stdin=subprocess.PIPE,
                            env={**os.environ, "PYTHONPATH": f"{TOP}/fleet"})
    assert done.wait(BOUND) == 0
    done.stdin.write(b"\n")
    done.stdin.close()
    wait_for((tmp_path / "checked").exists, "the end of the attempt")
    assert not (tmp_path / "started").exists()
