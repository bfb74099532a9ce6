"""`quarrowctl changes --follow`: changes as they come, and rest while nothing happens."""
import errno
import os
import shutil
import signal
import subprocess
import time

from catalogue import edit
from change_stream import Follower, Mirror, catalogued, cursor_of, events_in, parse, rows_in, small_volume
from ctl import Ctl
from moments import seeded
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from trees import change_something, media_volume, volume_of_files


def test_following_survives_what_happens_to_daemon_and_catalogue(arena):
    volume = volume_of_files(arena, "V", 2, 2)
    daemon = arena.start([volume])
    daemon.wait_walks()
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    with Follower(ctl, "--cursor-file", path) as follower:
        follower.wait_path("/m/1/a1.mp3")
        volume.make_file("/m/0/while it runs.mp3", b"x")  # in the daemon's own time, five quiet seconds
        follower.wait_path("/m/0/while it runs.mp3")
        daemon.kill()
        volume.make_file("/m/0/after a kill.mp3", b"x")
        catalogued(arena, volume)
        follower.wait_path("/m/0/after a kill.mp3")
        Mirror().apply(follower.lines()).assert_equals(volume)
        os.unlink(volume.path("/m/0/a0.mp3"))
        shutil.rmtree(os.path.dirname(volume.catalogue.path))
        volume.make_file("/m/0/made anew.mp3", b"x")
        catalogued(arena, volume)
        follower.wait_path("/m/0/made anew.mp3")
        assert ("restart-needed", "made-anew") in events_in(follower.lines())
        Mirror().apply(follower.lines()).assert_equals(volume)
        lines = follower.stop()
    with open(path, encoding="ascii") as file:
        assert file.read() == cursor_of(lines) + "\n"
    assert rows_in(parse(ctl.good("changes", "--cursor-file", path).bytes)) == []
    assert [name for name in os.listdir(ctl.folder) if name.startswith("cursor")] == ["cursor"]


def test_following_loses_nothing_when_it_is_killed(arena, clock):
    """At any moment. The next run goes on from the cursor in the file, which was stored after what was written by then."""
    choice = seeded("killed followers")
    volume = media_volume(arena, "V", 60, 300, seed=5)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    mirror = Mirror()
    catalogued(arena, volume, clock)
    for number in range(8):
        with Follower(ctl, "--cursor-file", path) as follower:
            change_something(volume, choice, number)
            daemon = arena.start([volume], clock=clock)
            time.sleep(choice.random() * 0.7)  # until a moment that chance chooses
            follower.kill()
            mirror.apply(follower.lines())
            if choice.random() < 0.5:
                daemon.kill()
            else:
                daemon.wait_walks()
                daemon.stop()
        clock.advance(choice.randrange(3))
    catalogued(arena, volume, clock)
    mirror.apply(parse(ctl.run("changes", "--cursor-file", path).bytes))
    mirror.assert_equals(volume)


def test_following_a_volume_that_comes_and_goes(arena, mounts):
    """Nothing is there at first, not even the folder. A follower does not keep a volume from being unmounted."""
    volume, other = small_volume(arena, name="V"), small_volume(arena, name="Other")
    disk = arena.path("disk")
    mounts.tmpfs(disk)
    for source in (volume, other):
        shutil.copytree(source.folder, f"{disk}/{source.name}", symlinks=True)
        shutil.rmtree(source.folder)
    ctl = Ctl(arena, [volume, other])
    with Follower(ctl) as follower:
        follower.wait(lambda lines: rows_in(lines) == [], "the cursor")
        assert volume.catalogue.path in follower.said()
        os.rename(f"{disk}/V", arena.path("disk/aside"))
        shutil.copytree(f"{disk}/aside", volume.folder)
        follower.wait_path("/m/0/a0.mp3")
        os.mkdir(other.folder)
        mounts.bind(f"{disk}/Other", other.folder)
        follower.wait(lambda lines: {line["volume"] for line in rows_in(lines)} == {"V", "Other"}, "the other volume")
        unmount(mounts, other.folder)
        edit(volume.catalogue.path, "update Files set size = 9, last_updated_time = strftime('%s','now')")
        follower.wait(lambda lines: any(line.get("size") == 9 for line in lines), "a change in the volume that stayed")
        mounts.bind(f"{disk}/Other", other.folder)
        edit(other.catalogue.path, "update Files set size = 8, last_updated_time = strftime('%s','now')")
        follower.wait(lambda lines: any(line.get("size") == 8 for line in lines), "a change in the volume that came back")
        follower.stop(signal.SIGINT)
        unmount(mounts, other.folder)


def unmount(mounts, path):
    """Also when the follower is just looking at what is there."""
    def is_done():
        try:
            mounts.remove(path)
        except OSError as failure:
            if failure.errno != errno.EBUSY:
                raise
            return False
        return True
    wait_for(is_done, "the end of the mount")


def test_reading_and_following_do_not_wake_the_daemon(arena):
    """As root, and where the daemon watches its own folder. Its five quiet seconds are a moment here."""
    volume = arena.volume("V")
    volume.make_file("/m/0.mp3", b"x")
    daemon = arena.start([volume], environment=fast_clock(100))
    daemon.wait_walks()
    wait_until_quiet(daemon)
    bursts = daemon.bursts()
    ctl = Ctl(arena, [volume])
    with Follower(ctl) as follower:
        follower.wait_path("/m/0.mp3")
        for _ in range(5):
            ctl.good("changes")
        follower.stop()
    wait_until_quiet(daemon)
    assert daemon.bursts() == bursts
    with open(volume.catalogue.path, "ab"):  # what it would notice
        pass
    daemon.wait_bursts(bursts + 1)
    daemon.stop()


def wait_until_quiet(daemon):
    """Returns when there was no burst for a second."""
    bursts = None
    while bursts != daemon.bursts():
        bursts = daemon.bursts()
        time.sleep(1)


def test_a_full_pipe_does_not_hold_up_the_stop(arena):
    volume = volume_of_files(arena, "V", 100, 40)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    path = f"{ctl.folder}/cursor"
    process = subprocess.Popen(ctl.command("changes", "--follow", "--cursor-file", path), stdout=subprocess.PIPE,
                               stdin=subprocess.DEVNULL)
    try:
        start = process.stdout.read(1)
        process.send_signal(signal.SIGTERM)
        assert process.wait(BOUND) == 0
        lines = parse(start + process.stdout.read())
    finally:
        process.kill()
        process.stdout.close()
    assert cursor_of(lines) is None and not os.path.exists(path)
    assert 0 < len(lines) < 4000


def test_a_follower_ends_with_its_reader(arena):
    volume = small_volume(arena)
    process = subprocess.Popen(Ctl(arena, [volume]).command("changes", "--follow"), stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    with process:
        assert any(b"cursor" in line for line in iter(process.stdout.readline, b""))
        process.stdout.close()
        assert process.wait(BOUND) == 2
        assert b"Nobody reads it any more" in process.stderr.read()
