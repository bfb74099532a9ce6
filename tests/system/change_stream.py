"""What a consumer makes of the lines of `quarrowctl changes`."""
import json
import os
import signal
import subprocess
import tempfile

from quarrow_driver.waiting import BOUND, wait_for
from trees import volume_of_files


def catalogued(arena, volume, clock=None, **settings):
    """One life of a daemon: one walk."""
    daemon = arena.start([volume], clock=clock, **settings)
    daemon.wait_walks()
    daemon.stop()


def small_volume(arena, clock=None, name="Volume1"):
    volume = volume_of_files(arena, name, 2, 2)
    catalogued(arena, volume, clock)
    return volume


def original(line, key):
    """The bytes of a text, as the rest of the tests has them."""
    if key + "_hex" in line:
        return os.fsdecode(bytes.fromhex(line[key + "_hex"]))
    return line[key]


def parse(output):
    """The complete lines."""
    return [json.loads(line) for line in output.split(b"\n")[:-1]]


def cursor_of(lines):
    """The last cursor; None when there is none."""
    return next((line["cursor"] for line in reversed(lines) if "cursor" in line), None)


def rows_in(lines):
    return [line for line in lines if "kind" in line]


def events_in(lines):
    return [(line["event"], line.get("reason")) for line in lines if "event" in line]


class Mirror:
    """All rows of one volume as the stream tells them, applied in their order; and a tree of paths, as on a disk."""

    def __init__(self):
        self.rows = {}  # (kind, id) -> the last line
        self.tree = {}  # live path -> kind, applied without a look at ids

    def apply(self, lines):
        for line in lines:
            if line.get("event") == "full-listing":
                self.rows, self.tree = {}, {}
            if "kind" not in line:
                continue
            self.rows[line["kind"], line["id"]] = line
            path = original(line, "path")
            if line["deleted"]:
                if self.tree.get(path) != line["kind"]:
                    continue  # it was told before, and something else is there by now
                assert not any(other.startswith(path + "/") for other in self.tree), f"{path!r} is not empty"
                del self.tree[path]
            else:
                above = os.path.dirname(path) if path not in ("", "/m") else None
                assert above is None or self.tree.get(above) == "folder", f"{path!r} comes before its folder"
                self.tree[path] = line["kind"]
        return self

    def live(self):
        return {key: line for key, line in self.rows.items() if not line["deleted"]}

    def assert_equals(self, volume):
        """Live rows are those of the catalogue. So are deleted ones, but for those that were purged."""
        wanted = catalogue_lines(volume)
        assert self.live() == {key: line for key, line in wanted.items() if not line["deleted"]}
        assert all(self.rows.get(key) == line for key, line in wanted.items())
        assert self.tree == {original(line, "path"): line["kind"] for line in wanted.values() if not line["deleted"]}


def catalogue_lines(volume):
    """Every row of a catalogue as a line, read by SQL."""
    categories = {1: "video", 2: "audio", 3: "image", 4: "other"}
    lines = {}
    for kind, statement in (
            ("folder", "select folder_id, parent_id, path, name, created_time, modified_time, last_updated_time, is_deleted"
                       " from Folders"),
            ("file", "select file_id, folder_id, path, name, category, size, created_time, modified_time, last_updated_time,"
                     " is_deleted from Files")):
        for row in volume.catalogue.query(statement):
            number, parent, path, name, *rest = row
            line = {"volume": volume.name, "kind": kind, "id": number, "folder_id" if kind == "file" else "parent_id": parent}
            line.update(in_json("path", path), **in_json("name", name))
            if kind == "file":
                line.update(category=categories[rest[0]], size=rest[1])
            line.update(created_time=rest[-4], modified_time=rest[-3], last_updated_time=rest[-2], deleted=bool(rest[-1]))
            lines[kind, number] = line
    return lines


def in_json(key, text):
    raw = os.fsencode(text)
    try:
        return {key: raw.decode()}
    except UnicodeDecodeError:
        replaced = "".join("\ufffd" if "\udc80" <= character <= "\udcff" else character for character in text)
        return {key: replaced, key + "_hex": raw.hex()}


class Reader:
    """A consumer that runs the command again and again, and keeps the cursor with what it has read."""

    def __init__(self, ctl, volume, environment=None):
        self.ctl = ctl
        self.volume = volume
        self.environment = environment
        self.cursor = ""
        self.mirror = Mirror()

    def run(self, *options, status=0):
        result = self.ctl.run("changes", "--since", self.cursor, *options, environment=self.environment)
        assert result.status == status, result.errors
        lines = parse(result.bytes)
        self.mirror.apply(line for line in lines if line.get("volume", self.volume.name) == self.volume.name)
        self.cursor = cursor_of(lines)
        return lines

    def changed(self, *options):
        """The paths of the rows that have changed."""
        return sorted(original(line, "path") for line in rows_in(self.run(*options)))


class Follower:
    """`quarrowctl changes --follow` as a child, its output in a file."""

    def __init__(self, ctl, *options, wrapper=(), environment=None):
        self.output = tempfile.NamedTemporaryFile(dir=ctl.folder, delete=False)
        self.errors = tempfile.NamedTemporaryFile(dir=ctl.folder, delete=False)
        command = ctl.command("changes", "--follow", *options, environment=environment)
        self.process = subprocess.Popen([*wrapper, *command], stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.errors)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.kill()

    def bytes(self):
        with open(self.output.name, "rb") as file:
            return file.read()

    def lines(self):
        return parse(self.bytes())

    def said(self):
        with open(self.errors.name, encoding="utf-8") as file:
            return file.read()

    def wait(self, condition, what):
        """Returns when the lines so far fulfil the condition, and a cursor has come behind them."""
        def fulfilled():
            assert self.process.poll() is None, f"it ended with {self.process.poll()}: {self.said()}"
            lines = self.lines()
            return lines and "cursor" in lines[-1] and condition(lines)
        wait_for(fulfilled, what)

    def wait_path(self, path, deleted=False):
        self.wait(lambda lines: any(original(line, "path") == path and line["deleted"] == deleted for line in rows_in(lines)),
                  f"{path!r} in the changes")

    def stop(self, number=signal.SIGTERM):
        """Ends it in the regular way; returns all its lines."""
        self.process.send_signal(number)
        assert self.process.wait(BOUND) == 0, self.said()
        return self.lines()

    def kill(self):
        self.process.kill()
        self.process.wait(BOUND)
