"""The manual pages of file formats, against what they describe."""
import re

import pytest

from checkout import read

PAGES = ["quarrow-catalogue.5", "quarrow-host.xml.5", "quarrow-mime-types.5", "quarrow.8", "quarrowctl.1"]
CATEGORIES = {"video": 1, "audio": 2, "image": 3, "other": 4}


def page(name):
    """The text of a page, with the characters that roff writes otherwise."""
    return read(f"packaging/{name}").replace("\\-", "-").replace("\\(aq", "'")


def section(name, heading):
    parts = re.split(r"^\.SH (.*)\n", page(name), flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))[heading]


def tagged(text):
    """The names that a list explains, in its order."""
    return re.findall(r"^\.TP\n\.B (\S+)$", text, re.MULTILINE)


def examples(name):
    """What stands there as it is typed."""
    return [text.strip() for text in re.findall(r"^\.nf\n(.*?)^\.fi$", page(name), re.MULTILINE | re.DOTALL)]


@pytest.fixture
def catalogue(arena):
    """Of a volume that the daemon has walked."""
    volume = arena.volume(crawl=["/Music"])
    volume.make_file("/Music/a.mp3", b"x")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop()
    return volume.catalogue


def test_every_element_of_the_configuration_is_explained():
    example = set(re.findall(r"<(\w+)>", read("data/quarrow-host.xml"))) - {"Quarrow"}  # what is commented out, too
    explained = tagged(section("quarrow-host.xml.5", "ELEMENTS"))
    assert sorted(explained) == sorted(example)


def test_the_examples_of_configurations_start_the_daemon(arena):
    configurations = [text for text in examples("quarrow-host.xml.5") if text.startswith("<Quarrow>")]
    assert len(configurations) == 2
    for text, start_folders in zip(configurations, (1, 3)):
        daemon = arena.start(config=text.replace("/srv", arena.folder))
        daemon.wait_walks(start_folders)
        daemon.stop()
        assert daemon.errors() == []


@pytest.mark.parametrize("table, heading", [("Folders", "FOLDERS"), ("Files", "FILES")])
def test_every_column_of_the_catalogue_is_explained(catalogue, table, heading):
    columns = [name for name, in catalogue.query("select name from pragma_table_info(?)", table)]
    assert len(columns) > 10
    assert sorted(tagged(section("quarrow-catalogue.5", heading))) == sorted(columns)


def test_every_index_of_the_catalogue_is_named(catalogue):
    indexes = [name for name, in catalogue.query("select name from sqlite_master where type = 'index'")]
    named = re.findall(r"\b(?:Files|Folders)_\w+", section("quarrow-catalogue.5", "INDEXES"))
    assert sorted(named) == sorted(indexes)


def test_the_examples_of_queries_run(catalogue):
    queries = [text for text in examples("quarrow-catalogue.5") if text.startswith("select")]
    assert len(queries) == 5
    results = [catalogue.query(query.replace("1800000000", "0")) for query in queries]
    assert all(results)


def test_the_examples_of_mime_types_and_the_categories_are_true(arena):
    volume = arena.volume(crawl=["/m"])
    table = [text for text in examples("quarrow-mime-types.5") if text.startswith("#")]
    assert len(table) == 1
    lines = [line.split("#")[0].split() for line in table[0].splitlines() if not line.startswith("#")]
    numbers = {kind: int(number) for kind, number in
               re.findall(r"\t(\w+)\t(\d)$", section("quarrow-mime-types.5", "CATEGORIES"), re.MULTILINE)}
    assert numbers == CATEGORIES
    expected = {f"/m/f.{extension}": numbers[line[0].split("/")[0]] for line in lines for extension in line[1:]}
    expected.update({path: numbers["other"] for path in ("/m/f.Mp4", "/m/f", "/m/f.", "/m/f.also", "/m/f.#")})
    for path in expected:
        volume.make_file(path)
    daemon = arena.start([volume], mime_table=arena.write_config(table[0], "mime_types.txt"))
    daemon.wait_walks()
    daemon.stop()
    assert dict(volume.catalogue.query("select path, category from Files")) == expected


@pytest.mark.parametrize("name", PAGES)
def test_pages_lead_to_each_other(name):
    """Each one to all the others. What is named there and belongs to Quarrow exists."""
    named = re.findall(r"^\.BR (quarrow\S*) \((\d)\)", section(name, "SEE ALSO"), re.MULTILINE)
    assert {f"{title}.{number}" for title, number in named} == set(PAGES) - {name}


@pytest.mark.parametrize("name", PAGES)
def test_every_page_is_installed(name):
    assert f"packaging/{name}" in read("packaging/debian/quarrow.manpages").split()
    assert f"packaging/{name}" in re.findall(r"[^\s()]+", read("CMakeLists.txt"))
