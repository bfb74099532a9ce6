#!/usr/bin/env python3
"""Measures the daemon against find and against the floor, and what it costs in memory, syncs and idle calls.

    run.py --build BUILD_FOLDER [MEASUREMENT...]

README.md beside this file says what each measurement means.
"""
import argparse
import json
import os
import statistics
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, f"{HERE}/../scripts")

import make_tree  # (the path comes first)
import measure
import private_run
from table import Table, run_measurements, spread

WALK_TARGETS = {"first": 1.3, "again": 1.4}  # times the floor whose statements stay prepared
MEMORY_TARGET = 20_000_000 / 1024, 600 / 1024  # kB, and kB per watched folder
SYNC_TARGET = 1  # per thousand pages written
GROWTH_TARGET = 16 / 1024  # kB per walk and folder: half of what the allocator takes for the smallest object
WARM_UP = 3  # re-walks that may still fill caches, pools and the stacks of threads
PAGE = os.sysconf("SC_PAGE_SIZE") / 1024
MOVE_TARGET = 1.5  # times the processor time per file of a tree of a quarter of the size; four times would be quadratic
NAMES = ["walks", "logs", "memory", "growth", "syncs", "idle", "moves"]
WITHOUT_DAEMON = ["walks", "syncs"]  # what can be measured of the floor alone


