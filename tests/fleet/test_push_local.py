"""What can go wrong on the appliance: catalogues, quarrowctl, the state, the clock, the configuration."""
import hashlib
import json
import os
import signal
import sqlite3
import subprocess

import pytest
from push_world import PUSH, seeded
from quarrow_driver.clock import COMMON, fast_clock
from quarrow_driver.waiting import wait_for

#: In a mount namespace of its own, the state's folder gets a file system of a few pages. Prints the state that is there in the end.
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
              "before the first row": f'[ "$1" != changes ] || {{ "$REAL" "$@" >"$OUT"; {FILL}; exec cat "$OUT"; }}; exec "$REAL" "$@"',
              "before the cursor": f"""[ "$1" = changes ] || exec "$REAL" "$@"
                  "$REAL" "$@" >"$OUT"; cp "$STATE/state" "$OUT.before"; grep -v cursor "$OUT"
                  while cmp -s "$STATE/state" "$OUT.before"; do sleep 0.02; done
                  {FILL}; grep cursor "$OUT" """}


# Catalogues

def damage(volume):
    with open(volume.catalogue, "r+b") as file:
        file.write(b"This was a catalogue.")


def test_a_catalogue_that_is_damaged_or_gone_does_not_hold_up_the_others(world):
    volumes = [world.volume(name) for name in ("Good", "Damaged", "Gone")]
    world.good()
    cursor = world.cursor()
    for volume in volumes:
        volume.add("new")
    healthy = [(volume.catalogue, open(volume.catalogue, "rb").read()) for volume in volumes[1:]]
    damage(volumes[1])
    os.unlink(volumes[2].catalogue)
    result = world.bad(1, volumes[1].catalogue, volumes[2].catalogue, "There is no catalogue")
    assert result.output.startswith("1 rows of files ")
    assert world.cursor() != cursor
    for path, content in healthy:
        with open(path, "wb") as file:
            file.write(content)
    world.run()
    world.good()
    world.assert_complete()


def test_a_catalogue_that_is_locked_for_long(world):
    volume, other = world.volume("Locked"), world.volume("Other")
    world.good()
    volume.add("new"), other.add("new")
    holder = sqlite3.connect(volume.catalogue, isolation_level=None)
    holder.execute("begin exclusive")
    world.bad(1, volume.catalogue, environment=fast_clock(20))  # ten seconds of waiting
    assert {row["volume"] for row in world.server.rows("files") if row["name"] == b"new"} == {b"Other"}
    holder.execute("rollback")
    holder.close()
    assert world.run().status == 0
    world.assert_complete()


def test_a_catalogue_that_needs_a_restart_does_not_hide_one_that_is_damaged(world):
    anew, damaged = world.volume("Anew"), world.volume("Damaged")
    world.good()
    anew.make_anew(12)
    damage(damaged)
    world.bad(1, "made anew", damaged.catalogue)
    assert len([key for key in world.server.valid("files") if key[0] == "Anew"]) == 12


# quarrowctl

STAND_INS = [
    ('"$REAL" "$@" | head -c 3000', ["before all was listed"]),
    ('[ "$1" != changes ] || kill -9 $$; exec "$REAL" "$@"', ["signal 9 before all was listed"]),
    ('[ "$1" != changes ] || exit 0; exec "$REAL" "$@"', ["status 0 before all was listed"]),
    ('[ "$1" != changes ] || echo "Welcome!"; exec "$REAL" "$@"', ["This line is not as it should be: Welcome!", "'quarrowctl'"]),
    ('"$REAL" "$@" | sed "s/.path.:/\\"way\\":/"', ["This line is not as it should be"]),
    ('"$REAL" "$@" | tr -d "\\n" | { [ "$1" != changes ] && cat || { cat; head -c 2000000 /dev/zero; }; }', ["A line has no end"]),
    ('"$REAL" "$@" | grep -v full-listing', ["came without a full listing"]),
    ('[ "$1" != check ] || exit 2; exec "$REAL" "$@"', ["quarrowctl check", "did not list the volumes"]),
    ('[ "$1" != changes ] || set -- "$@" --no-such-option; exec "$REAL" "$@"', ["status 2 before all was listed"])]


def test_a_quarrowctl_that_does_not_do_its_work(world):
    world.volume(files=50)
    for script, words in STAND_INS:
        world.stand_in(script)
        world.bad(1, *words)
        assert world.cursor() == "" and not world.server.rows("appliances")
    world.configure()
    world.good()
    world.assert_complete()


def test_lines_and_keys_of_a_later_release_are_passed_over(world):
    world.volume()
    world.stand_in("""[ "$1" = changes ] || exec "$REAL" "$@"
        echo '{"event":"new-moon","volume":"V"}'; echo '{"kind":"link","id":1}'; echo '{"news":[1,{"a":null}]}'
        "$REAL" "$@" | sed 's/^{"volume"/{"later":{"x":[]},"volume"/'""")
    world.good()
    world.assert_complete()


