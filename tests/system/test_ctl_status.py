"""quarrowctl status: what it says about the daemon and the catalogues, to whom, and that it leaves both alone."""
import fcntl
import os
import pty
import re
import shutil
import sqlite3
import struct
import subprocess
import termios
import time

import openmetrics
import pytest
from catalogue import edit
from ctl import Ctl
from harness import in_a_user_namespace, inotify_limit
from lines import info
from quarrow_driver.waiting import BOUND, poll, wait_for

STRANGER = 65534
CATEGORIES = ("video", "audio", "image", "other")


def sample_volume(arena, name="Volume1", **settings):
    volume = arena.volume(name, crawl=["/m"], **settings)
    for relative, size in (("/m/a/1.mp3", 1000), ("/m/a/2.mp3", 24), ("/m/b/3.avi", 5), ("/m/b/c/4.jpg", 7), ("/m/5", 11)):
        volume.make_file(relative, size=size)
    return volume


def walked(arena, *volumes, **settings):
    daemon = arena.start(list(volumes), **settings)
    daemon.wait_walks(len(volumes))
    return daemon


def status(ctl, *arguments, **settings):
    """The JSON object, with the result that it came in."""
    result = ctl.run("status", "--json", *arguments, **settings)
    assert result.bytes.count(b"\n") == 1
    return result.json(), result


def figures(volume):
    files = volume["files"]
    return volume["folders"], {name: (files[name]["count"], files[name]["bytes"]) for name in CATEGORIES}


def settled_status(ctl):
    """status(), once that has kept what it counted."""
    wait_for(lambda: status(ctl)[0] and kept_files(ctl), "a file in the cache", BOUND)
    return status(ctl)


def kept_files(ctl):
    folder = os.path.join(ctl.folder, ".cache/quarrow")
    return [os.path.join(folder, name) for name in sorted(os.listdir(folder))] if os.path.isdir(folder) else []


# The daemon


def test_the_help_says_when_the_progress_of_a_walk_is_shown(arena):
    text = " ".join(Ctl(arena, [sample_volume(arena)]).good("status", "--help").text.split())
    assert "How far a walk has come is shown to those who may see its watches and open folders (root, mostly)." in text


def test_a_daemon_at_rest(arena):
    volume = sample_volume(arena)
    before = time.time()
    daemon = walked(arena, volume)
    found, result = status(Ctl(arena, [volume]), "--config", arena.path("quarrow-host-0.xml"))
    assert (result.status, result.errors) == (0, "")
    running = found["daemon"]
    assert {key: running[key] for key in ("state", "pid", "known_by", "standby", "walk")} == {
        "state": "running", "pid": daemon.pid, "known_by": "configuration", "standby": False, "walk": None}
    assert before - 2 <= running["since"] <= time.time() + 1
    assert 1 << 20 < running["resident_bytes"] <= running["peak_resident_bytes"] < 1 << 30
    assert running["watches"] == daemon.kernel_watches() == found["folders"] == 4
    assert found["watch_limit"] == inotify_limit("max_user_watches")
    [only] = found["volumes"]
    assert figures(only) == (4, {"video": (1, 5), "audio": (2, 1024), "image": (1, 7), "other": (1, 11)})
    assert only["files"]["count"] == 5 and only["files"]["bytes"] == 1047
    assert (only["present"], only["readable"], only["sound"], only["problems"]) == (True, True, None, [])
    assert only["newest_change"] == max(volume.catalogue.updated().values())
    daemon.stop_without_errors()


@in_a_user_namespace
def test_more_folders_than_watches(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume, user_limits={"max_inotify_watches": 3})
    watches, = [line for line in Ctl(arena, [volume]).good("status").lines if line.startswith("  watches ")]
    assert watches == (f"  watches        3 of 4 folders (the kernel's limit is {inotify_limit('max_user_watches'):,}); "
                       "changes in the others show in full walks only")
    daemon.stop()


