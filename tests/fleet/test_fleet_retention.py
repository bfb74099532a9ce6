"""fleet/retention.sql and fleet/totals.sql: what they remove, what they leave, what they count."""
import time

from demo.cluster import statements
from fleet_world import TOP
from quarrow_driver.waiting import wait_for
from test_fleet_schema import G, NOW, file_row, folder_row, volume_row

IDS = "SELECT generation, id FROM quarrow.{} ORDER BY generation, id"
RAW = "SELECT DISTINCT generation, id FROM quarrow.{} ORDER BY generation, id"


def pairs(fleet, statement, table):
    return [(int(generation) - G, int(number)) for generation, number in fleet.rows(statement.format(table))]


def test_former_generations_go_and_one_that_is_listed_stays(fleet):
    for generation in (0, 1, 2):
        fleet.insert("files", [file_row(number, generation=G + generation) for number in (1, 2)])
        fleet.insert("folders", [folder_row(1, generation=G + generation)])
    fleet.insert("files", [file_row(7, volume="Other", generation=G)])  # of which no listing is through
    fleet.insert("volumes", [volume_row(generation=G + 1, updated=2)])
    fleet.everywhere("retention.sql")
    fleet.wait_removed()
    assert pairs(fleet, RAW, "files") == [(0, 7), (1, 1), (1, 2), (2, 1), (2, 2)]
    assert pairs(fleet, RAW, "folders") == [(1, 1), (2, 1)]
    assert pairs(fleet, IDS, "live_files") == [(1, 1), (1, 2)]


def test_purged_rows_go_with_all_their_versions(fleet):
    """An older version, from when the file was there, would else come to light."""
    fleet.insert("volumes", [volume_row(), volume_row(appliance="b", purged_before=NOW + 10**6)])
    fleet.insert("files", [file_row(number) for number in (1, 2, 3, 4)])
    fleet.insert("files", [file_row(1, deleted=1, updated=NOW + 10, version=2), file_row(2, deleted=1, updated=NOW + 20, version=2),
                           file_row(3, deleted=1, updated=NOW + 5, version=2)])
    fleet.insert("files", [file_row(3, updated=NOW + 6, version=3)])  # it came back
    fleet.insert("folders", [folder_row(1), folder_row(2)])
    fleet.insert("folders", [folder_row(2, deleted=1, updated=NOW + 10, version=2)])
    fleet.insert("volumes", [volume_row(purged_before=NOW + 20, updated=2)])
    fleet.everywhere("retention.sql")
    fleet.wait_removed()
    assert pairs(fleet, RAW, "files") == [(0, 2), (0, 3), (0, 4)]
    assert pairs(fleet, IDS, "live_files") == [(0, 3), (0, 4)]
    assert pairs(fleet, IDS, "gone_files") == [(0, 2)]
    assert pairs(fleet, RAW, "folders") == [(0, 1)]
    fleet.everywhere("retention.sql")  # again, with nothing to do
    fleet.wait_removed()
    assert pairs(fleet, RAW, "files") == [(0, 2), (0, 3), (0, 4)]


def test_a_file_that_comes_back_while_rows_are_chosen_stays(fleet):
    fleet.insert("volumes", [volume_row(purged_before=NOW + 20)])
    fleet.insert("files", [file_row(number) for number in (1, 2)])
    fleet.insert("folders", [folder_row(number) for number in (1, 2)])
    fleet.insert("files", [file_row(number, deleted=1, updated=NOW + 10, version=2) for number in (1, 2)])
    fleet.insert("folders", [folder_row(number, deleted=1, updated=NOW + 10, version=2) for number in (1, 2)])
    steps = statements(f"{TOP}/fleet/retention.sql")
    choosing = [step for step in steps if not step.startswith("ALTER")]
    removing = steps[len(choosing):]
    assert removing and all(step.startswith("ALTER") for step in removing)
    for part in (choosing, removing):
        for server in fleet.servers:
            for step in part:
                server.query(step)
        if part is choosing:
            fleet.insert("files", [file_row(1, updated=NOW + 30, version=3)])
            fleet.insert("folders", [folder_row(1, updated=NOW + 30, version=3)])
    fleet.wait_removed()
    for table in ("files", "folders"):
        assert fleet.rows(f"SELECT id, version FROM quarrow.{table}") == [[b"1", b"3"]]
        assert pairs(fleet, IDS, f"live_{table}") == [(0, 1)]


