"""What goes wrong between fleet/push and the real servers: in the end the fleet has every row of the catalogues, once."""
import os
import shutil
import signal

import pytest

from demo.faults import kill_pusher_in_send, kill_server_in_load, shard_of, thaw
from fleet_world import Box, has_servers, private_fleet
from mounts import enter_private_namespace
from push_world import seeded
from quarrow_driver.mounting import MNT_DETACH, MS_REMOUNT, mount, unmount
from quarrow_driver.waiting import wait_for

LOAD = 60_000  # more than a pusher sends at once


def test_a_server_is_killed_in_mid_load(own_fleet):
    box = Box(own_fleet, "box", files=LOAD)
    process, server, seen = kill_server_in_load(own_fleet, box)
    assert 0 < seen < LOAD + LOAD // 20 + 1
    assert os.path.exists(f"{box.pusher.state}/state") and process.poll() is None
    server.start()
    server.wait_ready()
    said, _ = process.communicate()
    assert process.returncode == 0, said
    box.assert_arrived()
    assert own_fleet.number("SELECT count() FROM quarrow.live_files") == LOAD


def test_every_server_is_killed_again_and_again(own_fleet):
    """Rows come twice, and all the same are there once."""
    choice = seeded("servers are killed")
    boxes = [Box(own_fleet, f"box{number}", files=2_000) for number in range(4)]
    processes = [box.pusher.start("--follow") for box in boxes]
    try:
        for number in range(6):
            for box in boxes:
                box.volumes[0].change(choice)
            server = own_fleet.servers[number % 2]
            server.kill()
            for box in boxes:
                box.volumes[0].change(choice)
            server.start()
            server.wait_ready()
        for box in boxes:
            box.volumes[0].add("last")
        wait_for(lambda: own_fleet.number("SELECT uniqExact(appliance) FROM quarrow.live_files WHERE name = 'last'") == len(boxes),
                 "the last change in the fleet")
        assert [process.poll() for process in processes] == [None] * len(boxes)
    finally:
        for process in processes:
            process.terminate()
            process.wait()
    assert [process.returncode for process in processes] == [0] * len(boxes)
    for box in boxes:
        box.push()
        box.assert_arrived()


def test_a_pusher_is_killed_in_mid_send(fleet):
    box = Box(fleet, "box", files=500)
    for round_number in range(3):
        assert kill_pusher_in_send(fleet, box) > 0
        box.volumes[0].change(seeded(f"pusher killed {round_number}"))
        box.push()
        box.assert_arrived()
        box.volumes[0].add(f"more {round_number}")


def test_what_was_on_its_way_is_lost_with_pusher_and_servers(own_fleet):
    """Nobody has taken it, so it comes with the next run."""
    choice = seeded("pusher and servers are killed")
    box = Box(own_fleet, "box", files=500)
    box.push()
    for _ in range(3):
        box.volumes[0].change(choice)
        for server in own_fleet.servers:
            server.freeze()
        process = box.pusher.start()
        wait_for(lambda: any(server.unread() for server in own_fleet.servers), "a request")
        process.kill()
        process.wait()
        for server in own_fleet.servers:
            server.kill()
            server.start()
        for server in own_fleet.servers:
            server.wait_ready()
        box.push()
        box.assert_arrived()


def test_answers_that_come_too_late(fleet):
    """The pusher takes the request for lost and repeats it. The server has taken both."""
    box = Box(fleet, "box", files=500, timeout=0.5)
    for server in fleet.servers:
        server.freeze()
    process = box.pusher.start()
    try:
        waiting = lambda: sum(server.unread() for server in fleet.servers)
        wait_for(waiting, "a first request")
        first = waiting()
        wait_for(lambda: waiting() > first, "its repetition")
    finally:
        process.kill()  # the servers take what waits for them at their own pace
        process.wait()
        thaw(fleet)
    wait_for(lambda: not waiting(), "the end of the requests")
    box.volumes[0].change(seeded("answers too late"))
    box.set_up(timeout=60)
    box.push()
    box.assert_arrived()


