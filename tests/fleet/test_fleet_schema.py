"""fleet/schema.sql on two real servers: which row counts, and what readers see."""
import os
import re
import subprocess

import pytest

from demo.cluster import statements
from demo.server import QueryError
from fleet_world import ALL, TOP, text

NOW = 1_790_000_000
G = 1_790_000_000_000  # a generation


def file_row(number, appliance="a", volume="V", generation=G, name=None, category="image", size=5, updated=NOW, deleted=0, version=1,
             path=None, created=NOW):
    name = f"{number}.jpg" if name is None else name
    return (appliance, volume, generation, number, 1, f"/x/{name}" if path is None else path, name, category, size, created, 2, updated,
            deleted, version)


def folder_row(number, appliance="a", volume="V", generation=G, path="/x", updated=NOW, deleted=0, version=1):
    return appliance, volume, generation, number, -1, path, path.rpartition("/")[2], 1, 2, updated, deleted, version


def volume_row(appliance="a", volume="V", generation=G, purged_before=0, updated=1):
    return appliance, volume, generation, "id", purged_before, updated


def live_sizes(fleet):
    return [(int(number), int(size)) for number, size in fleet.rows("SELECT id, size FROM quarrow.live_files ORDER BY id")]


def test_the_same_rows_twice_are_there_once(fleet):
    appliances = [f"box {number}" for number in range(8)]
    rows = [file_row(number, appliance=appliances[number % 8], size=number) for number in range(100_000)]
    fleet.insert("volumes", [volume_row(appliance) for appliance in appliances])
    for _ in range(2):
        fleet.insert("files", rows)
    assert fleet.number("SELECT count() FROM quarrow.files FINAL") == 100_000
    assert fleet.number("SELECT count() FROM quarrow.live_files") == 100_000
    assert fleet.number("SELECT sum(size) FROM quarrow.live_files") == sum(range(100_000))
    counts = [int(server.query("SELECT uniqExact(appliance) FROM quarrow.files_shard")) for server in fleet.servers]
    assert sum(counts) == 8 and 0 not in counts, "an appliance lies on two servers, or one server has all"


def test_both_servers_answer_the_same(fleet):
    fleet.insert("volumes", [volume_row(f"box {number}") for number in range(8)])
    fleet.insert("files", [file_row(number, appliance=f"box {number % 8}") for number in range(100)])
    answers = [server.query("SELECT appliance, id FROM quarrow.live_files ORDER BY appliance, id") for server in fleet.servers]
    assert answers[0] == answers[1] and answers[0].count(b"\n") == 100


def test_the_later_send_counts_within_a_second(fleet):
    fleet.insert("volumes", [volume_row()])
    for version, size in ((1, 10), (2, 20), (3, 5)):
        fleet.insert("files", [file_row(1, size=size, version=version)])
        assert live_sizes(fleet) == [(1, size)]


def test_a_send_that_arrives_late_does_not_count(fleet):
    """Its answer was lost, and it was repeated with what the catalogue said by then."""
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1, size=20, version=2), file_row(2, size=20, version=2)])
    fleet.insert("files", [file_row(1, size=10, version=1), file_row(2, size=10, version=1)])
    assert live_sizes(fleet) == [(1, 20), (2, 20)]
    for server in fleet.servers:
        server.query("OPTIMIZE TABLE quarrow.files_shard FINAL")
    assert live_sizes(fleet) == [(1, 20), (2, 20)]


def test_of_one_insert_the_greatest_version_counts(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1, size=20, version=2), file_row(1, size=10, version=1)])
    assert live_sizes(fleet) == [(1, 20)]


def test_with_equal_versions_the_later_insert_counts(fleet):
    fleet.insert("volumes", [volume_row()])
    for size in range(10, 20):
        fleet.insert("files", [file_row(1, size=size)])
        assert live_sizes(fleet) == [(1, size)]


def test_a_clock_that_was_set_back_does_not_hold_up_a_row(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1, size=10, updated=NOW + 100, version=1)])
    fleet.insert("files", [file_row(1, size=20, updated=NOW, version=2)])
    assert live_sizes(fleet) == [(1, 20)]