def test_a_catalogue_that_changes_is_counted_anew(arena):
    """While the daemon writes, and in each state that its end leaves. What was kept of an earlier state is not shown."""
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume])
    assert figures(settled_status(ctl)[0]["volumes"][0])[0] == 4
    os.unlink(volume.path("/m/a/1.mp3"))
    volume.make_file("/m/a/6.avi", size=100)
    wait_for(lambda: {"/m/a/1.mp3", "/m/a/6.avi"} & volume.catalogue.live() == {"/m/a/6.avi"}, "the change in the catalogue")
    expected = (4, {"video": (2, 105), "audio": (1, 24), "image": (1, 7), "other": (1, 11)})
    for end in (None, daemon.stop):
        if end is not None:
            end()
        [found] = status(ctl)[0]["volumes"]
        assert figures(found) == expected
        assert found["deleted"] == {"folders": 0, "files": 1}
    volume.make_file("/m/b/7.avi", size=1000)
    walked(arena, volume).kill()
    [found] = status(ctl)[0]["volumes"]
    assert figures(found)[1]["video"] == (3, 1105)


def test_a_size_beyond_32_bits(arena):
    """The daemon stores it as a negative number."""
    volume = sample_volume(arena)
    walked(arena, volume).stop()
    edit(volume.catalogue.path, "update Files set size = ? where name = '3.avi'", -1073741824)
    ctl = Ctl(arena, [volume])
    assert status(ctl)[0]["volumes"][0]["files"]["video"] == {"count": 1, "bytes": 3 << 30}
    assert "    video                    1       3.0 GiB" in ctl.run("status").lines


def test_a_daemon_that_does_not_run(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume])
    daemon.kill()
    found, result = status(ctl)
    assert found["daemon"] == {"state": "stopped"}
    assert result.status == 1 and "The daemon of this configuration does not run. Start it" in result.errors
    assert found["problems"] == [result.errors.removeprefix("quarrowctl: ").rstrip("\n")]
    assert found["volumes"][0]["folders"] == 4
    again = walked(arena, volume)
    again.stop()
    assert status(ctl)[0]["daemon"] == {"state": "stopped"}


@pytest.mark.parametrize("written, total, shown", [
    (1000, 4, "0 of 4 folders (0 %), 0 per second"),
    (4000000000, None, "0 folders so far, how many there are is not known yet, 0 per second")])
def test_a_walk_that_runs(arena, written, total, shown):
    """Without a row that is older than the daemon, the catalogue may be new, and have more folders in the end."""
    volume = sample_volume(arena)
    walked(arena, volume).stop()
    edit(volume.catalogue.path, "update Folders set last_updated_time = ?", written)
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin immediate")  # the walk waits for it
    daemon = arena.start([volume])
    daemon.wait_line(info("Checking if the folder /m exists in the path list"))
    wait_for(lambda: daemon.thread_count() == 4, "main, watcher, purge and walk thread")
    ctl = Ctl(arena, [volume])
    config = ("--config", arena.path("quarrow-host-1.xml"))
    found, _ = status(ctl, *config)
    walk = found["daemon"]["walk"]
    assert (walk["running"], walk["first"], walk["folders_done"], walk["folders_total"]) == (1, True, 0, total)
    assert abs(walk["since"] - found["daemon"]["since"]) <= 1
    lines = ctl.run("status", *config).lines
    assert any(line.startswith("  walk           1 volume is being walked, since 20") for line in lines)
    assert " " * 17 + shown in lines
    writer.execute("rollback")
    writer.close()
    daemon.wait_walks()
    assert "  walk           none runs" in ctl.good("status", *config).lines
    daemon.stop()


def test_standby(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume])
    daemon.set_standby(True)
    assert status(ctl)[0]["daemon"]["standby"] is True
    assert "  standby        walks and purges are put off while /tmp/standby is there" in ctl.good("status").lines
    daemon.set_standby(False)
    assert status(ctl)[0]["daemon"]["standby"] is False
    daemon.stop()


