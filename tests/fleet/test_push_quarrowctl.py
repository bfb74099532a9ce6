"""What can go wrong with catalogues and with quarrowctl, which reads them: the others are sent, and the cursor stays."""
import os
import signal
import sqlite3

from push_server import FULL
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for


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


#: Programs in place of quarrowctl, and the words of the message.
STAND_INS = [
    ('"$REAL" "$@" | grep -v full-listing', ["came without a full listing"]),
    ('"$REAL" "$@" | head -c 3000', ["before all was listed"]),
    ('[ "$1" != changes ] || kill -9 $$; exec "$REAL" "$@"', ["signal 9 before all was listed"]),
    ('[ "$1" != changes ] || exit 0; exec "$REAL" "$@"', ["status 0 before all was listed"]),
    ('[ "$1" != changes ] || echo "Welcome!"; exec "$REAL" "$@"', ["This line is not as it should be: Welcome!", "'quarrowctl'"]),
    ('"$REAL" "$@" | sed "s/.path.:/\\"way\\":/"', ["This line is not as it should be"]),
    ("""[ "$1" != changes ] || echo '{"cursor":7}'; exec "$REAL" "$@" """, ["This line is not as it should be: {"]),
    (r'''"$REAL" "$@" | sed 's/"name":"/&\\ud800/' ''', ["This line is not as it should be: {", "ud800"]),
    ('"$REAL" "$@" | tr -d "\\n" | { [ "$1" != changes ] && cat || { cat; head -c 2000000 /dev/zero; }; }', ["A line has no end"]),
    ('[ "$1" != check ] || exit 2; exec "$REAL" "$@"', ["quarrowctl check", "did not list the volumes"]),
    ("""[ "$1" != check ] || { echo '{"accepted":false,"volumes":[]}'; exit 2; }; exec "$REAL" "$@" """, ["did not list the volumes"]),
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


def test_a_quarrowctl_that_fails_when_it_has_listed_everything(world):
    """As when it cannot store its own copy of the cursor. What it has listed counts."""
    world.volume()
    world.stand_in('"$REAL" "$@"; status=$?; [ "$1" != changes ] || exit 2; exit $status')
    world.bad(1, "It ended with status 2, after all was listed")
    assert world.cursor() != ""
    world.assert_complete()


def test_a_quarrowctl_that_keeps_silent_about_a_full_listing(world):
    """Where one was cut short before."""
    world.volume()
    world.configure(patience=0.01)
    world.server.always = FULL
    world.bad(1, "not enough space")
    world.server.always = None
    world.stand_in('"$REAL" "$@" | grep -v full-listing')
    world.bad(1, "It lists volumes in full without saying so")
    assert not world.server.valid("files")
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
