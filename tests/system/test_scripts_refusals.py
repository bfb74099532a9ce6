"""The scripts of the checkout where something is missing: they say what and where, and leave nothing half-done."""
import os
import shlex
import shutil
import subprocess

import pytest

from checkout import CHECKOUT
from quarrow_driver.waiting import BOUND

STRANGE = "it's a \"check out\" $HOME; 100%"
needs_another_user = pytest.mark.skipif(os.geteuid() != 0, reason="only root can become another user")


class Workshop:
    """A copy of what the scripts need of the checkout, in a folder of a strange name, and programs that stand in for those
    which install and build. They note down that they ran."""

    def __init__(self, arena):
        self.checkout = arena.path(STRANGE)
        self.programs = arena.path("programs")
        self.notes = arena.path("notes")
        for name in ("scripts", "packaging", "data", "tests/boot"):
            shutil.copytree(f"{CHECKOUT}/{name}", f"{self.checkout}/{name}", ignore=shutil.ignore_patterns("__pycache__"))
        os.mkdir(self.programs)
        os.chmod(arena.folder, 0o755)
        self.stand_in("dpkg-query", "echo install ok installed")
        self.stand_in("apt-get", "exit 1")
        self.stand_in("dpkg-buildpackage", 'echo "$PWD" && touch left-over ../quarrow_2_all.deb')
        self.stand_in("dh", "rm left-over")

    def stand_in(self, name, commands):
        with open(f"{self.programs}/{name}", "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\necho {name} >>{self.notes}\n{commands}\n")
        os.chmod(f"{self.programs}/{name}", 0o755)

    def run(self, name, *arguments, path=None, **options):
        environment = {**os.environ, "PATH": path or f"{self.programs}:{os.environ['PATH']}", "LC_ALL": "C"}
        return subprocess.run([f"{self.checkout}/scripts/{name}", *arguments], env=environment, capture_output=True, text=True,
                              timeout=BOUND, check=False, cwd="/", **options)

    def what_ran(self):
        if not os.path.exists(self.notes):
            return []
        with open(self.notes, encoding="ascii") as file:
            return file.read().splitlines()


@pytest.fixture
def workshop(arena):
    return Workshop(arena)


# package.sh

@pytest.fixture
def target(arena):
    """A folder with a package of an earlier build."""
    folder = arena.path("it's the \"target\"")
    os.mkdir(folder)
    with open(f"{folder}/quarrow_1_all.deb", "w", encoding="ascii"):
        pass
    return folder


def test_a_package_takes_the_place_of_the_one_before(workshop, target):
    result = workshop.run("package.sh", target)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == f"{target}/quarrow_2_all.deb\n"
    assert os.listdir(target) == ["quarrow_2_all.deb"]
    assert sorted(os.listdir(workshop.checkout)) == ["data", "packaging", "scripts", "tests"]


def test_what_changes_in_the_checkout_meanwhile_does_not_matter(workshop, target):
    changed = f"{workshop.checkout}/data/new"
    workshop.stand_in("dpkg-buildpackage", f"touch left-over ../quarrow_2_all.deb {shlex.quote(changed)}")
    result = workshop.run("package.sh", target)
    assert (result.returncode, os.listdir(target)) == (0, ["quarrow_2_all.deb"])
    assert os.path.exists(changed)


def test_without_a_folder_it_goes_into_the_build_folder(workshop):
    result = workshop.run("package.sh")
    assert (result.returncode, result.stderr) == (0, "")
    assert os.listdir(f"{workshop.checkout}/build/package") == ["quarrow_2_all.deb"]


@pytest.mark.parametrize("program, commands, message", [
    ("dpkg-buildpackage", "echo the compiler is not pleased; touch ../quarrow_2_all.deb; exit 3", "the compiler is not pleased"),
    ("dpkg-buildpackage", "touch left-over", "quarrow*.deb"),
    ("dh", "echo cannot clean; exit 1", "cannot clean"),
    ("dh", "exit 0", "'debian/rules clean' does not leave the source as it was")])
def test_a_build_that_fails_leaves_the_package_before(workshop, target, program, commands, message):
    workshop.stand_in(program, commands)
    result = workshop.run("package.sh", target)
    assert result.returncode != 0 and message in result.stderr
    assert os.listdir(target) == ["quarrow_1_all.deb"]


@pytest.mark.parametrize("place", ["/proc/no", "/proc", "/dev/null"])
def test_a_target_that_cannot_be_written_is_named_before_the_build(workshop, place):
    result = workshop.run("package.sh", place)
    assert result.returncode != 0 and place in result.stderr
    assert "dpkg-buildpackage" not in workshop.what_ran()


# What needs root

@needs_another_user
@pytest.mark.parametrize("name", ["boot-test.sh", "package-test.sh"])
def test_only_root_is_told_before_anything_is_done(workshop, name):
    result = workshop.run(name, user=65534, group=65534, extra_groups=[])
    assert (result.returncode, result.stdout) == (1, "")
    assert f"{name}: only root can" in result.stderr
    assert workshop.what_ran() == []


