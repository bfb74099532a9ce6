"""Real disks, daemons, pushers and servers: every live row of the fleet is compared with the disks."""
import os

from demo.disks import differences, in_fleet
from demo.faults import kill_pusher_in_send
from demo.pusher import Pusher
from harness import Arena
from push_world import QUARROWCTL, seeded
from trees import change_something, make_media_tree, make_strangers

MARK = "/.tickle"  # touched by each stop of a daemon, when its catalogue is closed
CATEGORY = {1: b"video", 2: b"audio", 3: b"image", 4: b"other"}
ROUNDS = int(os.environ.get("QUARROW_FAULT_RUNS", "4"))


class Station:
    """An appliance whose daemon walks its volumes when told to, and its pusher."""

    def __init__(self, arena, fleet, name, volumes):
        self.arena = arena
        self.name = name
        self.volumes = [arena.volume(volume, crawl=["/m"], folder=f"{name}-{volume}") for volume in volumes]
        self.walk()
        config = arena.path(f"quarrow-host-{len(arena.daemons) - 1}.xml")
        self.pusher = Pusher(arena.path(f"pusher-{name}"), name, fleet, QUARROWCTL, config, timeout=20)

    def walk(self):
        """One life of a daemon: one walk."""
        daemon = self.arena.start(self.volumes)
        daemon.wait_walks(len(self.volumes))
        daemon.stop()

    def push(self):
        status, said = self.pusher.run()
        assert status == 0, said


def without_marks(found):
    return {key: {path: values for path, values in rows.items() if not path.endswith(MARK.encode())} for key, rows in found.items()}


def on_disks(stations):
    """As in_fleet() has it."""
    found = {}
    for station in stations:
        for volume in station.volumes:
            tree = volume.tree()
            rows = {os.fsencode(row.path): (None, row.modified) for row in tree.folders}
            rows.update((os.fsencode(row.path), (row.size, row.modified)) for row in tree.files)
            found[station.name, volume.name] = rows
    return without_marks(found)


def assert_compared(fleet, stations):
    wanted, found = on_disks(stations), without_marks(in_fleet(fleet))
    assert found.keys() == wanted.keys()
    assert [(key, differences(found[key], rows)) for key, rows in wanted.items() if found[key] != rows] == []
    assert sum(len(rows) for rows in wanted.values()) > 100
    # What the comparison by path leaves out: names and categories.
    rows = {(station.name, volume.name, os.fsencode(row.path)): (os.fsencode(row.name), CATEGORY[row.category])
            for station in stations for volume in station.volumes for row in volume.tree().files if not row.path.endswith(MARK)}
    assert rows == {(appliance.decode(), volume.decode(), path): (name, category) for appliance, volume, path, name, category in fleet.rows(
        f"SELECT appliance, volume, path, name, category FROM quarrow.live_files WHERE name != '{MARK[1:]}'")}


def change(station, choice, number):
    for volume in station.volumes:
        if choice.random() < 0.7:
            change_something(volume, choice, number)


def test_the_fleet_has_what_lies_on_the_disks(fleet):
    """Through random changes, of which some are pushed while a pusher is killed, or by whichever appliance has its turn."""
    choice = seeded("what lies on the disks")
    arena = Arena()
    try:
        stations = [Station(arena, fleet, name, volumes) for name, volumes in (("one", "A"), ("two", "AB"), ("drei \u00fc", "C"))]
        for seed, station in enumerate(stations):
            for volume in station.volumes:
                make_media_tree(volume, "/m", 12, 60, seed)
            make_strangers(station.volumes[0], "/m/strange")
            station.walk()
            station.push()
        assert_compared(fleet, stations)
        for number in range(ROUNDS):
            for station in stations:
                change(station, choice, number)
                station.walk()
            change_something(stations[0].volumes[0], choice, f"{number} once more")
            stations[0].walk()
            kill_pusher_in_send(fleet, stations[0])
            for station in choice.sample(stations, len(stations)):
                station.push()
            assert_compared(fleet, stations)
        fleet.everywhere("retention.sql")
        fleet.wait_removed()
        assert_compared(fleet, stations)
    finally:
        assert arena.close() == ""


def test_a_difference_is_seen(fleet):
    """The comparison itself: a file that came after the last walk is on the disk alone."""
    arena = Arena()
    try:
        station = Station(arena, fleet, "one", "A")
        make_media_tree(station.volumes[0], "/m", 3, 60, 1)
        station.walk()
        station.push()
        station.volumes[0].make_file("/m/later.jpg", b"x")
        [wanted], [found] = on_disks([station]).values(), in_fleet(fleet).values()
        assert any("later.jpg" in difference for difference in differences(found, wanted))
        assert differences(found, found) == []
    finally:
        arena.close()
