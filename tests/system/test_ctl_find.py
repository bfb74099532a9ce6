"""quarrowctl find, recent and largest, on catalogues that the real daemon has made."""
import json
import os
import random
import shutil
import signal
import subprocess

import pytest

from catalogue import edit
from ctl import BINARY, Ctl
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import BOUND, wait_for
from recovery import is_converged
from trees import make_media_tree

CLOCK = fast_clock(300)
DAY = 86400
ROOT = pytest.mark.skipif(os.geteuid() != 0, reason="becoming another user takes root")
USER = 65534


def catalogued(arena, *volumes):
    """The volumes, catalogued by a daemon that has stopped since."""
    daemon = arena.start(list(volumes))
    daemon.wait_walks(len(volumes))
    daemon.stop_without_errors()


def split(output):
    """The paths of -0, sorted, as bytes."""
    assert output == b"" or output.endswith(b"\0")
    return sorted(output.split(b"\0")[:-1])


def paths(ctl, *arguments):
    return split(ctl.good("find", "-0", *arguments).bytes)


def absolute(volume, *relatives):
    return sorted(os.fsencode(volume.path(relative)) for relative in relatives)


def gnu_find(volume, *arguments, locale="C.UTF-8"):
    """What find finds on the disk in the crawl path, of what is catalogued: files and folders, not what the stop has left."""
    catalogued_types = ["(", "-type", "f", "-o", "-type", "d", ")", "!", "-name", ".tickle"]
    command = ["find", volume.path("/m"), *catalogued_types, *arguments, "-print0"]
    return split(subprocess.run(command, stdout=subprocess.PIPE, check=True, env={**os.environ, "LC_ALL": locale}).stdout)


# What is found

def test_the_same_as_find_finds_on_the_disk(arena):
    volume = arena.volume("V", crawl=["/m"])
    make_media_tree(volume, "/m", folders=150, files=1200, seed=7)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    assert paths(ctl) == gnu_find(volume)
    some = False
    for glob in ("*.mp3", "*", "0*", "*[[]*", "[0-9][0-9]?1.*", "*.[jJ][pP]*", "[!a-zA-Z0-9]*", "??", "folder 1*", "*é*",
                 "?????.avi", r"\*.mp3", r"back\\slash.*", ".*", "*.", "*\n*", "-*", "x*x", "[^[:alnum:]]*.mp3",
                 "*😀*", "???.mp3", "nowhere*"):
        found = paths(ctl, "--", glob)
        assert found == gnu_find(volume, "-name", glob), glob
        some |= len(found) > 5
    assert some
    for part in ("mp3", "older", "1", " ", "'", "é", ";", "\n", "\\", "%s%n", ".", "older 1", "nowhere"):
        quoted = part.replace("\\", "\\\\")
        assert paths(ctl, "--", part) == gnu_find(volume, "-name", f"*{quoted}*"), part
        # Neither has an upper case of its own for what is not ASCII.
        assert paths(ctl, "-i", "--", part.upper()) == gnu_find(volume, "-iname", f"*{quoted.upper()}*", locale="C"), part
    for glob in ("*/folder*/*.mp3", f"{volume.path('/m')}/*", "*/m/*9*", "*/.*", "/nowhere/*"):
        assert paths(ctl, glob) == gnu_find(volume, "-path", glob), glob
    folder = sorted(row.path for row in volume.tree().folders if row.path.count("/") == 3)[0]
    below = [path for path in gnu_find(volume) if path.startswith(os.fsencode(volume.path(folder) + "/"))]
    assert below and paths(ctl, "--under", volume.path(folder)) == below
    assert paths(ctl, "--type", "d") == gnu_find(volume, "-type", "d")
    assert paths(ctl, "--larger", "40") == gnu_find(volume, "-type", "f", "-size", "+40c")
    media = sorted(os.fsencode(volume.path(row.path)) for row in volume.tree().files if row.category in (1, 3))
    assert paths(ctl, "--category", "video,image") == media
    assert ctl.good("find", "--count", "--category", "video,image").bytes == b"%d\n" % len(media)


