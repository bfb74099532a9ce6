"""Rows marked deleted are purged when that is due; the state file remembers when it was done."""
import os

import pytest

from catalogue import edit
from harness import state_document
from lines import info

THRESHOLD = 1000


def purging(moment):
    return info(f"Purging the DB at {moment}\n")


def purged(moment):
    return info(f"Done with the purge {moment}\n")


def catalogued(arena, clock, names):
    """Volumes with a catalogue each, and rows marked deleted at given times before the clock's."""
    volumes = [arena.volume(name, crawl=["/m"]) for name in names]
    ages = (THRESHOLD - 1, THRESHOLD, THRESHOLD + 1, 50 * THRESHOLD)
    for volume in volumes:
        volume.make_file("/m/live.mp3", b"x")
        volume.make_folder("/m/live")
        for age in ages:
            volume.make_file(f"/m/{age}/{age}.mp3", b"x")
    daemon = arena.start(volumes)
    daemon.wait_walks(len(volumes))
    daemon.stop()
    for volume in volumes:
        for age in ages:
            os.unlink(volume.path(f"/m/{age}/{age}.mp3"))
            os.rmdir(volume.path(f"/m/{age}"))
            for table in ("Files", "Folders"):
                edit(volume.catalogue.path, f"update {table} set is_deleted = 1, last_updated_time = ? where path like ?",
                     clock.now - age, f"/m/{age}%")
        edit(volume.catalogue.path, "update Files set last_updated_time = 1 where is_deleted = 0")
    return volumes


def rows(volume):
    """What there is, live or not, but for the mark of a stop."""
    return {row[0] for row in volume.catalogue.query("select path from Folders union all select path from Files")
            if not row[0].endswith(".tickle") and not row[0].endswith("/wake")}


def aged(*ages):
    return {f"/m/{age}" for age in ages} | {f"/m/{age}/{age}.mp3" for age in ages}


def state(volume):
    with open(volume.state_file, encoding="utf-8") as file:
        return file.read()


ALIVE = {"/m", "/m/live", "/m/live.mp3"}