def test_daemons_beside_each_other_are_told_apart(arena):
    """By the configuration; and by the catalogues, for one who may not see that, or has another one with the same volumes."""
    volumes = [sample_volume(arena, "One"), sample_volume(arena, "Two")]
    daemons = [walked(arena, volume) for volume in volumes]
    for number, (volume, daemon) in enumerate(zip(volumes, daemons)):
        for user in (None, STRANGER):
            ctl = Ctl(arena, [volume], user=user)
            found, result = status(ctl)
            assert (result.status, found["daemon"]["pid"], found["daemon"]["known_by"]) == (0, daemon.pid, "catalogue")
        found, _ = status(ctl := Ctl(arena, [volume]), "--config", arena.path(f"quarrow-host-{number}.xml"))
        assert (found["daemon"]["pid"], found["daemon"]["known_by"]) == (daemon.pid, "configuration")
        assert f"with another configuration: {arena.path(f'quarrow-host-{number}.xml')}" in ctl.good("status").text
    daemons[0].stop()
    found, _ = status(Ctl(arena, [volumes[0]]))
    assert found["daemon"] == {"state": "stopped"}
    daemons[1].stop()


def test_what_an_ordinary_user_sees(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume], user=STRANGER)
    found, result = status(ctl)
    assert (result.status, result.errors) == (0, "")
    assert found["daemon"]["watches"] is None and found["daemon"]["resident_bytes"] > 1 << 20
    assert figures(found["volumes"][0])[0] == 4
    assert "  watches        not visible to this user" in ctl.good("status").lines
    os.chmod(volume.path("/.quarrow"), 0o700)
    found, result = status(ctl)
    assert found["daemon"] == {"state": "unknown"} and result.status == 1
    assert "this user cannot see whether it is the one of this configuration. Run this as root." in result.errors
    assert "Permission denied. Ask for the right to read this folder." in result.errors
    assert "quarrow_daemon_up" not in ctl.run("status", "--metrics").text
    daemon.stop()


def test_two_daemons_on_one_catalogue(arena):
    volume = sample_volume(arena)
    daemons = [walked(arena, volume) for _ in range(2)]
    found, result = status(Ctl(arena, [volume]))
    assert found["daemon"] == {"state": "unknown"} and result.status == 1
    first, second = sorted(daemon.pid for daemon in daemons)
    assert f"The processes {first} and {second} both seem to be its daemon" in result.errors
    for daemon in daemons:
        daemon.stop()


# The volumes


def spoilt_volume(arena, name, catalogue):
    """A volume whose catalogue is to be put there: the path for it."""
    volume = arena.volume(name)
    os.mkdir(volume.path("/.quarrow"))
    if catalogue is not None:
        shutil.copyfile(catalogue, volume.catalogue.path)
    return volume


def test_what_is_wrong_with_a_volume_is_said_and_the_others_are_served(arena):
    good = sample_volume(arena, "Good")
    daemon = walked(arena, good)
    live = good.catalogue.path
    missing, empty = arena.volume("Missing"), spoilt_volume(arena, "Empty", None)
    open(empty.catalogue.path, "wb").close()
    half = spoilt_volume(arena, "Half", live)  # without the log, where it says that it has one
    foreign = spoilt_volume(arena, "Foreign", None)
    edit(foreign.catalogue.path, "create table Songs(name text)")
    text = spoilt_volume(arena, "Text", __file__)
    cases = {missing: "There is no catalogue", empty: "another program's database", half: "cannot be opened",
             foreign: "another program's database", text: "This is no catalogue"}
    found, result = status(Ctl(arena, [good, *cases]))
    assert result.status == 1
    by_name = {volume["name"]: volume for volume in found["volumes"]}
    for volume, reason in cases.items():
        [problem] = by_name[volume.name]["problems"]
        assert problem.startswith(f"{volume.catalogue.path}: ") and reason in problem
        assert f"quarrowctl: {problem}\n" in result.errors
        assert by_name[volume.name]["readable"] is False and "folders" not in by_name[volume.name]
        assert by_name[volume.name]["present"] is (volume is not missing)
    assert figures(by_name["Good"])[0] == 4 and by_name["Good"]["problems"] == []
    assert found["folders"] is None
    daemon.stop()
    assert sorted(os.listdir(half.path("/.quarrow"))) == ["quarrow.db"]