def test_a_server_without_a_password_for_the_pusher(fleet):
    box = Box(fleet, "box", files=20)
    with open(f"{box.folder}/pusher/password", "r+", encoding="ascii") as file:
        right = file.read()
        file.seek(0)
        file.write("x")
    status, said = box.pusher.run()
    assert status == 1 and "does not let this user in" in said, said
    with open(f"{box.folder}/pusher/password", "w", encoding="ascii") as file:
        file.write(right)
    box.push()
    box.assert_arrived()


def test_servers_without_the_schema(fleet):
    box = Box(fleet, "box", files=20)
    for server in fleet.servers:
        server.query("DROP TABLE quarrow.files")
    status, said = box.pusher.run()
    assert status == 1 and "schema.sql" in said, said
    fleet.everywhere("schema.sql")
    box.push()
    box.assert_arrived()


def test_a_catalogue_that_was_made_anew_replaces_its_rows(fleet):
    box = Box(fleet, "box", files=300, volumes=("V", "W"))
    box.push()
    kept = fleet.rows("SELECT id, generation FROM quarrow.live_files WHERE volume = 'W' ORDER BY id")
    volume = box.volumes[0]
    shutil.rmtree(os.path.dirname(volume.catalogue))
    volume.make(40)
    volume.add(b"caf\xe9\n\t\\.jpg", size=2**40)
    box.push()
    box.assert_arrived()
    assert fleet.number("SELECT count() FROM quarrow.live_files WHERE volume = 'V'") == 41
    assert fleet.rows("SELECT id, generation FROM quarrow.live_files WHERE volume = 'W' ORDER BY id") == kept
    fleet.everywhere("retention.sql")
    fleet.wait_removed()
    box.assert_arrived()
    assert fleet.number("SELECT uniqExact(generation) FROM quarrow.files WHERE volume = 'V'") == 1


def test_a_new_listing_that_is_cut_short_is_not_seen(fleet):
    box = Box(fleet, "box", files=300)
    box.push()
    before = fleet.rows("SELECT id, path, generation FROM quarrow.live_files ORDER BY id")
    for server in fleet.servers:
        server.freeze()
    process = box.pusher.start("--full")
    wait_for(lambda: any(server.unread() for server in fleet.servers), "a request")
    process.send_signal(signal.SIGKILL)
    process.wait()
    thaw(fleet)
    wait_for(lambda: not any(server.unread() for server in fleet.servers), "the end of the request")
    assert fleet.rows("SELECT id, path, generation FROM quarrow.live_files ORDER BY id") == before
    box.push()
    box.assert_arrived()


@pytest.fixture
def narrow_fleet():
    """Two servers, the data of each on a small file system of its own; and a function that gives one a new size."""
    if not has_servers():
        pytest.skip("clickhouse-server is not installed")
    if os.geteuid() != 0:
        pytest.skip("mounting takes root")
    enter_private_namespace()
    places = []

    def resize(server, size, flags=MS_REMOUNT):
        mount("tmpfs", f"{server.folder}/data", "tmpfs", flags, f"mode=755,size={size}")

    with private_fleet(start=False) as made:
        made.configure()
        try:
            for server in made.servers:
                resize(server, 1 << 20, 0)
                places.append(f"{server.folder}/data")
            made.start()
            yield made, resize
        finally:
            made.stop()
            for place in places:
                unmount(place, MNT_DETACH)


def test_a_full_server(narrow_fleet):
    fleet, resize = narrow_fleet
    box = Box(fleet, "box", files=LOAD, patience=2)
    status, said = box.pusher.run()
    assert status == 1 and "No space left" in said, said
    assert fleet.number("SELECT count() FROM quarrow.live_files") == 0  # a listing that is not whole
    resize(shard_of(fleet, "box"), 256 << 20)
    box.push()
    box.assert_arrived()
    box.volumes[0].change(seeded("a full server"))
    box.push()
    box.assert_arrived()
