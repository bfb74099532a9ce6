"""Whatever the daemon finds in place of what it expects, it lives on, the other volumes work and no row is lost."""
import copy
import os
import random
import sqlite3
from xml.etree import ElementTree

import pytest

from catalogue import assert_same, edit
from harness import Volume, configuration, state_document
from lines import err, info
from model import MimeTable, after_walk, tree_rows
from recovery import good_volume
from trees import extensions

BANNER = info("================\n")
REJECTED = [err("Could not parse the config xml\n"), err("Failed in reading the config file\n")]


def damaged(text, choice):
    """The document with a few bytes changed, dropped or doubled."""
    data = bytearray(text.encode())
    for _ in range(choice.randrange(1, 6)):
        place = choice.randrange(len(data))
        action = choice.randrange(4)
        if action == 0:
            data[place] = choice.randrange(256)
        elif action == 1:
            del data[place:place + choice.randrange(1, 30)]
        elif action == 2:
            data[place:place] = data[place:place + 40]
        else:
            data[place:place] = bytes(choice.randrange(256) for _ in range(5))
    return bytes(data)


def rearranged(text, choice):
    """Still a document, but with elements dropped, doubled, renamed, moved or emptied. Roots stay as they are."""
    document = ElementTree.fromstring(text.encode())
    for _ in range(choice.randrange(1, 5)):
        parents = [element for element in document.iter() if len(element)]
        if not parents:
            break
        parent = choice.choice(parents)
        child = choice.choice(list(parent))
        action = choice.randrange(5)
        if action == 0:
            parent.remove(child)
        elif action == 1:
            parent.insert(0, copy.deepcopy(child))
        elif action == 2 and child.tag != "Root":
            child.tag = choice.choice(["Version", "Name", "Path", "Volume", "Volumes", "CrawlPaths", "unknown"])
        elif action == 3:
            document.append(child)
        elif child.tag != "Root":
            child.text = choice.choice(["", "0", "-1", "99999999999999999999", "x", "\n"])
    return ElementTree.tostring(document)


def test_host_configurations_that_are_no_documents(arena):
    """Each is refused as a whole: none of the volumes before the damage is begun with."""
    volume = arena.volume()
    good = configuration([volume]).encode()
    opened = good[:good.index(b"<Volumes>")]
    deep = 300
    texts = {
        **{f"cut after {length} bytes": good[:length] for length in range(1, len(good) - 2, 61)},
        "null bytes": b"\0" * 1000,
        "null byte in a text": good.replace(b"Volume1", b"Vol\0ume1", 1),
        "random bytes": random.Random(1).randbytes(10000),
        "invalid utf-8": good.replace(b"Volume1", b"Vol\xffume1", 1),
        "another encoding than declared": good.replace(b"UTF-8", b"UTF-16", 1),
        "unknown encoding": good.replace(b"UTF-8", b"no-such-encoding", 1),
        "unknown entity": good.replace(b"Volume1", b"&unknown;", 1),
        "nested too deep": opened + b"<x>" * deep + b"</x>" * deep + good[len(opened):],
        "only opened": b"<x>" * 100000,
        "huge text": opened + b"<x>" + b"y" * 11_000_000 + b"</x>" + good[len(opened):],
        "database": sqlite_file(arena),
    }
    runs = [(case, arena.start(config=text)) for case, text in texts.items()]
    for case, daemon in runs:
        assert (case, daemon.wait_exit()) == (case, 0)
        assert (case, daemon.lines) == (case, [BANNER, *REJECTED])
    assert os.listdir(volume.folder) == []


def sqlite_file(arena):
    path = arena.path("other.db")
    connection = sqlite3.connect(path)
    connection.execute("create table Other(x)")
    connection.commit()
    connection.close()
    with open(path, "rb") as file:
        return file.read()