def test_names_of_every_byte(arena):
    """Each arrives as it is: through xargs, in JSON, and in a search for itself."""
    volume = arena.volume("V", crawl=["/m"])
    names = [b"a" + bytes([byte]) + b"z" for byte in range(1, 256) if byte != ord("/")]
    names += [bytes([byte]) for byte in range(1, 256) if byte not in b"/."] + [b"two\nlines\n", b"\xe2\x82", b"caf\xc3\xa9"]
    for name in names:
        volume.make_file("/m/" + os.fsdecode(name), b"x")
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    expected = sorted(os.fsencode(volume.path("/m/")) + name for name in names)
    output = ctl.good("find", "-0", "--type", "f").bytes
    assert split(output) == expected
    given = subprocess.run(["xargs", "-0", "-n", "50", "stat", "--printf", "%n\\0"], input=output, stdout=subprocess.PIPE,
                           check=True)
    assert split(given.stdout) == expected
    seen = []
    for line in ctl.good("find", "--json", "--type", "f").bytes.splitlines():
        row = json.loads(line)
        seen.append(bytes.fromhex(row["path_hex"]) if "path_hex" in row else row["path"].encode())
    assert sorted(seen) == expected
    for name in names[::9] + names[-4:]:
        assert paths(ctl, "--type", "f", "--exact", "--", name) == [os.fsencode(volume.path("/m/")) + name]
        assert paths(ctl, "--exact", os.fsencode(volume.path("/m/")) + name) == [os.fsencode(volume.path("/m/")) + name]
    assert paths(ctl, "[[]") == absolute(volume, "/m/[")
    assert paths(ctl, "a[*]z") == absolute(volume, "/m/a*z")
    assert paths(ctl, b"\xff") == sorted(os.fsencode(volume.path("/m/")) + name for name in (b"a\xffz", b"\xff"))


def test_several_volumes_and_one_that_is_broken(arena):
    volumes = [arena.volume(name, crawl=["/m"]) for name in ("A", "B", "C")]
    for number, volume in enumerate(volumes):
        volume.make_file("/m/live.mp3", bytes(number))
    catalogued(arena, *volumes)
    ctl = Ctl(arena, volumes)
    everywhere = sorted(path for volume in volumes for path in absolute(volume, "/m/live.mp3"))
    assert paths(ctl, "live") == everywhere
    assert paths(ctl, "--volume", "B", "live") == everywhere[1:2]
    assert paths(ctl, "--volume", "C", "--volume", "A", "live") == [everywhere[0], everywhere[2]]
    assert paths(ctl, "--under", volumes[1].path("/m")) == everywhere[1:2]
    assert paths(ctl, "--under", arena.folder, "live") == everywhere
    for break_it, message in ((lambda path: open(path, "wb").write(b"no catalogue\n" * 1000), "no catalogue"),
                              (os.unlink, "There is no catalogue")):
        break_it(volumes[1].catalogue.path)
        for command in ("find", "recent", "largest"):
            result = ctl.run(command, "-0", "live")
            assert result.status == 1 and volumes[1].catalogue.path in result.errors and message in result.errors
            assert split(result.bytes) == [everywhere[0], everywhere[2]]
    damaged = volumes[2].catalogue.path
    with open(damaged, "r+b") as file:
        file.seek(4096)
        file.write(b"\xff" * (os.path.getsize(damaged) - 4096))
    result = ctl.run("find", "-0", "live")
    assert result.status == 1 and "damaged" in result.errors and split(result.bytes) == everywhere[:1]


def test_what_cannot_be_done_is_refused(arena):
    volume = arena.volume("V", crawl=["/m"])
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    for arguments, word in ((["--volume", "W"], "no volume 'W'"), (["--larger", "much"], "--larger much"),
                            (["--changed-within", "2"], "unit"), (["--category", "video,film"], "film"),
                            (["--under", "/nowhere"], volume.folder), (["--type", "x"], "--type"), (["a", "b"], "b"),
                            (["--json", "-0"], "--json"), (["--count", "-l"], "--count"),
                            (["--type", "d", "--larger", "1"], "--type d")):
        result = ctl.run("find", *arguments)
        assert (result.status, result.bytes) == (2, b"") and word in result.errors, arguments
    assert ctl.good("find", "--count", "status").text == "0\n"  # which is a command, but not here
    result = ctl.run("largest", "-n", "0")
    assert result.status == 2 and "--limit" in result.errors
    result = Ctl(arena, [], config="<Quarrow/>").run("find")
    assert result.status == 2 and "refuses" in result.errors


# What is there, and what is gone

