"""Volumes that belong to a user whom the daemon, which runs as root, cannot trust."""
import os
import shutil
import stat

from quarrow_driver.clock import fast_clock
from recovery import assert_converged, good_volume

#: Owns the volume, and somebody who has nothing to do with it.
USER, STRANGER = 65534, 65533
CATALOGUE_NAMES = ("quarrow.db", "quarrow.db-wal", "quarrow.db-shm", "quarrow.db-journal")
#: SQLite results.
DAMAGED, CANNOT_OPEN, NOT_AUTHORIZED = 11, 14, 23
#: Time runs so fast that bursts end and rounds of the control loop are due at once; nothing here depends on how fast.
CLOCK = fast_clock(300)


def refusal(volume, status):
    """What the daemon logs about a volume whose catalogue it does not open."""
    return [f"open() failed, handleStatus: {status}\n", "Could not open the volume cfg file DBOperationException occurred\n",
            f"Could not initialize the manager for the volume {volume.name}\n"]


def assert_refused(errors, volumes, status):
    """Nothing was logged but that these volumes were refused. The daemon has an order of its own."""
    in_turn = sorted(errors[place:place + 3] for place in range(0, len(errors), 3))
    assert in_turn == sorted(refusal(volume, status) for volume in volumes)


def hand_over(path, owner):
    """chown -R"""
    os.chown(path, owner, owner, follow_symlinks=False)
    if os.path.isdir(path) and not os.path.islink(path):
        for name in os.listdir(path):
            hand_over(os.path.join(path, name), owner)


def quarrow_path(volume, name=""):
    return volume.path(f"/.quarrow/{name}")


def plain_catalogue(arena):
    """A catalogue of what good_volume() makes, as a stopped daemon leaves it."""
    volume = good_volume(arena, "Made")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    return volume.catalogue.path


def volume_of_user(arena, name, catalogue=None):
    """A volume that belongs to the user, with a copy of a catalogue in a .quarrow of the user's own, and news on its disk.
    Without a catalogue .quarrow is empty."""
    volume = good_volume(arena, name)
    volume.make_folder("/m/new")
    volume.make_file("/m/sub/2.mp3", b"x")
    os.mkdir(quarrow_path(volume))
    if catalogue is not None:
        shutil.copyfile(catalogue, volume.catalogue.path)
    hand_over(volume.folder, USER)
    return volume


def assert_of_root(volume):
    """The catalogue and its side files belong to root alone again."""
    names = sorted(name for name in os.listdir(quarrow_path(volume)) if name in CATALOGUE_NAMES)
    assert set(names) >= {"quarrow.db", "quarrow.db-shm", "quarrow.db-wal"}
    for name in names:
        status = os.lstat(quarrow_path(volume, name))
        assert (name, status.st_uid, stat.S_IMODE(status.st_mode) & 0o777) == (name, 0, 0o644)


def start_and_stop(arena, refused, *good):
    """Returns the errors of a run in which the good volumes were walked."""
    daemon = arena.start([*refused, *good])
    daemon.wait_walks(len(good))
    for volume in good:
        assert_converged(volume)
    daemon.stop()
    return daemon.errors()
