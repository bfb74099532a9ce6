#!/usr/bin/env python3
"""Measures a fleet: what an appliance sends, what two servers take, how long questions take, what a row takes on the disk.

    fleet.py --build BUILD_FOLDER [--files 1000000] [--rows 10000000] [--repeat 5] [--work FOLDER] [--json FILE] [SECTION...]

`push` sends a catalogue of --files files with fleet/push. `ingest` sends rows that were made before, by four senders, `inserts`
a few rows at a time. `queries` asks the ten of fleet/queries over --rows rows, and takes the totals.

Two servers of Debian's clickhouse-server run on this machine meanwhile, on loopback, with all their files in a private folder.
Times of a machine that does something else are too long: processor times stand beside them.
"""
import argparse
import gzip
import os
import shutil
import statistics
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
FLEET = os.path.normpath(f"{HERE}/../fleet")
sys.path[:0] = [f"{HERE}/../scripts", FLEET]

import fleet_rows  # (the path comes first)
import make_catalogue
from demo.cluster import Cluster, statements
from demo.pusher import Pusher
from demo.questions import questions
from fleet_servers import COLUMNS, REQUEST, memory_peaks, on_disk, on_the_wire, processor_seconds
from quarrow_driver.configuration import host_configuration, volume_element
from table import Table, run_measurements, spread

PUSH_TARGET, PUSH_MEMORY_TARGET, INGEST_TARGET, QUERY_TARGET = 50_000, 64, 100_000, 1.0
SENDERS, REQUESTS = 4, 10  # of each sender
FEW, INSERTS = 20, 1000  # rows of a small insert; and how many of these each sender sends


def measure_push(bench):
    cluster, files = bench.cluster, bench.options.files
    volume = f"{bench.work}/volume"
    make_catalogue.of_nothing(volume, files, 1)
    config = f"{bench.work}/host.xml"
    with open(config, "w", encoding="utf-8") as file:
        file.write(host_configuration([volume_element("Volume1", volume)]))
    runs = []
    for number in range(bench.options.repeat):
        pusher = Pusher(f"{bench.work}/pusher{number}", f"appliance {number}", cluster, f"{bench.options.build}/quarrowctl", config)
        busy, begin = processor_seconds(cluster.servers), time.monotonic()
        process = pusher.start()
        _, status, usage = os.wait4(process.pid, 0)
        assert status == 0, f"the pusher ended with {status}"
        runs.append({"seconds": time.monotonic() - begin, "processor": usage.ru_utime + usage.ru_stime,
                     "peak_mib": usage.ru_maxrss / 1024, "servers": processor_seconds(cluster.servers) - busy})
    count = int(cluster.query("SELECT count() FROM quarrow.files WHERE appliance = 'appliance 0'"))
    folders = int(cluster.query("SELECT count() FROM quarrow.folders WHERE appliance = 'appliance 0'"))
    return {"rows": count + folders, "runs": runs, "wire": on_the_wire(cluster), "disk": on_disk(cluster)}


def show_push(raw, table):
    rows, runs = raw["rows"], raw["runs"]
    speeds = [rows / run["processor"] for run in runs]
    table.add(f"push: rows a second of processor time, {rows:,} rows", spread(speeds, ",.0f"), f">= {PUSH_TARGET:,}",
              statistics.median(speeds) >= PUSH_TARGET)
    table.add("push: rows a second by the clock", spread([rows / run["seconds"] for run in runs], ",.0f"))
    table.add("push: peak memory of the pusher, or of quarrowctl where that is more", spread([run["peak_mib"] for run in runs], ".1f", " MiB"),
              f"< {PUSH_MEMORY_TARGET} MiB", max(run["peak_mib"] for run in runs) < PUSH_MEMORY_TARGET)
    table.add("push: processor time of the servers, per million rows",
              spread([run["servers"] / rows * 1e6 for run in runs], ".1f", " s"))
    table.add("a row of a file on the wire, compressed (plain)", f"{raw['wire']['sent']:.0f} bytes ({raw['wire']['plain']:.0f})")
    table.add("a row of a file on the disk, names of some 80 bytes", f"{raw['disk']['bytes'] / raw['disk']['rows']:.1f} bytes")