def test_a_quarrowctl_whose_pusher_was_killed_cannot_move_the_cursor(world):
    """It has listed everything and writes the new cursor, late: when the next pusher has written its own."""
    volume = world.volume()
    world.good()
    volume.add("unsent")
    world.stand_in(f"""[ "$1" = changes ] || exec "$REAL" "$@"
        out={world.path("out")}
        [ ! -e "$out" ] || {{ cp "$out.cursor" "$(cat "$out.place")"; exec "$REAL" "$@"; }}
        echo "$3" >"$out.place"; cp "$3" "$out.cursor"; "$REAL" changes --cursor-file "$out.cursor" >"$out.lines"
        mv "$out.lines" "$out"; exec sleep 1000""")
    first = world.start()
    wait_for(lambda: os.path.exists(world.path("out")), "the listing")
    with open(f"/proc/{first.pid}/task/{first.pid}/children", encoding="ascii") as file:
        child = int(file.read())
    first.kill()
    first.wait()
    assert world.run().status == 0
    os.kill(child, signal.SIGKILL)
    world.assert_complete()


def test_a_quarrowctl_that_is_not_there(world):
    world.volume()
    world.configure(quarrowctl=world.path("none"))
    world.bad(2, world.path("none"), "No such file", "Install it, or name it with 'quarrowctl'")


# The state

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
        world.bad(2, path, "The state is damaged", "remove it: everything is sent anew then")
        with open(path, "rb") as file:
            assert file.read() == broken
    assert world.server.attempts == attempts
    os.unlink(path)
    world.good()
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
    wrapper = ["unshare", "--mount", "--map-root-user", "sh", "-c", SMALL_DISK, "small-disk", world.state_folder, world.path("former")]
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


# The clock

def offset(seconds):
    return {**COMMON, "FAKETIME": f"{seconds:+d}", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}


@pytest.mark.parametrize("step", [-86400, -100, -3, 86400])
def test_a_clock_that_is_set(world, step):
    """A row that is written twice, the second time with a time before the first one's."""
    choice = seeded("clock")
    volume = world.volume()
    volume.change(choice)
    world.good()
    number, generation = world.state()["number"], world.state()["volumes"]["V"]
    volume.edit(f"update Files set size = 4711, is_deleted = 0, last_updated_time = strftime('%s', 'now') + {step} where file_id > 10")
    result = world.run(environment=offset(step))
    assert result.status == 0, result.errors
    assert world.state()["number"] > number
    assert (world.state()["volumes"]["V"] > generation) == ("set back" in result.errors) == (step == -86400)
    world.assert_complete()


# The configuration

@pytest.mark.parametrize("line, words", [
    ("no such key = 1", ["There is no setting 'no such key'"]), ("place = /etc", ["There is no setting 'place'"]),
    ("user", ["There is no setting 'user'"]), ("user =", ["'user' has no value"]), ("timeout = soon", ["'soon' is no number"]),
    ("patience = -1", ["'-1' is no number"]), ("pause = nan", ["'nan' is no number"]), ("url = ftp://x", ["'ftp://x' is no address"]),
    ("url = https://a:b@c/", ["is no address"]), ("url = https://a/?query=x", ["is no address"]), ("url = https://a:99999", ["is no address"]),
    ("user = a\x01b", ["'user' has a control character"]), ("plain_http = maybe", ["'plain_http' is neither"])])
def test_a_configuration_that_cannot_be_used(world, line, words):
    world.volume()
    world.configure(line)
    world.bad(2, "push.conf", *words)
    assert not world.server.attempts and not os.path.exists(world.state_folder)


def test_a_configuration_that_is_not_there_or_not_complete(world):
    world.write("push.conf", "# nothing\n\nuser = pusher\n")
    world.bad(2, "push.conf", "'url' is missing", "Add a line")
    os.unlink(world.config)
    world.bad(2, "push.conf", "No such file", "--config")


def test_a_password_that_others_may_read_or_that_is_none(world):
    world.volume()
    path = world.path("password")
    for mode in (0o644, 0o604, 0o602):
        os.chmod(path, mode)
        world.bad(2, path, "Others may read this file", "chmod 600")
    world.write("password", "", 0o600)
    world.bad(2, path, "there is none")
    world.write("password", "two\nlines\n", 0o600)
    world.bad(2, path, "control character")
    os.unlink(path)
    world.bad(2, path, "No such file")
    assert not world.server.attempts


def test_help_says_what_the_statuses_mean():
    output = subprocess.run([PUSH, "--help"], capture_output=True, text=True, check=True).stdout
    assert "--once" in output and "--follow" in output and "Exit status" in output
