"""The command line, the host configuration, and what a start and a stop write into the log."""
import os
import sqlite3

import pytest

from catalogue import assert_same
from checkout import printed_version
from harness import NEVER_PURGE, configuration
from lines import err, info
from quarrow_driver.waiting import wait_for

BANNER = info("================\n")
UNPARSED = err("Could not parse the config xml\n")
REJECTED = err("Failed in reading the config file\n")

VOLUME = "<Volumes><Volume><Name>Volume1</Name><Root>{root}</Root></Volume></Volumes>"
VERSION = "<Version>1.0</Version>"
UPDATED = "<last_updated_time>1262304000</last_updated_time>"


def host(*elements):
    return f"<QuarrowHost>{''.join(elements)}</QuarrowHost>"


def test_version_is_printed_and_nothing_else_happens(arena):
    volume = arena.volume()
    daemon = arena.start([volume], arguments=["version"])
    assert daemon.wait_exit() == 0
    assert daemon.output() == f"{printed_version()}\n"
    assert daemon.lines == []
    assert os.listdir(volume.folder) == []


def test_any_other_command_line_starts_the_daemon(arena):
    command_lines = [[], ["version", "x"], ["version", "version"], ["Version"], ["--version"], [""], ["--help", "-h"]]
    daemons = [arena.start([arena.volume(f"Volume{number}")], arguments=arguments)
               for number, arguments in enumerate(command_lines)]
    for daemon in daemons:
        daemon.wait_walks()
    for daemon in daemons:
        daemon.stop()
        assert daemon.output() == ""
        assert daemon.lines[0] == BANNER


#: Each leaves out, or breaks, one thing that a host configuration must have.
WITHOUT_MESSAGE = {
    "no version": host(UPDATED, VOLUME),
    "empty version": host("<Version/>", UPDATED, VOLUME),
    "version without text": host("<Version></Version>", UPDATED, VOLUME),
    "no update time": host(VERSION, VOLUME),
    "update time 0": host(VERSION, "<last_updated_time>0</last_updated_time>", VOLUME),
    "update time no number": host(VERSION, "<last_updated_time>soon</last_updated_time>", VOLUME),
    "purge threshold 0": host(VERSION, UPDATED, "<purge_threshold>0</purge_threshold>", VOLUME),
    "purge threshold no number": host(VERSION, UPDATED, "<purge_threshold>x7</purge_threshold>", VOLUME),
    "last purge threshold counts": host(VERSION, UPDATED, "<purge_threshold>5</purge_threshold>"
                                        "<purge_threshold>0</purge_threshold>", VOLUME),
    "no volume": host(VERSION, UPDATED, "<Volumes></Volumes>"),
    "volume without root": host(VERSION, UPDATED, "<Volumes><Volume><Name>Volume1</Name></Volume></Volumes>"),
    "root below the document element": host(VERSION, UPDATED, "<Root>{root}</Root>"),
    "root in a volume outside of volumes": host(VERSION, UPDATED, "<Volume><Name>V</Name><Root>{root}</Root></Volume>"),
    "root in volumes outside of a volume": host(VERSION, UPDATED, "<Volumes><Name>V</Name><Root>{root}</Root></Volumes>"),
    "root one level too deep": host(VERSION, UPDATED,
                                    "<Volumes><Volume><Name>V</Name><At><Root>{root}</Root></At></Volume></Volumes>"),
    "volumes in attributes": host(VERSION, UPDATED, '<Volumes><Volume Name="V" Root="{root}"/></Volumes>'),
    "only an empty document element": "<QuarrowHost/>",
}
UNPARSEABLE = {
    "empty file": "",
    "no xml": "Version=1.0\n",
    "not closed": host(VERSION, UPDATED, VOLUME)[:-3],
    "crossed elements": "<QuarrowHost><Version>1.0</QuarrowHost></Version>",
    "two document elements": host(VERSION, UPDATED, VOLUME) + "<x/>",
}


def test_a_rejected_configuration_ends_the_daemon_with_its_message(arena):
    volume = arena.volume()
    runs = []
    for cases, expected in ((WITHOUT_MESSAGE, [BANNER, REJECTED]), (UNPARSEABLE, [BANNER, UNPARSED, REJECTED])):
        for case, text in cases.items():
            runs.append((case, expected, arena.start(config=text.replace("{root}", volume.folder))))
    in_place_of_a_file = {"missing file": arena.path("missing.xml"), "empty value": "", "folder": volume.folder}
    for case, value in in_place_of_a_file.items():
        runs.append((case, [BANNER, UNPARSED, REJECTED], arena.start(environment={"QUARROW_CONFIG_FILE": value})))
    for case, expected, daemon in runs:
        assert (case, daemon.wait_exit()) == (case, 0)
        assert (case, daemon.lines) == (case, expected)
        assert (case, daemon.output()) == (case, "")
    assert os.listdir(volume.folder) == []


