"""Runs the daemon once under valgrind: a small tree, a live change, a turn of the control loop, SIGTERM. Fails, with
valgrind's report, on any error of memory and on memory that is definitely lost.

  memcheck.py DAEMON
"""
import os
import sys

sys.dont_write_bytecode = True
os.environ["QUARROW_BINARY"] = os.path.realpath(sys.argv[1])
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../tests/system"))

from harness import Arena  # (the path comes first)
from quarrow_driver.waiting import wait_for

ERROR_STATUS = 99


def valgrind(report):
    # Leaks alone are no errors unless said so; what is reachable at the end are the objects that live as long as the
    # process. The debugger's pipes would lie in /tmp.
    return ("/usr/bin/valgrind", "--tool=memcheck", "--leak-check=full", "--show-leak-kinds=definite",
            "--errors-for-leak-kinds=definite", f"--error-exitcode={ERROR_STATUS}", "--vgdb=no", "--num-callers=30",
            f"--log-file={report}")


def run(arena):
    # With crawl paths: what readers do to a catalogue is then outside the watched folders.
    volumes = [arena.volume(name, crawl=["/Music/"], exclude=["Private"]) for name in ("One", "Two")]
    for volume in volumes:
        for name in ("/Music/Rock/a.mp3", "/Music/Rock/gone.jpg", "/Music/Private/c.mp3", "/Music/d"):
            volume.make_file(name, b"x")
    report = arena.path("valgrind.txt")
    daemon = arena.start(volumes, wrapper=valgrind(report), purge_threshold=1)
    try:
        daemon.wait_walks(2)
        daemon.end_first_sleep()
        # In one folder: a burst that touches several may leave the last one to the next walk.
        changed = volumes[0]
        changed.make_file("/Music/Rock/new.mp3", b"x")
        os.unlink(changed.path("/Music/Rock/gone.jpg"))
        wait_for(lambda: follows(changed), "the changes in the catalogue")
        daemon.signal(15)
        status = daemon.wait_exit()
    except AssertionError as problem:
        return f"{problem}\n{daemon.tail()}"
    with open(report, encoding="utf-8", errors="replace") as file:
        text = file.read()
    if status != 0 or "ERROR SUMMARY: 0 errors" not in text:
        return f"exit status {status}\n{text}"
    return None


def follows(volume):
    live = volume.catalogue.live()
    return "/Music/Rock/new.mp3" in live and "/Music/Rock/gone.jpg" not in live


def main():
    arena = Arena()
    try:
        problem = run(arena)
    finally:
        arena.close()
    if problem is not None:
        sys.exit(problem)
    print("valgrind: no errors, nothing lost")


main()