def test_host_configurations_that_are_odd_but_documents(arena):
    """Large, deep within the parser's limit: read. Entities that would multiply are refused; one that leads outside is not
    followed, so that the volume has no root."""
    volume = good_volume(arena, "Volume1")
    arena.write_config(volume.folder, "secret")
    good = configuration([volume])
    opened = good[:good.index("<Volumes>")]
    rest = good[len(opened):]
    entities = "".join(f'<!ENTITY e{n} "{f"&e{n - 1};" * 10}">' for n in range(1, 12))
    texts = {
        "many elements": opened + "<x>y</x>" * 300_000 + rest,
        "many volumes without root": good.replace("</Volumes>", "<Volume><Name>n</Name></Volume>" * 5000 + "</Volumes>"),
        "many paths": good.replace("</ExcludePaths>", "<Path>/nowhere at all</Path>" * 20000 + "</ExcludePaths>"),
        "nested": opened + "<x>" * 200 + "</x>" * 200 + rest,
        "instructions": good.replace("<Volumes>", "<?do something?><![CDATA[<Volumes>]]><Volumes>"),
        "byte order mark": "\ufeff" + good,
        "two bytes each": good.replace("UTF-8", "UTF-16").encode("utf-16"),
    }
    first = arena.start([volume])  # of several that make one catalogue at the same moment only one can
    first.wait_walks()
    first.stop()
    runs = [(case, arena.start(config=text)) for case, text in texts.items()]
    for case, daemon in runs:
        daemon.wait_walks()
        daemon.stop()
        assert (case, daemon.errors()) == (case, [])
    assert {"/m", "/m/sub", "/m/sub/1.mp3"} <= volume.catalogue.live()

    body = good[good.index("<Q"):]
    head = opened[opened.index("<Q"):]
    cases = {
        "multiplying": (f'<!DOCTYPE Q [<!ENTITY e0 "lol">{entities}]>{head}<x>&e11;</x>{rest}', REJECTED),
        "from outside": (f'<!DOCTYPE Q [<!ENTITY file SYSTEM "{arena.path("secret")}">]>'
                         f'{body.replace(volume.folder, "&file;")}', REJECTED[1:]),
    }
    for case, (text, expected) in cases.items():
        daemon = arena.start(config=text)
        assert (case, daemon.wait_exit()) == (case, 0)
        assert (case, daemon.lines) == (case, [BANNER, *expected])


@pytest.mark.slow
def test_host_configurations_with_random_damage(arena):
    """Never anything but a refusal or a regular start and stop."""
    volume = good_volume(arena, "Volume1")
    good, choice = configuration([volume]), random.Random(7)
    texts = [damaged(good, choice) for _ in range(15)] + [rearranged(good, choice) for _ in range(45)]
    outcomes = {"refused": 0, "started": 0}
    for batch in range(0, len(texts), 10):
        daemons = [arena.start(config=text) for text in texts[batch:batch + 10]]
        for daemon in daemons:
            # The purge thread is the last thing that is started, when anything is.
            daemon.wait_log(lambda lines: any("Failed in" in line.text for line in lines)
                            or sum("pthread_sigmask" in line.text for line in lines) >= 2, "an outcome")
            if daemon.errors()[-1:] == ["Failed in reading the config file\n"]:
                assert daemon.wait_exit() == 0
                outcomes["refused"] += 1
            else:
                daemon.stop()
                outcomes["started"] += 1
    assert outcomes["refused"] > 5 and outcomes["started"] > 5