def test_the_configuration_has_a_default_place(arena):
    volume = arena.volume(crawl=["/media"])
    os.mkdir(arena.path("host"))
    arena.write_config(configuration([volume]), "host/quarrow-host.xml")
    without = arena.start()
    provided = arena.start(binds=[[arena.path("host"), "/CacheVolume/.quarrow"]])
    assert without.wait_exit() == 0
    assert without.lines == [BANNER, UNPARSED, REJECTED]
    provided.wait_walks()
    provided.stop()
    assert volume.catalogue.live() == {"/media"}


def test_what_the_configuration_may_look_like(arena):
    """Any document element, any order, unknown elements, comments, the last of several values, the enabled switch off."""
    volume, other = arena.volume("V", crawl=["/b", "/a"], folder="first"), arena.volume("Volume2")
    volume.make_folder("/a/sub", "/b/skipped/deep", "/c")
    text = f"""<?xml version="1.0"?>
<!-- by hand -->
<anything version="2">
  <extra><Version>2.0</Version></extra>
  <last_updated_time> 12 (a while ago)</last_updated_time>
  <last_updated_time>1262304000</last_updated_time>
  <quarrow_enabled>false</quarrow_enabled>
  <purge_threshold>0</purge_threshold><purge_threshold>{NEVER_PURGE}</purge_threshold>
  <rewalk_threshold/>
  <Root>/nowhere</Root>
  <Volumes>
    <Volume>
      <CrawlPaths><Path>/b/</Path><!-- first --><Path>/a</Path><Path/></CrawlPaths>
      <Root>/overwritten</Root>
      <Root>{volume.folder}</Root>
      <ExcludePaths><Path>/b/skipped/</Path></ExcludePaths>
      <Name>Volume 1 &amp; &lt;more&gt;</Name>
      <Name>never used</Name>
    </Volume>
    <Volume><Root>{other.folder}</Root></Volume>
    <Note><Name>x</Name><Root>/nowhere</Root></Note>
  </Volumes>
</anything>
"""
    daemon = arena.start(config=text)
    daemon.wait_walks(3)
    volume.exclude = ["/b/skipped"]
    assert_same(volume.rows(), volume.tree())
    daemon.stop()
    assert "/.quarrow/quarrow.db" in other.catalogue.live()
    assert daemon.errors() == []


def test_of_two_volumes_with_one_name_the_later_root_counts_and_both_path_lists(arena):
    first, second = arena.volume("V", crawl=["/a"], folder="first"), arena.volume("V", crawl=["/b"], folder="second")
    second.make_folder("/a/below")
    daemon = arena.start([first, second])
    daemon.wait_walks(2)
    daemon.stop()
    assert os.listdir(first.folder) == ["a"]
    assert second.catalogue.live() == {"/a", "/a/below", "/b"}


def test_start_and_stop_write_exactly_these_lines(arena, clock):
    volume = arena.volume("Volume1", crawl=["/media"])
    volume.make_file("/media/a.mp3", b"x")
    volume.make_file("/media/b.mp3", b"x")
    volume.make_file("/media/sub/c.mp3", b"x")
    media, sub = volume.path("/media"), volume.path("/media/sub")
    daemon = arena.start([volume], clock=clock)
    daemon.wait_walks()
    daemon.wait_line(info("pthread_sigmask returned 0\n"), 3)
    daemon.stop()

    # Watcher, purge thread and walk each write one such line, at a moment of their own.
    started = info("pthread_sigmask returned 0\n")
    assert daemon.count(started) == 3
    assert [line for line in daemon.lines if line != started] == [
        BANNER,
        info(f"sqlite version: {sqlite3.sqlite_version}\n"),
        info("Generating schema"),
        info(f"For folder {media}"),
        info("Add file count = 2, Delete file count = 0"),
        info("Add folder count = 0, Delete folder count = 0"),
        info(f"For folder {sub}"),
        info("Add file count = 1, Delete file count = 0"),
        info("Add folder count = 0, Delete folder count = 0"),
        info(f"Finished walk. Walk started at {media}\n"),
        info("Total folders/files (re)indexed: 2/3\n"),
        info("The time taken: 0\n"),
        info("Actively watching 2 folders\n"),
        info("Got a signal to stop\n"),
        info("Processed 0 events\n"),  # what wakes the watcher is not looked at any more
        info("Handled 0 events in 0 seconds "),
        info("======\n"),
        info("The thread join has returned with a return code of 0 \n"),
        info("sqlite3 handle closed\n"),
        info("Done with the stop\n"),
    ]
    assert daemon.output() == ""


