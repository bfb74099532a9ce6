"""What the servers of a fleet have used, and what they keep."""
import gzip

from quarrow_driver.process import TICK

REQUEST = 50_000  # rows, as a pusher sends
COLUMNS = ("appliance, volume, generation, id, folder_id, path, name, category, size, created_time, modified_time, last_updated_time,"
           " deleted, version")


def processor_seconds(servers):
    total = 0
    for server in servers:
        with open(f"/proc/{server.process.pid}/stat", encoding="utf-8", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        total += (int(fields[11]) + int(fields[12])) / TICK
    return total


def memory_peaks(servers):
    peaks = []
    for server in servers:
        with open(f"/proc/{server.process.pid}/status", encoding="utf-8") as file:
            peaks += [int(line.split()[1]) / 1024 for line in file if line.startswith("VmHWM")]
    return peaks


def on_disk(cluster):
    """Rows, bytes on the disk, of the files on all servers. Merged first, as in the long run."""
    rows = size = 0
    for server in cluster.servers:
        server.query("OPTIMIZE TABLE quarrow.files_shard FINAL", timeout=600)
        more = server.query("SELECT sum(rows), sum(bytes_on_disk) FROM system.parts WHERE active AND database = 'quarrow'"
                            " AND table = 'files_shard'").split()
        rows, size = rows + int(more[0]), size + int(more[1])
    return {"rows": rows, "bytes": size}


def on_the_wire(cluster):
    """Bytes of a row as it is sent, compressed and not."""
    sample = cluster.query(f"SELECT {COLUMNS} FROM quarrow.files LIMIT {REQUEST} FORMAT TabSeparated")
    rows = sample.count(b"\n")
    return {"plain": len(sample) / rows, "sent": len(gzip.compress(sample, 1)) / rows}