def test_a_volume_with_an_unusable_state_file_is_skipped(arena):
    good, rest = state_document(0, 0).encode(), {}
    for number, content in enumerate([b"", b"x", b"<", good[:-4], good[:60], b"\0" * 100, b"<Quarrow>" * 300, b"\xff\xfe<Q/>",
                                      b"<Quarrow>" + b"y" * 11_000_000 + b"</Quarrow>"]):
        rest[f"Bad {number}"] = content
    bad = [good_volume(arena, name) for name in rest]
    for volume in bad:
        os.mkdir(volume.path("/.quarrow"))
        with open(volume.state_file, "wb") as file:
            file.write(rest[volume.name])
    volumes = [good_volume(arena, "A"), *bad, good_volume(arena, "Z")]
    daemon = arena.start(volumes)
    daemon.wait_walks(2)
    for volume in (volumes[0], volumes[-1]):
        assert_same(volume.rows(), volume.tree())
    daemon.stop()
    assert daemon.errors() == [line for volume in bad for line in (
        "Could not parse the config xml\n", "Could not open the volume cfg file Could not parse the config xml\n",
        f"Could not initialize the manager for the volume {volume.name}\n")]
    for volume in bad:  # nothing was walked, and nothing is put in place of what somebody may want to repair
        assert volume.catalogue.live() == set()
        with open(volume.state_file, "rb") as file:
            assert file.read() == rest[volume.name]


def test_a_state_file_that_takes_minutes_to_parse_holds_nobody_up(arena):
    """The parser looks at every earlier attribute and declaration for each new one, lets entities of declarations multiply,
    and only one thread may be inside it."""
    body = "<Version>1.0</Version><Volume><last_updated_time>0</last_updated_time><last_purge_time>0</last_purge_time></Volume>"
    attributes = "".join(f' a{number}=""' for number in range(100_000))
    declarations = "".join(f'<!ATTLIST Quarrow a{number} CDATA "">' for number in range(1_500))
    multiplying = '<!ENTITY % e0 " ">' + "".join(f"<!ENTITY % e{n} '{f'&#37;e{n - 1};' * 10}'>" for n in range(1, 12)) + "%e11;"
    documents = [f"<Quarrow{attributes}>{body}</Quarrow>", *(
        f"<!DOCTYPE Quarrow [{dtd}]><Quarrow>{body}</Quarrow>" for dtd in (declarations, multiplying))]
    slow = [arena.volume(f"Slow{number}", crawl=["/m"]) for number in range(len(documents))]
    for volume, document in zip(slow, documents):
        os.makedirs(volume.path("/.quarrow"))
        with open(volume.state_file, "w", encoding="ascii") as file:
            file.write(document)
    good = arena.volume("Z", crawl=["/m"])
    good.make_file("/m/1.mp3")
    daemon = arena.start([*slow, good])
    daemon.wait_walks_of(good, 1)
    assert daemon.errors() == [
        text for volume in slow
        for text in ("Could not parse the config xml\n", "Could not open the volume cfg file Could not parse the config xml\n",
                     f"Could not initialize the manager for the volume {volume.name}\n")]
    assert_same(good.rows(), good.tree())
    daemon.stop()


def test_odd_state_files_of_another_root_are_taken_for_new(arena):
    volume = good_volume(arena, "Volume1")
    os.mkdir(volume.path("/.quarrow"))
    with open(volume.state_file, "w", encoding="ascii") as file:
        file.write("<Something><Volume><last_purge_time>x</last_purge_time></Volume></Something>")
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_same(volume.rows(), volume.tree())
    daemon.stop()
    assert daemon.output() == "Badly formed xml \n"
    assert daemon.errors() == []


def test_a_folder_in_place_of_the_state_file(arena):
    """It cannot be made then; the volume works, and every purge is the first."""
    volume = good_volume(arena, "Volume1")
    volume.make_folder("/.quarrow/quarrow-volume.xml")
    daemon = arena.start([volume])
    daemon.wait_walks()
    assert_same(volume.rows(), volume.tree())
    daemon.stop()
    assert daemon.output() == "testXmlwriterMemory: Error at fopen\n"
    assert daemon.errors() == []


