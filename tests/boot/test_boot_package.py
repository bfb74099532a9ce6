"""The package: it is installed in silence, does nothing before it is configured, and leaves nothing."""
import re

from appliance import CONFIGURATION, configuration
from machine import wait_for


def test_installing_says_nothing_wrong(installation):
    assert installation.status == 0
    assert "warning" not in (installation.text + installation.errors).lower()


def test_nothing_runs_without_a_configuration(appliance):
    for unit in ("quarrow.service", "quarrow-rewalk.timer"):
        assert appliance.good("systemctl", "is-enabled", unit).strip() == "enabled"
    appliance.good("systemctl", "start", "quarrow.service")
    for unit in ("quarrow.service", "quarrow-rewalk.timer"):
        assert appliance.property("ActiveState", unit) == "inactive"
        assert appliance.property("Result", unit) == "success"


def test_with_one_the_timer_comes_and_goes_with_the_daemon(appliance):
    appliance.make_folder("/srv/media")
    appliance.configure(configuration("/srv/media"))
    appliance.start()
    assert appliance.property("ActiveState", "quarrow-rewalk.timer") == "active"
    assert "*-*-* 00/4:00:00" in appliance.property("TimersCalendar", "quarrow-rewalk.timer")
    appliance.good("systemctl", "stop", "quarrow.service")
    assert appliance.property("ActiveState", "quarrow-rewalk.timer") == "inactive"


def test_the_example_configuration_and_the_pages_are_where_the_manual_says(appliance):
    appliance.good("test", "-s", "/usr/share/doc/quarrow/examples/quarrow-host.xml")
    appliance.good("test", "-s", "/usr/share/doc/quarrow/examples/ordinary-user.conf")
    for page in ("quarrow-host.xml.5", "quarrow-mime-types.5", "quarrow-catalogue.5", "quarrow.8", "quarrowctl.1"):
        appliance.good("test", "-s", f"/usr/share/man/man{page[-1]}/{page}.gz")


def test_the_limit_of_watches_is_set_for_the_next_boot(appliance):
    text = appliance.good("/lib/systemd/systemd-sysctl", "--cat-config")
    assert re.findall(r"^fs\.inotify\.max_user_watches\s*=\s*(\d+)", text, re.MULTILINE)[-1] == "1048576"


def test_the_units_give_few_rights(appliance):
    appliance.make_folder("/srv/media")
    appliance.configure(configuration("/srv/media"))
    for unit in ("quarrow.service", "quarrow-rewalk.service"):
        assert appliance.exposure(unit) <= 1.5, unit


def test_purging_leaves_nothing_and_warns_of_nothing(appliance, package):
    appliance.make_folder("/srv/media")
    appliance.configure(configuration("/srv/media"))
    appliance.start()
    result = appliance.run("dpkg", "--purge", "quarrow")
    left = appliance.good("find", "/", "/run", "-xdev", "-iname", "*quarrow*", "-not", "-path", "/srv/*", "-not", "-path", package,
                          "-not", "-path", "/run/systemd/units/*", "-not", "-path", "/run/log/journal/*/*")
    journal = appliance.run("test", "-e", "/run/systemd/journal.quarrow")
    appliance.good("test", "-s", "/srv/media/.quarrow/quarrow.db")
    appliance.good("dpkg", "--install", package)  # for the tests that follow, whatever is wrong here
    assert result.status == 0 and "warning" not in (result.text + result.errors).lower()
    assert (left, journal.status) == ("", 1)


def test_what_an_appliance_comes_with_is_started_by_the_installation(appliance, package):
    """A configuration that was there first. And an upgrade has both units running again."""
    appliance.good("dpkg", "--purge", "quarrow")
    appliance.make_folder("/srv/media")
    appliance.machine.write(CONFIGURATION, configuration("/srv/media"))
    for _ in ("installation", "upgrade"):
        before = appliance.process()
        appliance.good("dpkg", "--install", package)
        wait_for(lambda: appliance.process() not in (0, before), "a daemon of the new package")
        wait_for(lambda: appliance.property("ActiveState", "quarrow-rewalk.timer") == "active", "the timer")


def test_where_the_mime_table_cannot_be_put_the_installation_says_so_and_can_be_resumed(appliance, package):
    appliance.good("dpkg", "--purge", "quarrow")
    appliance.good("mount", "-t", "tmpfs", "-o", "ro", "tmpfs", "/usr/local")
    result = appliance.run("dpkg", "--install", package)
    appliance.good("umount", "/usr/local")
    assert result.status == 1
    assert "/usr/local/quarrow" in result.errors and "Read-only file system" in result.errors
    appliance.good("dpkg", "--configure", "quarrow")
    appliance.good("test", "-s", "/usr/local/quarrow/mime_types.txt")


def test_an_administrators_link_stays_when_the_package_goes(appliance, package):
    appliance.good("mv", "/usr/local/quarrow", "/srv/tables")
    appliance.good("ln", "-s", "/srv/tables", "/usr/local/quarrow")
    result = appliance.run("dpkg", "--purge", "quarrow")
    left = appliance.run("readlink", "/usr/local/quarrow").text
    appliance.good("rm", "-rf", "/usr/local/quarrow", "/srv/tables")
    appliance.good("dpkg", "--install", package)
    assert result.status == 0 and "warning" not in (result.text + result.errors).lower()
    assert left == "/srv/tables\n"
