"""The scripts of the checkout: what they say of themselves, and what private mounts keep from the machine."""
import os
import socket
import subprocess

import pytest

from checkout import CHECKOUT
from quarrow_driver.waiting import BOUND

SCRIPTS = os.path.join(CHECKOUT, "scripts")
LOG_A_LINE = ["/usr/bin/python3", "-c", "import syslog; syslog.syslog('a line')"]


def run(*command, folder, environment=None):
    return subprocess.run(command, cwd=folder, env={**os.environ, **(environment or {})}, capture_output=True, text=True,
                          timeout=BOUND, check=False)


# Help

@pytest.fixture
def untouched(arena):
    """A PATH in which all that installs or builds leaves a mark; and after the test there is none."""
    folder, mark = arena.path("bin"), arena.path("mark")
    os.mkdir(folder)
    for name in ("dpkg-query", "apt-get", "sudo", "cmake", "ctest"):
        with open(f"{folder}/{name}", "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\necho {name} >> {mark}\nexit 1\n")
        os.chmod(f"{folder}/{name}", 0o755)
    yield {"PATH": f"{folder}:{os.environ['PATH']}"}
    assert not os.path.exists(mark)


@pytest.mark.parametrize("option", ["-h", "--help"])
@pytest.mark.parametrize("name", ["quickstart.sh", "test.sh", "package.sh", "boot-test.sh", "package-test.sh", "coverage.sh",
                                  "in-private-mounts.sh", "ports.sh", "check.sh"])
def test_help_is_printed_and_nothing_else_happens(arena, untouched, name, option):
    result = run(f"{SCRIPTS}/{name}", option, folder=arena.folder, environment=untouched)
    assert (result.returncode, result.stderr) == (0, "")
    assert f"\n  {name} --help " in result.stdout
    assert not [line for line in result.stdout.splitlines() if line.startswith("#") or "set -eu" in line]


@pytest.mark.parametrize("arguments", [["--nonsense"], ["-x"], ["--full", "surplus"]])
@pytest.mark.parametrize("name", ["quickstart.sh", "test.sh", "package.sh", "coverage.sh", "ports.sh", "check.sh"])
def test_an_unknown_option_is_refused(arena, untouched, name, arguments):
    result = run(f"{SCRIPTS}/{name}", *arguments, folder=arena.folder, environment=untouched)
    assert (result.returncode, result.stdout) == (2, "")
    assert name in result.stderr and arguments[0] in result.stderr


# Private mounts

def in_private_mounts(*arguments):
    return [f"{SCRIPTS}/in-private-mounts.sh", *arguments]


@pytest.fixture
def listen(arena):
    """Makes a log socket of that name; returns its path and what gives the lines that have come."""
    sockets = []

    def make(name):
        receiver = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sockets.append(receiver)
        receiver.bind(arena.path(name))
        receiver.setblocking(False)

        def lines():
            found = []
            try:
                while True:
                    found.append(receiver.recv(65536).decode())
            except BlockingIOError:
                return found
        return arena.path(name), lines

    yield make
    for receiver in sockets:
        receiver.close()


def test_a_private_log_keeps_lines_from_the_machines_log(arena, listen):
    """The machine's is that of an outer namespace here."""
    machine, of_machine = listen("machine")
    own, of_own = listen("own")
    result = run(*in_private_mounts("--log", machine, "--"), *in_private_mounts("--log", own, "--"), *LOG_A_LINE,
                 folder=arena.folder)
    assert (result.returncode, result.stderr) == (0, "")
    assert of_machine() == []
    assert [line.endswith("a line") for line in of_own()] == [True]


def test_without_a_private_log_lines_go_to_the_machines_log(arena, listen):
    machine, of_machine = listen("machine")
    result = run(*in_private_mounts("--log", machine, "--"), *in_private_mounts("--"), *LOG_A_LINE, folder=arena.folder)
    assert (result.returncode, result.stderr) == (0, "")
    assert [line.endswith("a line") for line in of_machine()] == [True]
