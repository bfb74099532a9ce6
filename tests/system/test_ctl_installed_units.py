"""The units, the generator and what else systemd reads, as an installation from source has them; without booting any."""
import json
import os
import re
import shutil
import subprocess

import pytest

from checkout import CHECKOUT
from ctl import BINARY, Ctl
from daemon import BINARY as DAEMON
from daemon import sanitizer_options
from harness import configuration
from quarrow_driver.waiting import BOUND

PACKAGING = os.path.join(CHECKOUT, "packaging/systemd")
UNITS = ("quarrow.service", "quarrow-rewalk.service", "quarrow-rewalk.timer")
#: Where systemd looks for it below the prefix.
INSTALLED = {"lib/systemd/system/quarrow.service", "lib/systemd/system/quarrow-rewalk.service",
             "lib/systemd/system/quarrow-rewalk.timer", "lib/systemd/system-generators/quarrow-generator",
             "lib/systemd/journald@quarrow.conf.d/30-quarrow.conf", "lib/sysctl.d/30-quarrow.conf", "lib/sysusers.d/quarrow.conf",
             "lib/tmpfiles.d/quarrow.conf", "lib/quarrow/quarrow-check"}

needs_systemd = pytest.mark.skipif(shutil.which("systemd-analyze") is None, reason="systemd is not installed")


def run(*command, environment=None):
    return subprocess.run(command, env={**os.environ, **sanitizer_options(), **(environment or {})}, capture_output=True,
                          text=True, timeout=BOUND, check=False)


def run_cmake(arena, script, prefix, environment=None):
    return run("cmake", f"-DCMAKE_INSTALL_PREFIX={prefix}", f"-Dmade={arena.path('made')}", "-P", f"{PACKAGING}/{script}",
               environment=environment)


def files_below(folder):
    return {os.path.relpath(os.path.join(place, name), folder) for place, _, names in os.walk(folder) for name in names}


class Installation:
    """The units below a prefix of their own, with the programs that they name."""

    def __init__(self, arena):
        self.arena = arena
        self.prefix = arena.path("prefix")
        result = run_cmake(arena, "install.cmake", self.prefix)
        assert (result.returncode, result.stderr) == (0, "")
        for program, folder, name in ((DAEMON, "sbin", "quarrow"), (BINARY, "bin", "quarrowctl")):
            os.mkdir(f"{self.prefix}/{folder}")
            os.symlink(program, f"{self.prefix}/{folder}/{name}")

    def generate(self, config=None):
        """Runs the generator on a machine with that configuration, or none."""
        etc, out = self.arena.path("etc"), self.arena.path("generated")
        os.makedirs(f"{etc}/quarrow")
        os.mkdir(out)
        if config is not None:
            self.arena.write_config(config, f"{etc}/quarrow/quarrow-host.xml")
        generator = f"{self.prefix}/lib/systemd/system-generators/quarrow-generator"
        script = ("import json, subprocess, sys\n"
                  "done = subprocess.run([sys.argv[1], *[sys.argv[2]] * 3], capture_output=True, text=True)\n"
                  "print(json.dumps([done.returncode, done.stdout, done.stderr]))")
        return out, json.loads(self.arena.run_python(script, generator, out, binds=[(etc, "/etc")]))

    def verify(self, *folders):
        """What systemd finds wrong with the units, with drop-ins from these folders."""
        path = ":".join([*folders, f"{self.prefix}/lib/systemd/system", ""])  # and where it looks otherwise
        result = run("systemd-analyze", "verify", "--man=no", *UNITS, environment={"SYSTEMD_UNIT_PATH": path})
        return result.stdout + result.stderr


@pytest.fixture
def installation(arena):
    return Installation(arena)


def test_everything_is_where_systemd_looks(installation):
    assert files_below(installation.prefix) - {"sbin/quarrow", "bin/quarrowctl"} == INSTALLED
    for name in INSTALLED:
        mode = 0o755 if name.endswith(("generator", "check")) else 0o644
        assert os.stat(f"{installation.prefix}/{name}").st_mode & 0o777 == mode, name


def test_the_programs_are_those_of_the_prefix(installation):
    for name in INSTALLED:
        with open(f"{installation.prefix}/{name}", encoding="utf-8") as file:
            text = file.read()
        assert not re.search("/usr/(sbin/quarrow|bin/quarrowctl|lib/quarrow)", text), name
        assert (f"{installation.prefix}/bin/quarrowctl" in text) == name.endswith(("check", "generator")), name
        assert (f"{installation.prefix}/lib/quarrow/quarrow-check" in text) == name.endswith("quarrow.service"), name


def test_a_package_is_built_below_destdir(arena):
    tree = arena.path("tree")
    result = run_cmake(arena, "install.cmake", "/nowhere/usr", {"DESTDIR": tree})
    assert (result.returncode, result.stderr) == (0, "")
    assert files_below(f"{tree}/nowhere/usr") == INSTALLED and not os.path.exists("/nowhere")
    with open(f"{tree}/nowhere/usr/lib/systemd/system/quarrow.service", encoding="utf-8") as file:
        assert "\nExecStart=/nowhere/usr/sbin/quarrow\n" in file.read()


@pytest.mark.parametrize("prefix", ["/opt/two words", "/opt/it's", '/opt/"quoted"', "/opt/50%", "/opt/$HOME", "relative", ""])
def test_a_prefix_that_no_unit_can_name_is_refused(arena, prefix):
    result = run_cmake(arena, "check_prefix.cmake", prefix)
    assert result.returncode == 1
    assert f"programs below '{prefix}'" in result.stderr.replace("\n  ", " ")


