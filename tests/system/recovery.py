"""What the fault tests ask of the daemon after a fault: everything that is on disk is in the catalogue, once and right."""
import os

from catalogue import Rows, assert_same, same
from lines import SLEEP, err, info, is_walk_end

#: How many times as many runs as in everyday use, for a long watch by hand.
RUNS = int(os.environ.get("QUARROW_FAULT_RUNS", "1"))


def settle(daemon):
    """Returns when the daemon has started and no walk is going on, however each has ended."""
    daemon.wait_line(info("================\n"))
    if daemon.count(SLEEP) == 0:
        daemon.end_first_sleep()
    daemon.wait_idle()


def walk_again(daemon, clock, walks):
    """Has the control loop walk every idle volume anew; returns when that many more walks have ended."""
    settle(daemon)
    ended = sum(is_walk_end(line) for line in daemon.lines)
    clock.advance(300)
    daemon.wake()
    daemon.wait_walks(ended + walks)


def failed_walks(daemon, volume):
    """How many walks of a volume have met what they could not cope with."""
    return daemon.count(err(f"Got an exception during the walking of volumeManager {volume.name}\n"))


def live_rows(rows):
    """The rows that readers are offered. A row keeps the creation time of its file's first walk, so that is left out."""
    kept = lambda kind: [row._replace(created=0) for row in kind if not row.deleted]
    return Rows(kept(rows.folders), kept(rows.files))


def is_converged(volume):
    return same(live_rows(volume.rows()), live_rows(volume.tree()))


def assert_converged(volume):
    """Every folder and file on disk has one live row, with the right parent and figures, and nothing else has."""
    assert_same(live_rows(volume.rows()), live_rows(volume.tree()))
    rows = volume.rows()
    for kind in rows:
        paths = [row.path for row in kind]
        assert len(paths) == len(set(paths)), "a path has more than one row"
    assert volume.catalogue.is_sound()


def assert_next_start_converges(arena, *volumes, check=assert_converged):
    """One more start walks every volume, and each passes the check then; in all its life nothing goes wrong."""
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    for volume in volumes:
        check(volume)
    daemon.stop_without_errors()


def good_volume(arena, name="Good"):
    """A volume that has nothing to do with the fault."""
    volume = arena.volume(name, crawl=["/m"])
    volume.make_file("/m/sub/1.mp3", b"x")
    return volume


def offered(volume):
    """The live paths, but for the mark that a stop leaves in the first watched folder."""
    return {path for path in volume.catalogue.live() if not path.endswith("/.tickle")}
