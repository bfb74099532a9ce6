"""Every row arrives as the catalogue has it: names with any byte, large numbers, many rows, changes one after the other."""
import os
import sys

import pytest
from push_world import has_address_sanitizer, seeded

KIB = 1024
#: Runs a command and writes into a file how much memory it took, in KiB. A process of its own, because the peak of a child
#: begins with the memory of what has started it.
MEASURE = """if True:
    import resource, subprocess, sys
    status = subprocess.call(sys.argv[2:])
    print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, file=open(sys.argv[1], "w"))
    sys.exit(status)"""


def test_a_first_run_sends_all_and_a_second_one_nothing(world):
    world.volume("V", 300)
    world.volume("Other", 5)
    result = world.good()
    assert result.output.startswith("305 rows of files and 18 of folders confirmed in ")
    world.assert_complete()
    assert {request.table for request in world.server.requests} == {"files", "folders", "volumes", "appliances"}
    world.server.requests.clear()
    assert world.good().output.startswith("0 rows of files and 0 of folders ")
    assert [request.table for request in world.server.requests] == ["appliances"]


def test_each_request_says_who_sends_and_that_it_has_to_be_stored(world):
    world.volume()
    world.good()
    for request in world.server.requests:
        assert request.headers["X-ClickHouse-User"] == "pusher"
        assert request.headers["X-ClickHouse-Key"].encode("latin-1").decode() == "s3cret \u00fc"
        assert request.headers["Content-Encoding"] == "gzip"
        assert request.parameters["insert_distributed_sync"] == ["1"] and request.parameters["database"] == ["quarrow"]
    [appliance] = world.server.rows("appliances")
    assert (appliance["appliance"], appliance["cursor"].decode()) == (b"box", world.cursor())
    assert appliance["software"].startswith(b"quarrowctl ")


def test_names_with_every_byte_arrive_as_they_are(world):
    volume = world.volume("Volum\u00e9")
    for byte in set(range(1, 256)) - {ord("/")}:
        volume.add(bytes([byte]))
        volume.add(b"a%c\xffb" % byte)
    for name in (b"\\N", b"\\t", b"ends\\", b"\\\\n", b"\t\t", b"\xed\xb2\x80", b"\xed\xa0\x80\xed\xb0\x80", "\ufffd".encode(), b'_hex":',
                 b"%s%d", b"\xf0\x9f\x98\x80", b"\xc2\x9f", b"x" * 255, b"'; DROP TABLE files; --", b"\r\n", b'{"cursor":"no"}'):
        volume.add(name)
    volume.edit("update Folders set name = cast(x'ff5c09' as text), path = cast(x'2fff5c09' as text) where folder_id = 2")
    world.good()
    world.assert_complete()


def test_numbers_beyond_32_bits_and_times_after_2038(world):
    volume = world.volume()
    volume.add("large", size=(1 << 63) - 1)
    volume.add("low half of a size", size=-1073741824)
    volume.add("late", modified=5_000_000_000)
    volume.add("early", modified=-5_000_000_000)
    volume.add("changed when 32 bits had wrapped", modified=-1_000_000_000)
    volume.add("written when 32 bits had wrapped", updated=-1_000_000_000)
    world.good()
    world.assert_complete()
    rows = {row["name"]: row for row in world.server.rows("files")}
    assert rows[b"written when 32 bits had wrapped"]["last_updated_time"] == b"3294967296"
    assert rows[b"changed when 32 bits had wrapped"]["created_time"] == b"3294967296"
    assert rows[b"changed when 32 bits had wrapped"]["modified_time"] == b"-1000000000"
    assert rows[b"large"]["size"] == b"9223372036854775807"


def large_load(world, wrapper=()):
    volume = world.volume(files=0)
    volume.edit("""with recursive number(n) as (select 1 union all select n + 1 from number where n < 60000)
        insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted, last_updated_time)
        select 1, printf('/%0200d.mp3', n), printf('%0200d.mp3', n), 2, n, 1, 1, 0, 1 from number""")
    world.good(wrapper=wrapper)


def test_a_large_load_is_sent_in_pieces(world):
    large_load(world)
    sent = [len(request.rows) for request in world.server.requests if request.table == "files"]
    assert len(sent) > 2 and max(sent) < 25_000  # 8 MB are reached before 50,000 rows
    world.assert_complete()


def test_a_large_load_takes_little_memory(world):
    """Of the pusher and of quarrowctl, whichever takes more."""
    if has_address_sanitizer():
        pytest.skip("the sanitizer's own memory is beyond the bound")
    large_load(world, [sys.executable, "-S", "-c", MEASURE, world.path("peak")])
    with open(world.path("peak"), encoding="ascii") as file:
        assert int(file.read()) < 64 * KIB


def test_changes_arrive_run_after_run(world):
    choice = seeded("changes arrive")
    volumes = [world.volume("V", 200), world.volume("W", 50)]
    for _ in range(5):
        for volume in volumes:
            volume.change(choice)
        world.good()
        world.assert_complete()
    assert len({row["generation"] for row in world.server.rows("files")}) == 1


def test_only_the_volumes_that_are_named_are_sent(world):
    world.volume("V"), world.volume("W"), world.volume("X")
    world.configure("volume = V", "volume = X")
    world.good()
    assert {row["volume"] for row in world.server.rows("files")} == {b"V", b"X"}
    world.configure()
    world.good()
    world.assert_complete()


def test_the_state_and_its_folder_are_closed_to_others(world):
    world.volume()
    world.good()
    assert os.stat(world.state_folder).st_mode & 0o777 == 0o700
    assert sorted(os.listdir(world.state_folder)) == ["lock", "state"]
    for name in os.listdir(world.state_folder):
        assert os.stat(f"{world.state_folder}/{name}").st_mode & 0o777 == 0o600
