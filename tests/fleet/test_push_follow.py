"""`push --follow`: changes arrive as they come, whatever happens, until it is told to stop."""
import os
import signal
import subprocess
import sys
import types

import pytest
from push_server import FULL
from push_world import TOP, seeded
from quarrow_driver.waiting import BOUND, wait_for

sys.path.insert(0, f"{TOP}/fleet")
from pusher import changes  # noqa: E402 (the path comes first)
from pusher.problem import Stopped  # noqa: E402
from pusher.settings import read_settings  # noqa: E402


def children_of(process):
    with open(f"/proc/{process.pid}/task/{process.pid}/children", encoding="ascii") as file:
        return [int(word) for word in file.read().split()]


def follower_of(process):
    """The quarrowctl that follows, when there is one that has read its configuration: it watches then."""
    for child in children_of(process):
        try:
            with open(f"/proc/{child}/cmdline", "rb") as file:
                words = file.read().split(b"\0")
            opened = [os.readlink(f"/proc/{child}/fd/{number}") for number in os.listdir(f"/proc/{child}/fd")]
        except OSError:
            continue  # it has just ended, or closed a file
        if {b"changes", b"--follow"} <= set(words) and "anon_inode:inotify" in opened:
            return child
    return None


def wait_following(process):
    return wait_for(lambda: process.poll() is None and follower_of(process), "quarrowctl that follows")


def wait_row(world, name):
    world.server.wait(lambda: any(row["name"] == name for row in world.server.rows("files")), f"{name} in the fleet")


def stop(process, number=signal.SIGTERM):
    """Ends it in the regular way: at once, without a word but one line, and with its child."""
    children = children_of(process)
    process.send_signal(number)
    output, errors = process.communicate(timeout=BOUND)
    assert process.returncode == 0 and output.count("\n") == 1 and "confirmed in" in output
    wait_for(lambda: not any(os.path.exists(f"/proc/{child}") for child in children), "the end of quarrowctl")
    return errors


def test_changes_arrive_as_they_come(world):
    choice = seeded("follow")
    volume = world.volume(files=50)
    process = world.start("--follow")
    wait_following(process)
    for number in range(3):
        volume.change(choice)
        volume.add(f"last {number}")
        wait_row(world, b"last %d" % number)
    assert stop(process) == ""
    world.good()
    world.assert_complete()


def test_it_waits_for_a_server_and_stops_at_once_while_it_waits(world):
    volume = world.volume()
    world.good()
    cursor = world.cursor()
    world.configure(patience=0.01, longest_pause=0.02)
    world.server.always = FULL
    volume.add("held up")
    process = world.start("--follow")
    world.server.wait(lambda: world.server.attempts > 20, "many attempts")
    assert stop(process).count("\n") == 1  # the failure is said once
    assert world.cursor() == cursor
    world.configure(pause=1000, longest_pause=1000)
    process = world.start("--follow")
    attempts = world.server.attempts
    world.server.wait(lambda: world.server.attempts > attempts, "an attempt")
    stop(process, signal.SIGINT)
    world.configure()
    process = world.start("--follow")
    world.server.always = None
    wait_row(world, b"held up")
    stop(process)
    world.good()
    world.assert_complete()


def test_a_catalogue_that_is_replaced_while_it_follows(world):
    volume = world.volume(files=40)
    process = world.start("--follow")
    wait_following(process)
    volume.add("first")
    wait_row(world, b"first")
    generation = world.server.volumes()["V"]["generation"]
    volume.make_anew(10)
    world.server.wait(lambda: world.server.volumes()["V"]["generation"] > generation, "a new generation")
    volume.add("last")
    wait_row(world, b"last")
    assert volume.catalogue in stop(process)
    world.good()
    world.assert_complete()


def test_an_appliance_where_nothing_changes_is_heard_of(world):
    world.volume()
    world.configure(contact=0.2)
    process = world.start("--follow")
    world.server.wait(lambda: len(world.server.rows("appliances")) > 4, "several contacts")
    assert stop(process) == ""
    assert len({row["updated"] for row in world.server.rows("appliances")}) == len(world.server.rows("appliances"))
    assert len(world.server.rows("files")) == 30


