"""What a user of the volume has prepared in .quarrow, or does to it while the daemon runs as root.

Whoever owns `.quarrow` may cost the daemon that one volume. It never writes into a file that is none of the volume's,
neither dies nor hangs, and walks the other volumes.
"""
import contextlib
import os
import shutil
import signal
import stat
import subprocess
import sys

import pytest

from mounts import disks_work
from quarrow_driver.waiting import BOUND, wait_for
from recovery import assert_converged, good_volume, is_converged, walk_again
from strangers import (CANNOT_OPEN, CATALOGUE_NAMES, CLOCK, STRANGER, USER, assert_of_root, assert_refused, hand_over,
                       plain_catalogue, quarrow_path, refusal, start_and_stop, volume_of_user)

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
SIDE_NAMES = CATALOGUE_NAMES[1:]


def private_file(path, source=None, owner=STRANGER):
    """Something that nobody but its owner may change: a text, or a copy of a file."""
    if source is None:
        with open(path, "wb") as file:
            file.write(b"of somebody else\n" * 1000)
    else:
        shutil.copyfile(source, path)
    os.chown(path, owner, owner)
    os.chmod(path, 0o640)
    os.utime(path, (1_000_000_000, 1_000_000_000))
    return path


def state_of(path):
    """Everything about a file that the daemon could change, the long part last."""
    status = os.stat(path)
    with open(path, "rb") as file:
        return status.st_ino, status.st_uid, status.st_gid, oct(status.st_mode), status.st_mtime, status.st_size, file.read()


