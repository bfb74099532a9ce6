"""quarrowctl report: what its page says about real volumes, and where it is written."""
import os
import stat

from ctl import Ctl
from report_page import Page, folder_sums

STRANGER = 12345


def stopped(arena, *volumes):
    """Lets the daemon catalogue the volumes, and ends it."""
    daemon = arena.start(list(volumes))
    daemon.wait_walks(len(volumes))
    daemon.stop()


def page(ctl, *arguments):
    return Page(ctl.good("report", "-o", "-", *arguments).bytes)


def library(arena, name="Volume1"):
    volume = arena.volume(name, exclude=["/.quarrow"])
    volume.make_file("/Films/one.mkv", size=5000)
    volume.make_file("/Films/Old/two.mp4", size=3 << 30)
    volume.make_file("/Music/a.mp3", size=200, modified=1_000_000_000)
    volume.make_file("/Music/Copies/a.mp3", size=200)
    volume.make_file("/Photos/c.jpg", size=70)
    volume.make_file("/note", size=3)
    volume.make_folder("/Empty")
    return volume


def test_the_page_says_what_there_is(arena):
    volume = library(arena)
    stopped(arena, volume)
    before = volume.rows()
    found = page(Ctl(arena, [volume])).volume("Volume1")
    assert volume.rows() == before
    sums = folder_sums(found)
    assert sums["/Films"] == (2, 5000 + (3 << 30))
    assert sums["/Films/Old"] == (1, 3 << 30)
    assert sums["/Music"] == (2, 400)
    assert sums["/Empty"] == (0, 0)
    assert sums[""][0] == sum(found["files"]) and sums[""][1] == sum(found["bytes"])
    assert found["files"][:3] == [2, 2, 1]
    assert found["bytes"][:3] == [5000 + (3 << 30), 400, 70]
    assert [file["path"] for file in found["largest"][:2]] == ["/Films/Old/two.mp4", "/Films/one.mkv"]
    assert len(found["newest"]) == sum(found["files"])
    copies, = [group for group in found["duplicates"]["list"] if group["name"] == "a.mp3"]
    assert (copies["files"], copies["size"], copies["wasted"]) == (2, 200, 200)
    assert sorted(copies["paths"]) == ["/Music/Copies/a.mp3", "/Music/a.mp3"]
    assert found["modified"][0] == ["2001-09", 1, [0, 200, 0, 0]]
    assert found["arrived"][0][0] > "2020"
    assert found["negativeSizes"] == 0 and found["newestChange"] > "2020"


def test_it_reads_beside_the_daemon_and_lists_what_was_deleted(arena):
    volume = library(arena)
    daemon = arena.start([volume])
    daemon.wait_walks()
    ctl = Ctl(arena, [volume])
    assert page(ctl).volume("Volume1")["deleted"]["files"] == 0
    os.remove(volume.path("/Music/a.mp3"))
    daemon.wait_bursts(1)
    found = page(ctl).volume("Volume1")
    assert found["deleted"]["files"] == 1
    assert [(file["path"], file["size"]) for file in found["deleted"]["recent"]] == [("/Music/a.mp3", 200)]
    assert folder_sums(found)["/Music"] == (1, 200)
    assert found["duplicates"]["groups"] == 0
    daemon.stop()


def test_an_ordinary_user_makes_it(arena):
    volume = library(arena)
    stopped(arena, volume)
    ctl = Ctl(arena, [volume], user=STRANGER)
    assert page(ctl).volume("Volume1")["bytes"][1] == 400


