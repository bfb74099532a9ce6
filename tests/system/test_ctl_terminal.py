"""Names in JSON do not control a terminal, and can be had back from it."""
import json

import pytest

from change_stream import catalogued, original
from ctl import Ctl

NAMES = ["\u009b31m red.mp3", "\u0085.mp3", "\x7f\x1b[2J.mp3", "\u009d0;title\udcff.mp3", "plain \u00a0\u0100.mp3"]


@pytest.fixture
def volume(arena):
    volume = arena.volume("V\u009b", crawl=["/m"])
    for name in NAMES:
        volume.make_file(f"/m/{name}", b"x")
    catalogued(arena, volume)
    return volume


def assert_harmless(output):
    for code in (*range(0x20), *range(0x7f, 0xa0)):
        assert code == 0x0a or chr(code).encode() not in output, hex(code)


@pytest.mark.parametrize("arguments", [["status", "--json"], ["check", "--json"], ["find", "--json"], ["changes"]])
def test_nothing_controls_a_terminal(arena, volume, arguments):
    output = Ctl(arena, [volume]).run(*arguments).bytes
    assert "\\u009b" in output.decode()
    assert_harmless(output)


@pytest.mark.parametrize("command", [["find", "--json"], ["changes"]])
def test_names_come_back(arena, volume, command):
    result = Ctl(arena, [volume]).good(*command)
    paths = [original(line, "path") for line in map(json.loads, result.lines) if "path" in line]
    assert sorted(path.rsplit("/", 1)[1] for path in paths if path.endswith(".mp3")) == sorted(NAMES)
    assert {line["volume"] for line in map(json.loads, result.lines) if "volume" in line} == {volume.name}
