"""An appliance: volumes, a daemon that catalogues them, and a pusher."""
import os
import subprocess

from demo.disks import differences, in_catalogue, on_disk
from demo.pusher import Pusher
from demo.server import with_parent
from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.process import DaemonProcess
from quarrow_driver.waiting import poll

PATIENCE = 120  # seconds until a catalogue that should have followed its disk counts as failed


class Appliance:
    def __init__(self, folder, name, volumes, cluster, tools):
        self.name = name
        self.folder = folder
        self.tools = tools
        self.roots = {volume: os.path.join(folder, volume) for volume in volumes}
        for root in self.roots.values():
            os.makedirs(root)
        self.configuration = os.path.join(folder, "quarrow-host.xml")
        with open(self.configuration, "w", encoding="utf-8") as file:
            # Readers of a catalogue may change its folder; left in, they would keep the burst of a change going.
            file.write(host_configuration([volume_element(volume, root, exclude=["/.quarrow"])
                                           for volume, root in self.roots.items()]))
        self.pusher = Pusher(os.path.join(folder, "pusher"), name, cluster, os.path.join(tools, "quarrowctl"), self.configuration,
                             timeout=10)
        self.daemon = None

    def start(self):
        self.daemon = DaemonProcess(with_parent(os.path.join(self.tools, "quarrow")), self.configuration,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, start_new_session=True)

    def stop(self):
        return self.daemon.terminate(PATIENCE) if self.daemon is not None else 0

    def path(self, volume, relative):
        return os.fsencode(self.roots[volume]) + os.fsencode(relative)

    def make_file(self, volume, relative, size=0):
        """A file with a hole of that size, so that it takes no room."""
        path = self.path(volume, relative)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.truncate(size)

    def lag(self):
        """What the catalogues do not say of the disks yet."""
        return [difference for root in self.roots.values() for difference in differences(in_catalogue(root), on_disk(root))]

    def wait_catalogued(self):
        """Returns when the catalogues say what lies on the disks."""
        if not poll(lambda: not self.lag() or self.daemon.has_ended(), PATIENCE, pause=0.5) or self.lag():
            raise RuntimeError(f"The catalogues of {self.name} do not follow: {self.lag()}")

    def push(self, *options):
        """One run of the pusher, which must end well. Returns what it said."""
        status, said = self.pusher.run(*options)
        if status != 0:
            raise RuntimeError(f"The pusher of {self.name} ended with {status}:\n{said}")
        return said.strip()
