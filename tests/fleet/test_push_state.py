"""What can go wrong with the state of the pusher: it is never overwritten by less. And with the clock."""
import fcntl
import hashlib
import json
import os
import shutil

import pytest
from push_world import seeded
from quarrow_driver.clock import COMMON

#: In a mount namespace of its own, the state's folder gets a file system of a few pages. Prints the state that it has then.
SMALL_DISK = """
state=$1
mount -t tmpfs -o size=64k none "$state" && cp -p "$2"/* "$state"/ && shift 2 || exit 99
"$@"; status=$?
cat "$state/state" >&2
exit $status
"""
FILL = 'cat /dev/zero >"$STATE/more" 2>&1'
#: When it gets full: as quarrowctl is first asked, before its first line, before the cursor.
FULL_DISKS = {"from the start": f'[ "$1" = --version ] && {FILL}; exec "$REAL" "$@"',
              "before the first row": f"""[ "$1" = changes ] || exec "$REAL" "$@"
                  "$REAL" "$@" >"$OUT"; {FILL}; exec cat "$OUT" """,
              "before the cursor": f"""[ "$1" = changes ] || exec "$REAL" "$@"
                  "$REAL" "$@" >"$OUT"; cp "$STATE/state" "$OUT.before"; grep -v cursor "$OUT"
                  while cmp -s "$STATE/state" "$OUT.before"; do sleep 0.02; done
                  {FILL}; grep cursor "$OUT" """}


def flipped(content):
    return content[:150] + bytes([content[150] ^ 1]) + content[151:]


def test_a_damaged_state_is_left_as_it_is(world):
    world.volume()
    world.good()
    path = f"{world.state_folder}/state"
    with open(path, "rb") as file:
        content = file.read()
    attempts = world.server.attempts
    for broken in (b"", content[:-20], b"qc1.0\n", flipped(content), content + b"x"):
        with open(path, "wb") as file:
            file.write(broken)
        world.bad(2, path, "The state is damaged", "Remove it: everything is sent anew then")
        with open(path, "rb") as file:
            assert file.read() == broken
    assert world.server.attempts == attempts
    os.unlink(path)
    world.good()
    world.assert_complete()


def test_an_older_copy_of_the_state_is_refused(world):
    """Its generation is one that does not count any more: rows that came under it would be lost."""
    volume = world.volume()
    world.good()
    path = f"{world.state_folder}/state"
    shutil.copy(path, world.path("copy"))
    volume.make_anew(20)
    assert world.run().status == 0
    volume.add("new")
    os.rename(world.path("copy"), path)
    attempts = world.server.attempts
    for _ in range(2):
        world.bad(2, path, "The state is an older copy", "Remove it: everything is sent anew then")
    assert world.server.attempts == attempts
    os.unlink(path)
    world.good()
    world.assert_complete()


def test_numbers_go_on_growing_when_the_state_was_removed_while_the_clock_is_behind(world):
    world.volume()
    world.good()
    number = world.state()["number"]
    os.unlink(f"{world.state_folder}/state")
    assert world.run(environment=offset(-3 * 86400)).status == 0
    assert world.state()["number"] > number
    world.assert_complete()


def test_a_cursor_that_quarrowctl_does_not_take(world):
    """Its own checksum is wrong, though that of the state is right."""
    world.volume()
    world.good()
    path = f"{world.state_folder}/state"
    content = json.dumps({**world.state(), "cursor": "qc1.0.damaged"}).encode() + b"\n"
    with open(path, "wb") as file:
        file.write(hashlib.sha256(content).hexdigest().encode() + b"\n" + content)
    world.bad(1, "The cursor is damaged", "status 2 before all was listed")
    assert world.cursor() == "qc1.0.damaged"


def test_a_state_of_another_appliance(world):
    world.volume()
    world.good()
    world.configure(appliance="renamed")
    world.bad(2, f"{world.state_folder}/state", "that of appliance 'box', not 'renamed'", "Set 'appliance'")
    os.unlink(f"{world.state_folder}/state")
    world.good()
    assert {row["appliance"] for row in world.server.rows("appliances")} == {b"box", b"renamed"}


