"""What quarrowctl says of itself, and what its manual page and its completion say of it."""
import os
import re
import subprocess

import pytest

from checkout import project_version
from ctl import BINARY, Ctl
from quarrow_driver.waiting import BOUND

COMPLETION_PACKAGE = "/usr/share/bash-completion/bash_completion"
PACKAGING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging")
COMMANDS = ["status", "check", "find", "recent", "largest", "changes", "report", "rewalk", "units"]


@pytest.fixture
def ctl(arena):
    return Ctl(arena, [arena.volume()])


def read(name):
    with open(os.path.join(PACKAGING, name), encoding="utf-8") as file:
        return file.read()


def options_of(ctl, *command):
    """Every long option that the help lists, at the beginning of a line."""
    words = [line.split()[0] for line in ctl.good(*command, "--help").lines if line.startswith("  -")]
    return {option for word in words for option in re.findall(r"--[a-z][a-z-]*", word)}


def test_help_lists_the_commands(ctl):
    text = ctl.good("--help").text
    for command in COMMANDS:
        assert re.search(rf"^  {command} ", text, re.MULTILINE)


def manual_sections():
    """Text of each section of the manual under each command of its heading; that of the rest under None."""
    sections = {}
    for part in re.split(r"^\.S[HS] ", read("quarrowctl.1").replace("\\-", "-"), flags=re.MULTILINE):
        heading, _, text = part.partition("\n")
        names = [name for name in re.split(r"[, ]+", heading) if name in COMMANDS] or [None]
        for name in names:
            sections[name] = sections.get(name, "") + text
    return sections


@pytest.mark.parametrize("command", [None, *COMMANDS])
def test_every_option_is_in_the_manual(ctl, command):
    options = options_of(ctl, *filter(None, [command])) - ({"--help"} if command else set())
    assert options or command is None
    text = manual_sections()[command]
    assert {option for option in options if not re.search(rf"{option}\b", text)} == set()


def test_completion_knows_every_command(ctl):
    text = read("quarrowctl.bash-completion")
    assert f"compgen -W '{' '.join(COMMANDS)}'" in text
    assert f"        {' | '.join(COMMANDS)})\n" in text


def complete(*words):
    """What the completion offers for the last of these words, as the shell would have it below the completion package."""
    script = """
        . "$1" && . "$2" && [[ $(complete -p quarrowctl) == 'complete -F _quarrowctl quarrowctl' ]] || exit
        shift 2
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
        _quarrowctl "$1" "${COMP_WORDS[-1]}" "${COMP_WORDS[-2]}"
        (( ${#COMPREPLY[@]} == 0 )) || printf '%s\\n' "${COMPREPLY[@]}"
        exit 0"""
    shell = subprocess.run(["/bin/bash", "--norc", "-c", script, "bash", COMPLETION_PACKAGE,
                            os.path.join(PACKAGING, "quarrowctl.bash-completion"), BINARY, *words],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=BOUND, check=True)
    return shell.stdout.splitlines()


needs_completion_package = pytest.mark.skipif(not os.path.exists(COMPLETION_PACKAGE), reason="bash-completion is not installed")


@needs_completion_package
def test_completion_offers_commands_and_their_options(ctl):
    assert sorted(complete("")) == sorted(COMMANDS)
    assert complete("re") == ["recent", "report", "rewalk"]
    for command in COMMANDS:
        assert set(complete(command, "--")) == options_of(ctl, command), command
    assert complete("--conf") == ["--config"]
    assert complete("--config", "x.xml", "find", "--vol") == ["--volume"]
    assert complete("status", "--volume", "") == complete("find", "f") == []


@needs_completion_package
def test_completion_offers_values(arena):
    assert complete("find", "--category", "") == ["video", "audio", "image", "other"]
    assert complete("largest", "--category", "video,image,o") == ["video,image,other"]
    for name in ("host.xml", "notes.txt"):
        arena.write_config("", name)
    os.mkdir(arena.path("folder"))
    start = arena.path("")
    assert sorted(complete("--config", start)) == [arena.path(name) for name in ("folder", "host.xml", "notes.txt")]
    assert sorted(complete("check", start)) == [arena.path(name) for name in ("folder", "host.xml")]
    assert complete("find", "--under", start) == [arena.path("folder")]


def test_version_is_printed(ctl):
    assert ctl.good("--version").text == f"quarrowctl {project_version()}\n"


@pytest.mark.parametrize("arguments", [[], ["nonsense"], ["find", "--nonsense"], ["--config"], ["status", "surplus"]])
def test_wrong_arguments_are_refused(ctl, arguments):
    result = ctl.run(*arguments)
    assert result.status == 2
    assert "--help" in result.errors and result.text == ""


@pytest.mark.parametrize("command", [command for command in COMMANDS if command != "check"])
def test_a_configuration_is_not_waited_for(arena, ctl, command):
    """That of check is in its own tests."""
    os.mkfifo(arena.path("pipe"))
    for path in (arena.path("pipe"), "/dev/zero", "-"):
        result = ctl.run("--config", path, command)
        assert (result.status, result.text) == (2, "")
        assert result.errors.startswith(f"quarrowctl: {path}: This is no regular file: ")
        assert result.errors.endswith(" Write the configuration into a file.\n")


def test_a_configuration_that_is_not_there_is_named(ctl):
    for command in COMMANDS:
        result = ctl.run("--config", "/nowhere.xml", command)
        assert result.status == 2
        assert "/nowhere.xml" in result.errors + result.text