def test_deleted_rows_and_files_that_have_vanished(arena):
    volume = arena.volume("V", crawl=["/m"])
    for name in ("stays", "goes", "folder/goes too", "vanishes"):
        volume.make_file(f"/m/{name}.mp3", b"x", modified=1_000_000_000)
    daemon = arena.start([volume], environment=CLOCK)
    daemon.wait_walks()
    os.unlink(volume.path("/m/goes.mp3"))
    shutil.rmtree(volume.path("/m/folder"))
    daemon.rewalk()
    ctl = Ctl(arena, [volume])
    gone = absolute(volume, "/m/goes.mp3", "/m/folder/goes too.mp3")
    wait_for(lambda: paths(ctl, "--deleted", "mp3") == gone, "both deletions in the catalogue")
    assert paths(ctl, "--type", "f") == absolute(volume, "/m/stays.mp3", "/m/vanishes.mp3")  # while the daemon runs
    daemon.stop()
    assert paths(ctl, "--deleted", "--type", "d") == absolute(volume, "/m/folder")
    assert paths(ctl, "--deleted", "--under", volume.path("/m/folder")) == absolute(volume, "/m/folder/goes too.mp3")
    os.unlink(volume.path("/m/vanishes.mp3"))
    assert paths(ctl, "van") == absolute(volume, "/m/vanishes.mp3")
    assert paths(ctl, "--exists", "--type", "f") == absolute(volume, "/m/stays.mp3")
    assert ctl.good("find", "--exists", "--count", "*.mp3").text == "1\n"
    assert paths(ctl, "--exists", "--deleted") == []
    [row] = [json.loads(line) for line in ctl.good("find", "--deleted", "--json", "too").lines]
    assert row["path"] == volume.path("/m/folder/goes too.mp3") and row["deleted"]
    assert row["changed"] > row["modified"] == 1_000_000_000


def test_changed_within_by_the_time_of_the_file_or_of_its_deletion(arena):
    volume = arena.volume("V", crawl=["/m"])
    for name in ("new.mp3", "old.mp3", "new gone.mp3", "old gone.mp3"):
        volume.make_file(f"/m/{name}", b"x", modified=1_000_000_000 if name.startswith("old") else None)
    catalogued(arena, volume)
    edit(volume.catalogue.path, "update Files set is_deleted = 1 where name like '%gone%'")
    edit(volume.catalogue.path, "update Files set last_updated_time = 1000000000 where name = 'new gone.mp3'")
    ctl = Ctl(arena, [volume])
    assert paths(ctl, "--type", "f", "--changed-within", "1h") == absolute(volume, "/m/new.mp3")
    assert paths(ctl, "--type", "f", "--changed-within", "5000w") == absolute(volume, "/m/new.mp3", "/m/old.mp3")
    assert paths(ctl, "--deleted", "--changed-within", "1h") == absolute(volume, "/m/old gone.mp3")


def test_sizes_beyond_32_bits(arena):
    """A row that came back has the low 32 bits: 3 GiB are known again, of 5 GiB one is left."""
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/three.mkv", size=3 << 30)
    volume.make_file("/m/five.mkv", size=5 << 30)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    assert paths(ctl, "--larger", "3221225471") == absolute(volume, "/m/three.mkv", "/m/five.mkv")
    assert paths(ctl, "--larger", "4.5G") == absolute(volume, "/m/five.mkv")
    edit(volume.catalogue.path, "update Files set size = -1073741824 where name = 'three.mkv'")
    assert paths(ctl, "--larger", "2.9G") == absolute(volume, "/m/three.mkv", "/m/five.mkv")
    assert [json.loads(line)["size"] for line in ctl.good("largest", "--json").lines] == [5 << 30, 3 << 30]


# recent, largest

