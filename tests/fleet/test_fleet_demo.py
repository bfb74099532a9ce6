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
from quarrow_driver.waiting import wait_for

QUARROW = os.environ.get("QUARROW_BINARY", f"{TOP}/build/release/quarrow")
BOUND = 300


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

    def children(self):
        """Process ids, with the times of their starts: an id may be given again."""
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children", encoding="ascii") as file:
            return {(number, started(number)) for number in file.read().split()}


def started(number):
    """None when there is no such process, or only what is left of it."""
    try:
        with open(f"/proc/{number}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if fields[0] == "Z" else fields[19]


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
    children = demo.children()
    assert len(children) >= 5  # two servers and three daemons
    assert all(started(child) == start for child, start in children)
    demo.process.send_signal(number)
    assert demo.process.wait(BOUND) == {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGKILL: -9}[number], demo.said()
    wait_for(lambda: not any(started(child) == start for child, start in children), "the end of all that it started")