def test_without_crawl_paths_the_walk_starts_at_the_volume(arena):
    volume = arena.volume()
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    assert daemon.count(info(f"Crawl paths is empty so starting at {volume.folder}\n")) == 1
    assert daemon.count(info(f"Finished walk. Walk started at {volume.folder}\n")) == 1
    assert not any("Checking if the folder" in text for text in daemon.texts())


@pytest.mark.parametrize("slashes, path", [("", "Volume1"), ("/", "Volume1"), ("//", "Volume1/")])
def test_one_trailing_slash_of_a_root_is_dropped(arena, slashes, path):
    volume = arena.volume()
    volume.root += slashes
    volume.make_file("/Music/Rock/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    assert daemon.count(info(f"Crawl paths is empty so starting at {arena.path(path)}\n")) == 1
    assert {"", "/Music", "/Music/Rock", "/Music/Rock/a.mp3"} <= volume.catalogue.live()


def test_a_root_of_one_slash_is_the_empty_path(arena):
    volume = arena.volume("Inner")
    volume.make_file("/a.mp3", b"x")
    root = arena.volume("Root", folder="catalogue-of-root")
    os.mkdir(root.path("/.quarrow"))
    whole = root.catalogue
    root.root, root.crawl = "/", [volume.folder]
    daemon = arena.start([root], binds=[[arena.path("catalogue-of-root/.quarrow"), "/.quarrow"]])
    daemon.wait_walks()
    tree = root.tree()
    daemon.stop()
    assert_same(whole.rows(), tree)
    assert whole.live() == {volume.folder, f"{volume.folder}/a.mp3"}


def test_a_volume_that_cannot_be_initialised_is_skipped(arena):
    """The others, before and after it in name order, are catalogued."""
    volumes = [arena.volume(name, crawl=["/m"]) for name in ("A", "C")]
    for volume in volumes:
        volume.make_file("/m/x.jpg", b"x")
    arena.write_config("no folder", "file")
    broken = [type(volumes[0])("B", arena.path("file")), type(volumes[0])("", arena.path("file"))]
    daemon = arena.start(volumes + broken)
    daemon.wait_walks(2)
    for volume in volumes:
        assert_same(volume.rows(), volume.tree())
    daemon.stop()
    failed = [err("open() failed, handleStatus: 14\n"),
              err("Could not open the volume cfg file DBOperationException occurred\n")]
    assert [line for line in daemon.lines if line.priority == "ERR"] == [
        *failed, err("Could not initialize the manager for the volume \n"),
        *failed, err("Could not initialize the manager for the volume B\n")]


def test_without_a_single_usable_volume_the_control_loop_still_turns(arena):
    arena.write_config("no folder", "file")
    volume = arena.volume("Lost", folder="gone")
    volume.root = arena.path("file")
    daemon = arena.start([volume])
    daemon.wait_line(err("Could not initialize the manager for the volume Lost\n"))
    daemon.end_first_sleep()
    daemon.stop()
    assert daemon.errors()[-1] == "Could not initialize the manager for the volume Lost\n"
    assert daemon.texts()[-3:-1] == ["Done with the stop\n", "We received a wake up message from the signal handler\n"]


def test_closed_standard_descriptors_lead_to_nothing(arena):
    """Else the first data file would be descriptor 1, and what goes to standard output would end up in it."""
    volume = arena.volume(crawl=["/m"])
    volume.make_file("/m/keep.mp3", b"x")
    volume.make_file("/m/vanish.mp3", b"x")
    first = arena.start([volume])
    first.wait_walks()
    first.stop()
    os.unlink(volume.path("/m/vanish.mp3"))
    expected = volume.catalogue.live() - {"/m/vanish.mp3"} | {"/m/.tickle"}

    for closed in ([0], [1], [2], [0, 1, 2]):
        daemon = arena.start([volume], closed=closed)
        daemon.wait_walks()
        devices = [os.stat(f"/proc/{daemon.pid}/fd/{number}").st_rdev for number in closed]
        assert devices == [os.stat("/dev/null").st_rdev] * len(closed)
        wait_for(lambda: volume.catalogue.live() == expected, "the vanished file being marked")
        daemon.stop()
        assert volume.catalogue.is_sound()
        expected = volume.catalogue.live()
    assert b"Deleting file" not in open(volume.catalogue.path, "rb").read()