def measure_ingest(bench):
    """Each sender is an appliance, and sends to one of the servers, whichever keeps its rows."""
    cluster = bench.cluster
    bodies = [[body(sender, number, REQUEST) for number in range(REQUESTS)] for sender in range(SENDERS)]
    runs = []
    for _ in range(bench.options.repeat):
        for server in cluster.servers:
            server.query("TRUNCATE TABLE quarrow.files_shard")
        threads = [threading.Thread(target=send, args=(cluster, cluster.servers[sender % len(cluster.servers)], bodies[sender]))
                   for sender in range(SENDERS)]
        busy, begin = processor_seconds(cluster.servers), time.monotonic()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        seconds = time.monotonic() - begin
        rows = int(cluster.query("SELECT count() FROM quarrow.files"))
        assert rows == SENDERS * REQUESTS * REQUEST, f"{rows} rows have arrived"
        runs.append({"rows": rows, "seconds": seconds, "processor": processor_seconds(cluster.servers) - busy})
    return {"runs": runs, "peaks_mib": memory_peaks(cluster.servers)}


def body(sender, number, rows):
    """The body of a request, as a pusher has it."""
    lines = []
    for each in range(number * rows, (number + 1) * rows):
        name = f"{each % 20:02} winter session {each * 7919 % 10**6}.jpg"
        lines.append(f"appliance {sender}\tVolume1\t1700000000000\t{each}\t{each // 20}\t/Photos/Holiday {each // 2000}/{each // 20}/{name}"
                     f"\t{name}\timage\t{each * 7919 % 10**8}\t1700000000\t1700000000\t1700000000\t0\t1700000000001\n")
    return gzip.compress("".join(lines).encode(), 1)


def measure_inserts(bench):
    """What a fleet in its daily round sends: a few rows of ever another appliance. Each insert becomes a part, which the servers
    merge meanwhile; with too many of them they slow the senders down, and in the end refuse."""
    cluster = bench.cluster
    for server in cluster.servers:
        server.query("TRUNCATE TABLE quarrow.files_shard")
    bodies = [[body(f"{sender}-{number}", 0, FEW) for number in range(INSERTS)] for sender in range(SENDERS)]
    threads = [threading.Thread(target=send, args=(cluster, cluster.servers[sender % len(cluster.servers)], bodies[sender]))
               for sender in range(SENDERS)]
    busy, begin, parts = processor_seconds(cluster.servers), time.monotonic(), 0
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        parts = max(parts, *(int(server.query("SELECT count() FROM system.parts WHERE active AND table = 'files_shard'"))
                             for server in cluster.servers))
        time.sleep(0.1)
    seconds = time.monotonic() - begin
    rows = int(cluster.query("SELECT count() FROM quarrow.files FINAL"))
    assert rows == SENDERS * INSERTS * FEW, f"{rows} rows have arrived"
    return {"inserts": SENDERS * INSERTS, "seconds": seconds, "parts": parts,
            "processor": processor_seconds(cluster.servers) - busy}


def show_inserts(raw, table):
    table.add(f"inserts of {FEW} rows: a second, both servers, {SENDERS} senders, {raw['inserts']:,} in a row",
              f"{raw['inserts'] / raw['seconds']:,.0f}")
    table.add("inserts: parts of a server at the worst moment", f"{raw['parts']}")
    table.add("inserts: processor time of the servers for each", f"{raw['processor'] / raw['inserts'] * 1000:.1f} ms")


def send(cluster, server, bodies):
    for content in bodies:
        server.query(f"INSERT INTO quarrow.files ({COLUMNS}) FORMAT TabSeparated", content, user=cluster.login("pusher"),
                     headers={"Content-Encoding": "gzip"}, insert_distributed_sync=1)


def show_ingest(raw, table):
    runs = raw["runs"]
    speeds = [run["rows"] / run["seconds"] for run in runs]
    table.add(f"ingest: rows a second, both servers, {SENDERS} senders", spread(speeds, ",.0f"), f">= {INGEST_TARGET:,}",
              statistics.median(speeds) >= INGEST_TARGET)
    table.add("ingest: rows a second of the servers' processor time", spread([run["rows"] / run["processor"] for run in runs], ",.0f"))
    table.add("ingest: peak memory of a server", spread(raw["peaks_mib"], ".0f", " MiB"))