class UserProcess:
    """A process of the volume's user that does what it is asked, one expression after the other, in the volume's root
    folder. It is in there from its start: the folders above may be closed to the user."""

    SCRIPT = """
import os, sys
held = []
for line in sys.stdin:
    try:
        print(eval(line), flush=True)
    except OSError as error:
        print(type(error).__name__, flush=True)
"""

    def __init__(self, volume):
        self.process = subprocess.Popen(
            [sys.executable, "-I", "-S", "-B", "-c", self.SCRIPT], cwd=volume.folder, user=USER, group=USER, extra_groups=[],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(BOUND)

    def ask(self, expression):
        """The value as text, or the name of the error."""
        self.process.stdin.write(expression + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().rstrip("\n")


@contextlib.contextmanager
def repeated(body, *arguments, folder):
    """While inside, a process runs the body of a loop in the folder over and over. What is in its way it passes over. It
    runs as root: some machines do not let a user link a file that belongs to somebody else."""
    lines = "".join(f"    with contextlib.suppress(OSError): {line}\n" for line in body.strip().splitlines())
    process = subprocess.Popen([sys.executable, "-I", "-S", "-B", "-c", f"import contextlib, os, sys\nwhile True:\n{lines}",
                                *arguments], cwd=folder)
    try:
        yield
        assert process.poll() is None, "the loop has ended"
    finally:
        process.kill()
        process.wait()


# Files that change hands

def test_the_former_owner_cuts_off_an_index_that_a_killed_daemon_left(arena, clock):
    """SQLite maps the index of the log: whoever can shorten it ends the process with SIGBUS. Taking the file away from its
    owner is not enough, who may have it open."""
    volume, other = good_volume(arena, "A"), good_volume(arena, "B")
    first = arena.start([volume, other])
    first.wait_walks(2)
    first.kill()
    volume.make_file("/m/sub/2.mp3", b"x")
    hand_over(volume.folder, USER)
    with UserProcess(volume) as user:
        assert user.ask("held.append(os.open('.quarrow/quarrow.db-shm', os.O_RDWR))") == "None"
        assert user.ask("held.append(os.open('.quarrow/quarrow.db-wal', os.O_RDWR))") == "None"
        daemon = arena.start([volume, other], clock=clock)
        daemon.wait_walks(2)
        assert user.ask("os.ftruncate(held[0], 0)") == "None"
        shortened = [user.ask(f"os.truncate('.quarrow/{name}', 0)") for name in CATALOGUE_NAMES[:3]]
        for each in (volume, other):
            each.make_file("/m/sub/3.mp3", b"x")
            os.unlink(each.path("/m/sub/1.mp3"))
        walk_again(daemon, clock, 2)
    for each in (volume, other):
        assert_converged(each)
    assert shortened == ["PermissionError"] * 3
    assert_of_root(volume)
    daemon.stop_without_errors()


def test_a_volume_is_given_to_a_user_while_it_is_in_use(arena):
    """The next walk takes the files of the catalogue back, and so nobody can shorten the index after it."""
    volume, other = good_volume(arena, "A"), good_volume(arena, "B")
    daemon = arena.start([volume, other], environment=CLOCK)
    daemon.wait_walks(2)
    hand_over(volume.folder, USER)
    volume.create("/m/sub/2.mp3")
    wait_for(lambda: is_converged(volume), "the change in the catalogue")
    with UserProcess(volume) as user:
        shortened = [user.ask(f"os.truncate('.quarrow/{name}', 0)") for name in CATALOGUE_NAMES[:3]]
    for each in (volume, other):
        each.make_file("/m/sub/3.mp3", b"x")
        os.unlink(each.path("/m/sub/1.mp3"))
    daemon.rewalk()
    for each in (volume, other):
        wait_for(lambda each=each: is_converged(each), "the changes in the catalogue")
        assert_converged(each)
    assert shortened == ["PermissionError"] * 3
    assert_of_root(volume)
    daemon.stop_without_errors()


def test_a_second_name_of_another_file_is_not_written_to(arena):
    """In place of a side file, which SQLite would fill, shorten or take away, or of the catalogue itself."""
    made = plain_catalogue(arena)
    victims, volumes = [], []
    for name in CATALOGUE_NAMES:
        is_catalogue = name == "quarrow.db"
        volume = volume_of_user(arena, f"Linked {name}", None if is_catalogue else made)
        victims.append(private_file(arena.path(f"victim-{name}"), made if is_catalogue else None))
        os.link(victims[-1], quarrow_path(volume, name))
        volumes.append(volume)
    before = [state_of(victim) for victim in victims]
    good = good_volume(arena)
    for _ in range(2):
        assert_refused(start_and_stop(arena, volumes, good), volumes, CANNOT_OPEN)
        assert [state_of(victim) for victim in victims] == before
    for volume, name, victim in zip(volumes, CATALOGUE_NAMES, victims):
        assert os.path.samefile(quarrow_path(volume, name), victim)


@pytest.mark.parametrize("name", SIDE_NAMES)
def test_a_second_name_is_not_written_to_where_files_are_copied_on_write(arena, disks, name):
    """There the daemon marks a left-over index, which takes an empty file."""
    if not disks_work("btrfs"):
        pytest.skip("no btrfs image can be mounted on this machine")
    made = plain_catalogue(arena)
    disks.disk(disks.image("btrfs", 128 << 20, kind="btrfs"), arena.path("disk"), kind="btrfs")
    volume = volume_of_user(arena, "disk", made)
    victim = private_file(arena.path("disk/victim"))
    os.link(victim, quarrow_path(volume, name))
    before = state_of(victim)
    assert start_and_stop(arena, [volume], good_volume(arena)) == refusal(volume, CANNOT_OPEN)
    assert state_of(victim) == before


@pytest.mark.parametrize("owner", [STRANGER, 0])
def test_second_names_come_and_go_while_the_daemon_starts(arena, owner):
    """Between any look at a file and its opening. A name that is taken away again after it was opened leaves a file with one
    name, which is none of the volume's all the same."""
    made = plain_catalogue(arena)
    volume, good = volume_of_user(arena, "A"), good_volume(arena)
    victim = private_file(arena.path("victim"), made, owner)
    before = state_of(victim)
    walked = 0
    for number in range(32):
        name = CATALOGUE_NAMES[number % 4]
        shutil.rmtree(quarrow_path(volume))
        os.mkdir(quarrow_path(volume))
        shutil.copyfile(made, volume.catalogue.path)
        hand_over(quarrow_path(volume), USER)
        with repeated("os.rename(sys.argv[1], 'aside')\n"
                      "os.link(sys.argv[2], sys.argv[1])\n"
                      "os.unlink(sys.argv[1])\n"
                      "os.rename('aside', sys.argv[1])", name, victim, folder=quarrow_path(volume)):
            daemon = arena.start([volume, good])
            daemon.wait_walks_of(good, 1)
            assert_converged(good)
            daemon.stop()
        walked += daemon.walks_of(volume)
        assert (number, name, state_of(victim)) == (number, name, before)
    print(f"{walked} of 32 starts found no link in their way")


def test_the_folder_becomes_a_link_to_another_volumes_while_the_daemon_starts(arena):
    """What was looked at by its path would then be the other catalogue, a good one that is root's."""
    made = plain_catalogue(arena)
    victim = arena.path("Made/.quarrow")
    before = {name: state_of(os.path.join(victim, name)) for name in os.listdir(victim)}
    volume, good = volume_of_user(arena, "A"), good_volume(arena)
    walked = 0
    for number in range(40):
        shutil.rmtree(quarrow_path(volume))
        os.mkdir(quarrow_path(volume))
        if number % 2:
            shutil.copyfile(made, volume.catalogue.path)
        hand_over(quarrow_path(volume), USER)
        os.symlink(victim, volume.path("/link"))
        os.lchown(volume.path("/link"), USER, USER)
        with repeated("os.rename('.quarrow', 'aside')\n"
                      "os.rename('link', '.quarrow')\n"
                      "os.rename('.quarrow', 'link')\n"
                      "os.rename('aside', '.quarrow')", folder=volume.folder):
            daemon = arena.start([volume, good])
            daemon.wait_walks_of(good, 1)
            assert_converged(good)
            daemon.stop()
        walked += daemon.walks_of(volume)
        for name in ("link", ".quarrow"):
            if os.path.islink(volume.path("/" + name)):
                os.unlink(volume.path("/" + name))
        if os.path.exists(volume.path("/aside")):
            shutil.rmtree(volume.path("/.quarrow"), ignore_errors=True)
            os.rename(volume.path("/aside"), volume.path("/.quarrow"))
        assert {name: state_of(os.path.join(victim, name)) for name in os.listdir(victim)} == before, number
    print(f"{walked} of 40 starts found no link in their way")


# Pipes

@pytest.mark.parametrize("name", CATALOGUE_NAMES)
def test_a_pipe_is_not_waited_for(arena, name):
    """Opening one to read waits for a writer, who never comes."""
    volume = volume_of_user(arena, "A", None if name == "quarrow.db" else plain_catalogue(arena))
    os.mkfifo(quarrow_path(volume, name))
    os.chown(quarrow_path(volume, name), USER, USER)
    assert start_and_stop(arena, [volume], good_volume(arena)) == refusal(volume, CANNOT_OPEN)
    assert stat.S_ISFIFO(os.lstat(quarrow_path(volume, name)).st_mode)


def test_pipes_come_and_go_in_place_of_a_catalogue_in_the_making(arena):
    """A first start ends with a complete catalogue or without one."""
    volume, good = volume_of_user(arena, "A"), good_volume(arena)
    made = 0
    for number in range(20):
        shutil.rmtree(quarrow_path(volume))
        os.mkdir(quarrow_path(volume))
        hand_over(quarrow_path(volume), USER)
        with repeated("os.mkfifo('pipe')\n"
                      "os.rename('pipe', 'quarrow.db.tmp')\n"
                      "os.unlink('quarrow.db.tmp')", folder=quarrow_path(volume)):
            daemon = arena.start([volume, good])
            daemon.wait_walks_of(good, 1)
            assert_converged(good)
            if daemon.errors():
                assert daemon.errors()[-1] == f"Could not initialize the manager for the volume {volume.name}\n"
            else:
                daemon.wait_walks_of(volume, 1)
                assert_converged(volume)
                made += 1
            daemon.stop()
    print(f"{made} of 20 starts made a catalogue")


# Two at once

#: Waits to be continued, then becomes the program.
AT_A_SIGN = "import os, signal, sys; os.kill(os.getpid(), signal.SIGSTOP); os.execv(sys.argv[1], sys.argv[1:])"


def start_at_once(arena, volume, count=2):
    daemons = [arena.start([volume], wrapper=[sys.executable, "-I", "-S", "-B", "-c", AT_A_SIGN]) for _ in range(count)]
    for daemon in daemons:
        _, status = os.waitpid(daemon.pid, os.WUNTRACED)
        assert os.WIFSTOPPED(status)
    for daemon in daemons:
        os.kill(daemon.pid, signal.SIGCONT)
    return daemons


def test_two_daemons_make_one_catalogue_at_the_same_moment(arena):
    """Both would do so in one temporary file. One of them may go without the volume, but none may spoil the catalogue."""
    refused = 0
    for number in range(12):
        volume = good_volume(arena, f"A{number}")
        for folder in range(5):
            volume.make_file(f"/m/{folder}/1.mp3", b"x")
        if number % 2:
            os.mkdir(quarrow_path(volume))
        daemons = start_at_once(arena, volume)
        for daemon in daemons:
            daemon.wait_log(lambda lines, daemon=daemon: any("Could not initialize" in line.text for line in lines)
                            or daemon.walks_of(volume), "the first walk, or a refusal")
        working = [daemon for daemon in daemons if daemon.walks_of(volume)]
        assert working
        refused += len(daemons) - len(working)
        for daemon in working:
            daemon.wait_walks()
        assert_converged(volume)
        assert volume.catalogue.query("select count(*) from sqlite_master where name not like 'sqlite_%'") == [(11,)]
        assert sorted(os.listdir(quarrow_path(volume))) == [
            "quarrow-volume.xml", "quarrow.db", "quarrow.db-shm", "quarrow.db-wal"]
        for daemon in daemons:
            daemon.stop()
            assert daemon.errors() == ([] if daemon in working else refusal(volume, CANNOT_OPEN))
        assert volume.catalogue.is_sound()
        assert sorted(os.listdir(quarrow_path(volume))) == ["quarrow-volume.xml", "quarrow.db"]
    print(f"{refused} of 24 daemons were refused")


# Without being root

#: Becomes the user with a log that this user can write to, then the program.
AS_USER = """
import os, sys
log = os.readlink("/dev/log")
os.chmod(log, 0o666)
os.chmod(os.path.dirname(log), 0o755)
os.setgroups([])
os.setgid(int(sys.argv[1]))
os.setuid(int(sys.argv[1]))
os.execv(sys.argv[2], sys.argv[2:])
"""


def test_a_daemon_of_a_user_opens_no_catalogue_of_another_user(arena):
    """Though it may write to it, and to everything around it. It cannot make itself the owner, as root does."""
    os.chmod(arena.folder, 0o755)
    made = plain_catalogue(arena)
    volumes = [volume_of_user(arena, name, made) for name in ("Own", "Root", "Stranger", "Log of stranger")]
    own, roots, *strangers = volumes
    os.chown(roots.catalogue.path, 0, 0)
    os.chown(strangers[0].catalogue.path, STRANGER, STRANGER)
    log = strangers[1].catalogue.path + "-wal"
    open(log, "xb").close()
    os.chown(log, STRANGER, STRANGER)
    for path in (*(volume.catalogue.path for volume in volumes), log):
        os.chmod(path, 0o666)
    with open(strangers[0].catalogue.path, "rb") as file:
        before = file.read()
    daemon = arena.start(volumes, wrapper=[sys.executable, "-I", "-S", "-B", "-c", AS_USER, str(USER)])
    daemon.wait_walks(2)
    assert int(daemon.status()["Uid"][0]) == USER
    for volume in (own, roots):
        assert_converged(volume)
    daemon.stop()
    assert_refused(daemon.errors(), strangers, CANNOT_OPEN)
    with open(strangers[0].catalogue.path, "rb") as file:
        assert file.read() == before
