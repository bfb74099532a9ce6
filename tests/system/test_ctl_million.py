"""quarrowctl on a catalogue of a million files: the figures of all commands agree."""
import subprocess

import pytest

from catalogue import edit
from ctl import Ctl
from daemon import has_address_sanitizer
from quarrow_driver.waiting import BOUND
from report_page import Page

FILES = 100_000 if has_address_sanitizer() else 1_000_000  # a sanitizer takes ten times as long for each
FOLDERS = 10_000
ROWS = f"""with recursive n(i) as (select 1 union all select i + 1 from n where i < {FILES})
    insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted, last_updated_time)
    select 1 + i % {FOLDERS}, '/m/' || (i % {FOLDERS}) || '/file ' || i || '.mp3', 'file ' || i || '.mp3', i % 4 + 1, i, i, i,
        i % 10 = 0, 1000 from n"""
PARENTS = f"""with recursive n(i) as (select 0 union all select i + 1 from n where i < {FOLDERS} - 1)
    insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)
    select 1, '/m/' || i, i, 1, 1, 0, 1000 from n"""


@pytest.fixture
def million(arena):
    """quarrowctl with a volume whose catalogue the daemon has made, and whose rows came otherwise: a tenth is deleted."""
    volume = arena.volume("V", crawl=["/m"])
    volume.make_folder("/m")
    daemon = arena.start([volume])
    daemon.wait_walks()
    daemon.stop_without_errors()
    edit(volume.catalogue.path, "delete from Files")
    edit(volume.catalogue.path, ROWS)
    edit(volume.catalogue.path, PARENTS)
    return Ctl(arena, [volume])


def lines_of(ctl, *arguments):
    """How many lines the command prints, and the last one: all of them are too many to keep."""
    process = subprocess.Popen(ctl.command(*arguments), stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
    count, last = 0, b""
    for last in process.stdout:
        count += 1
    process.stdout.close()
    assert process.wait(BOUND) == 0
    return count, last


def test_all_commands_agree_on_a_million_files(million):
    live = FILES - FILES // 10
    result = million.run("status", "--json")  # no daemon runs
    volume, = result.json()["volumes"]
    assert sum(volume["files"][name]["count"] for name in ("video", "audio", "image", "other")) == live
    assert volume["folders"] == FOLDERS + 1
    assert million.good("find", "--count", "--type", "f").text == f"{live}\n"
    assert million.good("find", "--count", "--type", "f", "--deleted").text == f"{FILES // 10}\n"
    assert lines_of(million, "find", "--type", "f")[0] == live
    assert million.good("find", "--count", f"file {FILES - 1}.mp3").text == "1\n"
    count, last = lines_of(million, "changes", "--full")
    assert count == 1 + FILES + FOLDERS + 1 + 1  # the event, the rows, the cursor
    cursor = last.decode().split('"')[3]
    assert lines_of(million, "changes", "--since", cursor)[0] == 1
    page = f"{million.folder}/report.html"
    million.good("report", "-o", page)
    with open(page, "rb") as file:
        shown = Page(file.read()).volume("V")
    assert (sum(shown["files"]), shown["folders"]) == (live, FOLDERS + 1)