@pytest.mark.slow
def test_when_a_purge_is_due_and_what_it_removes(arena, clock):
    """Twice the threshold after the stored time, which is one threshold before the purge: to the second."""
    start = clock.now
    due, later = catalogued(arena, clock, ["Due", "Later"])
    due.write_state(start - 2 * THRESHOLD)
    later.write_state(start - 2 * THRESHOLD + 1)
    daemon = arena.start([due, later], clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks(2)

    def change(burst):
        due.create(f"/m/{burst}.wake")
        os.rename(due.path(f"/m/{burst}.wake"), due.path("/m/wake"))
        daemon.wait_bursts(burst)

    change(1)
    daemon.wait_line(purged(start))
    assert rows(due) == ALIVE | aged(THRESHOLD - 1, THRESHOLD)
    assert rows(later) == ALIVE | aged(THRESHOLD - 1, THRESHOLD, THRESHOLD + 1, 50 * THRESHOLD)
    assert state(due) == state_document(start, start - THRESHOLD)
    assert state(later) == state_document(0, start - 2 * THRESHOLD + 1)

    clock.set(start + THRESHOLD - 1)
    change(2)
    daemon.wait_line(purged(start + THRESHOLD - 1))
    assert rows(due) == ALIVE | aged(THRESHOLD - 1, THRESHOLD)
    assert rows(later) == ALIVE  # the youngest were marked more than a threshold ago by now
    assert state(later) == state_document(start + THRESHOLD - 1, start - 1)

    clock.set(start + THRESHOLD)
    change(3)
    daemon.wait_line(purged(start + THRESHOLD))
    assert rows(due) == ALIVE
    assert state(due) == state_document(start + THRESHOLD, start)
    assert state(later) == state_document(start + THRESHOLD - 1, start - 1)
    daemon.stop()
    for moment in (start, start + THRESHOLD - 1, start + THRESHOLD):
        assert daemon.count(purging(moment)) == daemon.count(purged(moment)) == 1
    assert daemon.errors() == []
    assert sorted(os.listdir(due.path("/.quarrow"))) == ["quarrow-volume.xml", "quarrow.db"]


def round_of_the_loop(daemon, clock, seconds=300):
    """Has the control loop walk and purge; returns when it sleeps again."""
    clock.advance(seconds)
    daemon.wake()


def test_the_control_loop_purges_as_well(arena, clock):
    [volume] = catalogued(arena, clock, ["Volume1"])
    volume.write_state(clock.now - 2 * THRESHOLD + 300)
    daemon = arena.start([volume], clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks()
    daemon.end_first_sleep()
    assert not any("Purging" in text for text in daemon.texts())
    round_of_the_loop(daemon, clock)
    assert daemon.count(purging(clock.now)) == daemon.count(purged(clock.now)) == 1
    assert rows(volume) == ALIVE
    assert state(volume) == state_document(clock.now, clock.now - THRESHOLD)
    daemon.wait_walks(2)
    round_of_the_loop(daemon, clock)
    daemon.wait_walks(3)
    assert daemon.count(purging(clock.now)) == 0
    daemon.stop()


def test_a_first_purge_with_the_default_threshold(arena, clock):
    """Sixty days, and a new state file says that there never was a purge."""
    volume = arena.volume(crawl=["/m"])
    config = (f"<Q><Version>1.0</Version><last_updated_time>1</last_updated_time><Volumes><Volume><Name>V</Name>"
              f"<Root>{volume.folder}</Root><CrawlPaths><Path>/m</Path></CrawlPaths></Volume></Volumes></Q>")
    daemon = arena.start(config=config, clock=clock)
    daemon.wait_walks()
    daemon.end_first_sleep()
    round_of_the_loop(daemon, clock)  # unless the purge thread's first pass has done it before the walk began
    daemon.wait_walks(2)
    daemon.stop()
    [done] = [text for text in daemon.texts() if text.startswith("Done with the purge")]
    moment = int(done.split()[-1])
    assert moment in (clock.now - 300, clock.now)
    assert state(volume) == state_document(moment, moment - 5184000)


def test_state_files_that_say_less_or_more(arena, clock):
    """What is not in the file is not added to it, so such a volume is purged at every occasion; what else is there stays."""
    comment = "<!-- by hand -->"
    files = {
        "No time": "<Quarrow><Volume><last_updated_time>5</last_updated_time></Volume></Quarrow>",
        "No volume": "<Quarrow><Version>7</Version></Quarrow>",
        "Other root": "<Other><Volume><last_purge_time>5</last_purge_time></Volume></Other>",
        "More": f"<Quarrow>{comment}<More a='b'>x</More><Volume><Less/><last_purge_time> 7 </last_purge_time></Volume></Quarrow>",
        "Empty time": "<Quarrow><Volume><last_purge_time/></Volume></Quarrow>",
    }
    volumes = catalogued(arena, clock, files)
    for volume in volumes:
        with open(volume.state_file, "w", encoding="ascii") as file:
            file.write(files[volume.name])
    daemon = arena.start(volumes, clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks(5)
    daemon.end_first_sleep()
    for turn in (1, 2):
        round_of_the_loop(daemon, clock)
        daemon.wait_walks(5 + 5 * turn)
    # "More" and "Empty time" have had their time since, the other three are purged each time.
    assert daemon.count(purged(clock.now)) == 3
    daemon.stop()
    now = clock.now
    declaration = '<?xml version="1.0"?>\n'
    by_name = {volume.name: state(volume) for volume in volumes}
    assert by_name["No time"] == f"{declaration}<Quarrow><Volume><last_updated_time>{now}</last_updated_time></Volume></Quarrow>\n"
    assert by_name["No volume"] == f"{declaration}{files['No volume']}\n"
    assert by_name["Other root"] == f"{declaration}{files['Other root']}\n"

    def moment(name):
        """When the volume was purged: in the purge thread's first pass, or in the loop's first round."""
        text = by_name[name]
        found = int(text[text.index("_purge_time>") + 12:text.index("</last_purge")]) + THRESHOLD
        assert found in (now - 600, now - 300)
        return found

    assert by_name["More"] == (f'{declaration}<Quarrow>{comment}<More a="b">x</More><Volume><Less/>'
                    f"<last_purge_time>{moment('More') - THRESHOLD}</last_purge_time></Volume></Quarrow>\n")
    for volume in volumes:
        early = volume.name in ("More", "Empty time") and moment(volume.name) == now - 600
        assert rows(volume) == ALIVE | (aged(THRESHOLD - 1, THRESHOLD) if early else set())
    assert daemon.output() == "Badly formed xml \n"
    assert daemon.errors() == []


def test_a_state_file_that_vanished_is_not_made_again(arena, clock):
    [volume] = catalogued(arena, clock, ["Volume1"])
    volume.write_state(clock.now - THRESHOLD)
    daemon = arena.start([volume], clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks()
    daemon.end_first_sleep()
    os.unlink(volume.state_file)
    for turn in (2, 3):
        round_of_the_loop(daemon, clock, THRESHOLD)
        daemon.wait_walks(turn)
        assert daemon.count(purged(clock.now)) == 1  # nothing was recorded, so it is due again
    daemon.stop()
    assert not os.path.exists(volume.state_file)
    assert rows(volume) == ALIVE


def test_a_planted_link_in_place_of_the_temporary_file_is_not_followed(arena, clock):
    [volume] = catalogued(arena, clock, ["Volume1"])
    volume.write_state(0)
    arena.write_config("precious", "precious")
    os.symlink(arena.path("precious"), volume.state_file + ".tmp")
    daemon = arena.start([volume], clock=clock, purge_threshold=THRESHOLD)
    daemon.wait_walks()
    daemon.end_first_sleep()
    round_of_the_loop(daemon, clock)
    daemon.wait_walks(2)
    daemon.stop()
    with open(arena.path("precious"), encoding="ascii") as file:
        assert file.read() == "precious"
    assert sorted(os.listdir(volume.path("/.quarrow"))) == ["quarrow-volume.xml", "quarrow.db"]
    [done] = [text for text in daemon.texts() if text.startswith("Done with the purge")]
    moment = int(done.split()[-1])
    assert state(volume) == state_document(moment, moment - THRESHOLD)
