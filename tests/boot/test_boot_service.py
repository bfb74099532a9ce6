"""What systemd makes of the daemon: started, refused, restarted, reloaded, not mounted."""
import pytest

from appliance import CONFIGURATION, configuration
from machine import wait_for

FAST = "[Service]\nRestartSec=100ms\n"  # ten seconds, shortened


@pytest.fixture
def media(appliance):
    appliance.make_folder("/srv/media")
    appliance.configure(configuration("/srv/media"))
    return appliance


def test_a_volume_is_catalogued_and_the_machine_is_well(media):
    media.good("touch", "/srv/media/song.mp3")
    media.start()
    query = "select path from Files where is_deleted = 0"
    assert "/song.mp3" in media.good("sqlite3", "-readonly", "/srv/media/.quarrow/quarrow.db", query).splitlines()
    assert media.good("systemctl", "--failed", "--quiet", "--no-legend").strip() == ""
    assert "running" in media.good("quarrowctl", "--config", "/etc/quarrow/quarrow-host.xml", "status")
    media.good("systemctl", "stop", "quarrow.service")
    assert media.property("Result") == "success"
    assert media.log("--priority=err") == []


@pytest.mark.parametrize("signal", ["HUP", "INT", "KILL"])
def test_it_comes_back(media, signal):
    media.drop_in("fast", FAST)
    media.start()
    before = media.process()
    media.good("systemctl", "kill", "--kill-whom=main", f"--signal={signal}", "quarrow.service")
    wait_for(lambda: media.process() not in (0, before), "another process")
    media.wait_state("active")
    wait_for(lambda: media.property("ActiveState", "quarrow-rewalk.timer") == "active", "the timer")


def test_a_sigterm_is_a_stop(media):
    media.drop_in("fast", FAST)
    media.start()
    media.good("systemctl", "kill", "--kill-whom=main", "--signal=TERM", "quarrow.service")
    media.wait_state("inactive")
    assert (media.property("Result"), media.property("NRestarts")) == ("success", "0")


def test_a_refused_configuration_is_a_failed_start_with_its_reason(appliance):
    appliance.drop_in("fast", FAST)
    appliance.configure(configuration("/srv/media", version=""))
    assert appliance.run("systemctl", "start", "quarrow.service").status == 1
    assert (appliance.state(), appliance.property("SubState"), appliance.property("NRestarts")) == ("failed", "failed", "0")
    reason = "/etc/quarrow/quarrow-host.xml: refused: There is no <Version> with a text"
    wait_for(lambda: reason in appliance.run("systemctl", "status", "--no-pager", "--full", "quarrow.service").text, "the reason")
    kept = ("journalctl", "--identifier=quarrow-check", "--quiet", "--output=cat", "--since", appliance.since)
    wait_for(lambda: reason in appliance.good(*kept), "the reason in the machine's journal")


def test_nothing_is_walked_before_systemd_knows_the_volumes(appliance):
    """Whoever forgets the daemon-reload would have an unmounted volume walked as an empty one."""
    appliance.make_folder("/srv/unknown")
    appliance.machine.write(CONFIGURATION, configuration("/srv/unknown"))
    assert appliance.run("systemctl", "start", "quarrow.service").status == 1
    assert appliance.good("ls", "-A", "/srv/unknown") == ""
    appliance.wait_log("Run 'systemctl daemon-reload'")
    appliance.good("systemctl", "daemon-reload")
    appliance.start()


def test_warnings_do_not_keep_it_from_starting(media):
    media.configure(configuration("/srv/media", excluded="/nothing"))
    media.start()
    media.wait_log("warning: The volume 'Volume0' is catalogued whole")


def test_a_daemon_that_cannot_run_is_not_started_for_ever(media):
    media.drop_in("fast", FAST + "SystemCallFilter=~inotify_init inotify_init1\n")
    media.good("systemctl", "start", "quarrow.service")
    # Between two tries it is failed for a moment, too. How many there are also depends on former starts.
    wait_for(lambda: "quarrow.service: Start request repeated too quickly." in media.unit_log(), "the end of all tries")
    assert media.state() == "failed"


def test_reload_restarts_with_a_good_configuration_and_refuses_a_bad_one(media):
    media.start()
    before = media.process()
    media.machine.write("/etc/quarrow/quarrow-host.xml", configuration("/srv/media", version=""))
    assert media.run("systemctl", "reload", "quarrow.service").status == 1
    media.wait_log("refused: There is no <Version>")
    assert (media.state(), media.process()) == ("active", before)
    media.make_folder("/srv/more")
    media.machine.write("/etc/quarrow/quarrow-host.xml", configuration("/srv/media", "/srv/more"))
    media.good("systemctl", "reload", "quarrow.service")
    wait_for(lambda: media.run("test", "-s", "/srv/more/.quarrow/quarrow.db").status == 0, "the new volume's catalogue")
    assert media.process() != before


