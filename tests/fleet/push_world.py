"""The world of one test of fleet/push: volumes with catalogues, a server that takes rows, and the pusher between them."""
import json
import os
import random
import shutil
import sqlite3
import subprocess
import tempfile

from make_catalogue import new_catalogue
from push_server import PushServer
from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.waiting import BOUND

TOP = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))
PUSH = f"{TOP}/fleet/push"
QUARROWCTL = os.environ.get("QUARROWCTL_BINARY", f"{TOP}/build/release/quarrowctl")
CATEGORIES = ("", "video", "audio", "image", "other")
WRAP = 1 << 32
QUICK = {"timeout": 10, "patience": 30, "pause": 0.02, "longest_pause": 0.1}


def has_address_sanitizer():
    return "libasan" in subprocess.run(["ldd", QUARROWCTL], capture_output=True, text=True, check=True).stdout


class Result:
    def __init__(self, process):
        self.status = process.returncode
        self.output = process.stdout
        self.errors = process.stderr


class Volume:
    """A catalogue that no daemon writes: changes are made as the daemon would make them."""

    def __init__(self, world, name, files):
        self.name = name
        self.root = world.path(f"root-{name}" if name.isascii() else "root")
        self.catalogue = f"{self.root}/.quarrow/quarrow.db"
        self.make(files)

    def make_anew(self, files):
        """Another catalogue, whose rows are written now."""
        self.make(files, "update Files set last_updated_time = strftime('%s', 'now')",
                  "update Folders set last_updated_time = strftime('%s', 'now')")

    def make(self, files, *statements):
        """A catalogue comes into its place when it is complete, as the daemon's does."""
        made = f"{self.root}.making"
        with new_catalogue(made) as (folder, file):
            number = folder("", 1)
            for each in range(files):
                if each % 20 == 0:
                    number = folder(f"/{each:06}", 1)
                file(number, f"/{each - each % 20:06}/{each}.mp3", each, 1)
        os.makedirs(os.path.dirname(self.catalogue), exist_ok=True)
        for statement in statements:
            self.edit(statement, catalogue=f"{made}/.quarrow/quarrow.db")
        os.rename(f"{made}/.quarrow/quarrow.db", self.catalogue)
        shutil.rmtree(made)

    def edit(self, statement, *values, catalogue=None):
        connection = sqlite3.connect(catalogue or self.catalogue, timeout=BOUND)
        try:
            with connection:
                connection.execute(statement, values)
        finally:
            connection.close()

    def add(self, name, size=1, modified=1, updated=None):
        """A row of a new file, whose name may be bytes."""
        name = os.fsencode(name)
        self.edit("insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted,"
                  " last_updated_time)"
                  " values (1, cast(? as text), cast(? as text), 4, ?, ?, ?, 0, coalesce(?, strftime('%s', 'now')))",
                  b"/" + name, name, size, modified, modified, updated)

    def change(self, choice):
        """Some files grow, some vanish, some come back, some are new."""
        for number in range(choice.randrange(1, 8)):
            some = f"file_id % 11 = {choice.randrange(11)}"
            self.edit(choice.choice((
                f"update Files set size = size + 1, last_updated_time = strftime('%s', 'now') where {some} and not is_deleted",
                f"update Files set is_deleted = 1, last_updated_time = strftime('%s', 'now') where {some} and file_id % 3 = 0",
                f"update Files set is_deleted = 0, last_updated_time = strftime('%s', 'now') where {some} and is_deleted")))
            self.add(f"new {choice.random()} {number}")

    def rows(self):
        return catalogue_rows(self.catalogue)


def catalogue_rows(path):
    """table -> id -> the values that the fleet is to have, as bytes."""
    connection = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=BOUND)
    connection.text_factory = bytes
    try:
        rows = {"files": connection.execute(
            "select file_id, folder_id, path, name, category, size, created_time, modified_time, last_updated_time, is_deleted"
            " from Files").fetchall(),
                "folders": connection.execute(
            "select folder_id, parent_id, path, name, created_time, modified_time, last_updated_time, is_deleted"
            " from Folders").fetchall()}
    finally:
        connection.close()
    return {table: {row[0]: as_sent(row) for row in found} for table, found in rows.items()}


def as_sent(row):
    values = list(row)
    if len(values) == 10:
        values[4] = CATEGORIES[values[4]]
    for place in (-4, -2):  # created_time, last_updated_time
        values[place] += WRAP if -WRAP // 2 <= values[place] < 0 else 0
    return tuple(value if isinstance(value, bytes) else str(value).encode() for value in values)