def test_a_locked_catalogue(arena):
    volume = sample_volume(arena)
    walked(arena, volume).stop()
    writer = sqlite3.connect(volume.catalogue.path, isolation_level=None)
    writer.execute("begin exclusive")
    found, result = status(Ctl(arena, [volume]))
    writer.execute("rollback")
    writer.close()
    assert result.status == 1 and "Another program has the catalogue locked" in result.errors
    assert found["volumes"][0]["readable"] is False


def test_damage_is_found_by_a_deep_look(arena):
    volume = sample_volume(arena)
    for number in range(300):
        volume.make_file(f"/m/many/{number}.mp3")
    walked(arena, volume).stop()
    ctl = Ctl(arena, [volume])
    assert status(ctl, "--deep")[0]["volumes"][0]["sound"] is True
    assert "  catalogue      sound, " in ctl.run("status", "--deep").text
    edit(volume.catalogue.path, "update Folders set last_updated_time = last_updated_time + 1")
    with sqlite3.connect(volume.catalogue.path) as connection:
        # Behind the back of the index on names: the table alone says otherwise.
        connection.execute("pragma writable_schema=on")
        connection.execute("delete from sqlite_master where name = 'Files_name'")
        connection.commit()
    connection.close()
    edit(volume.catalogue.path, "update Files set name = 'other' where file_id = 1")
    found, result = status(ctl, "--deep")
    [only] = found["volumes"]
    assert result.status == 1 and only["sound"] is False
    assert any("The catalogue is damaged: " in problem for problem in only["problems"])
    assert "  catalogue      damaged" in ctl.run("status", "--deep").lines
    assert only["files"]["count"] == 305  # and what can be counted is


def test_the_last_purge(arena, clock):
    """Whatever the threshold is now: the state file says when it was written."""
    volume = sample_volume(arena)
    ctl = Ctl(arena, [volume], purge_threshold=777)
    daemon = arena.start([volume], clock=clock, purge_threshold=1000)
    daemon.wait_walks()
    daemon.end_first_sleep()
    clock.advance(1000)
    daemon.rewalk(clock)
    daemon.wait_line(info(f"Done with the purge {clock.now}\n"))
    assert status(ctl)[0]["volumes"][0]["last_purge"] == clock.now
    daemon.stop()
    volume.write_state(0)
    assert status(ctl)[0]["volumes"][0]["last_purge"] is None
    assert "  last purge     none yet" in ctl.run("status").lines
    with open(volume.state_file, "wb") as file:
        file.write(b"<Quarrow><Volume>")
    found, result = status(ctl)
    assert f"quarrowctl: {volume.state_file}: The time of the last purge cannot be read" in result.errors
    assert result.errors.count("\n") == 2  # and that the daemon does not run
    assert found["volumes"][0]["folders"] == 4
    os.unlink(volume.state_file)
    assert "  last purge     not known" in ctl.run("status").lines
    assert not os.path.exists(volume.state_file)


def test_single_volumes(arena):
    volumes = [sample_volume(arena, "One"), sample_volume(arena, "Two")]
    daemon = walked(arena, *volumes)
    ctl = Ctl(arena, volumes)
    found, result = status(ctl, "--volume", "Two")
    assert result.status == 0 and [volume["name"] for volume in found["volumes"]] == ["Two"]
    assert (found["daemon"]["watches"], found["folders"]) == (8, None)  # not to be compared
    result = ctl.run("status", "--volume", "Three")
    assert result.status == 2 and "There is no volume 'Three'" in result.errors
    for refused in (["--metrics", "--json"], ["--metrics", "--watch"], ["--watch", "0"], ["--nothing"]):
        assert ctl.run("status", *refused).status == 2
    daemon.stop()


# The forms