def test_retention_changes_nothing_that_readers_see(fleet):
    for appliance in ("a", "b", "c"):
        fleet.insert("files", [file_row(number, appliance, version=version, generation=G + generation,
                                        deleted=int(number % 3 == 0 and version == 2), updated=NOW + number)
                               for generation in (0, 1) for version in (1, 2) for number in range(60)])
        fleet.insert("volumes", [volume_row(appliance, generation=G + 1, purged_before=NOW + 30)])
    seen = {view: fleet.rows(f"SELECT appliance, generation, id, last_updated_time, size FROM quarrow.{view} ORDER BY appliance, id")
            for view in ("live_files", "gone_files")}
    assert [len(rows) for rows in seen.values()] == [3 * 40, 3 * 10]
    fleet.everywhere("retention.sql")
    fleet.wait_removed()
    for view, rows in seen.items():
        assert fleet.rows(f"SELECT appliance, generation, id, last_updated_time, size FROM quarrow.{view} ORDER BY appliance, id") == rows
    assert fleet.number("SELECT count() FROM (SELECT DISTINCT appliance, generation, id FROM quarrow.files)") == 3 * 50


def test_totals_are_those_of_the_live_files(fleet):
    fleet.insert("volumes", [volume_row(), volume_row("b")])
    fleet.insert("files", [
        file_row(1, path="/Films/a.jpg", size=10), file_row(2, path="/Films/deep/b.jpg", size=20),
        file_row(3, path="/c.jpg", size=40), file_row(4, path="/Films/d.mp3", category="audio", size=80),
        file_row(5, path="/Films/e.jpg", size=160, deleted=1), file_row(6, path="/Films/f.jpg", size=2**40, generation=G - 1),
        file_row(1, "b", path="/Films/a.jpg", size=2**41)])
    fleet.insert("files", [file_row(2, path="/Films/deep/b.jpg", size=21, version=2)])
    fleet.everywhere("totals.sql")
    assert fleet.rows("SELECT appliance, folder, category, files, bytes FROM quarrow.totals ORDER BY appliance, folder, category") == [
        [b"a", b"", b"image", b"1", b"40"], [b"a", b"", b"other", b"0", b"0"], [b"a", b"Films", b"audio", b"1", b"80"],
        [b"a", b"Films", b"image", b"2", b"31"], [b"b", b"", b"other", b"0", b"0"], [b"b", b"Films", b"image", b"1", b"2199023255552"]]


def test_totals_of_a_volume_that_was_emptied_or_hidden_are_none(fleet):
    fleet.insert("volumes", [volume_row(volume=volume) for volume in ("Emptied", "Hidden", "Kept")])
    fleet.insert("files", [file_row(number, volume=volume, path=f"/x/{number}", size=100)
                           for volume in ("Emptied", "Hidden", "Kept") for number in (1, 2)])
    week_ago = int(time.time()) - 8 * 86400
    fleet.insert("totals", [("a", volume, week_ago, "x", "image", 1, 1) for volume in ("Emptied", "Hidden", "Kept")],
                 user=fleet.login("admin"))
    fleet.everywhere("totals.sql")
    assert fleet.answers("05-capacity")[0][:4] == [b"image", b"6", b"600", b"1"]
    assert [line[1] for line in fleet.answers("01-growth")] == [b"Emptied", b"Hidden", b"Kept"]
    fleet.insert("files", [file_row(number, volume="Emptied", path=f"/x/{number}", size=100, deleted=1, version=2) for number in (1, 2)])
    fleet.insert("volumes", [volume_row(volume="Hidden", generation=G + 1, updated=2)])  # of which there is no row
    wait_for(lambda: time.time() >= fleet.number("SELECT max(taken) FROM quarrow.totals") + 1, "another second")
    fleet.everywhere("totals.sql")
    assert [line[:4] for line in fleet.answers("05-capacity")] == [[b"image", b"2", b"200", b"1"]]
    assert [line[1] for line in fleet.answers("01-growth")] == [b"Kept"]


def test_totals_that_are_taken_twice_within_a_second_count_once(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(number, path=f"/x/{number}", size=100) for number in (1, 2)])
    now = int(time.time())
    fleet.insert("totals", [("a", "V", now - 8 * 86400, "x", "image", 1, 150)], user=fleet.login("admin"))
    for _ in range(2):
        fleet.insert("totals", [("a", "V", now, "x", "image", 2, 200)], user=fleet.login("admin"))
    assert [line[:4] for line in fleet.answers("05-capacity")] == [[b"image", b"2", b"200", b"1"]]
    assert fleet.answers("01-growth") == [[b"a", b"V", b"x", b"1", b"50"]]