def test_the_newest_and_the_largest_of_all_volumes(arena):
    choice = random.Random(1)
    volumes = [arena.volume(name, crawl=["/m"]) for name in ("A", "B")]
    files = []
    for number in range(300):
        volume = choice.choice(volumes)
        size, modified = choice.randrange(40), 1_600_000_000 + choice.randrange(100) * DAY
        volume.make_file(f"/m/{number % 7}/{number}.mp3", bytes(size), modified=modified)
        files.append((volumes.index(volume), volume.path(f"/m/{number % 7}/{number}.mp3"), size, modified))
    catalogued(arena, *volumes)
    ctl = Ctl(arena, volumes)
    newest = [path for _, path, _, _ in sorted(files, key=lambda file: (-file[3], file[0], file[1]))]
    largest = [path for _, path, _, _ in sorted(files, key=lambda file: (-file[2], file[0], file[1]))]
    assert ctl.good("recent").lines == newest[:20]
    assert ctl.good("recent", "-n", "1000").lines == newest
    assert ctl.good("largest", "-n", "5").lines == largest[:5]
    only = [path for path in largest if "/3/" in path]
    assert ctl.good("largest", "/3/", "-n", "7").lines == only[:7]
    line = ctl.good("largest", "-l", "-n", "1", environment={"TZ": "UTC"}).text
    size, day, time, path = line.split()
    assert (size, path) == ("39", largest[0]) and day.startswith("2020-") and time == "12:26:40"


# Where the output goes

def test_a_full_disk_and_a_reader_that_leaves(arena):
    volume = arena.volume("V", crawl=["/m"])
    make_media_tree(volume, "/m", folders=20, files=2500, seed=3)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    for command in (["find"], ["find", "--count"], ["find", "--json"], ["largest"]):
        with open("/dev/full", "wb") as full:
            process = subprocess.run(ctl.command(*command), stdout=full, stderr=subprocess.PIPE, timeout=BOUND, check=False)
        assert process.returncode in (1, 2), command
        assert b"standard output" in process.stderr and b"No space left" in process.stderr
    # Also under a parent that has the signal ignored (which the sandbox would undo).
    for command in (ctl.command("find"), ["env", "--ignore-signal=PIPE", BINARY, "--config", ctl.config, "find"]):
        with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            assert process.stdout.readline().startswith(os.fsencode(volume.folder))
            process.stdout.close()
            assert process.stderr.read() == b""
            assert process.wait(BOUND) == -signal.SIGPIPE