def test_metrics(arena):
    name = 'A "quoted" \\ name\nof two lines'
    volume = sample_volume(arena, name, folder="Volume1")
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume])
    samples = openmetrics.parse(ctl.good("status", "--metrics", "--deep").bytes)
    of = lambda metric, **labels: samples[f"quarrow_{metric}", tuple(sorted(labels.items()))]
    assert of("daemon_up") == 1 and of("daemon_watches") == 4 and of("daemon_walks") == 0 and of("daemon_standby") == 0
    assert of("inotify_watch_limit") == inotify_limit("max_user_watches")
    assert abs(of("daemon_start_time_seconds") - time.time()) < 2 * BOUND
    assert of("daemon_peak_resident_memory_bytes") >= of("daemon_resident_memory_bytes") > 1 << 20
    for metric, value in (("readable", 1), ("sound", 1), ("folders", 4), ("deleted_files", 0), ("deleted_folders", 0),
                          ("newest_change_timestamp_seconds", max(volume.catalogue.updated().values()))):
        assert of(f"volume_{metric}", volume=name) == value
    assert [of("volume_files", volume=name, category=category) for category in CATEGORIES] == [1, 2, 1, 1]
    assert [of("volume_file_bytes", volume=name, category=category) for category in CATEGORIES] == [5, 1024, 7, 11]
    daemon.stop()
    os.unlink(volume.catalogue.path)
    result = ctl.run("status", "--metrics")
    samples = openmetrics.parse(result.bytes)
    assert result.status == 1 and of("daemon_up") == 0 and of("volume_readable", volume=name) == 0
    assert not any(metric == "quarrow_volume_folders" for metric, _ in samples)


