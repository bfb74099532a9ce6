"""The daemon under systemd, as an administrator has it."""
import re
import time

from machine import wait_for

CONFIGURATION = "/etc/quarrow/quarrow-host.xml"
DROP_INS = "/etc/systemd/system/quarrow.service.d"


def configuration(*roots, version="<Version>1</Version>", excluded="/.quarrow"):
    volumes = "".join(f"<Volume><Name>Volume{number}</Name><Root>{root}</Root><ExcludePaths><Path>{excluded}</Path></ExcludePaths>"
                      "</Volume>\n" for number, root in enumerate(roots))
    return f"<Quarrow>{version}<last_updated_time>5</last_updated_time>\n<Volumes>\n{volumes}</Volumes></Quarrow>\n"


class Appliance:
    def __init__(self, machine):
        self.machine = machine
        self.run = machine.run
        self.good = machine.good
        self.since = f"@{time.time():.6f}"  # the container has the same clock

    def configure(self, text):
        self.machine.write(CONFIGURATION, text)
        self.good("systemctl", "daemon-reload")

    def drop_in(self, name, text):
        self.machine.write(f"{DROP_INS}/{name}.conf", text)
        self.good("systemctl", "daemon-reload")

    def make_folder(self, path):
        self.good("mkdir", "-p", path)

    def property(self, name, unit="quarrow.service"):
        return self.good("systemctl", "show", "--property", name, "--value", unit).strip()

    def state(self):
        return self.property("ActiveState")

    def process(self):
        """The daemon's id; 0 while there is none."""
        return int(self.property("MainPID"))

    def wait_state(self, state):
        wait_for(lambda: self.state() == state, f"the state {state}")

    def log(self, *options):
        """The lines of the daemon's own journal since the test began."""
        return self.good("journalctl", "--namespace=quarrow", "--quiet", "--output=cat", "--since", self.since, *options).splitlines()

    def unit_log(self, *options, unit="quarrow.service"):
        """The lines about the unit in the machine's journal since the test began."""
        return self.good("journalctl", f"--unit={unit}", "--quiet", "--output=cat", "--since", self.since, *options).splitlines()

    def exposure(self, unit):
        """How much systemd thinks that the unit could do, from 0 to 10."""
        text = self.good("systemd-analyze", "security", "--no-pager", unit)
        return float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", text)[1])

    def wait_log(self, pattern):
        wait_for(lambda: any(re.search(pattern, line) for line in self.log()), f"the line {pattern}")

    def start(self):
        """Starts the daemon, and returns when its first walks are done."""
        self.good("systemctl", "start", "quarrow.service")
        self.wait_log("^Actively watching")

    def clear(self):
        self.run("systemctl", "stop", "quarrow.service")
        self.run("systemctl", "reset-failed", "quarrow.service")
        self.good("rm", "-rf", CONFIGURATION, DROP_INS, "/tmp/standby")
        self.good("systemctl", "daemon-reload")
