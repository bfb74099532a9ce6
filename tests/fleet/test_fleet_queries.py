"""The ten queries of fleet/queries, on fleets that are small enough to know the answers."""
import os
import time

import pytest

from fleet_world import ALL, TOP, text
from test_fleet_schema import G, file_row, folder_row, volume_row

DAY = 86400
HUGE = 100_000_000


@pytest.fixture
def now():
    """Queries of a week or a day ask the server for the time."""
    return int(time.time())


def words(rows):
    return [[field.decode() for field in row] for row in rows]


def three_boxes(fleet):
    fleet.insert("volumes", [volume_row(appliance) for appliance in "abc"])


def test_growth_since_a_week_ago(fleet, now):
    fleet.insert("totals", [
        ("a", "V", now - 30 * DAY, "Films", "video", 1, 1), ("a", "V", now - 9 * DAY, "Films", "video", 5, 500),
        ("a", "V", now - 8 * DAY, "Films", "video", 6, 600), ("a", "V", now - 8 * DAY, "Gone", "other", 6, 600),
        ("a", "V", now - DAY, "Films", "video", 7, 900), ("a", "V", now, "Films", "video", 8, 1000),
        ("a", "V", now, "Films", "image", 2, 7), ("a", "V", now, "New", "image", 3, 3 * 2**40),
        ("b", "V", now - 2 * DAY, "Music", "audio", 1, 10), ("b", "V", now, "Music", "audio", 2, 30),  # there since two days
        ("c", "V", now, "Music", "audio", 2, 30)], user=fleet.login("admin"))
    assert words(fleet.answers("01-growth")) == [
        ["a", "V", "New", "3", str(3 * 2**40)], ["a", "V", "Films", "4", "407"], ["b", "V", "Music", "1", "20"]]


def test_the_same_file_on_several_appliances(fleet):
    three_boxes(fleet)
    fleet.insert("files", [
        *(file_row(1, appliance, name="film.mkv", size=5 * HUGE) for appliance in "abc"),
        file_row(2, "a", name="film.mkv", size=5 * HUGE, path="/again/film.mkv"),
        *(file_row(3, appliance, name="show.mkv", size=HUGE) for appliance in "ab"),
        *(file_row(4, appliance, name="gone.mkv", size=HUGE) for appliance in "ab"),
        *(file_row(5, appliance, name="small.mkv", size=HUGE - 1) for appliance in "ab"),
        file_row(6, "a", name="one.mkv", size=HUGE), file_row(7, "a", name="one.mkv", size=HUGE, path="/again/one.mkv"),
        file_row(8, "a", name="size.mkv", size=HUGE), file_row(8, "b", name="size.mkv", size=HUGE + 1),
        *(file_row(9, appliance, name="former.mkv", size=HUGE, generation=G - (appliance == "b")) for appliance in "ab")])
    fleet.insert("files", [file_row(4, "b", name="gone.mkv", size=HUGE, deleted=1, version=2)])
    assert words(fleet.answers("02-same-file")) == [["film.mkv", "500000000", "3", "4", "1500000000"],
                                                    ["show.mkv", "100000000", "2", "2", "100000000"]]


def test_photos_that_vanished_everywhere(fleet, now):
    three_boxes(fleet)
    live = [("everywhere.jpg", "abc"), ("kept.jpg", "abc"), ("moved.jpg", "a"), ("old.jpg", "a"), ("clip.mp4", "a"), ("back.jpg", "a")]
    numbers = {name: number for number, (name, _) in enumerate(live)}
    row = lambda name, appliance, **more: file_row(numbers[name], appliance, name=name, updated=now - 20 * DAY,
                                                   category="video" if name == "clip.mp4" else "image")[:11] + tuple(more.values())
    fleet.insert("files", [row(name, appliance, u=now - 20 * DAY, d=0, v=1) for name, where in live for appliance in where])
    vanished = [("everywhere.jpg", "a", DAY), ("everywhere.jpg", "b", 2 * DAY), ("everywhere.jpg", "c", 9 * DAY), ("kept.jpg", "a", DAY),
                ("moved.jpg", "a", DAY), ("old.jpg", "a", 8 * DAY), ("clip.mp4", "a", DAY), ("back.jpg", "a", DAY)]
    fleet.insert("files", [row(name, appliance, u=now - ago, d=1, v=2) for name, appliance, ago in vanished])
    fleet.insert("files", [file_row(90, "b", name="moved.jpg", path="/elsewhere/moved.jpg"), row("back.jpg", "a", u=now, d=0, v=3)])
    answer = words(fleet.answers("03-vanished-photos"))
    assert [line[:3] for line in answer] == [["everywhere.jpg", "5", "3"]]
    assert answer[0][3] == time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(now - DAY))


