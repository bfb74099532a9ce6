#!/usr/bin/env python3
"""Measures the daemon over trees of many sizes and shapes, and its handling of large bursts of changes.

    scale.py --build BUILD_FOLDER [--scale 1.0] [--work FOLDER] [--json FILE] [NAME...]

Each tree is made for its measurement and removed after it. README.md beside this file says what each measurement means.
"""
import argparse
import contextlib
import json
import os
import select
import shutil
import signal
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, f"{HERE}/../scripts")

import make_tree  # (the path comes first)
import private_run
from daemon import Daemon, LogSink, STOP_PATIENCE, WALK_BEGINS, WALK_ENDS
from quarrow_driver.reading import open_for_reading
from quarrow_driver.waiting import poll
from table import Table, run_measurements, spread

SHAPES = ["files", "one-folder", "many-folders", "deep", "volumes"]
BURSTS = ["burst", "delete", "move"]
# Files and folders of each tree, and how often it is measured: a short time is far more at the mercy of the machine.
FILES = [(10000, 500, 5), (100000, 5000, 3), (1000000, 50000, 1)]
VOLUMES = 4
SHARES = {"quarter": 0.25, "whole": 1}  # of the sizes of the bursts
PER_PARENT = 100  # folders that share one parent where there are many of one file each
PATH_ROOM = 4095  # bytes of a path, without the NUL behind it

GROWTH_TARGET = 1.25  # times the floor's growth of the time per file, from the smallest tree to the largest
VOLUMES_TARGET = 0.6  # times the sum of the single walks
BURST_TARGET = 1.5  # times the time per folder or file of a burst of a quarter of the size; four would be quadratic

EXCLUDED = ["/.quarrow"]  # the catalogue's folder: each walk's own writes would else wake the daemon once more
QUIET = 6  # seconds without a log line after which the daemon is idle: a burst ends after 5 without an event
# A file that is made gives two events, a folder that is removed with its file three: fewer than the kernel queues.
CHANGES_AT_ONCE = 4000
READING_PAUSE = 1  # seconds that the daemon gets to empty the queue
# Logged right behind "Processed N events", whose beginning is also that of a line within a walk.
COLLECTED = "Rate of inotify event "
HANDLED = "Handled "


# ---- trees

def make_file(path):
    os.mknod(path, 0o644)


def fill_folders(root, count):
    """`count` folders of one file each. No path contains another's: a burst skips what contains its first path."""
    for number in range(count):
        parent = f"{root}/part {number // PER_PARENT:05d}"
        if number % PER_PARENT == 0:
            os.makedirs(parent)
        os.mkdir(f"{parent}/album {number:06d}")
        make_file(f"{parent}/album {number:06d}/picture.jpg")


def steps_into(folder, name, count):
    """Descends from `folder` through `count` folders of the same name, which it makes when they are not there. Yields
    the descriptor of each, which is closed at the next step. In steps, since a long path is more than a call takes."""
    here = os.open(folder, os.O_PATH)
    try:
        for _ in range(count):
            if not os.access(name, os.F_OK, dir_fd=here):
                os.mkdir(name, dir_fd=here)
            below = os.open(name, os.O_PATH, dir_fd=here)
            os.close(here)
            here = below
            yield here
    finally:
        os.close(here)


def make_deep(root, levels):
    os.mkdir(root)
    for folder in steps_into(root, "d", levels):
        os.mknod("f", 0o644, dir_fd=folder)


def remove_deep(root, levels):
    """From the bottom up, in steps: the usual removal recurses."""
    bottom = None
    for folder in steps_into(root, "d", levels):
        os.unlink("f", dir_fd=folder)
        if bottom is not None:
            os.close(bottom)
        bottom = os.dup(folder)
    for _ in range(levels):
        above = os.open("..", os.O_PATH, dir_fd=bottom)
        os.close(bottom)
        os.rmdir("d", dir_fd=above)
        bottom = above
    os.close(bottom)
    shutil.rmtree(root)