class World:
    def __init__(self):
        in_memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.folder = os.path.realpath(tempfile.mkdtemp(prefix="push-", dir=in_memory))
        self.server = PushServer()
        self.volumes = []
        self.children = []
        self.state_folder = self.path("state")
        self.environment = {"PATH": os.environ["PATH"], "LANG": "C.UTF-8", "TMPDIR": self.folder, "HOME": self.folder,
                            "QUARROW_CONFIG_FILE": self.path("host.xml")}
        self.write("password", "s3cret \u00fc\n", 0o600)
        self.configure()

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, mode=0o644):
        """In one step: a pusher that is at work sees no half a file."""
        path = self.path(name)
        with open(f"{path}.new", "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
        os.chmod(f"{path}.new", mode)
        os.rename(f"{path}.new", path)
        return path

    def volume(self, name="V", files=30):
        self.use([*self.volumes, Volume(self, name, files)])
        return self.volumes[-1]

    def use(self, volumes):
        """These are configured."""
        self.volumes = volumes
        self.write("host.xml", host_configuration([volume_element(each.name, each.root) for each in self.volumes]))

    def configure(self, *more, url=None, **changes):
        """Writes the pusher's configuration: quick to try again, and these settings in place of the usual ones."""
        settings = {"user": "pusher", "password_file": self.path("password"), "state": self.state_folder, "appliance": "box",
                    "quarrowctl": QUARROWCTL, **QUICK, **changes}
        lines = [f"url = {each}" for each in ([self.server.url] if url is None else url)]
        self.config = self.write("push.conf", "\n".join([*lines, *(f"{key} = {value}" for key, value in settings.items()), *more]))

    def stand_in(self, script, **changes):
        """A program in place of quarrowctl: `$REAL` is the real one."""
        path = self.write("stand-in", f"#!/bin/sh\nREAL={QUARROWCTL}\n{script}\n", 0o755)
        self.configure(quarrowctl=path, **changes)

    def run(self, *options, environment=None, wrapper=()):
        return Result(subprocess.run([*wrapper, PUSH, "--config", self.config, *options], capture_output=True, text=True,
                                     errors="backslashreplace", stdin=subprocess.DEVNULL, timeout=BOUND, check=False,
                                     env={**self.environment, **(environment or {})}))

    def good(self, *options, **settings):
        """run(), where nothing is to be wrong: nothing but one line is said."""
        result = self.run(*options, **settings)
        assert (result.status, result.errors) == (0, "") and result.output.count("\n") == 1, result.errors
        return result

    def bad(self, status, *words, options=(), **settings):
        """run(), where something is to be wrong: the message has these words."""
        result = self.run(*options, **settings)
        assert result.status == status, (result.status, result.errors)
        assert all(word in result.errors for word in words) and "Traceback" not in result.errors, result.errors
        return result

    def start(self, *options):
        process = subprocess.Popen(["setpriv", "--pdeathsig=TERM", PUSH, "--config", self.config, *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=self.environment)
        self.children.append(process)
        return process

    def state(self):
        with open(f"{self.state_folder}/state", "rb") as file:
            return json.loads(file.read().split(b"\n")[1])

    def cursor(self):
        return self.state()["cursor"] if os.path.exists(f"{self.state_folder}/state") else ""

    def assert_complete(self):
        """The fleet has what the catalogues have. Of deleted rows it may have more: those that were purged."""
        for table in ("files", "folders"):
            wanted = {(volume.name, number): row for volume in self.volumes for number, row in volume.rows()[table].items()}
            found = {key: sent_values(row) for key, row in self.server.valid(table).items()}
            assert live(found) == live(wanted)
            assert all(found.get(key) == row for key, row in wanted.items())

    def close(self):
        for process in self.children:
            status = process.poll()
            if status is None:
                process.kill()
            _, errors = process.communicate()
            print(f"push {process.args[4:]}: {'still at work' if status is None else status}: {errors}")  # shown when a test fails
        self.server.close()
        shutil.rmtree(self.folder)


def sent_values(row):
    """What came of a row of a catalogue, in its order."""
    return tuple(value for name, value in row.items() if name not in ("appliance", "volume", "generation", "version"))


def live(rows):
    return {key: row for key, row in rows.items() if row[-1] == b"0"}


def seeded(name):
    """A source of chance, the same in every run unless QUARROW_FAULT_SEED gives another seed."""
    seed = os.environ.get("QUARROW_FAULT_SEED", "1")
    print(f"{name}: QUARROW_FAULT_SEED={seed}")
    return random.Random(f"{name} {seed}")

