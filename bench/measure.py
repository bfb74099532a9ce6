"""The measurements. Each takes the Bench and returns its raw numbers; run.py judges and prints them."""
import collections
import json
import os
import re
import shutil
import signal
import subprocess
import time

import make_tree
from daemon import Daemon, LogSink, WALK_BEGINS, WALK_ENDS
from quarrow_driver.clock import fast_clock

HURRY = 100  # how many times faster the clock runs where only the clock matters
FLOORS = {"floor": [], "prepared floor": ["--prepared"], "prepared floor with log": ["--prepared", "--log"],
          "floor per folder with log": ["--per-folder", "--log"]}
REWALKS = 10
REWALK_PAUSE = 300  # seconds that the daemon lets pass between two starts of a walk
MOVED_TREES = {"quarter": (5000, 250), "whole": (20000, 1000)}  # files and folders of a tree that is moved


class Bench:
    """The programs and the tree, and single runs of each over it."""

    def __init__(self, options, work, tree):
        self.options = options
        self.work = work
        self.tree = tree

    def sink(self):
        return LogSink(self.options.sink)

    def daemon(self, volume=None, **rest):
        return Daemon(self.options.daemon, volume or self.tree, self.work, **rest)

    def forget(self):
        """Removes what an earlier run left in the tree. The dirty pages of that run must not be written during the next."""
        shutil.rmtree(f"{self.tree}/.quarrow", ignore_errors=True)
        if os.path.exists(f"{self.tree}/.tickle"):
            os.unlink(f"{self.tree}/.tickle")
        os.sync()

    def find(self):
        start = time.monotonic()
        subprocess.run(["find", self.tree, "-printf", "%s %T@ %p\\n"], stdout=subprocess.DEVNULL, check=True)
        return {"seconds": time.monotonic() - start}

    def floor(self, *arguments, tracer=()):
        pragmas = [word for text in self.options.floor_pragma for word in ("--pragma", text)]
        done = subprocess.run([*tracer, self.options.floor, self.tree, *arguments, *pragmas],
                              stdout=subprocess.PIPE, check=True)
        return json.loads(done.stdout)

    def daemon_walk(self, sink):
        """One start of the daemon, stopped when its walk has ended. Timed from the walk's first line to its last."""
        mark = sink.mark()
        with self.daemon() as daemon:
            begun, _ = sink.wait_for(WALK_BEGINS, since=mark)
            ended, _ = sink.wait_for(WALK_ENDS, since=mark)
            return {"seconds": ended - begun, "cpu_seconds": daemon.processor_seconds(),
                    "from_start": ended - daemon.started, **daemon.memory()}

    def unheard_walk(self):
        """As daemon_walk, timed by the life of the walk thread, which needs no log line."""
        with self.daemon() as daemon:
            return {"seconds": daemon.walk_thread_seconds(), "cpu_seconds": daemon.processor_seconds()}


def both_walks(bench, walk):
    bench.forget()
    first = walk()
    os.sync()
    return {"first": first, "again": walk()}


def walks(bench):
    """find, the floors without and with log lines, and the daemon, in turn; each repetition in another order, so that a
    machine that slows down on the way favours none."""
    results = collections.defaultdict(list)
    bench.find()  # fills the caches; all that follows runs warm
    with bench.sink() as sink:
        contestants = [("find", bench.find)]
        for name, arguments in FLOORS.items():
            contestants.append((name, lambda arguments=arguments: both_walks(bench, lambda: bench.floor(*arguments))))
        if bench.options.daemon:
            contestants.append(("daemon", lambda: both_walks(bench, lambda: bench.daemon_walk(sink))))
        for repetition in range(bench.options.repeat):
            for name, run in contestants if repetition % 2 == 0 else reversed(contestants):
                results[name].append(run())
    bench.forget()
    return results


def logs(bench):
    """The daemon's walks with a receiver that drops the lines and with none."""
    results = collections.defaultdict(list)
    for _ in range(bench.options.repeat):
        with bench.sink():
            results["receiver"].append(both_walks(bench, bench.unheard_walk))
        results["nobody"].append(both_walks(bench, bench.unheard_walk))
    bench.forget()
    return results


def memory(bench):
    """Peak memory after the first walk of the tree, and of a volume without folders."""
    empty = f"{bench.work}/empty"
    os.makedirs(empty, exist_ok=True)
    peaks = {}
    bench.forget()
    with bench.sink() as sink:
        for name, volume in (("empty", empty), ("tree", bench.tree)):
            mark = sink.mark()
            with bench.daemon(volume) as daemon:
                sink.wait_for(WALK_ENDS, since=mark)
                _, watched = sink.wait_for("Actively watching ", since=mark)
                peaks[name] = {"watched": int(watched.split()[2]), **daemon.memory()}
    bench.forget()
    return peaks


def growth(bench):
    """Memory after the first walk and after each of ten more in the same process, which sees a faster clock."""
    samples = []
    watched = 0
    bench.forget()
    with bench.sink() as sink:
        mark = sink.mark()
        with bench.daemon(environment=fast_clock(HURRY)) as daemon:
            sink.wait_for(WALK_ENDS, since=mark)
            sink.wait_for("Woke up too soon", since=mark)  # the control loop has begun to count its pause
            _, line = sink.wait_for("Actively watching ", since=mark)
            watched = int(line.split()[2])
            sink.wait_for_quiet(1)
            samples.append(daemon.memory())
            while len(samples) <= REWALKS:
                time.sleep(REWALK_PAUSE / HURRY + 0.5)
                mark = sink.mark()
                os.kill(daemon.pid, signal.SIGUSR1)
                _, answer = sink.wait_for(WALK_ENDS, "Woke up too soon", since=mark)
                if answer.startswith(WALK_ENDS):
                    sink.wait_for_quiet(1)
                    samples.append(daemon.memory())
    bench.forget()
    return {"watched": watched, "samples": samples}


