"""A volume that is listed anew replaces its former rows, but not before the new ones are all there."""
import os
import shutil

from push_server import FULL
from push_world import seeded


def test_a_catalogue_that_was_made_anew_replaces_its_rows(world):
    volume, other = world.volume("V", 40), world.volume("Other")
    world.good()
    before = world.server.volumes()
    volume.make_anew(25)
    result = world.bad(0, "made anew", volume.catalogue)
    assert result.errors.count("\n") == 1
    world.assert_complete()
    after = world.server.volumes()
    assert int(after["V"]["generation"]) > int(before["V"]["generation"])
    assert after["V"]["identity"] != before["V"]["identity"]
    assert after["Other"] == before["Other"]
    other.add("more")
    volume.add("more")
    world.good()
    world.assert_complete()


def test_a_new_generation_counts_when_all_its_rows_are_there(world):
    volume = world.volume("V", 40)
    world.good()
    rows = world.server.valid("files")
    volume.make_anew(25)
    world.server.faults.extend([None, None])  # where it has come to, and the files, but not the folders
    world.configure(patience=0.01)
    world.server.always = FULL
    world.bad(1, "not enough space")
    assert len(world.server.rows("files")) == 65
    assert world.server.valid("files") == rows
    assert world.state()["opened"] == ["V"]
    world.server.always = None
    world.run()
    world.assert_complete()
    assert world.state()["opened"] == []


def test_a_full_listing_that_was_cut_short_has_another_generation_next_time(world):
    """Also when the reason for it is gone by then: here the first catalogue, with its former rows, is back."""
    volume = world.volume("V", 40)
    world.good()
    former = os.path.dirname(volume.catalogue)
    os.rename(former, world.path("aside"))
    volume.make_anew(25)
    world.server.faults.extend([None, None, None, None])  # all but the row of the appliance
    world.server.always = FULL
    world.configure(patience=0.01)
    world.bad(1, "not enough space")
    cut_short = int(world.server.volumes()["V"]["generation"])
    assert cut_short > world.state()["volumes"]["V"]
    shutil.rmtree(former)
    os.rename(world.path("aside"), former)
    volume.add("after all that")
    world.server.always = None
    world.good()
    world.assert_complete()
    assert int(world.server.volumes()["V"]["generation"]) > cut_short


def test_everything_is_sent_anew_on_request(world):
    choice = seeded("full")
    volume = world.volume("V", 100)
    world.good()
    before = world.server.volumes()["V"]
    volume.change(choice)
    assert world.good("--full").output.startswith(f"{len(volume.rows()['files'])} rows of files ")
    world.assert_complete()
    assert int(world.server.volumes()["V"]["generation"]) > int(before["generation"])


def test_a_purge_is_told_by_the_time_before_which_there_is_nothing(world):
    volume = world.volume()
    world.good()
    assert world.server.volumes()["V"]["purged_before"] == b"0"
    record = f"{volume.root}/.quarrow/quarrow-volume.xml"
    for recorded in (1_600_000_000, -2_000_000_000, 2_000_000_000):  # the others lie ahead
        with open(record, "w", encoding="ascii") as file:
            file.write(f"<Quarrow><Volume><last_purge_time>{recorded}</last_purge_time></Volume></Quarrow>")
        world.good()
        assert world.server.volumes()["V"]["purged_before"] == b"1600000000"
    os.unlink(record)
    os.mkfifo(record)
    world.good()



def test_a_volume_whose_listing_was_cut_short_and_that_is_gone_holds_up_nothing(world):
    world.volume("V", 40), world.volume("Gone", 10)
    world.server.faults.extend([None])
    world.server.always = FULL
    world.configure(patience=0.01)
    world.bad(1, "not enough space")
    world.server.always = None
    del world.volumes[1]
    world.volume("New", 3)
    world.good()
    world.assert_complete()


def test_a_volume_that_is_not_sent_any_more_is_hidden_until_it_comes_back(world):
    """Whether the daemon's configuration leaves it out, or that of the pusher, for which the cursor goes on."""
    kept, left = world.volume("Kept"), world.volume("Left", 10)
    world.good()
    for changes in ("", "volume = Kept"):
        world.configure(changes)
        world.use([kept] if not changes else [kept, left])
        kept.add(f"with {changes}")
        left.add(f"with {changes}")
        world.good()
        world.volumes = [kept]
        world.assert_complete()
        world.configure()
        world.use([kept, left])
        left.add(f"after {changes}")
        world.good()
        world.assert_complete()


def test_a_refused_configuration_hides_nothing(world):
    world.volume()
    world.good()
    before = world.server.volumes()
    world.write("host.xml", "<QuarrowHost><Volumes/></QuarrowHost")
    world.bad(1, "quarrowctl check", "did not list the volumes", "Run 'quarrowctl check'")
    assert world.server.volumes() == before


def test_a_misspelt_volume_hides_nothing(world):
    world.volume("Media")
    world.good()
    before, attempts = world.server.volumes(), world.server.attempts
    world.configure("volume = Meda")
    for options in ([], ["--check"], ["--follow"]):
        world.bad(2, "push.conf", "no volume 'Meda'", "Correct 'volume'", options=options)
    assert (world.server.volumes(), world.server.attempts) == (before, attempts)
