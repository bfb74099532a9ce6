"""quarrowctl check: what it says of a configuration is what the daemon does with it."""
import glob
import os
import subprocess
import tempfile

from ctl import Ctl, Result
from daemon import HERE, has_address_sanitizer, sandbox_command
from harness import configuration, in_a_user_namespace
from lines import err, info
from quarrow_driver.waiting import BOUND
from test_start import UNPARSEABLE, WITHOUT_MESSAGE

CORPUS = os.path.join(HERE, "../fuzz/corpus/host_configuration")
BANNER = info("================\n")
REJECTED = err("Failed in reading the config file\n")


def good_volume(arena, name="Volume1", **settings):
    volume = arena.volume(name, exclude=["/.quarrow"], **settings)
    volume.make_file("/Music/a.mp3", b"x")
    return volume


def is_refused(daemon):
    """Whether the daemon has ended at once, as it does with what it refuses; else ends it."""
    daemon.wait_log(lambda lines: REJECTED in lines or sum("pthread_sigmask" in line.text for line in lines) >= 2, "an outcome")
    if REJECTED in daemon.lines:
        assert daemon.wait_exit() == 0
        return True
    daemon.stop()
    return False


def test_a_good_configuration(arena):
    volume = good_volume(arena)
    ctl = Ctl(arena, [volume])
    assert ctl.good("check").lines == [
        "Volume 'Volume1'",
        f"    root        {volume.folder}",
        "    crawl path  the whole volume",
        "    exclusion   /.quarrow",
        "Deleted rows are kept for 1,073,741,823 seconds.",
        f"{ctl.config}: The daemon accepts this configuration.",
    ]
    assert ctl.good("check", "--json").json() == {
        "configuration": ctl.config, "accepted": True, "purge_threshold": 1073741823,
        "volumes": [{"name": "Volume1", "root": volume.folder, "line": 2, "crawl_paths": [],
                     "exclusions": [{"text": "/.quarrow", "line": 2}]}],
        "findings": [], "findings_omitted": 0}
    assert os.listdir(volume.folder) == ["Music"]  # nothing was made


def test_the_configuration_is_found_in_this_order(arena):
    """The argument, then --config, then the environment, then the daemon's own place."""
    ctl = Ctl(arena, [good_volume(arena)])
    elsewhere = arena.write_config("<x/>", "elsewhere.xml")
    assert ctl.run("check", elsewhere, "--config", ctl.config).status == 2
    assert ctl.run("--config", elsewhere, "check", ctl.config).status == 0
    assert ctl.run("--config", elsewhere, "check").status == 2
    assert ctl.run("check").status == 0
    missing = subprocess.run(ctl.command("check", environment={"QUARROW_CONFIG_FILE": ""}), capture_output=True, text=True,
                             timeout=BOUND, check=False)
    assert (missing.returncode, missing.stderr) == (2, "")
    assert missing.stdout == ("QUARROW_CONFIG_FILE: refused: It is set, but empty. Name another one, as the argument, with"
                              " --config or by QUARROW_CONFIG_FILE.\n'': The daemon refuses this configuration.\n")
    without = ctl.command("check")
    settings = without[-1].replace('"QUARROW_CONFIG_FILE"', '"SOMETHING_ELSE"')
    default = Result(subprocess.run([*without[:-1], settings], capture_output=True, timeout=BOUND, check=False))
    assert default.status == 2
    assert default.lines[-1] == "/CacheVolume/.quarrow/quarrow-host.xml: The daemon refuses this configuration."


def test_the_daemon_refuses_what_check_refuses_and_takes_the_rest(arena):
    volume = good_volume(arena)
    good = configuration([volume])
    texts = {**WITHOUT_MESSAGE, **UNPARSEABLE,
             "odd, but taken": good.replace("<Version>1.0", "<!-- 1 --><Version><![CDATA[1]]>"),
             "commented out": good.replace("<Volumes>", "<!--").replace("</Volumes>", "-->"),
             "good": good}
    runs = []
    for case, text in texts.items():
        ctl = Ctl(arena, [], config=text.replace("{root}", volume.folder))
        result = ctl.run("check")
        assert (case, result.errors) == (case, "")
        runs.append((case, result, arena.start(environment={"QUARROW_CONFIG_FILE": ctl.config})))
    taken = []
    for case, result, daemon in runs:
        refused = is_refused(daemon)
        assert (case, result.status == 2) == (case, refused)
        assert (case, result.lines[-1].endswith("The daemon refuses this configuration.")) == (case, refused)
        assert (case, any(": refused: " in line for line in result.lines)) == (case, refused)
        if not refused:
            taken.append(case)
    assert taken == ["odd, but taken", "good"]


