"""The documents and the package have the version of CMakeLists.txt. What the programs print: test_start, test_ctl_help."""
import os
import re

import pytest

from checkout import CHECKOUT, printed_version, project_version, read

MANUALS = [name for name in sorted(os.listdir(f"{CHECKOUT}/packaging")) if re.search(r"\.[1-8]$", name)]


@pytest.mark.parametrize("name", MANUALS)
def test_of_a_manual_page(name):
    title = re.search(r'^\.TH \S+ (\d) \d{4}-\d\d-\d\d "([^"]*)"', read(f"packaging/{name}"), re.MULTILINE)
    assert title.groups() == (name[-1], f"Quarrow {project_version()}")


def test_of_the_debian_package():
    version = re.match(r"quarrow \((?:\d+:)?([^-)]+)(?:-[^)]*)?\) ", read("packaging/debian/changelog"))
    assert version[1] == project_version()


def test_of_the_changes():
    newest = re.search(r"^## (\S+) - .*\n((?:(?!## ).*\n)*)", read("CHANGELOG.md"), re.MULTILINE)
    assert newest[1] == project_version()
    assert set(re.findall("`quarrow version` prints `(.*?)`", newest[2])) <= {printed_version()}