@contextlib.contextmanager
def tree(root, make, *arguments, remove=shutil.rmtree):
    """The tree that `make` makes at `root`, for the length of a with statement."""
    make(root, *arguments)
    os.sync()
    try:
        yield root
    finally:
        remove(root)


def forget(volumes):
    """Removes what an earlier run left there. Its dirty pages must not be written during the next."""
    for volume in volumes:
        shutil.rmtree(f"{volume}/.quarrow", ignore_errors=True)
        for name in (".tickle", "new file"):
            if os.path.exists(f"{volume}/{name}"):
                os.unlink(f"{volume}/{name}")
    os.sync()


def catalogue_size(volumes):
    return sum(entry.stat().st_size for volume in volumes for entry in os.scandir(f"{volume}/.quarrow"))


# ---- runs

def processor_seconds(process):
    """User and system time of a process so far, of threads that ended as well; finer than /proc tells it."""
    return time.clock_gettime(~process << 3 | 2)  # CPUCLOCK_SCHED of the process: what clock_getcpuclockid() gives


class Lab:
    """The programs, the work folder and the log, and single runs."""

    def __init__(self, options, work, sink):
        self.options = options
        self.work = work
        self.sink = sink
        with open("/proc/sys/fs/inotify/max_user_watches", encoding="ascii") as file:
            self.most_watches = int(file.read())

    def scaled(self, number, share=1.0):
        return max(1, round(number * self.options.scale * share))

    def can_watch(self, folders, what):
        if folders < self.most_watches:
            return True
        print(f"{what}: {folders} folders are more than max_user_watches allows, {self.most_watches}; left out",
              file=sys.stderr)
        return False

    def daemon(self, volumes):
        return Daemon(self.options.daemon, volumes[0], self.work, exclude=EXCLUDED, further=volumes[1:])

    def floor(self, volume):
        done = subprocess.run([self.options.floor, volume, "--prepared"], stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)

    def lines(self, beginning, since):
        return [text for _, text in self.sink.lines[since:] if text.startswith(beginning)]

    def wait_for_walks(self, volumes, since):
        """The time of the last line of the last walk."""
        return max(self.sink.wait_for(f"{WALK_ENDS}{volume}", since=since)[0] for volume in volumes)

    def walk(self, volumes, then=None):
        """One start of the daemon, stopped when its walks have ended and `then` has been called with it."""
        mark = self.sink.mark()
        with self.daemon(volumes) as daemon:
            begun, _ = self.sink.wait_for(WALK_BEGINS, since=mark)
            used = processor_seconds(daemon.pid)
            ended = self.wait_for_walks(volumes, mark)
            result = {"seconds": ended - begun, "cpu_seconds": processor_seconds(daemon.pid) - used,
                      "VmHWM": daemon.memory()["VmHWM"]}
            counts = poll(lambda: self.lines("Actively watching ", mark)[len(volumes) - 1:], 10)
            result["watches"] = int(counts[0].split()[2])
            if then:
                result.update(then(daemon))
                result["VmHWM after the change"] = daemon.memory()["VmHWM"]
        return result

    def change_at_root(self, volumes):
        """How long the idle daemon handles a file that is made in the top folder."""
        self.sink.wait_for_quiet(QUIET)
        mark = self.sink.mark()
        make_file(f"{volumes[0]}/new file")
        begun, _ = self.sink.wait_for(COLLECTED, since=mark)
        ended, _ = self.sink.wait_for(f"{WALK_ENDS}{volumes[0]}", since=mark)
        return {"change_seconds": ended - begun}

    def stop_in_walk(self, volumes, delay):
        """SIGTERM so long after the beginning of a first walk: seconds until the process has ended."""
        mark = self.sink.mark()
        with self.daemon(volumes) as daemon:
            begun, _ = self.sink.wait_for(WALK_BEGINS, since=mark)
            time.sleep(max(0, begun + delay - time.monotonic()))
            mid_walk = len(self.lines(WALK_ENDS, mark)) < len(volumes)
            asked = time.monotonic()
            os.kill(daemon.pid, signal.SIGTERM)
            process = os.pidfd_open(daemon.pid)  # readable at once when it ends; a timed wait() would look now and then
            if not select.select([process], [], [], STOP_PATIENCE)[0]:
                raise RuntimeError(f"the daemon had not ended {STOP_PATIENCE} s after SIGTERM")
            seconds = time.monotonic() - asked
            os.close(process)
        self.sink.wait_for_quiet(0.5)
        walked = [text.split()[-1].split("/") for text in self.lines("Total folders/files (re)indexed", mark)]
        return {"seconds": seconds, "mid_walk": mid_walk, "after_seconds": delay,
                "folders": sum(int(folders) for folders, _ in walked), "files": sum(int(files) for _, files in walked)}

    def both_walks(self, volumes, then=None):
        forget(volumes)
        first = self.walk(volumes)
        size = catalogue_size(volumes)
        os.sync()
        return {"first": first, "again": self.walk(volumes, then), "catalogue": size}

    def measure_shape(self, volumes, files, folders):
        """All that is asked of every shape."""
        walks = self.both_walks(volumes, lambda _: self.change_at_root(volumes))
        forget(volumes)
        stop = self.stop_in_walk(volumes, walks["first"]["seconds"] / 2)
        forget(volumes)
        return {"files": files, "folders": folders, **walks, "stop": stop}

    def handle(self, volume, change):
        """The daemon over `volume`, idle; then `change` is called, and the burst that it makes is timed."""
        mark = self.sink.mark()
        with self.daemon([volume]) as daemon:
            self.wait_for_walks([volume], mark)
            self.sink.wait_for_quiet(QUIET)
            # A burst's age counts from the end of the one before, so one goes ahead: the next will not be too old.
            mark = self.sink.mark()
            make_file(f"{volume}/other/a first change")
            self.sink.wait_for(HANDLED, since=mark)
            self.sink.wait_for_quiet(QUIET)
            mark = self.sink.mark()
            change()
            time.sleep(QUIET / 3)  # the events are read by then, and the burst still waits for more
            used = processor_seconds(daemon.pid)
            begun, _ = self.sink.wait_for(COLLECTED, since=mark)
            ended, last = self.sink.wait_for(HANDLED, since=mark)
            used = processor_seconds(daemon.pid) - used
            return {"seconds": ended - begun, "cpu_seconds": used, "events": int(last.split()[1]),
                    "walks": len(self.lines("Going to walk ", mark)),
                    "skipped": len(self.lines("Skipping because ", mark)), "VmHWM": daemon.memory()["VmHWM"]}