def test_a_new_listing_counts_when_it_is_whole(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(number) for number in (1, 2, 3)])
    fleet.insert("folders", [folder_row(number, path=f"/old{number}") for number in (1, 2)])
    # Ids of the new catalogue are those of other files.
    fleet.insert("files", [file_row(number, generation=G + 1, size=7, version=2) for number in (1, 9)])
    fleet.insert("folders", [folder_row(1, generation=G + 1, path="/new", version=2)])
    assert live_sizes(fleet) == [(1, 5), (2, 5), (3, 5)]
    assert fleet.rows("SELECT path FROM quarrow.live_folders ORDER BY path") == [[b"/old1"], [b"/old2"]]
    [listing] = fleet.answers("10-listings")
    assert listing[:3] == [b"a", b"V", b"anew"] and listing[4] == b"1"
    fleet.insert("volumes", [volume_row(generation=G + 1, updated=2)])
    assert live_sizes(fleet) == [(1, 7), (9, 7)]
    assert fleet.rows("SELECT path FROM quarrow.live_folders") == [[b"/new"]]
    assert fleet.answers("10-listings") == []


def test_a_first_listing_is_not_seen_before_it_is_whole(fleet):
    fleet.insert("files", [file_row(1)])
    fleet.insert("folders", [folder_row(1)])
    assert live_sizes(fleet) == []
    assert fleet.answers("10-listings")[0][2] == b"the first"


def test_a_deleted_row_keeps_its_time_until_it_is_purged(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1), file_row(2), file_row(3)])
    fleet.insert("folders", [folder_row(1), folder_row(2, path="/gone")])
    fleet.insert("files", [file_row(1, deleted=1, updated=NOW + 50, version=2), file_row(2, deleted=1, updated=NOW + 60, version=2)])
    fleet.insert("folders", [folder_row(2, path="/gone", deleted=1, updated=NOW + 50, version=2)])
    gone = "SELECT id, last_updated_time FROM quarrow.gone_files ORDER BY id"
    folders = "SELECT path, last_updated_time FROM quarrow.gone_folders"
    assert fleet.rows(gone) == [[b"1", b"%d" % (NOW + 50)], [b"2", b"%d" % (NOW + 60)]]
    assert fleet.rows(folders) == [[b"/gone", b"%d" % (NOW + 50)]]
    assert live_sizes(fleet) == [(3, 5)]
    fleet.insert("volumes", [volume_row(purged_before=NOW + 60, updated=2)])
    assert fleet.rows(gone) == [[b"2", b"%d" % (NOW + 60)]]
    assert fleet.rows(folders) == []
    assert live_sizes(fleet) == [(3, 5)]  # a purge takes deleted rows alone, however old a live one is


def test_every_byte_of_a_name_comes_back(fleet):
    names = [bytes([byte]) * times for byte in range(1, 256) if byte != ord("/") for times in (1, 3)]
    names += [b"\\N", b"\\\\t", b"'; DROP TABLE quarrow.files; --", b"\xff\xfe\t\n\\", bytes(sorted(set(range(1, 256)) - {ord("/")}))]
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(number, name=name, path=b"/" + name) for number, name in enumerate(names)])
    assert [row for [row] in fleet.rows("SELECT name FROM quarrow.live_files ORDER BY id")] == names
    assert [row for [row] in fleet.rows("SELECT path FROM quarrow.live_files ORDER BY id")] == [b"/" + name for name in names]
    # And as hexadecimal digits, for whoever does not read escapes.
    assert [bytes.fromhex(row.decode()) for [row] in fleet.rows("SELECT hex(name) FROM quarrow.live_files ORDER BY id")] == names


@pytest.mark.parametrize("appliance", ["plain", "sp ace", "it's", "Gr\u00f6\u00dfe", "back\\slash"])
def test_names_of_appliances_and_volumes_are_keys(fleet, appliance):
    name = appliance.encode()
    fleet.insert("volumes", [volume_row(name, name)])
    fleet.insert("files", [file_row(1, appliance=name, volume=name)])
    assert fleet.rows("SELECT appliance, volume FROM quarrow.live_files") == [[name, name]]


def test_numbers_past_32_bits(fleet):
    sizes = [0, -1073741824, 2**31 - 1, 2**31, 2**32, 2**32 + 5, 2**40 + 1, 2**63 - 1]
    times = [-5, 0, 2**31 - 1, 2**31, 2**32, 2**33, -2**31, 2**40]
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(number, size=size, created=time, updated=time)
                           for number, (size, time) in enumerate(zip(sizes, times))])
    found = fleet.rows("SELECT size, created_time, last_updated_time FROM quarrow.live_files ORDER BY id")
    assert found == [[text(size), text(time), text(time)] for size, time in zip(sizes, times)]


