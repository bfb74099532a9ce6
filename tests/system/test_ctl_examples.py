"""The example consumers of `quarrowctl changes`."""
import json
import os
import shutil
import subprocess
import sys

from change_stream import catalogue_lines, catalogued, events_in, parse, small_volume
from ctl import Ctl
from moments import seeded
from quarrow_driver.waiting import BOUND
from trees import change_something, media_volume

EXAMPLES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/examples")


def examples(arena):
    """The commands of the example consumers, of those whose tools are there: at least the Python one."""
    found = [[sys.executable, "-B", f"{EXAMPLES}/mirror.py"]]
    if shutil.which("jq"):
        found.append(["/bin/sh", f"{EXAMPLES}/mirror.sh"])
    if shutil.which("c++"):
        binary = arena.path("mirror")
        subprocess.run(["c++", "-std=c++17", "-Wall", "-Wextra", "-o", binary, f"{EXAMPLES}/mirror.cpp"], check=True)
        found.append([binary])
    return found


class Consumers:
    """All of them, each with a state of its own."""

    def __init__(self, arena, volumes):
        self.ctl = Ctl(arena, volumes)
        self.commands = [[*command, arena.path(f"state{number}")] for number, command in enumerate(examples(arena))]

    def run(self, status, *options):
        """Gives each the changes since its cursor; returns the events, which are the same for all."""
        for command in self.commands:
            cursor = ""
            if os.path.exists(command[-1]):
                with open(command[-1], encoding="ascii", errors="replace") as file:
                    cursor = file.readline().strip()
            output = self.ctl.run("changes", "--since", cursor, *options).bytes
            consumer = subprocess.run(command, input=output, check=False, timeout=BOUND)
            assert consumer.returncode == status, command
            # Half a batch is nothing.
            subprocess.run(command, input=output[:len(output) // 2], check=False, timeout=BOUND, capture_output=True)
        return events_in(parse(output))

    def assert_hold(self, wanted):
        """Each has stored these lines."""
        for command in self.commands:
            with open(command[-1], "rb") as file:
                file.readline()
                assert sorted(json.dumps(json.loads(line), sort_keys=True) for line in file) == wanted, command


def live_lines(*volumes):
    return sorted(json.dumps(line, sort_keys=True) for each in volumes for line in catalogue_lines(each).values()
                  if not line["deleted"])


def make_anew(arena, volume, clock):
    """Makes the volume's catalogue anew, with one file less."""
    os.unlink(volume.catalogue.path)
    os.unlink(volume.path("/m/0/a0.mp3"))
    catalogued(arena, volume, clock)


def test_the_example_consumers_end_with_the_same_state(arena, clock):
    choice = seeded("examples")
    volume, other = media_volume(arena, "V", 60, 100, seed=7), small_volume(arena, clock, "Other")
    consumers = Consumers(arena, [volume, other])
    for number in range(3):
        change_something(volume, choice, number)
        catalogued(arena, volume, clock)
        consumers.run(0)
        clock.advance(1)
    make_anew(arena, other, clock)
    consumers.run(3)
    consumers.run(0, "--full")
    consumers.assert_hold(live_lines(volume, other))


def test_the_example_consumers_take_new_volumes_and_keep_the_rows_of_another(arena, clock):
    """In one batch: volumes are listed in full, before and behind another one that has yet to be."""
    other = small_volume(arena, clock, "Other")
    consumers = Consumers(arena, [other])
    consumers.run(0)
    before = live_lines(other)
    make_anew(arena, other, clock)
    new = [small_volume(arena, clock, name) for name in ("Before", "Then")]
    consumers.ctl = Ctl(arena, [other, *new])
    assert consumers.run(3) == [("full-listing", None), ("restart-needed", "made-anew"), ("full-listing", None)]
    consumers.assert_hold(sorted(before + live_lines(*new)))
    consumers.run(0, "--full")
    consumers.assert_hold(live_lines(other, *new))