class Pauses:
    """Lets the daemon read after so many changes: what overruns the kernel's queue is lost."""

    def __init__(self):
        self.changes = 0

    def count(self, changes):
        if self.changes + changes > CHANGES_AT_ONCE:
            time.sleep(READING_PAUSE)
            self.changes = 0
        self.changes += changes


def live_rows(volume, table, below):
    """How many entries of the catalogue, not marked deleted, have a path that begins so."""
    with contextlib.closing(open_for_reading(f"{volume}/.quarrow/quarrow.db")) as catalogue:
        return catalogue.execute(f"select count(*) from {table} where is_deleted = 0 and substr(path, 1, ?) = ?",
                                 (len(below), below)).fetchone()[0]


# ---- measurements: shapes

def measure_files(lab):
    results = []
    for files, folders, repeat in FILES:
        files, folders = lab.scaled(files), lab.scaled(folders)
        if not lab.can_watch(folders, f"files, {files}"):
            continue
        with tree(f"{lab.work}/tree", make_tree.make_tree, files, folders, 1) as root:
            floors, runs = [], []
            for repetition in range(repeat):
                forget([root])
                floor = lab.floor(root)
                os.sync()
                floors.append({"first": floor, "again": lab.floor(root)})
                if repetition + 1 < repeat:
                    runs.append(lab.both_walks([root]))
            forget([root])
            result = lab.measure_shape([root], files, folders)
            runs.append({key: result[key] for key in ("first", "again")})
            results.append({**result, "floors": floors, "daemons": runs})
    return results