# Missing packages

def bare_path(arena, *names):
    """A PATH with these programs of the machine alone."""
    folder = arena.path("bare")
    os.mkdir(folder)
    for name in names:
        os.symlink(shutil.which(name), f"{folder}/{name}")
    return folder


def test_a_machine_without_apt_is_told_what_is_wanted(arena, workshop):
    path = bare_path(arena, "sh", "dirname", "readlink", "grep", "id", "sed")
    result = workshop.run("package.sh", path=path)
    assert result.returncode == 1 and result.stdout == ""
    assert "there is no apt-get" in result.stderr and "debhelper" in result.stderr
    assert not os.path.exists(f"{workshop.checkout}/build")


@needs_another_user
def test_a_user_without_sudo_is_told_what_root_has_to_do(arena, workshop):
    workshop.stand_in("dpkg-query", "exit 1")
    with open(workshop.notes, "w", encoding="ascii"):
        pass
    os.chmod(workshop.notes, 0o666)
    path = f"{workshop.programs}:{bare_path(arena, 'sh', 'dirname', 'readlink', 'grep', 'id', 'sed')}"
    result = workshop.run("package.sh", path=path, user=65534, group=65534, extra_groups=[])
    assert result.returncode == 1
    assert "As root: apt-get install g++" in result.stderr
    assert "apt-get" not in workshop.what_ran()


def test_an_installation_that_fails_ends_the_script(workshop, target):
    workshop.stand_in("dpkg-query", "exit 1")
    workshop.stand_in("apt-get", "echo no registry can be reached >&2; exit 100")
    workshop.stand_in("sudo", 'exec "$@"')
    result = workshop.run("package.sh", target)
    assert result.returncode == 100 and "no registry can be reached" in result.stderr
    assert os.listdir(target) == ["quarrow_1_all.deb"] and "dpkg-buildpackage" not in workshop.what_ran()


# in-private-mounts.sh

@pytest.mark.parametrize("arguments, message", [
    ([], "there is no command to run"),
    (["--"], "there is no command to run"),
    (["--log"], "--log wants a path"),
    (["--nonsense", "--", "true"], "there is no option --nonsense"),
    (["--log", "relative", "--", "true"], "the log socket relative is not an absolute path")])
def test_private_mounts_refuse_what_they_cannot_do(workshop, arguments, message):
    result = workshop.run("in-private-mounts.sh", *arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert message in result.stderr


@pytest.mark.parametrize("table", ["/nowhere/it's \"gone\".txt", "/tmp"])
def test_private_mounts_name_a_table_that_is_missing(workshop, table):
    result = workshop.run("in-private-mounts.sh", "--mime-types", table, "--", "echo", "ran")
    assert (result.returncode, result.stdout) == (1, "")
    assert f"the MIME table {table} cannot be read" in result.stderr


def test_private_mounts_do_not_wait_for_a_pipe(arena, workshop):
    os.mkfifo(arena.path("pipe"))
    result = workshop.run("in-private-mounts.sh", "--mime-types", arena.path("pipe"), "--", "echo", "ran")
    assert (result.returncode, result.stdout) == (1, "") and "cannot be read" in result.stderr


def test_private_mounts_without_a_table(workshop):
    result = workshop.run("in-private-mounts.sh", "--mime-types", "/dev/null", "--", "wc", "-c", "/usr/local/quarrow/mime_types.txt")
    assert (result.returncode, result.stderr) == (0, "") and result.stdout.startswith("0 ")


def test_private_mounts_work_in_a_folder_of_any_name(workshop):
    result = workshop.run("in-private-mounts.sh", "--", "sh", "-c", "cat /usr/local/quarrow/mime_types.txt; ls -A /tmp")
    with open(f"{CHECKOUT}/data/mime_types.txt", encoding="utf-8") as table:
        assert (result.returncode, result.stderr) == (0, "") and result.stdout.startswith(table.read())


# quickstart.sh

def test_quickstart_names_a_folder_that_it_cannot_use(workshop):
    for folder, message in (("/proc/no \"such\" folder", "There is no folder"), ("/dev/null", "is not a folder")):
        result = workshop.run("quickstart.sh", folder)
        assert result.returncode == 1 and folder in result.stderr and message in result.stderr
    assert workshop.what_ran() == []


def test_quickstart_in_a_folder_in_which_cmake_cannot_build(workshop):
    """CMakeLists.txt says so: it is all that CMake gets to see."""
    for name in ("CMakeLists.txt", "CMakePresets.json"):
        shutil.copy(f"{CHECKOUT}/{name}", workshop.checkout)
    result = workshop.run("quickstart.sh")
    assert result.returncode == 1
    assert "CMake cannot build below a folder with a double quote" in " ".join(result.stderr.split())