def test_a_volume_that_is_not_mounted_is_not_walked(appliance):
    appliance.make_folder("/srv/absent")
    appliance.machine.write("/etc/fstab", "absent /srv/absent nosuchfs noauto 0 0\n")
    try:
        appliance.configure(configuration("/srv/absent"))
        assert appliance.run("systemctl", "start", "quarrow.service").status == 1
        assert appliance.state() == "inactive"
        assert appliance.good("ls", "-A", "/srv/absent") == ""
        appliance.machine.write("/etc/fstab", "tmpfs /srv/absent tmpfs noauto 0 0\n")
        appliance.good("systemctl", "daemon-reload")
        appliance.start()
        appliance.good("mountpoint", "/srv/absent")
        assert appliance.good("ls", "-A", "/srv/absent") == ".quarrow\n"
    finally:
        appliance.run("systemctl", "stop", "quarrow.service")
        appliance.run("umount", "/srv/absent")
        appliance.machine.write("/etc/fstab", "")


def test_a_large_folder_that_vanishes_is_marked_deleted(media):
    """What SQLite keeps aside for that has a place, though /tmp cannot be written."""
    media.good("sh", "-c", "mkdir -p /srv/media/large; cd /srv/media/large; touch $(seq --format=%g.mp3 5000)")
    media.start()
    media.good("systemctl", "stop", "quarrow.service")
    media.good("rm", "-r", "/srv/media/large")
    media.good("systemctl", "start", "quarrow.service")
    count = "select count(*) from Files where is_deleted = 1"
    wait_for(lambda: media.good("sqlite3", "-readonly", "/srv/media/.quarrow/quarrow.db", count) == "5000\n", "5,000 deleted rows")
    media.good("systemctl", "stop", "quarrow.service")
    assert media.log("--priority=err") == []


def test_volumes_with_strange_names_are_mounted_and_written(appliance):
    roots = ["/srv/with \"quotes\" 'and' blanks", "/srv/back\\slash 100% $HOME; # x", "/srv/tab\there ü"]
    for root in roots:
        appliance.make_folder(root)
    appliance.configure(configuration(*roots))
    appliance.start()
    for root in roots:
        appliance.good("test", "-s", f"{root}/.quarrow/quarrow.db")
    assert appliance.property("ProtectSystem") == "strict"
    assert not any("read-only" in line for line in appliance.log())


def test_a_walk_is_asked_for_but_not_in_standby(media):
    media.start()
    media.good("systemctl", "start", "quarrow-rewalk.service")
    media.wait_log("^We received a wake up message from the signal handler")
    media.good("touch", "/tmp/standby")
    media.good("systemctl", "start", "quarrow-rewalk.service")
    assert media.property("ConditionResult", "quarrow-rewalk.service") == "no"
    media.good("systemctl", "stop", "quarrow.service")
    media.good("rm", "/tmp/standby")
    media.good("systemctl", "start", "quarrow-rewalk.service")
    assert media.property("Result", "quarrow-rewalk.service") == "exec-condition"


def test_a_condition_of_the_administrator_keeps_disks_asleep(media):
    """It asks the devices, for which it has to stand outside of the unit's sandbox."""
    media.start()
    drop_in = "/etc/systemd/system/quarrow-rewalk.service.d/awake.conf"
    for answer, result in (("! echo standby", "exec-condition"), ("! echo active", "success")):
        media.machine.write(drop_in, f"[Service]\nExecCondition=+/bin/sh -c '{answer} | grep standby && test -c /dev/tty'\n")
        media.good("systemctl", "daemon-reload")
        media.run("systemctl", "start", "quarrow-rewalk.service")
        assert media.property("Result", "quarrow-rewalk.service") == result
    media.good("rm", drop_in)


def test_as_an_ordinary_user(media):
    media.good("cp", "/usr/share/doc/quarrow/examples/ordinary-user.conf", "/srv/ordinary-user.conf")
    media.good("install", "-d", "-o", "quarrow", "-g", "quarrow", "/srv/media/.quarrow")
    media.good("chown", "-R", "quarrow:", "/srv/media/.quarrow")
    media.drop_in("ordinary-user", media.good("cat", "/srv/ordinary-user.conf"))
    media.start()
    assert media.good("stat", "--format=%U", f"/proc/{media.process()}").strip() == "quarrow"
    assert media.good("stat", "--format=%U", "/srv/media/.quarrow/quarrow.db").strip() == "quarrow"
    media.good("systemctl", "stop", "quarrow.service")
    media.good("rm", "-rf", "/srv/media/.quarrow")


def test_a_catalogue_of_another_user_is_taken_over(media):
    """And its side files, which a kill leaves."""
    media.start()
    media.good("systemctl", "kill", "--kill-whom=main", "--signal=KILL", "quarrow.service")
    media.good("systemctl", "stop", "quarrow.service")
    files = [f"/srv/media/.quarrow/quarrow.db{suffix}" for suffix in ("", "-wal", "-shm")]
    media.good("chown", "nobody:nogroup", *files)
    media.good("chmod", "666", *files)
    media.good("touch", "/srv/media/new.mp3")
    media.good("systemctl", "start", "quarrow.service")
    query = "select count(*) from Files where path = '/new.mp3'"
    wait_for(lambda: media.run("sqlite3", "-readonly", files[0], query).text == "1\n", "the new file's row")
    assert media.good("stat", "--format=%U %a", *files).splitlines() == ["root 644"] * 3
    media.good("systemctl", "stop", "quarrow.service")
    assert media.log("--priority=err") == []