def test_appliances_that_went_silent_by_the_clock_of_the_servers(fleet, now):
    old = [("silent", now + 9 * DAY, "", "1.0", 1, now - 3 * DAY - 60), ("back", now, "", "1.0", 1, now - 3 * DAY)]
    fleet.query(f"INSERT INTO quarrow.appliances ({ALL['appliances']}, received) FORMAT TabSeparated",
                b"".join(b"\t".join(text(value) for value in row) + b"\n" for row in old), insert_distributed_sync=1)
    fleet.insert("appliances", [("here", now - 9 * DAY, "", "1.0", 1), ("back", now - 9 * DAY, "", "1.1", 2)])
    [line] = words(fleet.answers("04-silent-appliances"))
    assert line[0] == "silent" and line[2:] == ["72", "1.0"]


def test_capacity_is_that_of_the_latest_totals_of_each_volume(fleet, now):
    fleet.insert("totals", [("a", "V", now - DAY, "x", "video", 100, 100), ("a", "V", now, "x", "video", 3, 2**50),
                            ("a", "V", now, "y", "video", 1, 1), ("a", "W", now - DAY, "x", "video", 10, 10),
                            ("b", "V", now - DAY, "x", "image", 5, 50)], user=fleet.login("admin"))
    assert [line[:4] for line in words(fleet.answers("05-capacity"))] == [
        ["video", "14", str(2**50 + 11), "1"], ["image", "5", "50", "1"]]


def test_the_newest_files(fleet, now):
    three_boxes(fleet)
    fleet.insert("files", [file_row(number, "a", created=now - 100 * number) for number in range(30)])
    fleet.insert("files", [file_row(1, "b", created=now - 2 * DAY), file_row(0, "a", created=now, deleted=1, version=2)])
    fleet.insert("files", [file_row(1, "c", created=now - 150, generation=G + 1)])
    assert [line[:3] for line in words(fleet.answers("06-newest"))] == [["a", "V", f"/x/{number}.jpg"] for number in range(1, 21)]


def test_the_largest_files_as_they_are_now(fleet):
    three_boxes(fleet)
    fleet.insert("files", [file_row(number, appliance, size=1000 * number + ord(appliance)) for number in range(500) for appliance in "abc"])
    fleet.insert("files", [file_row(499, "c", size=1, version=2), file_row(499, "b", size=2**40, deleted=1, version=2),
                           file_row(7, "b", size=2**41, version=2)])
    answer = words(fleet.answers("07-largest"))
    assert len(answer) == 20
    assert [line[0] + line[2] for line in answer[:5]] == ["b/x/7.jpg", "a/x/499.jpg", "c/x/498.jpg", "b/x/498.jpg", "a/x/498.jpg"]
    assert answer[0][3] == str(2**41)


def of_one(number, size, **more):
    return file_row(number, "a", size=size, name=f"{number}", path=f"/{number}", **more)


@pytest.mark.parametrize("count", [300, 1_100, 3_000])
def test_the_largest_files_after_so_many_larger_ones_vanished(fleet, count):
    three_boxes(fleet)
    fleet.insert("files", [of_one(number, HUGE + number) for number in range(count)] + [of_one(10**6 + number, number) for number in range(30)])
    fleet.insert("files", [of_one(number, HUGE + number, deleted=1, version=2) for number in range(count)])
    assert [int(line[3]) for line in words(fleet.answers("07-largest"))] == list(range(29, 9, -1))


@pytest.mark.parametrize("left, generation", [(0, G), (1, G), (HUGE, G - 1)])
def test_the_largest_files_after_larger_ones_shrank_or_were_listed_anew(fleet, left, generation):
    three_boxes(fleet)
    rows = [of_one(number, HUGE + number, generation=generation) for number in range(1_100)]
    fleet.insert("files", rows + [of_one(10**6 + number, 10 + number) for number in range(30)])
    fleet.insert("files", [of_one(number, left, generation=generation, version=2) for number in range(1_100)])
    assert [int(line[3]) for line in words(fleet.answers("07-largest"))] == list(range(39, 19, -1))