def test_known_inputs_of_the_fuzzer(arena):
    """Their volumes lie anywhere on the machine, so that no daemon is started on what is accepted."""
    refused = set()
    for path in glob.glob(f"{CORPUS}/*"):
        with open(path, "rb") as file:
            result = Ctl(arena, [], config=file.read()).run("check", "--json")
        assert result.errors == ""
        assert result.status == (1 if result.json()["accepted"] else 2)
        if result.status == 2:
            refused.add(os.path.basename(path))
            with open(path, "rb") as file:
                daemon = arena.start(config=file.read())
            assert daemon.wait_exit() == 0
            assert REJECTED in daemon.lines
    assert refused == {"empty", "entities.xml", "no-volume.xml", "not-xml.txt"}


def test_a_warning_has_file_line_reason_and_remedy(arena):
    volume = good_volume(arena)
    gone = arena.path("gone")
    ctl = Ctl(arena, [], config=configuration([volume]).replace(
        "<Volumes>", f"<Volumes>\n<Volume><Name>a\n\u009b[2J</Name><Root>{gone}</Root><ExcludePath/></Volume>\n"))
    reasons = [
        (4, "The daemon knows no element <ExcludePath> and passes over it", "Did you mean <ExcludePaths>? Upper and lower case"
                                                                            " differ"),
        (4, f"The root '{gone}' of the volume 'a\n\u009b[2J' is missing: the daemon would make it and catalogue it empty",
         "Mount the volume before the daemon starts, or correct the path"),
        (4, "The volume 'a\n\u009b[2J' is catalogued whole, without the exclusion '/.quarrow'. The daemon catalogues and watches"
            " its own catalogue, and programs that open it delay the changes of all volumes",
         "Write <ExcludePaths><Path>/.quarrow</Path></ExcludePaths> into it"),
    ]
    result = ctl.run("check", "--json")
    assert (result.status, result.errors) == (1, "")
    assert result.json()["findings"] == [
        {"kind": "warning", "subject": ctl.config, "line": line, "reason": reason, "remedy": remedy}
        for line, reason, remedy in reasons]
    assert not os.path.exists(gone)
    shown = ctl.run("check")
    assert shown.status == 1
    assert shown.lines[-4:] == [
        *(f"{ctl.config}:{line}: warning: {reason}. {remedy}.".replace("\n", "\\n").replace("\u009b", "\\xc2\\x9b")
          for line, reason, remedy in reasons),
        f"{ctl.config}: The daemon accepts this configuration, with 3 warnings."]


def test_what_the_daemon_makes_of_a_nested_volume_and_an_exclusion(arena):
    """The two warnings whose rules are the daemon's own: nothing of the one is catalogued, and the other one is silent."""
    outer = good_volume(arena, "Outer")
    inner = good_volume(arena, "Inner", folder="Outer/Inner")
    emptied = arena.volume("Emptied", exclude=["Emptied", "/.quarrow"])
    emptied.make_file("/a.mp3", b"x")
    ctl = Ctl(arena, [outer, inner, emptied])
    warnings = [finding["reason"] for finding in ctl.run("check", "--json").json()["findings"]]
    assert [text.split(" '")[0] for text in warnings] == ["The volume", "The exclusion"]
    daemon = arena.start([outer, inner, emptied])
    daemon.wait_walks(3)
    daemon.stop()
    assert emptied.catalogue.live() == set()
    assert "/Inner/Music/a.mp3" in outer.catalogue.live() and "/Music/a.mp3" in inner.catalogue.live()


# The machine

def run_limited(ctl, **limits):
    """In a user namespace with limits of its own."""
    command = sandbox_command(ctl.arena, tempfile.mkdtemp(dir=ctl.arena.folder),
                              [os.environ["QUARROWCTL_BINARY"], "check", "--json"], log=None,
                              environment={"QUARROW_CONFIG_FILE": ctl.config}, user_limits=limits)
    return Result(subprocess.run(command, capture_output=True, timeout=BOUND, check=False))