def test_volumes_that_come_and_go_while_it_follows(world):
    kept, _ = world.volume("Kept"), world.volume("Left")
    world.configure(contact=0.2)
    process = world.start("--follow")
    wait_following(process)
    world.use([kept])
    world.server.wait(lambda: not any(key[0] == "Left" for key in world.server.valid("files")), "the end of a volume")
    world.volume("New")
    world.server.wait(lambda: "New" in world.server.volumes(), "a new volume")
    wait_following(process)
    world.volumes[1].add("later")
    wait_row(world, b"later")
    assert stop(process) == ""
    world.good()
    world.assert_complete()


def test_a_configuration_that_nobody_touches_is_not_read_again(world):
    """With it `quarrowctl check` reads every catalogue."""
    world.volume()
    world.stand_in(f'[ "$1" != check ] || echo >>{world.path("checks")}\nexec "$REAL" "$@"', contact=0.2)

    def checks():
        return os.path.getsize(world.path("checks"))

    def wait_for_contacts():
        before = len(world.server.rows("appliances"))
        world.server.wait(lambda: len(world.server.rows("appliances")) > before + 5, "several contacts")

    process = world.start("--follow")
    wait_for_contacts()
    assert checks() == 2  # at the start, and at the first contact
    world.use(world.volumes)
    wait_for(lambda: checks() == 3, "another look")
    wait_for_contacts()
    assert checks() == 3
    assert stop(process) == ""


def test_a_host_configuration_that_is_in_disorder_for_a_moment(world):
    volume = world.volume()
    world.configure(contact=0.2)
    process = world.start("--follow")
    wait_following(process)
    world.write("host.xml", "<QuarrowHost><Volumes/></QuarrowHost")
    contacts = len(world.server.rows("appliances"))
    world.server.wait(lambda: len(world.server.rows("appliances")) > contacts + 3, "more contacts")
    world.use([volume])
    volume.add("later")
    wait_row(world, b"later")
    assert "did not list the volumes" in stop(process)
    world.good()
    world.assert_complete()


def test_a_quarrowctl_that_is_killed_while_it_follows(world):
    world.volume()
    process = world.start("--follow")
    os.kill(wait_following(process), signal.SIGKILL)
    _, errors = process.communicate(timeout=BOUND)
    assert process.returncode == 1
    assert "signal 9" in errors and "What it says tells why" in errors
    world.good()
    world.assert_complete()


def test_a_stop_in_the_moment_when_quarrowctl_is_started(world, monkeypatch):
    started = []

    def popen(*arguments, **settings):
        started.append(subprocess.Popen(*arguments, **settings))
        signal.raise_signal(signal.SIGTERM)
        return started[0]

    def stop_here(number, _):
        raise Stopped(number)

    world.stand_in("exec sleep 1000")
    monkeypatch.setattr(changes, "subprocess", types.SimpleNamespace(**{**vars(subprocess), "Popen": popen}))
    former = signal.signal(signal.SIGTERM, stop_here)
    try:
        with pytest.raises(Stopped):
            changes.Changes(read_settings(world.config), [])
        assert signal.getsignal(signal.SIGTERM) == stop_here
        assert started[0].poll() == -signal.SIGTERM
    finally:
        signal.signal(signal.SIGTERM, former)
        started[0].kill()
        started[0].wait()


def test_a_stop_in_the_middle_of_a_load_loses_nothing(world):
    world.volume(files=50)
    world.server.faults.extend([None, "slow"])
    process = world.start()
    world.server.wait(lambda: world.server.attempts == 2, "a second request")
    process.terminate()
    process.communicate(timeout=BOUND)
    assert process.returncode == -signal.SIGTERM
    assert world.cursor() == "" and world.state()["opened"] == ["V"]
    world.good()
    world.assert_complete()
