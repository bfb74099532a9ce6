"""`quarrowctl units`: the drop-in for the daemon's unit. What systemd makes of it is tried where systemd runs."""
import os

from ctl import Ctl


def test_the_drop_in_is_printed_or_written_whole(arena):
    volume = arena.volume("V")
    ctl = Ctl(arena, [volume])
    printed = ctl.good("units").text
    assert f'\nRequiresMountsFor="{volume.root}"\n' in printed and f'\nReadWritePaths=-"{volume.root}"\n' in printed
    assert f"\nSourcePath={ctl.config}\n" in printed
    path = f"{ctl.folder}/50-volumes.conf"
    assert ctl.good("units", "--output", path).text == ""
    with open(path, encoding="utf-8") as file:
        assert file.read() == printed
    assert os.stat(path).st_mode & 0o777 == 0o644


def test_what_cannot_be_written_is_said_and_leaves_nothing(arena):
    ctl = Ctl(arena, [arena.volume("V")])
    path = f"{ctl.folder}/no folder/50-volumes.conf"
    result = ctl.run("units", "-o", path)
    assert (result.status, result.text) == (2, "")
    assert path in result.errors and "No such file or directory" in result.errors
    refused = Ctl(arena, [], config="<Quarrow></Quarrow>")
    path = f"{refused.folder}/50-volumes.conf"
    result = refused.run("units", "-o", path)
    assert (result.status, result.text) == (2, "") and refused.config in result.errors
    assert not os.path.exists(path)


def test_a_volume_that_no_unit_can_name(arena):
    ctl = Ctl(arena, [arena.volume("Good"), arena.volume("two\nlines")])
    result = ctl.run("units")
    assert result.status == 1
    assert "systemd cannot name the root" in result.errors
    assert "Good" in result.text and "lines" not in result.text and "ProtectSystem" not in result.text
