"""The daemon's own journal: no line is dropped, and the machine's journal has the errors alone."""
from appliance import configuration
from machine import wait_for


def test_every_line_of_a_large_walk_arrives(appliance):
    appliance.good("sh", "-c", "mkdir -p /srv/large && cd /srv/large && seq --format='%03g' 265 | xargs -I '{}' "
                               "sh -c 'mkdir {} && cd {} && mkdir $(seq 99)'")
    folders = int(appliance.good("sh", "-c", "find /srv/large -type d | wc -l"))
    assert folders > 26000
    appliance.configure(configuration("/srv/large"))
    appliance.start()
    lines = appliance.log("--identifier=quarrow")
    assert sum(line.startswith("For folder /srv/large") for line in lines) == folders
    assert sum(line.startswith("Add file count") for line in lines) == folders
    assert f"Actively watching {folders} folders" in lines
    assert any(line.startswith("Finished walk. Walk started at /srv/large") for line in lines)
    assert not any("Suppressed" in line for line in appliance.log())
    assert appliance.good("journalctl", "--quiet", "--output=cat", "--identifier=quarrow", "--since", appliance.since) == ""
    appliance.good("rm", "-rf", "/srv/large")


def test_errors_stay_in_the_machines_journal(appliance):
    """They alone: the other lines would displace what it holds. And journald may be ended meanwhile."""
    appliance.make_folder("/srv/good")
    appliance.make_folder("/srv/bad/.quarrow/quarrow.db")
    appliance.configure(configuration("/srv/good", "/srv/bad"))
    for _ in range(2):
        appliance.start()
        appliance.good("systemctl", "stop", "quarrow.service")
        appliance.good("systemctl", "stop", "systemd-journald@quarrow.service")
    errors = appliance.log("--priority=warning", "--identifier=quarrow")
    assert errors.count("Could not initialize the manager for the volume Volume1") == 2
    wait_for(lambda: len(appliance.unit_log("--identifier=quarrow")) >= len(errors), "the errors")
    assert appliance.unit_log("--identifier=quarrow") == errors
    appliance.good("rm", "-rf", "/srv/good", "/srv/bad")


def test_an_administrators_limit_counts(appliance):
    appliance.make_folder("/srv/media")
    appliance.configure(configuration("/srv/media"))
    folder = "/etc/systemd/journald@quarrow.conf.d"
    for size in (512, 64):
        appliance.good("systemctl", "stop", "systemd-journald@quarrow.service")
        appliance.start()
        assert any(f", max {size}.0M, " in line for line in appliance.log()), size
        appliance.good("systemctl", "stop", "quarrow.service")
        appliance.machine.write(f"{folder}/local.conf", "[Journal]\nSystemMaxUse=64M\n")
    appliance.good("rm", "-r", folder)
    appliance.good("systemctl", "stop", "systemd-journald@quarrow.service")
