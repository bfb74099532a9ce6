#!/usr/bin/env python3
"""Measures quarrowctl: `find` beside the usual programs that answer the same questions, the rest against its targets.

    ctl.py --build BUILD_FOLDER [--repeat 5] [--files 100000] [--rows 1000000] [--work FOLDER] [SECTION...]

Everything runs warm: each command goes once before it counts. What is not installed is left out, and named.
"""
import argparse
import os
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, f"{HERE}/../scripts")

import make_catalogue  # (the path comes first)
import make_tree
from peers import run_to_end
from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.reading import open_for_reading
from table import Table, run_measurements, spread

FOLDERS = 5000  # of the tree
MEMORY_TARGET = 100  # MB
CHANGES_TARGET = 200000  # rows a second
A_FOLDER = "select path from Folders where path like '/Music/%/%' order by path limit 1"


class Bench:
    """What the sections share: a volume with a tree of files and its catalogue, and a volume whose catalogue alone is large.
    Each is made when it is asked for first."""

    def __init__(self, options, work):
        self.options = options
        self.work = work
        self.made = {}

    def make(self, name, fill):
        if name not in self.made:
            print(f"making {name} ...", file=sys.stderr, flush=True)
            folder = f"{self.work}/{name}"
            os.makedirs(folder)
            fill(folder)
            with open(f"{folder}.xml", "w", encoding="utf-8") as file:
                file.write(host_configuration([volume_element(name, folder, [], [])]))
            self.made[name] = folder
        return self.made[name]

    def tree(self):
        """The folder of a volume of --files files."""
        def fill(folder):
            make_tree.make_tree(folder, self.options.files, FOLDERS, 1)
            make_catalogue.of_tree(folder)
        return self.make("tree", fill)

    def large(self):
        """The folder of a volume with a catalogue of --rows files, which are not there."""
        def fill(folder):
            make_catalogue.of_nothing(folder, self.options.rows, 1)
            time.sleep(3)  # `status` keeps nothing of a file that was written just now
        return self.make("large", fill)

    def ctl(self, volume, *arguments):
        return [self.options.ctl, "--config", f"{volume}.xml", *arguments]

    def time(self, command, environment=None, good=(0,)):
        """Seconds of each run, and how many lines it prints. `good`: the exit statuses that are no failure."""
        lines = run(command, subprocess.PIPE, environment, good).count(b"\n")
        seconds = []
        for _ in range(self.options.repeat):
            start = time.perf_counter()
            run(command, subprocess.DEVNULL, environment, good)
            seconds.append(time.perf_counter() - start)
        return {"seconds": seconds, "lines": lines}

    def time_large(self, questions):
        """The commands, each with the seconds that it may take, on the large catalogue. What run_to_end() is given besides may
        follow."""
        results = {}
        for question, (command, target, *settings) in questions.items():
            memory = run_to_end(command, *settings)["memory"] / 1024
            results[question] = {**self.time(command, *settings), "target": target, "memory": memory}
        return results

    def show_large(self, results, table):
        table.add(f"{self.options.rows} rows", "", "")
        for question, result in results.items():
            median = statistics.median(result["seconds"])
            table.add(f"  {question}", spread(result["seconds"], ".4f", " s") + f", {result['lines']} lines",
                      f"{result['target']} s" if result["target"] else "", result["target"] and median <= result["target"])
        most = max(result["memory"] for result in results.values())
        table.add("  most memory of these", f"{most:.1f} MiB", f"below {MEMORY_TARGET} MB", most * 1.048576 < MEMORY_TARGET)


def run(command, output, environment=None, good=(0,)):
    process = subprocess.run(command, stdout=output, stderr=subprocess.DEVNULL, env={**os.environ, **(environment or {})},
                             check=False)
    if process.returncode not in good:
        raise RuntimeError(f"{command[0]} ended with {process.returncode}")
    return process.stdout


# find, recent, largest