def test_the_largest_of_fewer_than_twenty(fleet):
    three_boxes(fleet)
    assert fleet.answers("07-largest") == []
    fleet.insert("files", [of_one(number, number) for number in range(3)])
    assert [int(line[3]) for line in words(fleet.answers("07-largest"))] == [2, 1, 0]


def test_the_same_file_when_many_that_seemed_so_vanished(fleet):
    three_boxes(fleet)
    rows = [file_row(number, appliance, name=f"{number}", size=2 * HUGE + number) for number in range(1_100) for appliance in "ab"]
    fleet.insert("files", rows + [file_row(9_999, appliance, name="film.mkv", size=HUGE) for appliance in "ab"])
    fleet.insert("files", [(*row[:12], 1, 2) for row in rows])
    assert [line[0] for line in words(fleet.answers("02-same-file"))] == ["film.mkv"]


def test_where_a_name_is_and_was(fleet):
    three_boxes(fleet)
    fleet.insert("files", [file_row(1, appliance, name="IMG_0001.JPG") for appliance in "abc"])
    fleet.insert("files", [file_row(2, "a", name="img_0001.jpg"), file_row(1, "b", name="IMG_0001.JPG", deleted=1, version=2)])
    assert [[line[0], line[4]] for line in words(fleet.answers("08-where-is"))] == [["a", "there"], ["c", "there"], ["b", "gone"]]


@pytest.mark.parametrize("name", ["03-vanished-photos", "08-where-is", "09-deletions"])
def test_what_is_purged_is_hidden_before_it_is_removed(fleet, now, name):
    three_boxes(fleet)
    fleet.insert("files", [file_row(1, "a", name="IMG_0001.JPG", updated=now - 2 * DAY, deleted=1),
                           file_row(1, "b", name="IMG_0001.JPG", updated=now - 4 * DAY, deleted=1)])
    assert any(b"b" in line or b"2" in line for line in fleet.answers(name))
    fleet.insert("volumes", [volume_row(appliance, purged_before=now - 3 * DAY, updated=2) for appliance in "abc"])
    [line] = fleet.answers(name)
    assert b"b" not in line and b"2" not in line
    fleet.insert("volumes", [volume_row(appliance, purged_before=now - DAY, updated=3) for appliance in "abc"])
    assert fleet.answers(name) == []


def test_the_folders_with_most_deletions(fleet, now):
    three_boxes(fleet)
    gone = [("a", "/x", 3, DAY), ("b", "/x/y", 5, 2 * DAY), ("b", "", 2, DAY), ("c", "/old", 9, 8 * DAY)]
    numbers = iter(range(1000))
    fleet.insert("files", [file_row(number, appliance, name=f"{number}", path=f"{folder}/{number}", updated=now - ago, deleted=1)
                           for appliance, folder, count, ago in gone for number in (next(numbers) for _ in range(count))])
    fleet.insert("files", [file_row(0, "a", name="0", path="/x/0", updated=now, version=2)])  # came back
    assert [line[:5] for line in words(fleet.answers("09-deletions"))] == [
        ["b", "V", "/x/y", "5", "25"], ["a", "V", "/x", "2", "10"], ["b", "V", "", "2", "10"]]


def test_listings_that_are_not_through(fleet):
    fleet.insert("volumes", [volume_row("a"), volume_row("b")])
    fleet.insert("folders", [folder_row(number, appliance, path=f"/{number}") for appliance in "ab" for number in range(9)])
    fleet.insert("folders", [folder_row(number, "b", generation=G + 60_000, path=f"/{number}") for number in range(4)] * 2)
    fleet.insert("files", [file_row(number, "b", generation=G + generation) for generation in (0, 60_000) for number in range(3)])
    fleet.insert("folders", [folder_row(1, "new", generation=G + 1)])
    fleet.insert("files", [file_row(number, "newer", generation=G + 120_000) for number in (1, 2)])  # of which no folder has come yet
    began = [time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(G // 1000 + later)) for later in (0, 60, 120)]
    assert words(fleet.answers("10-listings")) == [["new", "V", "the first", began[0], "1", "0"], ["b", "V", "anew", began[1], "4", "3"],
                                                   ["newer", "V", "the first", began[2], "0", "2"]]


def test_there_are_ten_and_each_says_what_it_asks():
    names = sorted(os.listdir(f"{TOP}/fleet/queries"))
    assert [int(name[:2]) for name in names] == list(range(1, 11))
    for name in names:
        with open(f"{TOP}/fleet/queries/{name}", encoding="utf-8") as file:
            assert "?" in file.readline()