def test_a_terminal(arena):
    """Names do not move its cursor; recent and largest tell times and sizes. With -0 all is as in a pipe."""
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/bell\a\n\x1b[2J\udcff.mp3", b"12345", modified=1_600_000_000)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    path = volume.path("/m/bell")
    for arguments, expected in ((["find", "bell"], f"{path}\\x07\\n\\x1b[2J\\xff.mp3\r\n"),
                                (["largest", "bell"], f"{5:15}  2020-09-13 12:26:40  {path}\\x07\\n\\x1b[2J\\xff.mp3\r\n"),
                                (["find", "-0", "bell"], f"{path}\a\r\n\x1b[2J\udcff.mp3\0")):
        terminal, other = os.openpty()
        process = subprocess.run(ctl.command(*arguments, environment={"TZ": "UTC"}), stdout=other, timeout=BOUND, check=False)
        os.close(other)
        assert process.returncode == 0
        with open(terminal, "rb", buffering=0) as shown:
            assert os.fsdecode(shown.read(10000)) == expected


def test_a_reader_that_pauses_holds_no_log(arena):
    """Somebody pages through the output: the command waits in the middle of it, outside of any transaction."""
    volume = arena.volume("V", crawl=["/m"])
    make_media_tree(volume, "/m", folders=20, files=4000, seed=4)
    daemon = arena.start([volume], environment=CLOCK)
    daemon.wait_walks()
    ctl = Ctl(arena, [volume])
    log = volume.catalogue.path + "-wal"
    with subprocess.Popen(ctl.command("find", "--json"), stdout=subprocess.PIPE) as process:
        process.stdout.readline()
        sizes = []
        for round_number in range(3):
            for number in range(200):
                volume.make_file(f"/m/file {number}.mp3", b"x" * (round_number + 1))
            daemon.rewalk()
            wait_for(lambda: is_converged(volume), "the changes in the catalogue")
            sizes.append(os.path.getsize(log))
        assert process.poll() is None, "the output fits into the pipe"
        assert sizes[2] == sizes[1]
        assert len(process.stdout.read().splitlines()) > 3000
        assert process.wait(BOUND) == 0
    daemon.stop_without_errors()


@ROOT
def test_an_ordinary_user(arena):
    """May find what the catalogue tells, also in folders that are closed to the user; only --exists cannot look into those."""
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/private/a.mp3", b"x")
    volume.make_file("/m/b.mp3", b"x")
    os.chmod(volume.path("/m/private"), 0o700)
    daemon = arena.start([volume])
    daemon.wait_walks()
    os.chmod(volume.folder, 0o755)
    ctl = Ctl(arena, [volume], user=USER)
    before = os.listdir(volume.path("/.quarrow")), os.stat(volume.path("/.quarrow")).st_mtime_ns
    assert paths(ctl, "mp3") == absolute(volume, "/m/private/a.mp3", "/m/b.mp3")
    result = ctl.run("find", "--exists", "-0", "mp3")
    assert result.status == 1 and "Permission denied" in result.errors and "a.mp3" in result.errors
    assert split(result.bytes) == absolute(volume, "/m/b.mp3")
    assert (os.listdir(volume.path("/.quarrow")), os.stat(volume.path("/.quarrow")).st_mtime_ns) == before
    daemon.stop_without_errors()
    assert paths(ctl, "mp3") == absolute(volume, "/m/private/a.mp3", "/m/b.mp3")
    os.chmod(volume.catalogue.path, 0o600)
    result = ctl.run("find", "mp3")
    assert (result.status, result.bytes) == (1, b"") and volume.catalogue.path in result.errors


# The command line

def test_random_arguments_never_crash_it(arena):
    volume = arena.volume("V", crawl=["/m"])
    make_media_tree(volume, "/m", folders=5, files=60, seed=5)
    catalogued(arena, volume)
    ctl = Ctl(arena, [volume])
    words = ["find", "recent", "largest", "-0", "--json", "--count", "-l", "--deleted", "--exists", "-i", "-x", "--", "-", "",
             "--volume", "V", "--under", volume.path("/m"), "/", ".", "..", "//", "--category", "audio", "audio,,video", ",",
             "--larger", "1K", "-1", "9e99", "--changed-within", "1w", "99999999999w", "--type", "f", "d", "--limit", "-n", "3",
             "100001", "[", "[a", "[]", "[!]", "[z-a]", "*", "**?[[:alpha:]]", "[[:x:]]", "\\", "*\\", "*" * 300, "a" * 5000,
             b"\xff\xfe", b"[\xff-\xfe]", "a/b", "/*", "é", "%s%n", "--help", "--nonsense", "-zz", "--larger=2", "--json=1",
             "--config", "=", "@", "'", "\n"]
    choice = random.Random(11)
    # Many in one sandbox: what is tried is the command, and a sandbox takes ten times as long.
    runs = [[choice.choice(words[:3]), *choice.choices(words, k=choice.randrange(7))] for _ in range(400)]
    script = ("import os, subprocess, sys\n"
              "words = open(sys.argv[2], 'rb').read().split(b'\\0')\n"
              "run = []\n"
              "for word in words:\n"
              "    if word != b'\\1':\n"
              "        run.append(word)\n"
              "        continue\n"
              "    end = subprocess.run([os.fsencode(sys.argv[1]), b'--config', os.fsencode(sys.argv[3]), *run],\n"
              "                         stdin=subprocess.DEVNULL, capture_output=True, timeout=60)\n"
              "    print(end.returncode, end.returncode == 2 and not end.stderr, ascii(run))\n"
              "    run = []\n")
    lines = []
    for first in range(0, len(runs), 40):
        with open(arena.path("lists"), "wb") as file:
            file.write(b"".join(os.fsencode(word) + b"\0" for run in runs[first:first + 40] for word in [*run, "\1"]))
        lines += arena.run_python(script, BINARY, arena.path("lists"), ctl.config).splitlines()
    assert len(lines) == 400
    for line in lines:
        status, silent, run = line.split(" ", 2)
        assert status in "012" and silent == "False", run
    counts = {status: sum(line.startswith(status) for line in lines) for status in "02"}
    assert counts["0"] > 30 and counts["2"] > 100, counts  # it got past the options, and it refused


def test_an_empty_folder_is_not_everything(arena):
    volume = arena.volume("V", crawl=["/m"])
    result = Ctl(arena, [volume]).run("find", "--under", "")
    assert (result.status, result.text) == (2, "")
    assert "--under: The folder is empty" in result.errors


def test_a_volume_that_is_named_twice_is_searched_once(arena):
    volume = arena.volume("V", crawl=["/m"])
    volume.make_file("/m/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop_without_errors()
    assert Ctl(arena, [volume]).good("find", "--volume", "V", "--volume", "V", "a.mp3").lines == [volume.path("/m/a.mp3")]