def test_what_each_user_may_do(fleet):
    insert = f"INSERT INTO quarrow.files ({ALL['files']}) FORMAT TabSeparated"
    row = b"\t".join(text(value) for value in file_row(1)) + b"\n"
    fleet.query(insert, row, user=fleet.login("pusher"), insert_distributed_sync=1)
    assert fleet.query("SELECT count() FROM quarrow.files", user=fleet.login("reader")) == b"1\n"
    for user, statement, data in (("reader", insert, row), ("reader", "TRUNCATE TABLE quarrow.files_shard", None),
                                  ("pusher", "DROP TABLE quarrow.files_shard", None), ("pusher", "CREATE DATABASE other", None)):
        with pytest.raises(QueryError, match="Code: "):
            fleet.query(statement, data, user=fleet.login(user))
    with pytest.raises(QueryError, match="[Pp]assword"):
        fleet.query("SELECT 1", user=("reader", "wrong"))
    assert fleet.number("SELECT count() FROM quarrow.files") == 1


def test_the_schema_can_be_loaded_again(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1)])
    fleet.everywhere("schema.sql")
    assert live_sizes(fleet) == [(1, 5)]


def test_the_files_are_taken_by_the_command_that_they_name(fleet):
    """Which parts statements and comments by rules of its own."""
    for server in fleet.servers:
        for name in ("schema.sql", "totals.sql", "retention.sql"):
            with open(f"{TOP}/fleet/{name}", "rb") as file:
                user, password = fleet.login("admin")
                done = subprocess.run(["clickhouse-client", "--host=127.0.0.1", f"--port={server.tcp}", f"--user={user}",
                                       f"--password={password}", "--multiquery"], stdin=file, capture_output=True, text=True, check=False)
            assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), name
    fleet.wait_removed()


def test_what_the_document_says_of_bytes_in_a_question(fleet):
    fleet.insert("volumes", [volume_row()])
    fleet.insert("files", [file_row(1, name=b"caf\xe9"), file_row(2, name=b"caf\xc3\xa9")])
    assert fleet.rows(r"SELECT id FROM quarrow.files FINAL PREWHERE name = 'caf\xE9'") == [[b"1"]]


def test_another_number_of_shards(fleet):
    """As the document has it: all is sent anew, and then each server loses what belongs elsewhere. Here rows are on the wrong
    server, as they are after a shard was added."""
    names = [f"box {number}" for number in range(8)]
    for server in fleet.servers:
        for name in names:
            server.query(f"INSERT INTO quarrow.files_shard ({ALL['files']}) FORMAT TabSeparated",
                         b"\t".join(text(value) for value in file_row(1, name)) + b"\n")
            server.query(f"INSERT INTO quarrow.volumes_shard ({ALL['volumes']}) FORMAT TabSeparated",
                         b"\t".join(text(value) for value in volume_row(name)) + b"\n")
    assert fleet.number("SELECT count() FROM quarrow.live_files") == 16
    for number, server in enumerate(fleet.servers):
        for table in ("files", "volumes"):
            server.query(f"ALTER TABLE quarrow.{table}_shard DELETE WHERE cityHash64(appliance) % 2 != {number}")
    fleet.wait_removed()
    assert fleet.number("SELECT count() FROM quarrow.live_files") == 8
    fleet.insert("files", [file_row(1, name, version=2, size=9) for name in names])
    assert fleet.rows("SELECT size, count() FROM quarrow.live_files GROUP BY size") == [[b"9", b"8"]]


def test_no_statement_hangs_on_the_order_of_columns():
    """Current releases, and later ones of this schema, may have more columns: each INSERT names its own."""
    for name in ("totals.sql", "retention.sql"):
        for statement in statements(os.path.join(TOP, "fleet", name)):
            assert "SELECT *" not in statement
            assert not statement.startswith("INSERT") or re.match(r"INSERT INTO quarrow\.\w+ \(\w+", statement)


def test_no_statement_joins_with_any():
    """Current releases answer it in another way: each row of the right side is taken once, and all other rows are dropped."""
    folder = os.path.join(TOP, "fleet")
    files = [os.path.join(place, name) for place, _, names in os.walk(folder) for name in names if name.endswith(".sql")]
    joins = [statement for file in files for statement in statements(file) if " JOIN" in statement or "\nJOIN" in statement]
    assert len(joins) >= 5
    for statement in joins:
        assert len(re.findall(r"\bJOIN\b", statement)) == len(re.findall(r"\bALL INNER JOIN\b", statement)), statement