def test_plain_lines_in_a_pipe(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    lines = Ctl(arena, [volume]).good("status").lines
    start = lines.index("Volume Volume1")
    assert lines[start + 1] == f"  root           {volume.root}"
    assert re.fullmatch(r"  catalogue      readable, [\d.]+ KiB", lines[start + 2])
    newest = max(volume.catalogue.updated().values())
    assert lines[start + 3:-1] == [
        "  folders        4",
        "  files          5, 1.0 KiB",
        "    video                    1       5 bytes",
        "    audio                    2       1.0 KiB",
        "    image                    1       7 bytes",
        "    other                    1      11 bytes",
        "  deleted        0 files and 0 folders wait for the purge",
        time.strftime("  newest change  %Y-%m-%d %H:%M:%S", time.localtime(newest))]
    assert f"  watches        4 of 4 folders (the kernel's limit is {inotify_limit('max_user_watches'):,})" in lines
    daemon.stop()


class OnTerminal:
    """The command with a terminal of 100 columns as its output."""

    def __init__(self, ctl, *arguments, environment=None, lines=40):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", lines, 100, 0, 0))
        self.process = subprocess.Popen(ctl.command(*arguments, environment={"TERM": "xterm", **(environment or {})}),
                                        stdin=subprocess.DEVNULL, stdout=slave, stderr=subprocess.PIPE)
        os.close(slave)
        os.set_blocking(self.master, False)
        self.text = ""

    def read(self):
        """What has come so far. At the end reading fails."""
        try:
            self.text += os.read(self.master, 65536).decode()
        except (BlockingIOError, OSError):
            pass
        return self.text

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.communicate(timeout=BOUND)
        while poll(lambda before=self.text: self.read() != before, 0):
            pass
        os.close(self.master)


def test_colours_and_bars_are_for_terminals(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    ctl = Ctl(arena, [volume])
    for environment, coloured in (({}, True), ({"NO_COLOR": "1"}, False), ({"TERM": "dumb"}, False)):
        shown = OnTerminal(ctl, "status", environment=environment)
        wait_for(lambda shown=shown: shown.read().endswith("last purge     none yet\r\n"), "the last line")
        shown.process.wait(BOUND)
        shown.close()
        assert ("\033[32mrunning\033[0m" in shown.text) is coloured and ("\033" in shown.text) is coloured
        assert "2       1.0 KiB  [####################]\r\n" in shown.text
    daemon.stop()


def test_watching_redraws_in_place(arena):
    volume = sample_volume(arena)
    daemon = walked(arena, volume)
    shown = OnTerminal(Ctl(arena, [volume]), "status", "--watch", "0.2")
    wait_for(lambda: shown.read().count("\033[J") >= 2, "two pictures")
    assert shown.text.startswith("\033[2J\033[H")
    first, second = shown.text.split("\033[J")[:2]
    assert second.startswith("\033[H") and "\033[2J" not in second
    assert all(line.endswith("\033[K") for line in second.split("\r\n")[:-1])
    for picture in (first, second):
        assert "  folders        4\033[K\r\n" in picture
    daemon.stop()
    wait_for(lambda: "not running" in shown.read() and "Start it" in shown.text, "that the daemon has ended")
    edit(volume.catalogue.path, "update Folders set is_deleted = 1 where name = 'c'")
    wait_for(lambda: "  folders        3\033[K\r\n" in shown.read(), "the change on the screen")
    shown.close()


def test_watching_without_a_number_has_a_pause_of_its_own(arena):
    shown = OnTerminal(Ctl(arena, [sample_volume(arena)]), "status", "--watch")
    wait_for(lambda: "\033[J" in shown.read(), "a picture")
    shown.close()
    assert "Every 2 s. Ctrl+C ends this.\033[K\r\n" in shown.text


@pytest.mark.parametrize("lines", [1, 2])
def test_watching_on_a_terminal_of_few_lines(arena, lines):
    shown = OnTerminal(Ctl(arena, [sample_volume(arena)]), "status", "--watch", "0.1", lines=lines)
    wait_for(lambda: shown.read().count("\033[J") >= 2, "two pictures")
    assert shown.process.poll() is None
    shown.close()
    assert shown.text.startswith("\033[2J\033[H...\033[K\r\n\033[J\033[H...")


def test_watching_in_a_pipe(arena):
    volume = sample_volume(arena)
    process = subprocess.Popen(Ctl(arena, [volume]).command("status", "--watch", "0.1", "--json"), stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    lines = [process.stdout.readline() for _ in range(3)]
    process.terminate()
    process.communicate(timeout=BOUND)
    assert all(line.startswith(b'{"configuration":') and line.endswith(b"}\n") for line in lines)


# What is kept between runs


def checksum(data):
    value = 14695981039346656037
    for byte in data:
        value = (value ^ byte) * 1099511628211 % 2 ** 64
    return b"%016x\n" % value


def rewrite(path, change):
    with open(path, "rb") as file:
        content = file.read()
    body = content[:-17]
    assert checksum(body) == content[-17:]
    with open(path, "wb") as file:
        file.write(change(body))


def assert_kept_only_in_a_home(arena, ctl):
    """And where the user wants it. The figures are as good elsewhere."""
    place, strange, before = arena.path("cache"), arena.path("strange"), kept_files(ctl)
    os.mkdir(strange)
    os.chown(strange, STRANGER, STRANGER)
    [kept] = before
    os.unlink(kept)
    for home in ("/nowhere", "", "relative", strange):
        assert status(ctl, environment={"HOME": home})[0]["volumes"][0]["folders"] == 4
    assert kept_files(ctl) == [] and os.listdir(strange) == [] and not os.path.exists("/nowhere")
    status(ctl, environment={"HOME": "/nowhere", "XDG_CACHE_HOME": place})
    assert len(os.listdir(os.path.join(place, "quarrow"))) == 1 and kept_files(ctl) == []
    status(ctl)
    assert kept_files(ctl) == before


def test_figures_are_kept_until_the_catalogue_changes(arena):
    volume = sample_volume(arena)
    walked(arena, volume).stop()
    ctl = Ctl(arena, [volume])
    settled_status(ctl)
    [kept] = kept_files(ctl)
    assert_kept_only_in_a_home(arena, ctl)
    assert os.stat(kept).st_mode & 0o777 == 0o600 and os.stat(os.path.dirname(kept)).st_mode & 0o777 == 0o700
    with_nine_folders = lambda body: re.sub(rb" 4 0 0 (\d+ \d+\n)$", rb" 9 0 0 \1", body)

    count = lambda: status(ctl)[0]["volumes"][0]["folders"]
    rewrite(kept, lambda body: with_nine_folders(body) + checksum(with_nine_folders(body)))
    assert count() == 9  # it is used
    os.chmod(volume.catalogue.path, 0o640)  # a change that shows in the file's times alone
    assert count() == 4

    for damage in (lambda body: with_nine_folders(body) + checksum(body),  # not what was written
                   lambda body: with_nine_folders(body),
                   lambda body: b"",
                   lambda body: body[:60] + checksum(body[:60]),
                   lambda body: b"\0" * 100000):
        os.unlink(kept)
        settled_status(ctl)
        rewrite(kept, damage)
        assert count() == 4
    if os.geteuid() == 0:
        os.unlink(kept)
        settled_status(ctl)
        rewrite(kept, lambda body: with_nine_folders(body) + checksum(with_nine_folders(body)))
        os.chown(kept, STRANGER, STRANGER)
        assert count() == 4  # somebody else's
    assert [name for name in os.listdir(os.path.dirname(kept)) if name != os.path.basename(kept)] == []


def test_figures_of_a_changing_catalogue_are_not_kept(arena):
    """While the times of its files are those of the present, the next change might not show in them."""
    volume = sample_volume(arena)
    walked(arena, volume).stop()
    ctl = Ctl(arena, [volume])
    future = time.time() + 1000
    os.utime(volume.catalogue.path, (future, future))
    status(ctl)
    assert kept_files(ctl) == []


# The daemon and its catalogues are left alone


def side_files(volume):
    folder = volume.path("/.quarrow")
    found = {}
    for name in sorted(os.listdir(folder)):
        facts = os.stat(os.path.join(folder, name))
        found[name] = (facts.st_ino, facts.st_size, facts.st_mtime_ns, facts.st_ctime_ns)
    return found


def test_neither_the_daemon_nor_the_catalogue_notices(arena):
    """The whole volume is watched here, with the folder of the catalogue in it."""
    volume = arena.volume()
    volume.make_file("/m/1.mp3", b"x")
    daemon = walked(arena, volume)
    daemon.end_first_sleep()
    before = len(daemon.lines), side_files(volume)
    for user in (None, STRANGER):
        ctl = Ctl(arena, [volume], user=user)
        for number in range(20):
            result = ctl.run("status", *(["--deep"] if number % 5 == 0 else []))
            assert (result.status, result.errors) == (0, "")
    assert side_files(volume) == before[1]
    # The kernel's records come in order: had there been any, this change would not be the first one.
    volume.create("/m/2.mp3")
    daemon.wait_bursts(1)
    later = daemon.texts()[before[0]:]
    assert later[0] == "Processed 1 events\n" and later[2].startswith(f"Going to walk {volume.path('/m')} in ")
    assert later.index("======\n") == len(later) - 1
    daemon.stop_without_errors()


def test_the_log_of_a_catalogue_kept_elsewhere_counts(arena):
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/1.mp3", b"x")
    elsewhere = arena.path("elsewhere")
    os.mkdir(elsewhere)
    walked(arena, volume).stop_without_errors()
    os.rename(volume.catalogue.path, f"{elsewhere}/catalogue.db")
    os.symlink(f"{elsewhere}/catalogue.db", volume.catalogue.path)
    volume.make_file("/m/2.mp3", b"x")
    daemon = walked(arena, volume)
    found, result = status(Ctl(arena, [volume]))
    assert found["volumes"][0]["bytes"] == sum(os.path.getsize(f"{elsewhere}/catalogue.db{suffix}") for suffix in ("", "-wal"))
    assert os.path.getsize(f"{elsewhere}/catalogue.db-wal") > 0
    assert found["volumes"][0]["files"]["audio"]["count"] == 2, result.errors
    daemon.stop_without_errors()
