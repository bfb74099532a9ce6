"""What the system tests stand on: an arena of volumes, and the daemons that are started on them."""
import os
import subprocess
import sys
import tempfile

import pytest

from catalogue import Catalogue
from daemon import BINARY, MIME_TABLE, Daemon, sandbox_command
from model import MimeTable, tree_rows
from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.mounting import CLONE_NEWUSER
from quarrow_driver.waiting import BOUND

#: A purge threshold whose double lies in the future as seen from the epoch: no purge is ever due.
NEVER_PURGE = 1073741823


class Volume:
    """One volume of an arena: its place in the host configuration, its tree, its catalogue."""

    def __init__(self, name, root, crawl=(), exclude=()):
        self.name = name
        self.root = root  # as written in the configuration
        self.crawl = list(crawl)
        self.exclude = list(exclude)

    @property
    def folder(self):
        """The volume path as the daemon has it: the configured root less one trailing slash."""
        return self.root[:-1] if self.root.endswith("/") else self.root

    @property
    def catalogue(self):
        return Catalogue(f"{self.folder}/.quarrow/quarrow.db")

    @property
    def state_file(self):
        return f"{self.folder}/.quarrow/quarrow-volume.xml"

    def path(self, relative):
        return self.folder + relative

    def make_folder(self, *relatives):
        for relative in relatives:
            path = self.path("")
            os.makedirs(path, exist_ok=True)
            for name in filter(None, relative.split("/")):  # one by one: os.makedirs recurses, and trees are deep here
                path += f"/{name}"
                if not os.path.isdir(path):
                    os.mkdir(path)

    def make_file(self, relative, content=b"", size=None, modified=None):
        """Writes a file, with its folders; `size` gives it a hole up to that length."""
        path = self.path(relative)
        self.make_folder(os.path.dirname(relative))
        with open(path, "wb") as file:
            file.write(content)
            if size is not None:
                file.truncate(size)
        if modified is not None:
            os.utime(path, (modified, modified))

    def create(self, relative):
        """Makes an empty file in one step, which is one kernel record: nothing is opened, so nothing is closed."""
        os.mknod(self.path(relative), 0o644)

    def tree(self):
        """What the catalogue is to say about the tree as it is now."""
        return tree_rows(self.folder, self.crawl, self.exclude, MimeTable(MIME_TABLE))

    def rows(self):
        return self.catalogue.rows()

    def write_state(self, last_purge_time, last_updated_time=0):
        os.makedirs(f"{self.folder}/.quarrow", exist_ok=True)
        with open(self.state_file, "w", encoding="ascii") as file:
            file.write(state_document(last_updated_time, last_purge_time))

    def read_state(self):
        with open(self.state_file, encoding="ascii") as file:
            return file.read()

    def element(self):
        return volume_element(self.name, self.root, self.crawl, self.exclude)


def state_document(last_updated_time, last_purge_time):
    """A state file as the daemon writes it."""
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<Quarrow><Version>1.0</Version><Volume>'
            f"<last_updated_time>{last_updated_time}</last_updated_time>"
            f"<last_purge_time>{last_purge_time}</last_purge_time></Volume></Quarrow>\n")


def configuration(volumes, purge_threshold=NEVER_PURGE):
    """A host configuration of the given volumes."""
    return host_configuration([volume.element() for volume in volumes], purge_threshold=purge_threshold, rewalk_threshold=14400)


class Arena:
    """The world of one test: a temporary folder with volumes, a host configuration and the daemons started on them."""

    def __init__(self):
        assert os.access(BINARY, os.X_OK), "QUARROW_BINARY must name the daemon"
        # In memory, unless TMPDIR says where: the tests wait for the daemon, not for the disk.
        in_memory = "/dev/shm" if "TMPDIR" not in os.environ and os.access("/dev/shm", os.W_OK) else None
        self.folder = os.path.realpath(tempfile.mkdtemp(prefix="quarrow-", dir=in_memory))
        self.daemons = []
        self.mount_points = None  # where a test has mounted file systems, when it can: see mounts.py

    def path(self, relative):
        return os.path.join(self.folder, relative)

    def volume(self, name="Volume1", crawl=(), exclude=(), folder=None):
        """Makes the folder of a volume, and its crawl paths in it."""
        volume = Volume(name, self.path(folder or name), crawl, exclude)
        volume.make_folder("", *(path.rstrip("/") for path in volume.crawl))
        return volume

    def write_config(self, text, name="quarrow-host.xml"):
        path = self.path(name)
        with open(path, "wb") as file:
            file.write(text if isinstance(text, bytes) else os.fsencode(text))
        return path

    def start(self, volumes=None, config=None, purge_threshold=NEVER_PURGE, clock=None, **settings):
        """Starts a daemon on the volumes, or with the given text as its host configuration (which may be none at all)."""
        if config is None and volumes is not None:
            config = configuration(volumes, purge_threshold)
        environment = dict(settings.pop("environment", {}))
        if config is not None:
            environment["QUARROW_CONFIG_FILE"] = self.write_config(config, f"quarrow-host-{len(self.daemons)}.xml")
        if clock is not None:
            environment.update(clock.environment())
        return Daemon(self, environment=environment, **settings)

    def run_python(self, script, *arguments, binds=(), user=None):
        """Runs a Python script in a sandbox, as another user when one is given; returns its standard output."""
        folder = tempfile.mkdtemp(dir=self.folder)
        process = subprocess.run(
            sandbox_command(self, folder, [sys.executable, "-c", script, *arguments], log=None, binds=binds, user=user,
                            environment={"PATH": os.environ["PATH"], "PYTHONDONTWRITEBYTECODE": "1"}),
            capture_output=True, text=True, timeout=BOUND, check=False)
        assert process.returncode == 0, process.stderr
        return process.stdout

    def close(self):
        """Ends every daemon that still runs and removes the folder; returns what the daemons' sanitizers had to say."""
        reports = ""
        for daemon in self.daemons:
            daemon.close()
            reports += daemon.sanitizer_report()
        # rm copes with trees that are deeper than a path or a call stack is long.
        subprocess.run(["rm", "-rf", self.folder], check=True)
        return reports


def user_namespaces_work():
    script = f"import ctypes, sys; sys.exit(ctypes.CDLL(None).unshare({CLONE_NEWUSER:#x}) != 0)"
    return subprocess.run([sys.executable, "-c", script], check=False).returncode == 0


in_a_user_namespace = pytest.mark.skipif(not user_namespaces_work(), reason="user namespaces are not permitted here")


def inotify_limit(name):
    with open(f"/proc/sys/fs/inotify/{name}", encoding="ascii") as file:
        return int(file.read())
