#!/usr/bin/env python3
"""Puts the daemon beside find, updatedb (plocate), a desktop indexer (baloo), a search tool (recoll, names only) and a media
server with a database (minidlna), each as Debian packages it, over the same tree. What is not installed is left out, and
named.

    peers.py --build BUILD_FOLDER [--files 100000] [--folders 5000] [--repeat 1] [PROGRAM...]

For each: the first index, a second start with nothing changed, peak memory, the size of its database, and how long a new
file takes to be found. They do not do the same work: README.md beside this file says what each of them leaves out.
"""
import argparse
import contextlib
import glob
import os
import shutil
import signal
import socket
import sqlite3
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, f"{HERE}/../scripts")

import make_tree  # (the path comes first)
import private_run
from daemon import Daemon, LogSink, WALK_BEGINS, WALK_ENDS, end_with_parent
from quarrow_driver.process import DaemonProcess
from quarrow_driver.reading import open_for_reading
from quarrow_driver.waiting import poll

QUIET = 10  # seconds without processor time after which a server is done; one of them rests for 5 before it begins
LONGEST = 900  # seconds that a program may take for its first index
SEEN_WITHIN = 60  # seconds after which a new file counts as not seen


def size_of(folder):
    return sum(os.path.getsize(path) for path in glob.glob(f"{folder}/**", recursive=True, include_hidden=True)
               if os.path.isfile(path))


def peak_memory(process):
    """In KiB, so far; 0 for a process that has ended."""
    try:
        with open(f"/proc/{process}/status", encoding="utf-8", errors="replace") as file:
            return next((int(line.split()[1]) for line in file if line.startswith("VmHWM:")), 0)
    except FileNotFoundError:
        return 0


def run_to_end(command, environment=None, good=(0,)):
    """Seconds and peak memory in KiB of a program that ends by itself. (Not what wait4() tells of its memory: that counts
    this process too, as it was when it forked.)"""
    start = time.monotonic()
    process = subprocess.Popen(command, env={**os.environ, **(environment or {})}, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, preexec_fn=end_with_parent)
    memory = 0
    while process.poll() is None:
        memory = max(memory, peak_memory(process.pid))
        time.sleep(0.002)
    if process.returncode not in good:
        raise RuntimeError(f"{command[0]} ended with {process.returncode}")
    return {"seconds": time.monotonic() - start, "memory": memory}


class Server(DaemonProcess):
    """A program that indexes and then waits for changes. It does not say when it is done, so that is when it last used
    the processor."""

    def __init__(self, command, environment):
        self.started = time.monotonic()
        self.peak = 0
        super().__init__(command, environment=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         preexec_fn=end_with_parent)

    def family(self):
        """The ids of the process and of its children: some leave the first index to one."""
        with open(f"/proc/{self.pid}/task/{self.pid}/children", encoding="ascii") as file:
            return [self.pid, *map(int, file.read().split())]

    def processor_ticks(self):
        """Of the process and its children, also those that have ended."""
        ticks = 0
        for process in self.family():
            try:
                with open(f"/proc/{process}/stat", encoding="utf-8", errors="replace") as file:
                    ticks += sum(map(int, file.read().rpartition(")")[2].split()[11:15]))
            except FileNotFoundError:
                pass  # it has just ended
        return ticks

    def seconds_until_quiet(self):
        """Until it last used the processor, with `peak`, the most memory of both together, kept on the way."""
        used, since = self.processor_ticks(), time.monotonic()
        while time.monotonic() - since < QUIET:
            if time.monotonic() - self.started > LONGEST:
                raise RuntimeError(f"still busy after {LONGEST} s")
            if self.has_ended():
                raise RuntimeError("ended by itself")
            time.sleep(0.02)
            self.peak = max(self.peak, sum(map(peak_memory, self.family())))
            now = self.processor_ticks()
            if now != used:
                used, since = now, time.monotonic()
        return since - self.started


class Peer:
    """A program that is compared. `folder` is empty, and its own: home, settings and database."""

    def __init__(self, options, tree, folder):
        self.options = options
        self.tree = tree
        self.folder = folder
        os.makedirs(folder)

    def database_size(self):
        return size_of(self.folder)

    def make_new_file(self):
        # A picture, which all of them take. In a folder of the first level, since servers may watch only some.
        path = f"{self.tree}/Photos/new picture {time.monotonic_ns()}.jpg"
        shutil.copyfile(self.picture(), path)
        return path

    def picture(self):
        """The smallest JPEG that a parser takes for one."""
        path = f"{self.folder}/picture"
        with open(path, "wb") as file:
            file.write(bytes.fromhex(
                "ffd8ffe000104a46494600010101004800480000ffdb004300" + "01" * 64 + "ffc0000b080001000101011100ffc40014"
                "00010000000000000000000000000000000009ffc40014100100000000000000000000000000000000ffda0008010100003f00"
                "54dfffd9"))
        return path

    def seconds_to_be_seen(self, is_seen):
        path = self.make_new_file()
        start = time.monotonic()
        try:
            seen = poll(lambda: is_seen(path), SEEN_WITHIN, pause=0.05)
            return time.monotonic() - start if seen else None
        finally:
            os.unlink(path)


