"""A disk on which nothing changes may sleep."""
import os
import time

from appliance import configuration

SPEED = 100  # how much faster the daemon's clock goes


def transfers(disk):
    """How many reads and writes the disk has completed."""
    with open(f"/sys/block/{disk}/stat", encoding="ascii") as file:
        numbers = file.read().split()
    return int(numbers[0]), int(numbers[4])


def test_an_idle_hour_touches_no_disk(appliance, shared):
    folder, disk = shared
    for number in range(20):
        os.makedirs(f"{folder}/music/{number}")
        with open(f"{folder}/music/{number}/song.mp3", "wb") as file:
            file.write(b"x" * 5000)
    appliance.configure(configuration("/shared"))
    library = appliance.good("sh", "-c", "ls /usr/lib/*/faketime/libfaketimeMT.so.1").strip()
    appliance.drop_in("fast-clock", "[Service]\n" f"Environment=LD_PRELOAD={library} \"FAKETIME=+0 x{SPEED}\" FAKETIME_DONT_FAKE_MONOTONIC=1\n")
    appliance.start()
    os.sync()
    time.sleep(2 * 60 * 5 / SPEED)  # the loops begin their turns, and the purge has been looked for
    os.sync()
    before = transfers(disk)
    assert before[1] > 0
    time.sleep(3600 / SPEED)  # beyond the 30 seconds after which the kernel itself writes what was changed
    assert transfers(disk) == before
    appliance.good("touch", "/shared/music/new.mp3")
    os.sync()
    assert transfers(disk) != before  # the counting counts