def measure_queries(bench):
    cluster, rows = bench.cluster, bench.options.rows
    for server in cluster.servers:
        for table in ("files", "folders", "volumes", "appliances", "totals"):
            server.query(f"TRUNCATE TABLE quarrow.{table}_shard")
    share = rows // len(cluster.servers)
    for number, server in enumerate(cluster.servers):
        fleet_rows.fill(server, share, number * share // fleet_rows.FILES)
    raw = {"rows": int(cluster.query("SELECT count() FROM quarrow.files")), "disk": on_disk(cluster), "runs": {}}
    busy, begin = processor_seconds(cluster.servers), time.monotonic()
    for server in cluster.servers:
        for statement in statements(f"{FLEET}/totals.sql"):
            server.query(statement, timeout=600)
        server.query(fleet_rows.SUMS_OF_LAST_WEEK)
    raw["totals"] = {"seconds": time.monotonic() - begin, "processor": processor_seconds(cluster.servers) - busy}
    for title, statement in questions(f"{FLEET}/queries"):
        answer = cluster.query(statement, user=cluster.login("reader"))  # warm, and not counted
        runs = []
        for _ in range(bench.options.repeat):
            busy, begin = processor_seconds(cluster.servers), time.monotonic()
            cluster.query(statement, user=cluster.login("reader"))
            runs.append({"seconds": time.monotonic() - begin, "processor": processor_seconds(cluster.servers) - busy})
        raw["runs"][title] = {"lines": answer.count(b"\n"), "runs": runs}
    raw["peaks_mib"] = memory_peaks(cluster.servers)
    return raw


def show_queries(raw, table):
    for title, query in raw["runs"].items():
        times = [run["seconds"] for run in query["runs"]]
        processor = statistics.median(run["processor"] for run in query["runs"])
        table.add(f"{title} ({query['lines']} lines)", spread(times, ".2f", " s") + f"  processor {processor:.2f} s",
                  f"< {QUERY_TARGET:.0f} s", statistics.median(times) < QUERY_TARGET)
    table.add(f"the totals of {raw['rows']:,} rows, one server after the other", f"{raw['totals']['seconds']:.1f} s"
              f"  processor {raw['totals']['processor']:.1f} s")
    table.add("a row of a file on the disk, these names", f"{raw['disk']['bytes'] / raw['disk']['rows']:.1f} bytes")
    table.add("peak memory of a server with these rows", spread(raw["peaks_mib"], ".0f", " MiB"))


class Bench:
    def __init__(self, options, work):
        self.options = options
        self.work = work
        self.cluster = Cluster(f"{work}/servers")


MEASUREMENTS = {"push": (measure_push, show_push), "ingest": (measure_ingest, show_ingest),
                "inserts": (measure_inserts, show_inserts), "queries": (measure_queries, show_queries)}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="SECTION", help=f"of {', '.join(MEASUREMENTS)} (default: all)")
    parser.add_argument("--build", required=True, help="the folder of quarrowctl")
    parser.add_argument("--files", type=int, default=1_000_000)
    parser.add_argument("--rows", type=int, default=10_000_000)
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--work", help="where the private folder is made")
    parser.add_argument("--json", metavar="FILE", help="keeps the raw numbers")
    options = parser.parse_args()
    if set(options.names) - MEASUREMENTS.keys():
        parser.error(f"there is nothing else than {', '.join(MEASUREMENTS)}")
    work = tempfile.mkdtemp(prefix="quarrow-fleet-", dir=options.work)
    bench = Bench(options, work)
    table = Table()
    try:
        bench.cluster.start()
        run_measurements(options.names or list(MEASUREMENTS), lambda name: MEASUREMENTS[name][0](bench),
                         lambda name, raw, table: MEASUREMENTS[name][1](raw, table), {}, table, options.json)
    finally:
        bench.cluster.stop()
        shutil.rmtree(work)


if __name__ == "__main__":
    main()