@pytest.mark.parametrize("prefix", ["/usr", "/usr/local", "/opt/quarrow-1.0+x_y"])
def test_an_ordinary_prefix_is_taken(arena, prefix):
    assert run_cmake(arena, "check_prefix.cmake", prefix).returncode == 0


def test_what_can_be_refused_comes_before_anything_is_installed():
    """The prefix, and the folder of the MIME table, which lies outside it."""
    with open(f"{CHECKOUT}/CMakeLists.txt", encoding="utf-8") as file:
        text = file.read()
    assert text.index("check_prefix.cmake") < text.index("install_mime_table.cmake") < text.index("add_subdirectory(src)")
    assert text.index("install(") == text.index("install(SCRIPT packaging/systemd/check_prefix.cmake)")


@needs_systemd
def test_systemd_finds_nothing_wrong(installation):
    assert installation.verify() == ""


@needs_systemd
def test_systemd_would_find_something(installation):
    """Which shows that it reads these units and drop-ins."""
    os.makedirs(installation.arena.path("wrong/quarrow.service.d"))
    with open(installation.arena.path("wrong/quarrow.service.d/wrong.conf"), "w", encoding="ascii") as file:
        file.write("[Service]\nNoSuchSetting=1\n")
    assert "NoSuchSetting" in installation.verify(installation.arena.path("wrong"))
    os.unlink(f"{installation.prefix}/sbin/quarrow")
    assert f"Command {installation.prefix}/sbin/quarrow is not executable" in installation.verify()


@needs_systemd
def test_nor_with_the_volumes_of_a_configuration(installation):
    volumes = [installation.arena.volume(name) for name in ("Plain", "two words", "\"quotes\" it's", "100% $HOME; # \\x")]
    out, (status, text, errors) = installation.generate(configuration(volumes))
    assert (status, text, errors) == (0, "", "")
    assert files_below(out) == {"quarrow.service.d/50-volumes.conf"}
    with open(f"{out}/quarrow.service.d/50-volumes.conf", encoding="utf-8") as file:
        assert file.read().count("\nRequiresMountsFor=") == 1 + len(volumes)
    assert installation.verify(out) == ""


# The check before a start

def checked(installation, config, *arguments, **environment):
    """The status, and the lines as journald gets them."""
    path = installation.arena.path("checked.xml")
    installation.arena.write_config(config, path)
    result = run(f"{installation.prefix}/lib/quarrow/quarrow-check", *arguments,
                 environment={"QUARROW_CONFIG_FILE": path, **environment})
    return result.returncode, (result.stdout + result.stderr).splitlines()


def test_a_start_needs_the_volumes_named_and_a_reload_names_them(installation):
    config = configuration([installation.arena.volume("V")])
    status, lines = checked(installation, config, "start", QUARROW_VOLUMES_NAMED="yes")
    assert status == 0 and {line[:3] for line in lines} == {"<4>"}  # the volume is catalogued whole
    assert checked(installation, config, "reload") == (0, lines)
    for arguments in (["start"], []):
        status, found = checked(installation, config, *arguments)
        assert (status, found[:-1]) == (2, lines)
        assert found[-1].startswith("<3>quarrow.service: No drop-in names the volumes")


@pytest.mark.parametrize("action", ["start", "reload"])
def test_a_refusal_has_the_priority_of_an_error(installation, action):
    status, lines = checked(installation, "<Quarrow></Quarrow>", action, QUARROW_VOLUMES_NAMED="yes")
    assert status == 2
    assert lines and all(line.startswith("<3>") for line in lines) and "refused: " in lines[0]


def test_a_name_with_backslashes_is_logged_as_it_is(installation):
    _, lines = checked(installation, configuration([installation.arena.volume("a\\tb\\c")]), "reload")
    assert "<4>Volume 'a\\tb\\c'" in lines
    assert any(line.endswith("/a\\tb\\c") for line in lines)


# The generator

def test_the_generator_writes_what_the_command_prints(arena, installation):
    volume = arena.volume("V")
    out, result = installation.generate(configuration([volume]))
    assert result == [0, "", ""]
    printed = Ctl(arena, [volume]).good("units").text
    with open(f"{out}/quarrow.service.d/50-volumes.conf", encoding="utf-8") as file:
        generated = file.read()
    assert [line for line in generated.splitlines() if volume.root in line] == \
        [line for line in printed.splitlines() if volume.root in line]
    assert "\nSourcePath=/etc/quarrow/quarrow-host.xml\n" in generated


def test_without_a_configuration_there_is_no_drop_in(installation):
    out, result = installation.generate()
    assert result == [0, "", ""] and os.listdir(out) == []


def test_a_refused_configuration_gives_no_drop_in_and_its_reason(installation):
    out, (status, text, errors) = installation.generate("<Quarrow></Quarrow>")
    assert status != 0 and text == ""
    assert "/etc/quarrow/quarrow-host.xml" in errors
    assert files_below(out) == set()


def test_a_missing_quarrowctl_is_named(arena, installation):
    os.unlink(f"{installation.prefix}/bin/quarrowctl")
    out, (status, _, errors) = installation.generate(configuration([arena.volume("V")]))
    assert status != 0 and f"{installation.prefix}/bin/quarrowctl" in errors
    assert files_below(out) == set()
