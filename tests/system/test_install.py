"""The MIME table in an installation from source: one that was edited stays, one that was not is replaced."""
import os
import subprocess

import pytest

from checkout import CHECKOUT
from quarrow_driver.waiting import BOUND

TABLE = "/usr/local/quarrow/mime_types.txt"


class Source:
    """A checkout of which there is nothing but the table and what installs it."""

    def __init__(self, arena):
        self.arena = arena
        self.script = arena.path("packaging/install_mime_table.cmake")
        for name in ("packaging", "data"):
            os.mkdir(arena.path(name))
        with open(self.script, "wb") as target, open(f"{CHECKOUT}/packaging/install_mime_table.cmake", "rb") as script:
            target.write(script.read())

    def run(self, *steps):
        """Steps in a namespace of their own, in which /usr/local/quarrow is empty at first. Each one is a shell command or a
        version of the table, which is installed: all of them were made at the same moment. Returns the output."""
        commands = ["rm /usr/local/quarrow/*"]
        for step in steps:
            table = f"printf 'audio/mpeg %s\\n' {step} > data/mime_types.txt; touch -d @1700000000 data/mime_types.txt"
            commands.append(f"{table}; cmake -P {self.script} 2>&1" if step.isalnum() else step)
        command = [f"{CHECKOUT}/scripts/in-private-mounts.sh", "--", "sh", "-euc", "\n".join(commands)]
        result = subprocess.run(command, cwd=self.arena.folder, capture_output=True, text=True, timeout=BOUND, check=False)
        assert (result.returncode, result.stderr) == (0, "")
        return result.stdout


@pytest.fixture
def source(arena):
    return Source(arena)


def test_a_missing_table_is_installed(source):
    output = source.run("mp1", f"ls /usr/local/quarrow; stat -c %a {TABLE}; cd /usr/local/quarrow; sha256sum -c *.sha256")
    assert output == f"-- Installing: {TABLE}\nmime_types.txt\nmime_types.txt.sha256\n644\nmime_types.txt: OK\n"


def test_a_table_that_nobody_has_edited_is_replaced(source):
    output = source.run("mp1", "mp2", "mp3", f"cat {TABLE}", "ls /usr/local/quarrow")
    assert output == f"-- Installing: {TABLE}\n" * 3 + "audio/mpeg mp3\nmime_types.txt\nmime_types.txt.sha256\n"


@pytest.mark.parametrize("before", [["mp1", f"echo edited >> {TABLE}"], ["mp1", f"echo edited > {TABLE}", "mp2"],
                                    [f"echo edited > {TABLE}"], ["mp1", f"echo edited > own; ln -sf $PWD/own {TABLE}"]])
def test_an_edited_table_stays(source, before):
    """Edited after an installation, or before there was a note of it, or a link."""
    output = source.run(*before, f"cp -P {TABLE} before", "mp9", f"cmp {TABLE} before; [ ! -h before ] || test -h {TABLE}",
                        f"cat {TABLE}.new")
    assert output.endswith(f"-- Installing: {TABLE}.new\n-- {TABLE} was edited and stays as it is. Compare it with "
                           f"{TABLE}.new.\naudio/mpeg mp9\n")


def test_a_new_table_that_was_put_in_place_counts_as_installed(source):
    output = source.run("mp1", f"echo edited > {TABLE}", "mp2", f"mv {TABLE}.new {TABLE}", "mp3", f"cat {TABLE}")
    assert output.endswith(f"-- Installing: {TABLE}\naudio/mpeg mp3\n")


def test_a_package_always_gets_the_table(source):
    output = source.run(f"echo edited > {TABLE}; export DESTDIR=$PWD/tree", "mp1", "echo edited > tree" + TABLE, "mp2",
                        f"cat tree{TABLE} {TABLE}; ls tree/usr/local/quarrow /usr/local/quarrow")
    assert output.endswith("audio/mpeg mp2\nedited\n/usr/local/quarrow:\nmime_types.txt\n\ntree/usr/local/quarrow:\n"
                           "mime_types.txt\n")