def test_catalogues_that_are_none(arena):
    """Their volumes have no rows, but what is in the file stays; the other volumes work."""
    contents = {"B garbage": random.Random(1).randbytes(20000), "C text": b"not a database\n" * 10, "D nothing": b"",
                "E without tables": sqlite_file(arena), "F zeros": b"\0" * 8192}
    bad = [good_volume(arena, name) for name in contents]
    for volume in bad:
        os.mkdir(volume.path("/.quarrow"))
        with open(volume.catalogue.path, "wb") as file:
            file.write(contents[volume.name])
    volumes = [good_volume(arena, "A"), *bad, good_volume(arena, "Z")]
    daemon = arena.start(volumes)
    daemon.wait_walks_of(volumes[0], 1)
    daemon.wait_walks_of(volumes[-1], 1)
    for volume in (volumes[0], volumes[-1]):
        assert_same(volume.rows(), volume.tree())
    daemon.wait_log(lambda lines: sum("Got an exception during the walking" in line.text
                                      or "Could not initialize" in line.text for line in lines) >= len(bad), "every failure")
    daemon.stop()
    assert "Generating schema" in daemon.texts() and daemon.texts().count("Generating schema") == 2
    for volume in bad:
        with open(volume.catalogue.path, "rb") as file:
            content = file.read()
        if volume.name in ("B garbage", "C text", "F zeros"):
            assert content == contents[volume.name]
        elif volume.name == "D nothing":
            assert volume.catalogue.query("select count(*) from sqlite_master") == [(0,)]
        else:
            assert volume.catalogue.query("select name from sqlite_master") == [("Other",)]


def test_a_folder_in_place_of_the_catalogue(arena):
    volume, other = good_volume(arena, "A"), good_volume(arena, "B")
    volume.make_folder("/.quarrow/quarrow.db/inside")
    daemon = arena.start([volume, other])
    daemon.wait_walks()
    daemon.stop()
    assert daemon.errors() == ["open() failed, handleStatus: 14\n",
                               "Could not open the volume cfg file DBOperationException occurred\n",
                               "Could not initialize the manager for the volume A\n"]
    assert os.listdir(volume.path("/.quarrow/quarrow.db")) == ["inside"]
    assert "/m/sub/1.mp3" in other.catalogue.live()


def test_a_catalogue_that_lost_a_table_loses_no_more(arena):
    """Files cannot be looked up any more, folders can: every folder is listed, fails and is passed."""
    volume, other = good_volume(arena, "A"), good_volume(arena, "B")
    first = arena.start([volume, other])
    first.wait_walks(2)
    first.stop()
    edit(volume.catalogue.path, "drop table Files")
    folders = volume.catalogue.query("select folder_id, path, is_deleted from Folders order by 1")
    other.make_file("/m/2.mp3", b"x")
    volume.make_file("/m/2.mp3", b"x")
    daemon = arena.start([volume, other])
    daemon.wait_walks(2)
    daemon.stop()
    assert f"Error in getting the file/folder list for {volume.path('/m')}\n" in daemon.errors()
    assert "Error in insert/update of the file 2.mp3\n" in daemon.errors()
    assert volume.catalogue.query("select folder_id, path, is_deleted from Folders order by 1") == folders
    assert "/m/2.mp3" in other.catalogue.live()