class Quarrow(Peer):
    name = "quarrow"

    @staticmethod
    def program(options):
        return options.daemon

    def walk(self):
        mark = self.sink.mark()
        daemon = Daemon(self.options.daemon, self.tree, self.folder)
        begun, _ = self.sink.wait_for(WALK_BEGINS, since=mark)
        ended, _ = self.sink.wait_for(WALK_ENDS, since=mark)
        return daemon, {"seconds": ended - begun, "memory": daemon.memory()["VmHWM"]}

    def measure(self):
        with LogSink(self.options.sink) as self.sink:
            daemon, first = self.walk()
            with daemon:
                pass
            daemon, again = self.walk()
            # One connection for all looks: each opening would count as a change in the catalogue's folder.
            with daemon, contextlib.closing(open_for_reading(f"{self.tree}/.quarrow/quarrow.db")) as self.catalogue:
                seen = self.seconds_to_be_seen(self.is_catalogued)
        size = size_of(f"{self.tree}/.quarrow")
        shutil.rmtree(f"{self.tree}/.quarrow")
        os.unlink(f"{self.tree}/.tickle")
        return {"first": first, "again": again, "size": size, "seen": seen or "not seen"}

    def is_catalogued(self, path):
        return self.catalogue.execute("select 1 from Files where path = ? and is_deleted = 0",
                                      (path[len(self.tree):],)).fetchone()


class Find(Peer):
    name = "find"

    @staticmethod
    def program(_):
        return shutil.which("find")

    def measure(self):
        runs = [run_to_end(["find", self.tree, "-printf", "%s %T@ %p\\n"]) for _ in range(2)]
        return {"first": runs[0], "again": runs[1]}


class Plocate(Peer):
    name = "updatedb (plocate)"

    @staticmethod
    def program(_):
        return shutil.which("updatedb.plocate")

    def measure(self):
        command = ["updatedb.plocate", "-U", self.tree, "-o", f"{self.folder}/plocate.db", "-l", "no", "--prunepaths", ""]
        runs = [run_to_end(command) for _ in range(2)]
        return {"first": runs[0], "again": runs[1], "size": self.database_size(), "seen": "next run"}


class Recoll(Peer):
    name = "recollindex (names)"

    @staticmethod
    def program(_):
        return shutil.which("recollindex")

    def measure(self):
        with open(f"{self.folder}/recoll.conf", "w", encoding="utf-8") as file:
            # No type is read, so each file is known by its name alone.
            file.write(f"topdirs = {self.tree}\nskippedPaths =\nskippedNames =\nindexallfilenames = 1\n"
                       "indexedmimetypes = x-none/x-none\nusesystemfilecommand = 0\nloglevel = 1\n")
        runs = [run_to_end(["recollindex", "-c", self.folder], {"HOME": self.folder}) for _ in range(2)]
        return {"first": runs[0], "again": runs[1], "size": size_of(f"{self.folder}/xapiandb"), "seen": "next run"}


class Watching(Peer):
    """A peer that stays and follows changes."""

    def run(self, is_seen=None):
        """Starts it: the first time when no `is_seen` is given, and then a second time over what it has."""
        server = self.start(again=is_seen is not None)
        try:
            seconds = server.seconds_until_quiet()
            result = {"seconds": seconds, "memory": server.peak}
            return result, self.seconds_to_be_seen(is_seen) if is_seen else None
        finally:
            server.terminate(60)

    def measure(self):
        first, _ = self.run()
        again, seen = self.run(self.is_indexed)
        return {"first": first, "again": again, "size": self.database_size(), "seen": seen or "not seen"}


class Baloo(Watching):
    name = "baloo (names)"

    @staticmethod
    def program(_):
        return shutil.which("baloo_file") and shutil.which("dbus-daemon") and shutil.which("baloosearch")

    def start(self, **_):  # it looks for changes at each start
        self.environment = {"HOME": self.folder, "XDG_CONFIG_HOME": f"{self.folder}/config", "XDG_RUNTIME_DIR": self.folder,
                            "XDG_DATA_HOME": f"{self.folder}/data", "QT_QPA_PLATFORM": "offscreen",
                            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.folder}/bus"}
        os.makedirs(f"{self.folder}/config", exist_ok=True)
        with open(f"{self.folder}/config/baloofilerc", "w", encoding="utf-8") as file:
            file.write(f"[Basic Settings]\nIndexing-Enabled=true\n[General]\nfolders={self.tree}/\nexclude folders=\n"
                       "exclude filters=\nonly basic indexing=true\nindex hidden folders=true\n")
        if not hasattr(self, "bus"):
            self.bus = subprocess.Popen(["dbus-daemon", "--session", "--nofork", "--nopidfile",
                                         f"--address=unix:path={self.folder}/bus"], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, preexec_fn=end_with_parent)
            poll(lambda: os.path.exists(f"{self.folder}/bus"), 30)
        return Server(["baloo_file"], self.environment)

    def is_indexed(self, path):
        words = os.path.basename(path).split(".")[0].split()[-1]
        found = subprocess.run(["baloosearch", f"filename:{words}"], env={**os.environ, **self.environment},
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False)
        return path.encode() in found.stdout

    def database_size(self):
        return size_of(f"{self.folder}/data/baloo")

    def measure(self):
        try:
            return super().measure()
        finally:
            if hasattr(self, "bus"):
                self.bus.terminate()
                self.bus.wait()


