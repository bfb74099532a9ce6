"""The pusher's units, set up as the documentation says, with a server in the container's network that only seems to be a
database."""
import ctypes
import os
import re
import shutil
import sys
import threading

import pytest

from appliance import CONFIGURATION, configuration
from machine import wait_for

TOP = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
FLEET = f"{TOP}/fleet"
UNITS = ("quarrow-push.service", "quarrow-push-follow.service", "quarrow-push.timer")
ONCE, FOLLOW, TIMER = UNITS
CLONE_NEWNET = 0x40000000

sys.path.insert(0, f"{TOP}/tests/fleet")
from push_server import PushServer  # noqa: E402 (the path comes first)


def serve_in(network):
    """A server that listens in that network namespace: a socket stays where it was made."""
    made = []

    def make():
        with open(network, "rb") as namespace:
            if ctypes.CDLL(None).setns(namespace.fileno(), CLONE_NEWNET) == 0:
                made.append(PushServer())

    thread = threading.Thread(target=make)
    thread.start()
    thread.join()
    assert made, "the container's network cannot be entered"
    return made[0]


@pytest.fixture
def server(machine):
    running = serve_in(f"/proc/{machine.leader}/ns/net")
    yield running
    running.close()


@pytest.fixture
def pusher(appliance, server):
    """An appliance with a catalogue and the pusher, which has not run yet."""
    machine = appliance.machine
    shutil.copy(f"{FLEET}/push", f"{machine.system}/usr/lib/quarrow/push")
    shutil.copytree(f"{FLEET}/pusher", f"{machine.system}/usr/lib/quarrow/pusher", ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copy(f"{FLEET}/systemd/sysusers.conf", f"{machine.system}/usr/lib/sysusers.d/quarrow-push.conf")
    for unit in UNITS:
        shutil.copy(f"{FLEET}/systemd/{unit}", f"{machine.system}/etc/systemd/system/{unit}")
    appliance.good("systemd-sysusers")
    appliance.good("sh", "-c", "mkdir -p /srv/media && cd /srv/media && touch 1.mp3 2.mp3 3.mp3")
    appliance.configure(configuration("/srv/media"))
    appliance.start()
    yield appliance
    appliance.run("systemctl", "disable", "--now", *UNITS)
    appliance.good("sh", "-c", "rm -rf /etc/systemd/system/quarrow-push* /usr/lib/sysusers.d/quarrow-push.conf /etc/quarrow/push*"
                               " /usr/lib/quarrow/push* /var/lib/quarrow-push /var/cache/quarrow-push /srv/media"
                               " /var/lib/systemd/timers/stamp-quarrow-push.timer")
    appliance.good("systemctl", "daemon-reload")


def configure(pusher, server):
    pusher.good("install", "-o", "quarrow-push", "-g", "quarrow-push", "-m", "600", "/dev/stdin", "/etc/quarrow/push.password",
                stdin=b"secret\n")
    with open(f"{FLEET}/systemd/push.conf", encoding="utf-8") as file:
        text = re.sub("(?m)^url = .*", f"url = {server.url}", file.read())
    pusher.machine.write("/etc/quarrow/push.conf", text)


def names(server):
    return {row["name"].decode() for row in server.rows("files")}


def test_without_a_configuration_nothing_is_sent(pusher, server):
    for unit in (ONCE, FOLLOW):
        pusher.good("systemctl", "start", unit)
        assert (pusher.property("ActiveState", unit), pusher.property("Result", unit)) == ("inactive", "success")
    assert server.attempts == 0


def test_the_timers_unit_sends_what_has_changed(pusher, server):
    configure(pusher, server)
    pusher.good("systemctl", "start", ONCE)
    assert names(server) == {"1.mp3", "2.mp3", "3.mp3"}
    assert any("3 rows of files and 1 of folders confirmed" in line for line in pusher.unit_log(unit=ONCE))
    assert pusher.good("stat", "--format=%U %a", "/var/lib/quarrow-push", "/var/lib/quarrow-push/state").split() == \
        ["quarrow-push", "700", "quarrow-push", "600"]
    assert server.rows("appliances")[-1]["appliance"].decode() == pusher.good("hostname").strip()
    pusher.good("touch", "/srv/media/new.mp3")
    wait_for(lambda: "new.mp3" in pusher.good("env", f"QUARROW_CONFIG_FILE={CONFIGURATION}", "quarrowctl", "find"), "the row")
    pusher.good("systemctl", "start", ONCE)
    assert "new.mp3" in names(server)
    said = pusher.unit_log(unit=ONCE)
    assert sum("confirmed in" in line for line in said) == 2 and not any(line.startswith("push: ") for line in said)
    pusher.good("systemctl", "enable", "--now", TIMER)
    assert pusher.property("ActiveState", TIMER) == "active"


def test_the_follower_sends_changes_as_they_come(pusher, server):
    configure(pusher, server)
    pusher.good("systemctl", "start", TIMER)
    pusher.good("systemctl", "start", FOLLOW)
    assert pusher.property("ActiveState", TIMER) == "inactive"  # one of them at a time
    server.wait(lambda: "1.mp3" in names(server), "the first load")
    pusher.good("touch", "/srv/media/new.mp3")
    server.wait(lambda: "new.mp3" in names(server), "a change")
    pusher.good("systemctl", "stop", FOLLOW)
    assert (pusher.property("ActiveState", FOLLOW), pusher.property("Result", FOLLOW)) == ("inactive", "success")
    assert not any(line.startswith("push: ") for line in pusher.unit_log(unit=FOLLOW))


@pytest.mark.parametrize("unit", [ONCE, FOLLOW])
def test_the_units_give_few_rights(pusher, unit):
    assert pusher.exposure(unit) <= 1.5