def test_a_damaged_page_in_a_catalogue_is_survived(arena):
    volume, other = arena.volume("A", crawl=["/m"]), good_volume(arena, "B")
    for number in range(2000):
        volume.make_file(f"/m/{number % 20}/{number}.mp3")
    first = arena.start([volume, other])
    first.wait_walks(2)
    first.stop()
    size = os.path.getsize(volume.catalogue.path)
    assert size > 200_000
    with open(volume.catalogue.path, "r+b") as file:  # everything behind the schema's page
        for page in range(2, size // 4096, 3):
            file.seek(page * 4096)
            file.write(random.Random(page).randbytes(4096))
    other.make_file("/m/2.mp3", b"x")
    daemon = arena.start([volume, other])
    daemon.wait_walks_of(other, 1)
    daemon.wait_log(lambda lines: any(line.priority == "ERR" for line in lines), "an error of the damaged catalogue")
    rows = other.rows()
    assert_same(rows, after_walk(rows, other.tree()))
    assert "/m/2.mp3" in other.catalogue.live()
    daemon.stop()


@pytest.mark.parametrize("content", [
    None, b"", b"\0" * 1000, random.Random(2).randbytes(100_000), b"# only\n   # comments\n", b"video/mpeg\n\nimage/png # png\n",
    b"x" * 3_000_000, b"mp3 audio/mpeg\n", b"VIDEO/mpeg mp3 jpg avi\n"], ids=[
        "missing", "empty", "null bytes", "random", "comments", "types alone", "one long word", "turned round", "upper case"])
def test_a_mime_table_that_says_nothing_leaves_every_file_other(arena, content):
    volume = arena.volume(crawl=["/m"])
    for extension in extensions()[::7]:
        volume.make_file(f"/m/1.{extension}")
    table = None
    if content is not None:
        table = arena.path("table")
        with open(table, "wb") as file:
            file.write(content)
    daemon = arena.start([volume], mime_table=table)
    daemon.wait_walks()
    rows = volume.rows()
    assert_same(rows, tree_rows(volume.folder, volume.crawl, [], MimeTable(None)))
    assert {row.category for row in rows.files} == {4}
    daemon.stop_without_errors()


def test_a_mime_table_with_every_turn_of_the_format(arena):
    volume = arena.volume(crawl=["/m"])
    table = arena.path("table")
    with open(table, "wb") as file:
        file.write(b"# video/x-comment v0\n\t video/a v1\x0bv2\x0cv3\r\n"
                   b"video/b v4 # v5\nvideo/c v6#v7 v8\naudio/x a1 v1 a2\n\n   \n#\nvideo/a v9\n"
                   b"videos/odd v10\nvideo v11\nvid/eo o1\n.video/x o2\nimage/x .i1 i2 \xff\xfe\napplication/x o3\nimage/last i3")
    for name in [f"v{number}" for number in range(12)] + ["v6#v7", "a1", "a2", "o1", "o2", "o3", ".i1", "i1", "i2", "i3", "\udcff\udcfe",
                                                          "#", "x-comment"]:
        volume.make_file(f"/m/1.{name}")
    daemon = arena.start([volume], mime_table=table)
    daemon.wait_walks()
    assert_same(volume.rows(), tree_rows(volume.folder, volume.crawl, [], MimeTable(table)))
    categories = {row.name[2:]: row.category for row in volume.rows().files}
    assert categories == {
        **{name: 1 for name in ("v1", "v2", "v3", "v4", "v6#v7", "v8", "v9", "v10", "v11")}, "a1": 2, "a2": 2, "i2": 3, "i3": 3,
        "\udcff\udcfe": 3, **{name: 4 for name in ("v0", "v5", "v6", "v7", "o1", "o2", "o3", ".i1", "i1", "#", "x-comment")}}
    daemon.stop()


def test_volumes_that_share_a_root_or_lie_within_each_other(arena):
    """Two writers on one catalogue wait for each other."""
    volume = good_volume(arena, "A")
    for number in range(300):
        volume.make_file(f"/m/{number % 30}/{number}.mp3")
    twin, inner = Volume("B", volume.root, ["/m"]), Volume("C", volume.path("/m"))
    daemon = arena.start([volume, twin, inner])
    daemon.wait_walks(3)
    files = {path for path in volume.catalogue.live() if path.endswith(".mp3")}
    assert files == {row.path for row in volume.tree().files if row.path.endswith(".mp3")}
    assert {path for path in inner.catalogue.live() if path.endswith(".mp3")} == {path[2:] for path in files}
    daemon.stop()
    assert volume.catalogue.is_sound() and inner.catalogue.is_sound()
    assert daemon.errors() == []
