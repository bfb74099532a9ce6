"""What a user of the volume has prepared in .quarrow, or does to it while the daemon runs as root.

Whoever owns `.quarrow` may cost the daemon that one volume. It never writes into a file that is none of the volume's, runs
no SQL that a user wrote, neither dies nor hangs, and walks the other volumes.
"""
import contextlib
import os
import shutil
import signal
import sqlite3
import stat
import subprocess
import sys

import pytest

from catalogue import edit
from mounts import disks_work
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from recovery import assert_converged, good_volume, is_converged, walk_again

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")

#: Owns the volume, and somebody who has nothing to do with it.
USER, STRANGER = 65534, 65533
CATALOGUE_NAMES = ("quarrow.db", "quarrow.db-wal", "quarrow.db-shm", "quarrow.db-journal")
SIDE_NAMES = CATALOGUE_NAMES[1:]
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


def assert_of_root(volume):
    """The catalogue and its side files belong to root alone again."""
    names = sorted(name for name in os.listdir(quarrow_path(volume)) if name in CATALOGUE_NAMES)
    assert set(names) >= {"quarrow.db", "quarrow.db-shm", "quarrow.db-wal"}
    for name in names:
        status = os.lstat(quarrow_path(volume, name))
        assert (name, status.st_uid, stat.S_IMODE(status.st_mode) & 0o777) == (name, 0, 0o644)


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


# Second names of other files

def start_and_stop(arena, refused, *good):
    """Returns the errors of a run in which the good volumes were walked."""
    daemon = arena.start([*refused, *good])
    daemon.wait_walks(len(good))
    for volume in good:
        assert_converged(volume)
    daemon.stop()
    return daemon.errors()


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


# SQL of other people

ENDLESS = "with recursive Numbers(n) as (select 1 union all select n + 1 from Numbers) select count(*) from Numbers"
FOREIGN_SQL = {
    "files inserted": f"create trigger Trap after insert on Files begin select ({ENDLESS}); end",
    "files updated": f"create trigger Trap before update on Files begin select ({ENDLESS}); end",
    "folders inserted": f"create trigger Trap before insert on Folders begin select ({ENDLESS}); end",
    "folders updated": f"create trigger Trap after update on Folders begin select ({ENDLESS}); end",
    "view": "alter table Files rename to Kept; create view Files as select * from Kept",
    "endless view": f"drop table Files; create view Files as {ENDLESS}",
    "virtual table": "create virtual table Texts using fts5(text)",
    "check": "create index Slow on Files(path like '%a%a%a%a%a%a%a%a%a%a%b')",
    "huge schema": "begin;" + "".join(f"create table Table{number}(x);" for number in range(2000)) + "commit",
}


def run_sql(path, script):
    """Runs statements on a catalogue that no daemon has open."""
    connection = sqlite3.connect(path, isolation_level=None)
    connection.executescript(script)
    connection.close()


def volume_with_log(arena, name, made, trap):
    """What runs with the daemon's statements is in the log alone, as a program leaves it that was killed."""
    volume, copy = volume_of_user(arena, name, made), arena.path("with-log.db")
    shutil.copyfile(made, copy)
    connection = sqlite3.connect(copy, isolation_level=None)
    connection.execute("pragma journal_mode = wal")
    connection.execute("pragma wal_autocheckpoint = 0")
    connection.execute(trap)
    for suffix in ("", "-wal"):
        shutil.copyfile(copy + suffix, volume.catalogue.path + suffix)
    connection.close()
    hand_over(quarrow_path(volume), USER)
    return volume


def volume_with_journal(arena, name, made, trap):
    """What runs with the daemon's statements comes back with the roll-back of a transaction that took it out."""
    volume, copy = volume_of_user(arena, name, made), arena.path("with-journal.db")
    shutil.copyfile(made, copy)
    connection = sqlite3.connect(copy, isolation_level=None)
    connection.execute(trap)
    connection.execute("pragma cache_size = 1")
    connection.execute("begin immediate")
    connection.execute("drop trigger Trap")
    connection.execute("create table Filler(bytes)")
    for _ in range(100):  # more than the cache holds: the journal becomes valid before anything is written to the file
        connection.execute("insert into Filler values(zeroblob(4000))")
    shutil.copyfile(copy + "-journal", volume.catalogue.path + "-journal")
    connection.execute("rollback")
    connection.close()
    hand_over(quarrow_path(volume), USER)
    return volume


def assert_holds_no_trigger(path):
    """The main file alone."""
    connection = sqlite3.connect(f"file:{path}?immutable=1", uri=True)
    assert connection.execute("select count(*) from sqlite_master where type = 'trigger'").fetchall() == [(0,)]
    connection.close()