def measure_one_folder(lab):
    files = lab.scaled(200000)

    def make(root):
        os.makedirs(f"{root}/folder")
        for number in range(files):
            make_file(f"{root}/folder/picture {number:06d}.jpg")

    with tree(f"{lab.work}/tree", make) as root:
        return [lab.measure_shape([root], files, 1)]


def measure_many_folders(lab):
    count = lab.scaled(100000)
    folders = count + -(-count // PER_PARENT)
    if not lab.can_watch(folders, "many-folders"):
        return []
    with tree(f"{lab.work}/tree", fill_folders, count) as root:
        return [lab.measure_shape([root], count, folders)]


def measure_deep(lab):
    levels = lab.scaled(2000)
    root = f"{lab.work}/tree"
    if len(root) + 2 * levels + len("/f") > PATH_ROOM:
        print(f"deep: {levels} levels below {root} are longer than a path may be; left out", file=sys.stderr)
        return []
    with tree(root, make_deep, levels, remove=lambda place: remove_deep(place, levels)):
        return [lab.measure_shape([root], levels, levels)]


def measure_volumes(lab):
    files, folders = lab.scaled(100000), lab.scaled(5000)
    if not lab.can_watch(VOLUMES * folders, "volumes"):
        return []
    with contextlib.ExitStack() as trees:
        volumes = [trees.enter_context(tree(f"{lab.work}/volume {number}", make_tree.make_tree, files, folders, number))
                   for number in range(1, VOLUMES + 1)]
        singles = []
        for volume in volumes:
            singles.append(lab.both_walks([volume]))
            forget([volume])
        return [{**lab.measure_shape(volumes, VOLUMES * files, VOLUMES * folders), "singles": singles}]


# ---- measurements: bursts

def measure_burst(lab):
    """A new file in every tenth of many folders."""
    results = {}
    for share, factor in SHARES.items():
        folders = lab.scaled(100000, factor)
        if not lab.can_watch(folders + folders // PER_PARENT + 3, f"burst, {share}"):
            continue
        changed = [f"part {number // PER_PARENT:05d}/album {number:06d}" for number in range(0, folders, 10)]

        def change():
            pauses = Pauses()
            for folder in changed:
                pauses.count(1)
                os.close(os.open(f"{root}/{folder}/new.jpg", os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o644))

        with tree(f"{lab.work}/tree", fill_folders, folders) as root:
            os.mkdir(f"{root}/other")
            run = lab.handle(root, change)
            # Per folder that was walked: of each read, the last folder is not noted, so some are left for later.
            results[share] = {"units": run["walks"], "changed": len(changed), "watched": folders, **run}
    return {"burst": {"unit": "folder", "runs": results}}


def remove_slowly(folder):
    """As rm -r does it, with pauses for the daemon."""
    pauses = Pauses()
    for entry in os.scandir(folder):
        pauses.count(2)
        os.unlink(f"{entry.path}/picture.jpg")
        os.rmdir(entry.path)
    os.rmdir(folder)


def measure_delete(lab):
    """Many folders below one that is moved out of the volume, or removed entry by entry."""
    results = {"delete by rename": {}, "delete by rm": {}}
    for share, factor in SHARES.items():
        folders = lab.scaled(10000, factor)
        if not lab.can_watch(folders + 4, f"delete, {share}"):
            continue

        def make(root):
            os.makedirs(f"{root}/other")
            for number in range(folders):
                os.makedirs(f"{root}/library/albums/album {number:06d}")
                make_file(f"{root}/library/albums/album {number:06d}/picture.jpg")

        def by_rename():
            os.rename(f"{root}/library/albums", f"{lab.work}/moved out")

        def by_rm():
            remove_slowly(f"{root}/library/albums")
            # The last folder of a read is not noted until the events change to another.
            make_file(f"{root}/library/a later change")
            make_file(f"{root}/other/a last change")

        for name, change in (("delete by rename", by_rename), ("delete by rm", by_rm)):
            with tree(f"{lab.work}/tree", make) as root:
                run = lab.handle(root, change)
                wrong = sum(live_rows(root, table, "/library/albums") for table in ("Files", "Folders"))
                results[name][share] = {"units": folders, "wrong_rows": wrong, **run}
            shutil.rmtree(f"{lab.work}/moved out", ignore_errors=True)
    return {name: {"unit": "folder", "runs": runs} for name, runs in results.items()}


def measure_move(lab):
    """A tree that is renamed within the volume."""
    results = {}
    for share, factor in SHARES.items():
        files, folders = lab.scaled(100000, factor), lab.scaled(5000, factor)
        if not lab.can_watch(folders + 2, f"move, {share}"):
            continue

        def make(root):
            # The top folder, which is the one that moves, is one of the folders.
            make_tree.make_tree(f"{root}/library", files, max(1, folders - 1), 1)
            os.mkdir(f"{root}/other")

        with tree(f"{lab.work}/tree", make) as root:
            run = lab.handle(root, lambda: os.rename(f"{root}/library", f"{root}/archive"))
            wrong = (live_rows(root, "Files", "/library/") + live_rows(root, "Folders", "/library")
                     + abs(live_rows(root, "Files", "/archive/") - files))
            results[share] = {"units": files, "wrong_rows": wrong, **run}
    return {"move": {"unit": "file", "runs": results}}


# ---- tables

def counted(number, what):
    return f"{number} {what}" + ("" if number == 1 else "s")


def show_shape(name, result, table):
    table.add(name, f"{counted(result['files'], 'file')} in {counted(result['folders'], 'folder')}")
    for walk, label in (("first", "first walk"), ("again", "re-walk")):
        run = result[walk]
        table.add(f"{name}, {label}", f"{run['seconds']:.3f} s", f"processor {run['cpu_seconds']:.3f} s")
    first, again, stop = result["first"], result["again"], result["stop"]
    table.add(f"{name}, peak memory, first walk", f"{first['VmHWM']} kB")
    table.add(f"{name}, peak memory, re-walk and change", f"{again['VmHWM after the change']} kB")
    table.add(f"{name}, watches", f"{first['watches']}")
    table.add(f"{name}, catalogue", f"{result['catalogue'] / 1e6:.1f} MB")
    table.add(f"{name}, one change at the root", f"{again['change_seconds']:.3f} s")
    reached = f"in folder {stop['folders']} of {first['watches']}" if stop["mid_walk"] else "the walk was over"
    table.add(f"{name}, SIGTERM in the first walk", f"{stop['seconds']:.3f} s", reached)


def per_file(results, side, walk, measure):
    return [[run[walk][measure] / result["files"] for run in result[side]] for result in results]


def show_growth(results, table):
    for walk, label in (("first", "first walk"), ("again", "re-walk")):
        daemons, floors = (per_file(results, side, walk, "seconds") for side in ("daemons", "floors"))
        for result, mine, other in zip(results, daemons, floors):
            what = f"files {result['files']}, {label}"
            table.add(f"{what}, daemon per file", spread([1e6 * value for value in mine], ".2f", " us"))
            table.add(f"{what}, prepared floor per file", spread([1e6 * value for value in other], ".2f", " us"))
            table.add(f"{what}, daemon / prepared floor", spread([a / b for a, b in zip(mine, other)], ".2f"))
        if len(results) < 2:
            continue
        for measure, judged in (("seconds", True), ("cpu_seconds", False)):
            mine, other = ([statistics.median(values) for values in per_file(results, side, walk, measure)]
                           for side in ("daemons", "floors"))
            mine, other = mine[-1] / mine[0], other[-1] / other[0]
            growth = mine / other
            table.add(f"files, {label}, growth per file" + ("" if judged else ", processor time"),
                      f"{growth:.2f} times the floor's  (daemon {mine:.2f}, floor {other:.2f})",
                      f"at most {GROWTH_TARGET}" if judged else "", growth <= GROWTH_TARGET if judged else None)


def show_volumes(results, table):
    for result in results:
        for walk, label in (("first", "first walk"), ("again", "re-walk")):
            total = sum(single[walk]["seconds"] for single in result["singles"])
            ratio = result[walk]["seconds"] / total
            table.add(f"volumes, {label}, sum of {VOLUMES} single ones", f"{total:.3f} s",
                      f"processor {sum(single[walk]['cpu_seconds'] for single in result['singles']):.2f} s")
            table.add(f"volumes, {label}, at once / sum", f"{ratio:.2f}", f"at most {VOLUMES_TARGET}",
                      ratio <= VOLUMES_TARGET)


def show_burst(name, result, table):
    runs = result["runs"]
    for run in runs.values():
        what = f"{name}, {counted(run.get('changed', run['units']), result['unit'])}"
        table.add(f"{what}, handling", f"{run['seconds']:.3f} s", f"processor {run['cpu_seconds']:.3f} s")
        walked = f"{counted(run['walks'], 'folder')} walked, {run['skipped']} skipped"
        table.add(f"{what}, events", f"{run['events']}, {walked}", f"peak memory {run['VmHWM']} kB")
        if "wrong_rows" in run:
            table.add(f"{what}, wrong rows", f"{run['wrong_rows']}", "none", run["wrong_rows"] == 0)
    if len(runs) < len(SHARES):
        return
    for measure, label in (("seconds", "time"), ("cpu_seconds", "processor time")):
        quarter, whole = (runs[share][measure] / max(1, runs[share]["units"]) for share in ("quarter", "whole"))
        what = f"{name}, {label} per {result['unit']}, four times the size"
        if quarter == 0:
            table.add(what, "the quarter was over too soon to be timed")
        else:
            table.add(what, f"{whole / quarter:.2f} times", f"at most {BURST_TARGET}", whole / quarter <= BURST_TARGET)


def show(name, results, table):
    if name in BURSTS:
        for variant, result in results.items():
            show_burst(variant, result, table)
        return
    for result in results:
        show_shape(f"{name} {result['files']}" if name == "files" else name, result, table)
    if name == "files":
        show_growth(results, table)
    if name == "volumes":
        show_volumes(results, table)


def parse_options():
    parser = argparse.ArgumentParser(description="Measures the daemon at many sizes; without a name, everything.")
    parser.add_argument("measurements", nargs="*", metavar="NAME", help="of " + ", ".join(SHAPES + BURSTS))
    parser.add_argument("--build", required=True, help="build folder, made with QUARROW_BENCH=ON")
    parser.add_argument("--scale", type=float, default=1.0, help="times every size; the targets are for 1.0")
    parser.add_argument("--work", help="folder in which the private temporary folder is made")
    parser.add_argument("--mime-types", default=f"{HERE}/../data/mime_types.txt")
    parser.add_argument("--json", metavar="FILE", help="write all raw numbers here")
    options = parser.parse_args()
    unknown = set(options.measurements) - set(SHAPES + BURSTS)
    if unknown:
        parser.error(f"no such measurement: {', '.join(unknown)}")
    options.measurements = options.measurements or SHAPES + BURSTS
    for name, place in (("daemon", "quarrow"), ("floor", "bench/bench_floor"), ("sink", "bench/bench_log_sink")):
        setattr(options, name, os.path.abspath(f"{options.build}/{place}"))
        if not os.access(getattr(options, name), os.X_OK):
            parser.error(f"{options.build}/{place} is not there")
    return options


def main():
    options = parse_options()
    if not private_run.inside():
        return private_run.run_again_inside(options.work)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # the trees are removed on the way out
    work = private_run.furnish(options.mime_types)
    table = Table()
    table.add("scale", f"{options.scale}", f"load {os.getloadavg()[0]:.1f} on {os.cpu_count()} processors")
    raw = {"scale": options.scale, "load": os.getloadavg()}
    with LogSink(options.sink) as sink:
        lab = Lab(options, work, sink)
        run_measurements(options.measurements, lambda name: globals()[f"measure_{name.replace('-', '_')}"](lab), show, raw,
                         table, options.json)
    return 0


if __name__ == "__main__":
    sys.exit(main())