class MiniDlna(Watching):
    name = "minidlna"

    @staticmethod
    def program(_):
        return shutil.which("minidlnad")

    def start(self, again):
        with open(f"{self.folder}/minidlna.conf", "w", encoding="utf-8") as file:
            with socket.socket() as free:
                free.bind(("127.0.0.1", 0))
                port = free.getsockname()[1]
            file.write(f"media_dir={self.tree}\ndb_dir={self.folder}/db\nlog_dir={self.folder}\nport={port}\n"
                       "network_interface=lo\ninotify=yes\nnotify_interval=100000\n")
        # Unless told to, it would not look for changes at a second start.
        return Server(["minidlnad", "-d", "-f", f"{self.folder}/minidlna.conf", "-P", f"{self.folder}/pid",
                       *(["-r"] if again else [])], {"HOME": self.folder})

    def is_indexed(self, path):
        connection = sqlite3.connect(f"file:{self.folder}/db/files.db?mode=ro", uri=True, timeout=60)
        try:
            return connection.execute("select 1 from DETAILS where PATH = ?", (path,)).fetchone()
        except sqlite3.OperationalError:
            return None
        finally:
            connection.close()

    def database_size(self):
        return size_of(f"{self.folder}/db")


PEERS = [Quarrow, Find, Plocate, Baloo, Recoll, MiniDlna]


def parse_options():
    parser = argparse.ArgumentParser(description="Puts the daemon beside other programs that catalogue files.")
    parser.add_argument("programs", nargs="*", metavar="PROGRAM", help="of " + ", ".join(peer.name for peer in PEERS))
    parser.add_argument("--build", required=True, help="build folder, made with QUARROW_BENCH=ON")
    parser.add_argument("--files", type=int, default=100000)
    parser.add_argument("--folders", type=int, default=5000)
    parser.add_argument("--repeat", type=int, default=1)
    parser.add_argument("--work", help="folder in which the private temporary folder is made")
    options = parser.parse_args()
    unknown = set(options.programs) - {peer.name for peer in PEERS}
    if unknown:
        parser.error(f"no such program: {', '.join(unknown)}")
    options.daemon = os.path.abspath(f"{options.build}/quarrow")
    options.sink = os.path.abspath(f"{options.build}/bench/bench_log_sink")
    return options


def shown(values, form):
    """The median of the figures; a word as it is."""
    words = [value for value in values if isinstance(value, str)]
    figures = [value for value in values if isinstance(value, (int, float))]
    return words[0] if words else form.format(statistics.median(figures)) if figures else "-"


def show(results):
    print(f"{'':22}{'first index':>14}{'second start':>14}{'peak memory':>14}{'database':>12}{'new file seen':>15}")
    for name, runs in results.items():
        print(f"{name:22}"
              f"{shown([run['first']['seconds'] for run in runs], '{:.2f} s'):>14}"
              f"{shown([run['again']['seconds'] for run in runs], '{:.2f} s'):>14}"
              f"{shown([max(run['first']['memory'], run['again']['memory']) / 1024 for run in runs], '{:.1f} MiB'):>14}"
              f"{shown([run['size'] / 1e6 for run in runs if 'size' in run], '{:.1f} MB'):>12}"
              f"{shown([run.get('seen') for run in runs], '{:.1f} s'):>15}")


def main():
    options = parse_options()
    if not private_run.inside():
        return private_run.run_again_inside(options.work)
    work = private_run.furnish(f"{HERE}/../data/mime_types.txt")
    tree = f"{work}/tree"
    # Small files: some of the programs look into each, and holes of gigabytes would be all that is measured.
    make_tree.make_tree(tree, options.files, options.folders, 1, largest=1024)
    run_to_end(["find", tree, "-printf", "%s %T@ %p\\n"])  # fills the caches; all that follows runs warm
    wanted = [peer for peer in PEERS if not options.programs or peer.name in options.programs]
    for peer in wanted:
        if not peer.program(options):
            print(f"{peer.name}: not installed, left out", file=sys.stderr)
    results = {}
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    for repetition in range(options.repeat):
        for peer in wanted:
            if peer.program(options):
                print(f"measuring {peer.name} ...", file=sys.stderr, flush=True)
                os.sync()
                run = peer(options, tree, f"{work}/{peer.__name__}{repetition}").measure()
                results.setdefault(peer.name, []).append(run)
    print(f"{options.files} files in {options.folders} folders")
    show(results)
    return 0


if __name__ == "__main__":
    sys.exit(main())