def test_a_catalogue_with_the_sql_of_a_user_is_refused(arena):
    """At each start: that root owns the file from the first one on does not make the text root's."""
    made = plain_catalogue(arena)
    volumes = []
    for name, script in FOREIGN_SQL.items():
        volumes.append(volume_of_user(arena, name, made))
        run_sql(volumes[-1].catalogue.path, script)
    good = good_volume(arena)
    for _ in range(3):
        assert_refused(start_and_stop(arena, volumes, good), volumes, NOT_AUTHORIZED)


def test_a_trigger_that_is_called_a_table_is_refused(arena):
    """SQLite reads the text and not the type beside it; where it compares the two, it takes the file for damaged."""
    volume, good = volume_of_user(arena, "A", plain_catalogue(arena)), good_volume(arena)
    run_sql(volume.catalogue.path, FOREIGN_SQL["files inserted"] + ";pragma writable_schema = on;"
            "update sqlite_master set type = 'table' where type = 'trigger'")
    for _ in range(3):
        assert start_and_stop(arena, [volume], good) in (refusal(volume, DAMAGED), refusal(volume, NOT_AUTHORIZED))


@pytest.mark.parametrize("owner", [USER, 0])
@pytest.mark.parametrize("make", [volume_with_log, volume_with_journal])
def test_a_side_file_with_the_sql_of_a_user_is_refused(arena, make, owner):
    """Also beside a catalogue that is root's: who owns the folder can put a file there. Of a journal not even the first page
    is read, since it can name files to be removed."""
    volume, good = make(arena, "A", plain_catalogue(arena), FOREIGN_SQL["files inserted"]), good_volume(arena)
    assert_holds_no_trigger(volume.catalogue.path)
    os.chown(volume.catalogue.path, owner, owner)
    for _ in range(3):
        status = CANNOT_OPEN if make is volume_with_journal else NOT_AUTHORIZED
        assert start_and_stop(arena, [volume], good) == refusal(volume, status)
    # Once the administrator has removed it the volume works.
    if make is volume_with_journal:
        os.unlink(volume.catalogue.path + "-journal")
        assert start_and_stop(arena, [], volume, good) == []
        return
    edit(volume.catalogue.path, "drop trigger Trap")
    for _ in range(2):
        assert start_and_stop(arena, [], volume, good) == []


def test_a_trigger_of_the_administrator_works_and_the_same_one_of_a_user_does_not(arena):
    counting = ("create table Added(path text); create trigger Counting after insert on Files"
                " begin insert into Added values(new.path); end")
    made = plain_catalogue(arena)
    volumes = [volume_of_user(arena, name, made) for name in ("Administrator", "User")]
    for volume, owner in zip(volumes, (0, USER)):
        run_sql(volume.catalogue.path, counting)
        hand_over(quarrow_path(volume), owner)
    good = good_volume(arena)
    for number in range(3, 6):
        daemon = arena.start([*volumes, good])
        daemon.wait_walks(2)
        assert daemon.errors() == refusal(volumes[1], NOT_AUTHORIZED)
        for volume in (volumes[0], good):
            assert_converged(volume)
        daemon.stop()
        volumes[0].make_file(f"/m/sub/{number}.mp3", b"x")
    added = {path for path, in volumes[0].catalogue.query("select path from Added")}
    # The mark of the stop is in whichever folder was watched first: of this volume, or of the other.
    assert added - {"/m/.tickle"} == {"/m/sub/2.mp3", "/m/sub/3.mp3", "/m/sub/4.mp3"}
    assert volumes[1].catalogue.query("select count(*) from Added") == [(0,)]


def test_a_plain_catalogue_of_a_user_becomes_roots(arena):
    """With and without what a killed daemon leaves."""
    made = plain_catalogue(arena)
    volume, killed, good = volume_of_user(arena, "A", made), volume_of_user(arena, "B", made), good_volume(arena)
    first = arena.start([killed])
    first.wait_walks()
    first.kill()
    killed.make_file("/m/sub/3.mp3", b"x")
    hand_over(killed.folder, USER)
    volumes = [volume, killed, good]
    ids = [each.catalogue.file_ids() for each in volumes[:2]]
    for number in range(4, 7):
        daemon = arena.start(volumes)
        daemon.wait_walks(3)
        for each in volumes:
            assert_converged(each)
            assert_of_root(each)
        for each, known in zip(volumes, ids):
            assert known.items() <= each.catalogue.file_ids().items()
        daemon.stop_without_errors()
        for each in volumes:
            each.make_file(f"/m/sub/{number}.mp3", b"x")


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
