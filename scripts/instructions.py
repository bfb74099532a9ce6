"""Counts the instructions of a first walk and of a walk of the unchanged tree, 2,000 files in 100 folders. Fails when
either count is more than 3 % above the one that is recorded beside this file.

  instructions.py DAEMON

The counts hold for one compiler and one library each of C, C++ and SQLite, those of Debian 12: a new record is a change
of code, of compiler or of a library, and its commit says which. Time on a noisy machine tells nothing about a few per cent.
"""
import json
import os
import re
import sys

sys.dont_write_bytecode = True
HERE = os.path.dirname(os.path.abspath(__file__))
os.environ["QUARROW_BINARY"] = os.path.realpath(sys.argv[1])
sys.path[:0] = [f"{HERE}/../tests/system", f"{HERE}/../bench"]

from harness import Arena  # (the path comes first)
from make_tree import make_tree

RECORD = f"{HERE}/instructions.json"
TOLERANCE = 1.03
WALK = "TreeWalk::run()"  # counted from its beginning to its end, with all that it calls


def callgrind(output):
    return ("/usr/bin/valgrind", "--tool=callgrind", "--vgdb=no", "-q", f"--toggle-collect={WALK}",
            f"--callgrind-out-file={output}")


def count_walk(arena, volume, name):
    output = arena.path(f"callgrind.{name}")
    daemon = arena.start([volume], wrapper=callgrind(output))
    daemon.wait_walks(1)
    daemon.signal(15)
    status = daemon.wait_exit()
    if status != 0:
        sys.exit(f"exit status {status}\n{daemon.tail()}")
    with open(output, encoding="utf-8") as file:
        count = int(re.search(r"^summary: (\d+)", file.read(), re.MULTILINE).group(1))
    if count == 0:
        sys.exit(f"nothing was counted: is {WALK} still the walk's name?")
    return count


def measure():
    arena = Arena()
    try:
        volume = arena.volume("One")
        make_tree(volume.path("/library"), 2000, 100, 1)
        return {name: count_walk(arena, volume, name) for name in ("first walk", "re-walk")}
    finally:
        arena.close()


def main():
    with open(RECORD, encoding="utf-8") as file:
        recorded = json.load(file)
    grown = []
    for name, count in measure().items():
        print(f"{name}: {count:,} instructions, recorded {recorded[name]:,}: {count / recorded[name]:.3f}")
        if count > recorded[name] * TOLERANCE:
            grown.append(name)
    if grown:
        sys.exit(f"grown by more than {TOLERANCE - 1:.0%}: {', '.join(grown)}")


main()