class Find:
    """On the tree beside find and plocate, and on the large catalogue against the targets."""

    name = "find"

    def __init__(self, bench):
        self.bench = bench

    def measure(self):
        return {"beside": self.beside(), "large": self.large()}

    def beside(self):
        tree = self.bench.tree()
        with open_for_reading(f"{tree}/.quarrow/quarrow.db") as catalogue:
            folder, = catalogue.execute(A_FOLDER).fetchone()
            name, = catalogue.execute("select name from Files where path like '/Photos/%' order by file_id desc limit 1").fetchone()
        find = lambda *tests: ["find", tree, "-path", f"{tree}/.quarrow", "-prune", "-o", *tests, "-print"]
        shell = lambda form, key: ["sh", "-c", f"find '{tree}' -path '{tree}/.quarrow' -prune -o -type f -printf '{form} %p\\n'"
                                   f" | sort -k1,1{key} | head -n 20"]
        questions = {
            "part of few names": (["find", "999"], find("-name", "*999*"), ["-b", "999"]),
            "part of many names": (["find", "track"], find("-name", "*track*"), ["-b", "track"]),
            "by extension": (["find", "*.flac"], find("-name", "*.flac"), ["-b", "*.flac"]),
            "one name": (["find", "-x", name], find("-name", name), ["-b", f"\\{name}"]),
            "below a folder": (["find", "--under", tree + folder], ["find", tree + folder, "-mindepth", "1"],
                               [f"{tree}{folder}/*"]),
            "all": (["find"], find("-true"), [""]),
            "larger than 1 GiB": (["find", "--larger", "1G"], find("-type", "f", "-size", "+1073741824c"), None),
            "20 newest": (["recent"], shell("%T@", "nr"), None),
            "20 largest": (["largest"], shell("%s", "nr"), None),
        }
        database = f"{self.bench.work}/plocate.db"
        if shutil.which("plocate") and shutil.which("updatedb.plocate"):
            run(["updatedb.plocate", "-U", tree, "-o", database, "-l", "no", "--prunepaths", f"{tree}/.quarrow"], None)
        else:
            print("plocate: not installed, left out", file=sys.stderr)
            database = None
        results = {}
        for question, (ours, with_find, with_plocate) in questions.items():
            result = {"quarrowctl": self.bench.time(self.bench.ctl(tree, *ours)), "find": self.bench.time(with_find)}
            if database and with_plocate is not None:
                result["plocate"] = self.bench.time(["plocate", "-d", database, *with_plocate], good=(0, 1))  # 1: nothing found
            results[question] = result
        return results

    def large(self):
        volume = self.bench.large()
        connection = sqlite3.connect(f"{volume}/.quarrow/quarrow.db")
        folder, = connection.execute(A_FOLDER).fetchone()
        connection.close()
        questions = {
            "part of few names": (["find", "12345"], 0.5),
            "part of a tenth of the names": (["find", "concert"], 0.5),
            "part of no name, any case": (["find", "-i", "zzz"], 0.5),
            "by extension, a fifth": (["find", "*.mp3"], None),
            "beginning of names": (["find", "07 rock*"], 0.5),
            "below a folder": (["find", "--under", volume + folder], 0.05),
            "below a fifth of all": (["find", "--under", f"{volume}/Music"], None),
            "all": (["find"], None),
            "all, as JSON": (["find", "--json"], None),
            "larger than 512 MiB": (["find", "--larger", "512M"], None),
            "deleted of late": (["find", "--deleted", "--changed-within", "2000w"], None),
            "20 newest": (["recent"], None),
            "20 largest": (["largest"], None),
        }
        return self.bench.time_large({question: (self.bench.ctl(volume, *arguments), target)
                                      for question, (arguments, target) in questions.items()})

    def show(self, numbers, table):
        table.add(f"{self.bench.options.files} files", "", "")
        for question, result in numbers["beside"].items():
            ours = result["quarrowctl"]
            table.add(f"  {question}: quarrowctl", spread(ours["seconds"], ".4f", " s"), f"{ours['lines']} lines")
            for peer in ("find", "plocate"):
                if peer in result:
                    other = result[peer]
                    ratio = statistics.median(other["seconds"]) / statistics.median(ours["seconds"])
                    table.add(f"    {peer}", spread(other["seconds"], ".4f", " s") + f", {ratio:.2f} times ours",
                              f"{other['lines']} lines", None if other["lines"] == ours["lines"] else False)
        self.bench.show_large(numbers["large"], table)


# status, changes, report

class Large:
    """The other commands, on the large catalogue against their targets. No daemon runs."""

    name = "large"

    def __init__(self, bench):
        self.bench = bench

    def measure(self):
        volume = self.bench.large()
        ctl = lambda *arguments: self.bench.ctl(volume, *arguments)
        no_daemon = (0, 1)  # which status says by 1
        forgetting = {"XDG_CACHE_HOME": "", "HOME": ""}
        rows = self.bench.options.rows
        return self.bench.time_large({
            "status, counted": (ctl("status"), None, forgetting, no_daemon),
            "status, counted before": (ctl("status"), 0.3, {"XDG_CACHE_HOME": f"{self.bench.work}/cache"}, no_daemon),
            "changes --full": (ctl("changes", "--full"), rows / CHANGES_TARGET),
            "report": (ctl("report", "-o", f"{self.bench.work}/report.html"), 10),
        })

    def show(self, numbers, table):
        self.bench.show_large(numbers, table)


SECTIONS = {section.name: section for section in (Find, Large)}


def parse_options():
    parser = argparse.ArgumentParser(description="Measures quarrowctl beside the usual programs.")
    parser.add_argument("sections", nargs="*", metavar="SECTION", help="of " + ", ".join(SECTIONS))
    parser.add_argument("--build", required=True, help="build folder")
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--files", type=int, default=100000, help="in the tree on the disk")
    parser.add_argument("--rows", type=int, default=1000000, help="in the large catalogue")
    parser.add_argument("--work", default="/dev/shm", help="folder in which the work folder is made")
    parser.add_argument("--json", help="file for every raw number")
    options = parser.parse_args()
    unknown = set(options.sections) - set(SECTIONS)
    if unknown:
        parser.error(f"no such section: {', '.join(unknown)}")
    options.ctl = os.path.abspath(f"{options.build}/quarrowctl")
    return options


def main():
    options = parse_options()
    with tempfile.TemporaryDirectory(prefix="quarrow-bench-", dir=options.work) as work:
        bench = Bench(options, work)
        names = options.sections or list(SECTIONS)
        sections = {name: SECTIONS[name](bench) for name in names}
        run_measurements(names, lambda name: sections[name].measure(), lambda name, *rest: sections[name].show(*rest),
                         {}, Table(), options.json)


if __name__ == "__main__":
    main()