def test_names_of_any_bytes_stay_in_the_data(arena):
    volume = arena.volume(exclude=["/.quarrow"])
    hostile = [b"</script><script>alert(1)<", b"<!--<script>", b"a\xff\nb", b"'\"&amp;\\u003c", "\u202egpj.exe".encode()]
    for name in hostile:
        volume.make_folder(os.fsdecode(b"/in " + name.replace(b"/", b"")))
        with open(os.fsencode(volume.path("/in ")) + name.replace(b"/", b"") + b"/" + name.replace(b"/", b":"), "wb") as file:
            file.write(b"1234")
    stopped(arena, volume)
    whole = page(Ctl(arena, [volume]))
    names = {file["path"].rsplit("/", 1)[1] for file in whole.volume("Volume1")["largest"] if file["path"].startswith("/in ")}
    assert names == {"<:script><script>alert(1)<", "<!--<script>", "a\\xff\\nb", "'\"&amp;\\u003c", "\u202egpj.exe"}
    assert "alert(1)<" not in whole.text
    assert whole.text.count("<script") == 3 and whole.text.count("<!--") == 0


def test_a_broken_volume_is_named_and_the_others_are_served(arena):
    volumes = [library(arena), arena.volume("Damaged"), arena.volume("Missing")]
    stopped(arena, *volumes[:2])
    with open(volumes[1].catalogue.path, "r+b") as file:
        file.write(b"no catalogue at all")
    result = Ctl(arena, volumes).run("report", "-o", "-")
    assert result.status == 1
    assert [line.split(":")[1].strip() for line in result.errors.splitlines()] == [
        f"{volume.folder}/.quarrow/quarrow.db" for volume in volumes[1:]]
    whole = Page(result.bytes)
    assert whole.volume("Volume1")["bytes"][1] == 400
    assert "This is no catalogue" in whole.volume("Damaged")["problem"]
    assert "There is no catalogue" in whole.volume("Missing")["problem"]


def test_volumes_can_be_chosen(arena):
    volumes = [library(arena), library(arena, "Volume2")]
    stopped(arena, *volumes)
    ctl = Ctl(arena, volumes)
    assert [volume["name"] for volume in page(ctl).data["volumes"]] == ["Volume1", "Volume2"]
    assert [volume["name"] for volume in page(ctl, "--volume", "Volume2").data["volumes"]] == ["Volume2"]
    result = ctl.run("report", "-o", "-", "--volume", "None")
    assert (result.status, result.bytes) == (2, b"") and "There is no volume 'None'" in result.errors


def test_it_is_written_to_the_current_folder_and_replaced_as_a_whole(arena):
    volume = library(arena)
    stopped(arena, volume)
    ctl = Ctl(arena, [volume])
    place = arena.path("place")
    os.mkdir(place)
    written = f"{place}/quarrow-report.html"
    for _round in range(2):
        result = ctl.run("report", folder=place)
        assert (result.status, result.errors) == (0, "")
        assert result.text.startswith("quarrow-report.html: ") and result.text.endswith(" KiB\n")
        assert os.listdir(place) == ["quarrow-report.html"]
        with open(written, "rb") as file:
            assert Page(file.read()).volume("Volume1")["bytes"][1] == 400
        with open(written, "wb") as file:
            file.write(b"an older one")


def test_only_a_regular_file_is_replaced(arena):
    volume = library(arena)
    stopped(arena, volume)
    ctl = Ctl(arena, [volume])
    catalogue = volume.catalogue.path
    with open(catalogue, "rb") as file:
        content = file.read()
    os.symlink(catalogue, arena.path("link.html"))
    os.mkfifo(arena.path("pipe.html"))
    os.mkdir(arena.path("folder.html"))
    for name in ("link.html", "pipe.html", "folder.html", "none/report.html"):
        result = ctl.run("report", "-o", arena.path(name))
        assert result.status == 2 and name in result.errors and "-o" in result.errors, name
    result = ctl.run("report", "-o", catalogue)
    assert result.status == 2 and "Only the daemon writes into this folder" in result.errors
    assert stat.S_ISFIFO(os.lstat(arena.path("pipe.html")).st_mode)
    with open(catalogue, "rb") as file:
        assert file.read() == content


def test_help_says_what_it_is_for(arena):
    text = Ctl(arena, []).good("report", "--help").text
    assert "quarrow-report.html" in text and "--volume" in text and "neither a network nor a server" in text