def parse_options():
    parser = argparse.ArgumentParser(description="Measures the daemon; without a name, everything.")
    parser.add_argument("measurements", nargs="*", metavar="MEASUREMENT", help="of " + ", ".join(NAMES))
    parser.add_argument("--build", help="build folder, made with QUARROW_BENCH=ON: where the programs are looked for")
    parser.add_argument("--daemon", help="the daemon, if it is not in the build folder")
    parser.add_argument("--floor", help="bench_floor, likewise")
    parser.add_argument("--sink", help="bench_log_sink, likewise")
    parser.add_argument("--moves", help="bench_moves, likewise")
    parser.add_argument("--mime-types", default=f"{HERE}/../data/mime_types.txt")
    parser.add_argument("--files", type=int, default=100000)
    parser.add_argument("--folders", type=int, default=5000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--idle-seconds", type=int, default=60)
    parser.add_argument("--tree", help="keep the tree here, and use it again when it was made with the same numbers")
    parser.add_argument("--work", help="folder in which the private temporary folder is made")
    parser.add_argument("--floor-pragma", action="append", default=[], metavar="TEXT",
                        help="a PRAGMA that the floor sets, to see what it is worth")
    parser.add_argument("--json", metavar="FILE", help="write all raw numbers here")
    options = parser.parse_args()
    unknown = set(options.measurements) - set(NAMES)
    if unknown:
        parser.error(f"no such measurement: {', '.join(unknown)}")
    for name, place in (("daemon", "quarrow"), ("floor", "bench/bench_floor"), ("sink", "bench/bench_log_sink"),
                        ("moves", "bench/bench_moves")):
        given = getattr(options, name) or (options.build and f"{options.build}/{place}")
        setattr(options, name, given and os.path.abspath(given))
        if given and not os.access(given, os.X_OK):
            parser.error(f"{given} is not there")
    if not options.floor or not options.sink:
        parser.error("--build, or --floor and --sink, must be given")
    possible = NAMES if options.daemon else WITHOUT_DAEMON
    options.measurements = options.measurements or [name for name in possible if name != "moves" or options.moves]
    if not options.daemon and set(options.measurements) - set(WITHOUT_DAEMON) - {"moves"}:
        parser.error("that needs the daemon")
    if not options.moves and "moves" in options.measurements:
        parser.error("--build or --moves must be given")
    return options


def provide_tree(options, work):
    """The tree, made or used again. A folder that this program did not make is never touched."""
    tree = os.path.abspath(options.tree) if options.tree else f"{work}/tree"
    wanted = {"files": options.files, "folders": options.folders, "seed": options.seed}
    label = f"{tree}.made.json"
    if os.path.exists(label):
        with open(label, encoding="utf-8") as file:
            made = json.load(file)
        if wanted.items() <= made.items():
            return tree
        raise SystemExit(f"{tree} was made with other numbers: remove it and {label}, or name another")
    made = make_tree.make_tree(tree, **{"file_count": options.files, "folder_count": options.folders, "seed": options.seed})
    with open(label, "w", encoding="utf-8") as file:
        json.dump(made, file)
    return tree


def show_walks(results, table):
    table.add("find", spread([run["seconds"] for run in results["find"]], ".3f", " s"))
    for walk, label in (("first", "first walk"), ("again", "re-walk")):
        for name in (*measure.FLOORS, "daemon"):
            runs = [run[walk] for run in results.get(name, [])]
            if runs:
                table.add(f"{label}, {name}", spread([run["seconds"] for run in runs], ".3f", " s"),
                          f"processor {statistics.median(run['cpu_seconds'] for run in runs):.2f} s")
    for walk, label in (("first", "first walk"), ("again", "re-walk")):
        runs = [run[walk] for run in results.get("daemon", [])]
        for name in ("find", *measure.FLOORS) if runs else ():
            others = [run.get(walk, run) for run in results[name]]
            ratios = [mine["seconds"] / other["seconds"] for mine, other in zip(runs, others)]
            judged = name == "prepared floor"
            target = WALK_TARGETS[walk]
            table.add(f"{label}, daemon / {name}", spread(ratios, ".2f"), f"at most {target}" if judged else "",
                      statistics.median(ratios) <= target if judged else None)
            if judged:
                ratios = [mine["cpu_seconds"] / other["cpu_seconds"] for mine, other in zip(runs, others)]
                table.add(f"{label}, daemon / {name}, processor time", spread(ratios, ".2f"))


def show_logs(results, table):
    for walk, label in (("first", "first walk"), ("again", "re-walk")):
        heard, unheard = ([run[walk]["seconds"] for run in results[name]] for name in ("receiver", "nobody"))
        table.add(f"{label}, lines received and dropped", spread(heard, ".3f", " s"))
        table.add(f"{label}, nobody receives", spread(unheard, ".3f", " s"))
        table.add(f"{label}, price of a receiver", spread([a - b for a, b in zip(heard, unheard)], ".3f", " s"))


def show_memory(results, table):
    tree, empty = results["tree"], results["empty"]
    budget = MEMORY_TARGET[0] + MEMORY_TARGET[1] * tree["watched"]
    table.add("peak memory", f"{tree['VmHWM']} kB, {tree['watched']} folders watched", f"below {budget:.0f} kB",
              tree["VmHWM"] < budget)
    table.add("peak memory, empty volume", f"{empty['VmHWM']} kB")
    per_folder = (tree["VmHWM"] - empty["VmHWM"]) * 1024 / max(1, tree["watched"] - empty["watched"])
    table.add("peak memory per watched folder", f"{per_folder:.0f} bytes above the empty volume's")


def slope(values):
    """Growth from one value to the next: the median over all pairs, which a single step up or down does not move."""
    pairs = [(later - earlier) / (j - i) for i, earlier in enumerate(values) for j, later in enumerate(values) if i < j]
    return statistics.median(pairs)


def show_growth(results, table):
    anonymous = [sample["RssAnon"] for sample in results["samples"]]
    settled = anonymous[1 + WARM_UP:]  # the first is that of the first walk
    limit = GROWTH_TARGET * results["watched"]
    # A leak below a page or two over all these walks could not be told from rounding.
    judged = limit * (len(settled) - 1) >= 2 * PAGE
    grown = slope(settled)
    table.add(f"growth per walk, re-walks {1 + WARM_UP} to {len(anonymous) - 1}", f"{grown:.1f} kB",
              f"at most {limit:.1f} kB" if judged else "too few folders to judge", grown <= limit if judged else None)
    table.add("anonymous memory after each walk", " ".join(map(str, anonymous)) + " kB")
    table.add("resident memory after each walk", " ".join(str(sample["VmRSS"]) for sample in results["samples"]) + " kB")


def show_syncs(results, table):
    for name, counts in results.items():
        judged = name == "daemon"
        rate = 1000 * counts.get("syncs", 0) / max(1, counts.get("pages", 0))
        table.add(f"syncs per 1000 pages, {name}",
                  f"{rate:.2f}  ({counts.get('syncs', 0)} syncs, {counts.get('pages', 0)} pages)",
                  f"at most {SYNC_TARGET}" if judged else "", rate <= SYNC_TARGET if judged else None)
        table.add(f"syncs per folder, {name}", f"{counts.get('syncs', 0) / counts['folders']:.4f}")


def show_idle(results, table):
    for name, counts in results.items():
        calls = ", ".join(f"{call} {count}" for call, count in sorted(counts["by name"].items()))
        table.add(f"idle, {name}", f"{counts['calls']} calls in {counts['seconds']:.0f} s" + (f": {calls}" if calls else ""))


def show_moves(results, table):
    per_file = {}
    for name, runs in results.items():
        calls, floors = runs["call"], runs["floor"]
        tree = f"move of {calls[0]['files']} files in {calls[0]['folders']} folders"
        table.add(f"{tree}, the call", spread([run["seconds"] for run in calls], ".3f", " s"),
                  f"processor {statistics.median(run['cpu_seconds'] for run in calls):.2f} s")
        table.add(f"{tree}, its transaction", spread([run["commit_seconds"] for run in calls], ".3f", " s"),
                  f"{calls[0]['statements']} statements")
        table.add(f"{tree}, floor", spread([run["seconds"] for run in floors], ".3f", " s"),
                  f"{floors[0]['statements']} statements")
        table.add(f"{tree}, transaction / floor",
                  spread([call["commit_seconds"] / floor["seconds"] for call, floor in zip(calls, floors)], ".2f"))
        table.add(f"{tree}, rows", f"{calls[0]['rows_of_first_commit']} in the first commit, "
                  f"{calls[0]['rows_of_later_commits']} later", "one commit, all right",
                  all(run["rows_are_right"] and run["rows_of_later_commits"] == 0 for run in calls))
        table.add(f"{tree}, peak memory", f"{max(run['memory_peak'] for run in calls)} kB, "
                  f"{max(run['memory_peak'] - run['memory_before'] for run in calls)} kB above that before the move")
        per_file[name] = [run["cpu_seconds"] / run["files"] for run in calls]
    ratios = [whole / quarter for whole, quarter in zip(per_file["whole"], per_file["quarter"])]
    table.add("processor time per file, four times the tree", spread(ratios, ".2f", " times"), f"at most {MOVE_TARGET}",
              statistics.median(ratios) <= MOVE_TARGET)


def main():
    options = parse_options()
    if not private_run.inside():
        return private_run.run_again_inside(options.work)
    work = private_run.furnish(options.mime_types)
    # A move has trees of its own.
    tree = provide_tree(options, work) if set(options.measurements) - {"moves"} else None
    bench = measure.Bench(options, work, tree)
    table = Table()
    if tree:
        table.add("tree", f"{options.files} files in {options.folders} folders, seed {options.seed}")
    raw = {"tree": {"files": options.files, "folders": options.folders, "seed": options.seed}, "load": os.getloadavg()}
    run_measurements(options.measurements, lambda name: getattr(measure, name)(bench),
                     lambda name, numbers, shown: globals()[f"show_{name}"](numbers, shown), raw, table, options.json)
    return 0


if __name__ == "__main__":
    sys.exit(main())