def moves(bench):
    """A folder tree that is moved in one go, and one of a quarter of its size: the watcher's one call, and its statements
    with nothing around them."""
    results = {}
    for name, (files, folders) in MOVED_TREES.items():
        volume = f"{bench.work}/moves-{name}"
        record = f"{volume}.sql"
        # The top folder, which is the one that moves, is one of the folders.
        make_tree.make_tree(f"{volume}/library", files, folders - 1, bench.options.seed)
        runs = {"call": [], "floor": []}
        with bench.sink():
            moved(bench, volume, "--record", record)
            for _ in range(bench.options.repeat):
                runs["call"].append(moved(bench, volume))
                os.makedirs(f"{volume}/.quarrow")
                catalogue = f"{volume}/.quarrow/quarrow.db"
                shutil.copyfile(f"{record}.db", catalogue)
                os.sync()
                runs["floor"].append(run_moves(bench, "--replay", record, catalogue))
                shutil.rmtree(f"{volume}/.quarrow")
        shutil.rmtree(volume)
        results[name] = runs
    return results


def moved(bench, volume, *arguments):
    """One move over a new catalogue. The tree is back in its place afterwards."""
    os.sync()
    result = run_moves(bench, volume, *arguments)
    os.rename(f"{volume}/archive", f"{volume}/library")
    shutil.rmtree(f"{volume}/.quarrow")
    return result


def run_moves(bench, *arguments):
    return json.loads(subprocess.run([bench.options.moves, *arguments], stdout=subprocess.PIPE, check=True).stdout)


def count_writes(trace, page_size):
    """Syncs and whole pages written, of a trace: during the walk (from its first log line to the stop) where the trace has
    such lines, else of all of it."""
    call = re.compile(r'^\d+ +(fsync|fdatasync|pwrite64|write|sendto)\(\d+<([^>]*)>.*?(?:, (\d+)(?:, \d+)?)?(?:\)| <unf)')
    with open(trace, encoding="utf-8", errors="replace") as file:
        lines = file.readlines()
    begin = next((i for i, line in enumerate(lines) if "sendto(" in line and WALK_BEGINS in line), 0)
    end = next((i for i, line in enumerate(lines) if "sendto(" in line and "Got a signal to stop" in line), len(lines))
    counts = collections.Counter()
    for line in lines[begin:end]:
        match = call.match(line)
        if not match:
            continue
        name, path, length = match.groups()
        if name in ("fsync", "fdatasync"):
            counts["syncs"] += 1
            counts["syncs of " + os.path.basename(path)] += 1
        elif path.endswith((".db", "-wal", "-journal")) and int(length or 0) >= page_size:
            counts["pages"] += int(length) // page_size
            counts["pages to " + os.path.basename(path)] += int(length) // page_size
    return counts


def syncs(bench):
    """How often the first walk waits for the disk. Traced, so its time means nothing."""
    trace = f"{bench.work}/trace"
    tracer = ["strace", "-D", "-f", "--seccomp-bpf", "-y", "-s", "60", "-o", trace,
              "-e", "trace=fsync,fdatasync,pwrite64,write,sendto"]
    results = {}
    bench.forget()
    floor = bench.floor(tracer=tracer)
    with open(f"{bench.tree}/.quarrow/quarrow.db", "rb") as file:
        page_size = int.from_bytes(file.read(18)[16:], "big")
    results["floor"] = {"folders": floor["folders"], **count_writes(trace, page_size)}
    if bench.options.daemon:
        bench.forget()
        with bench.sink() as sink:
            mark = sink.mark()
            with bench.daemon(tracer=tracer):
                sink.wait_for(WALK_ENDS, since=mark)
                sink.wait_for_quiet(3)  # the catalogue is tidied after the walk
            results["daemon"] = {"folders": floor["folders"], **count_writes(trace, page_size)}
    bench.forget()
    return results


def idle(bench):
    """System calls of the settled daemon, with the whole volume watched and with crawl paths."""
    top = sorted(f"/{entry.name}" for entry in os.scandir(bench.tree) if entry.is_dir() and entry.name != ".quarrow")
    return {"no crawl paths": idle_calls(bench, ()), "crawl paths": idle_calls(bench, top)}


def idle_calls(bench, crawl_paths):
    trace = f"{bench.work}/trace"
    bench.forget()
    with bench.sink() as sink:
        mark = sink.mark()
        with bench.daemon(crawl_paths=crawl_paths) as daemon:
            for path in crawl_paths or ("",):
                sink.wait_for(f"{WALK_ENDS}{bench.tree}{path}", since=mark)
            os.kill(daemon.pid, signal.SIGUSR1)  # ends the start-up pause of a minute early
            sink.wait_for("Woke up too soon", since=mark)
            sink.wait_for_quiet(12)  # longer than the pause that ends a burst of changes
            tracer = subprocess.Popen(["strace", "-f", "-q", "-ttt", "-o", trace, "-p", str(daemon.pid)])
            time.sleep(2)  # attaching interrupts the waiting calls, which are then made again
            begin = time.time()
            time.sleep(bench.options.idle_seconds)
            end = time.time()
            tracer.terminate()
            tracer.wait()
    bench.forget()
    calls = collections.Counter()
    with open(trace, encoding="utf-8", errors="replace") as file:
        for line in file:
            match = re.match(r"^\d+ +(\d+\.\d+) (\w+)\(", line)
            if match and begin <= float(match.group(1)) < end:
                calls[match.group(2)] += 1
    return {"seconds": end - begin, "calls": sum(calls.values()), "by name": calls}