@pytest.mark.parametrize("moment", FULL_DISKS)
def test_a_full_disk(world, moment):
    volume = world.volume(files=50)
    world.good()
    before = world.state()
    volume.add("unsent")
    os.rename(world.state_folder, world.path("former"))
    os.mkdir(world.state_folder)
    world.stand_in(f"STATE={world.state_folder} OUT={world.path('out')}\n{FULL_DISKS[moment]}")
    wrapper = ["unshare", "--mount", "--map-root-user", "sh", "-c", SMALL_DISK, "small-disk", world.state_folder,
               world.path("former")]
    result = world.bad(1, world.state_folder, "No space left on device", "Make room", wrapper=wrapper)
    after = json.loads(result.errors.splitlines()[-1])
    assert after["cursor"] == before["cursor"]
    assert (after["number"] > before["number"]) == (moment == "before the cursor")
    assert len(world.server.rows("files")) == (51 if moment == "before the cursor" else 50)
    os.rmdir(world.state_folder)
    os.rename(world.path("former"), world.state_folder)
    world.configure()
    world.good()
    world.assert_complete()


def test_a_folder_that_cannot_hold_a_state(world):
    world.volume()
    world.configure(state="/proc/push")
    world.bad(2, "/proc/push", "The state cannot be kept here", "Name a folder with 'state'")


def test_a_state_of_another_user(world):
    """Root could write it, and its owner could not read it then."""
    world.volume()
    world.good()
    os.chown(world.state_folder, 65534, 65534)
    before = world.state(), world.server.attempts
    for options in ([], ["--full"], ["--follow"]):
        world.bad(2, world.state_folder, "that of user nobody", "runuser -u nobody --", options=options)
    assert (world.state(), world.server.attempts) == before
    assert world.good("--check")


def test_a_check_beside_another_pusher_or_a_damaged_state(world):
    world.volume()
    world.good()
    with open(f"{world.state_folder}/lock", "rb") as lock, open(f"{world.state_folder}/state", "ab") as state:
        fcntl.flock(lock, fcntl.LOCK_EX)
        state.write(b"x")
        state.flush()
        world.good("--check")


def test_two_pushers_at_once(world):
    world.volume()
    world.server.always = "slow"
    first = world.start()
    world.server.wait(lambda: world.server.attempts == 1, "a request of the first one")
    world.bad(2, f"{world.state_folder}/lock", "Another pusher is at work", "Wait for its end")
    world.server.always = None
    world.server.released.set()
    assert first.wait(60) == 0
    world.good()
    world.assert_complete()


def offset(seconds):
    return {**COMMON, "FAKETIME": f"{seconds:+d}", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


@pytest.mark.parametrize("step", [-86400, -100, -3, 80000])
def test_a_clock_that_is_set(world, step):
    """A row that is written twice, the second time with a time before the first one's."""
    choice = seeded("clock")
    volume = world.volume()
    volume.change(choice)
    world.good()
    number, generation = world.state()["number"], world.state()["volumes"]["V"]
    volume.edit("update Files set size = 4711, is_deleted = 0, last_updated_time = strftime('%s', 'now') + ?"
                " where file_id > 10", step)
    result = world.run(environment=offset(step))
    assert result.status == 0, result.errors
    assert world.state()["number"] > number
    assert (world.state()["volumes"]["V"] > generation) == ("set back" in result.errors) == (step == -86400)
    world.assert_complete()


def test_a_state_that_was_lost_while_the_clock_was_behind(world):
    """The new rows count as soon as the clock is right."""
    volume = world.volume()
    world.good()
    shutil.rmtree(world.state_folder)
    assert world.run(environment=offset(-3 * 86400)).status == 0
    volume.add("new")
    assert world.run().status == 0
    world.assert_complete()


@pytest.mark.parametrize("way", ["--once", "--follow"])
def test_rows_that_a_server_took_for_former_ones_come_again_when_the_clock_is_right(world, way):
    """The state was lost while the clock was behind, and the server has removed what is below the generation that counts."""
    world.volume()
    world.good()
    shutil.rmtree(world.state_folder)
    assert world.run(environment=offset(-3 * 86400)).status == 0
    generation = int(world.server.volumes()["V"]["generation"])
    assert world.state()["volumes"]["V"] < generation
    world.server.requests = [request for request in world.server.requests if request.table not in ("files", "folders")
                             or all(int(row[request.columns.index("generation")]) >= generation for row in request.rows)]
    if way == "--once":
        assert world.run().status == 0
    else:
        process = world.start(way)
        world.server.wait(lambda: int(world.server.volumes()["V"]["generation"]) > generation, "a new generation")
        process.terminate()
        process.wait()
    world.assert_complete()
    assert world.state()["settled"]
    assert world.run().status == 0  # where the follower was stopped too early, this is the listing
    sent = len(world.server.rows("files"))
    assert world.run(environment=offset(3 * 86400)).status == 0
    assert len(world.server.rows("files")) == sent