@in_a_user_namespace
def test_inotify_limits(arena):
    volume = good_volume(arena)
    volume.make_folder(*(f"/{number}" for number in range(50)))
    ctl = Ctl(arena, [volume])
    daemon = arena.start([volume])
    daemon.wait_walks()
    watches = run_limited(ctl, max_inotify_watches=40).json()["findings"]
    assert [(finding["subject"], finding["reason"].split(".")[0]) for finding in watches] == [
        ("user.max_inotify_watches",
         "The catalogues list 52 folders, but a user may have only 40 watches")]  # the root, Music and the 50
    assert run_limited(ctl, max_inotify_watches=52).json()["findings"] == []
    instances = run_limited(ctl, max_inotify_instances=0)
    assert instances.status == 1
    [finding] = instances.json()["findings"]
    assert finding["subject"] == "fs.inotify.max_user_instances"
    assert finding["reason"].startswith("This user has no inotify instance left of ")
    daemon.stop_without_errors()


def test_standby_and_a_missing_mime_table(arena):
    ctl = Ctl(arena, [good_volume(arena)], mime_table=None)
    command = ctl.command("check", "--json")
    folder = command[-1].split('"tmp": "')[1].split('"')[0]
    with open(f"{folder}/standby", "w", encoding="ascii"):
        pass
    result = Result(subprocess.run(command, capture_output=True, timeout=BOUND, check=False))
    assert [finding["subject"] for finding in result.json()["findings"]] == ["/usr/local/quarrow/mime_types.txt", "/tmp/standby"]
    assert result.status == 1


# Input that is meant to harm

def test_files_that_are_none(arena):
    ctl = Ctl(arena, [good_volume(arena)])
    os.mkfifo(arena.path("pipe"))
    for path, reason in {arena.folder: "It cannot be read: Is a directory",
                         arena.path("missing"): "It cannot be read: No such file or directory"}.items():
        result = ctl.run("check", path)
        assert (path, result.status, result.errors) == (path, 2, "")
        assert result.lines[0].startswith(f"{path}: refused: {reason}")
    pipe = ctl.run("check", arena.path("pipe"))
    assert (pipe.status, pipe.errors) == (2, "")  # the daemon would read what somebody writes into it
    assert pipe.lines[0].startswith(f"{arena.path('pipe')}: not checked: This is no regular file")
    assert pipe.lines[1:] == [f"{arena.path('pipe')}: This configuration was not checked."]
    unchecked = ctl.run("check", arena.path("pipe"), "--json")
    assert unchecked.json()["accepted"] is None
    assert [finding["kind"] for finding in unchecked.json()["findings"]] == ["unchecked"]
    assert ctl.good("check", f"file://{ctl.config}").lines[-1] == f"file://{ctl.config}: The daemon accepts this configuration."


def test_an_ordinary_user(arena):
    """May check what it may read; what it may not is said."""
    hidden = good_volume(arena, "Hidden", folder="Closed/Hidden")
    ctl = Ctl(arena, [good_volume(arena), hidden], user=12345)
    os.chmod(arena.path("Closed"), 0o700)
    result = ctl.run("check", "--json")
    assert (result.status, result.errors) == (1, "")
    assert [finding["reason"] for finding in result.json()["findings"]] == [
        f"The root '{hidden.folder}' of the volume 'Hidden' cannot be looked at: Permission denied"]
    os.chmod(ctl.config, 0o600)
    refused = ctl.run("check")
    assert refused.status == 2
    assert refused.lines[0].startswith(f"{ctl.config}: refused: It cannot be read: Permission denied. ")


def test_a_large_configuration_needs_little(arena):
    """It is the daemon's tree that takes the room."""
    volume = good_volume(arena)
    text = configuration([volume]).replace("<Volumes>", "<x>y</x>\n" * 100_000 + "<Volumes>")
    ctl = Ctl(arena, [], config=text)
    with open(arena.path("output"), "w+b") as output:
        process = subprocess.Popen(ctl.command("check"), stdout=output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        output.seek(0)
        lines = output.read().decode().splitlines()
    assert process.returncode == 1
    assert lines[-2:] == ["There are 99,000 further warnings.",
                          f"{ctl.config}: The daemon accepts this configuration, with 100,000 warnings."]
    assert usage.ru_maxrss < 100_000 or has_address_sanitizer()  # KiB
