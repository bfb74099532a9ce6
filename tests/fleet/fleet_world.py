"""Real database servers, and appliances whose catalogues no daemon writes."""
import contextlib
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

TOP = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
sys.path.insert(0, os.path.join(TOP, "fleet"))

from demo.cluster import Cluster, statements  # (the path comes first)
from demo.faults import thaw
from demo.pusher import Pusher
from demo.server import PROGRAM
from push_world import QUARROWCTL, Volume, live
from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.waiting import wait_for

COLUMNS = {"files": "id, folder_id, path, name, category, size, created_time, modified_time, last_updated_time",
           "folders": "id, parent_id, path, name, created_time, modified_time, last_updated_time"}
ALL = {"files": f"appliance, volume, generation, {COLUMNS['files']}, deleted, version",
       "folders": f"appliance, volume, generation, {COLUMNS['folders']}, deleted, version",
       "volumes": "appliance, volume, generation, identity, purged_before, updated",
       "appliances": "appliance, last_contact, cursor, software, updated",
       "totals": "appliance, volume, taken, folder, category, files, bytes"}
TABLES = ("files", "folders", "volumes", "appliances", "totals")
ESCAPES = {9: b"\\t", 10: b"\\n", 92: b"\\\\"}


def text(value):
    """A value as TabSeparated has it."""
    if isinstance(value, bytes):
        return b"".join(ESCAPES.get(byte, bytes([byte])) for byte in value)
    return str(value).encode()


class Fleet(Cluster):
    """A cluster, and what tests put into it."""

    def insert(self, table, rows, **settings):
        """As a pusher inserts; `rows` are tuples, in the order of the schema."""
        data = b"".join(b"\t".join(text(value) for value in row) + b"\n" for row in rows)
        self.query(f"INSERT INTO quarrow.{table} ({ALL[table]}) FORMAT TabSeparated", data,
                   **{"user": self.login("pusher"), "insert_distributed_sync": 1, **settings})

    def number(self, statement):
        [[value]] = self.rows(statement)
        return int(value)

    def everywhere(self, file):
        """Runs a file of fleet/ on every server."""
        for server in self.servers:
            for statement in statements(os.path.join(TOP, "fleet", file)):
                server.query(statement)

    def wait_removed(self):
        """Returns when no server has anything left to remove."""
        for server in self.servers:
            wait_for(lambda server=server: server.query("SELECT count() FROM system.mutations WHERE is_done = 0") == b"0\n",
                     "the end of the removal")

    def answers(self, name):
        """What a query of fleet/queries answers a reader."""
        [statement] = statements(os.path.join(TOP, "fleet/queries", name + ".sql"))
        return self.rows(statement, user=self.login("reader"))

    def empty(self):
        for server in self.servers:
            for table in TABLES:
                server.query(f"TRUNCATE TABLE quarrow.{table}_shard")


class Box:
    """An appliance with volumes of so many files in its catalogues, and a pusher."""

    def __init__(self, fleet, name, volumes=("V",), files=30, **settings):
        self.fleet = fleet
        self.name = name
        self.folder = os.path.join(fleet.folder, name)
        os.makedirs(self.folder)
        self.volumes = [Volume(self, volume, files) for volume in volumes]
        with open(self.path("host.xml"), "w", encoding="utf-8") as file:
            file.write(host_configuration([volume_element(volume.name, volume.root) for volume in self.volumes]))
        self.set_up(**settings)

    def set_up(self, **settings):
        """Gives it a pusher with these settings, which goes on from the state of the one before."""
        self.pusher = Pusher(self.path("pusher"), self.name, self.fleet, QUARROWCTL, self.path("host.xml"),
                             **{"pause": 0.02, "longest_pause": 0.1, "timeout": 20, **settings})

    def path(self, name):
        return os.path.join(self.folder, name)

    def push(self, *options):
        status, said = self.pusher.run(*options)
        assert status == 0, said
        return said

    def assert_arrived(self):
        """The fleet has each row of the catalogues as it is there; of deleted rows it may have more."""
        for table in ("files", "folders"):
            for volume in self.volumes:
                wanted = volume.rows()[table]
                found = {int(row[0]): tuple(row) for deleted, kind in enumerate(("live", "gone"))
                         for row in self.fleet.rows(f"SELECT {COLUMNS[table]}, {deleted} FROM quarrow.{kind}_{table}"
                                                    f" WHERE appliance = '{self.name}' AND volume = '{volume.name}'")}
                assert live(found) == live(wanted)
                assert all(found.get(key) == row for key, row in wanted.items())


@contextlib.contextmanager
def private_fleet(start=True):
    """Servers of a test's own; nothing of them stays."""
    folder = os.path.realpath(tempfile.mkdtemp(prefix="fleet-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None))
    fleet = Fleet(folder)
    try:
        if start:
            fleet.start()
        yield fleet
    finally:
        thaw(fleet)
        fleet.stop()
        shutil.rmtree(folder)


def has_servers():
    return os.access(PROGRAM, os.X_OK)


@pytest.fixture(scope="module")
def module_fleet():
    if not has_servers():
        pytest.skip("clickhouse-server is not installed")
    with private_fleet() as fleet:
        yield fleet


@pytest.fixture
def fleet(module_fleet):
    """Two servers with nothing in their tables."""
    module_fleet.empty()
    yield module_fleet
    for entry in os.listdir(module_fleet.folder):
        if not entry.startswith("server"):
            subprocess.run(["rm", "-rf", os.path.join(module_fleet.folder, entry)], check=True)


@pytest.fixture
def own_fleet():
    """Two servers that the test may kill."""
    if not has_servers():
        pytest.skip("clickhouse-server is not installed")
    with private_fleet() as fleet:
        yield fleet
