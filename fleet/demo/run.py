#!/usr/bin/env python3
"""What demo.sh runs: `run.py TOOLS`, where TOOLS is the folder of `quarrow` and `quarrowctl`."""
import os
import signal
import sys
import tempfile
import time

sys.dont_write_bytecode = True
FLEET = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
CHECKOUT = os.path.dirname(FLEET)
sys.path[:0] = [FLEET, os.path.join(CHECKOUT, "scripts")]

from demo import library  # (the path comes first)
from demo.appliance import Appliance
from demo.cluster import Cluster, statements
from demo.disks import differences, in_fleet, on_disk
from demo.faults import kill_pusher_in_send, kill_server_in_load
from demo.questions import show_answers
from quarrow_driver.log import LogReceiver
from quarrow_driver.private_space import lay_over_machine, lay_over_tmp, leave_the_machine


class Log(LogReceiver):
    """Takes what the daemons log, so that the machine's log does not."""

    def take(self, datagram):
        pass


def say(text=""):
    print(text, flush=True)


def enter_private_space(tools):
    """Returns a folder that goes with the process, and what receives the daemons' log there."""
    stage = os.path.join(tools, "stage")
    leave_the_machine()
    lay_over_tmp(stage, [CHECKOUT])
    own = tempfile.mkdtemp(dir="/tmp")
    lay_over_machine(stage, f"{CHECKOUT}/data/mime_types.txt", log=f"{own}/log")
    os.chdir("/tmp")
    log = Log(own)
    log.start()
    return own


def show_first_load(cluster, appliances):
    attic, *others = appliances
    for appliance in others:
        say(f"  {appliance.push()}")
    process, server, seen = kill_server_in_load(cluster, attic)
    say(f"Killed the server that keeps attic's rows, in mid-load: it had {seen:,} of them. attic's pusher goes on trying:")
    server.start()
    server.wait_ready()
    said, _ = process.communicate()
    say("".join(f"  {line}\n" for line in said.decode(errors="backslashreplace").splitlines()).rstrip("\n"))
    if process.returncode != 0:
        raise RuntimeError("attic's pusher did not end well.")


def show_changes(cluster, appliances):
    library.change(appliances, library.seeded())
    for appliance in appliances:
        # Of so much in one moment a daemon leaves some to its next full walk. A start is one.
        appliance.stop()
        appliance.start()
    for appliance in appliances:
        appliance.wait_catalogued()
    studio = appliances[1]
    sent = kill_pusher_in_send(cluster, studio)
    say(f"Killed studio's pusher in mid-send: {sent:,} bytes were on their way. All push again:")
    for appliance in appliances:
        say(f"  {appliance.push()}")


def compare(cluster, appliances):
    """Every live row of the fleet with what lies on the disks."""
    found = in_fleet(cluster)
    wanted = {(appliance.name, volume): on_disk(root) for appliance in appliances for volume, root in appliance.roots.items()}
    wrong = [f"{key}: {difference}" for key in sorted(found.keys() | wanted.keys())
             for difference in differences(found.get(key, {}), wanted.get(key, {}))]
    rows = sum(len(rows) for rows in wanted.values())
    say(f"\nCompared {rows:,} live files and folders of the disks with the fleet: "
        + ("all are there, and nothing else." if not wrong else "they differ."))
    for difference in wrong:
        say(f"  {difference}")
    return not wrong


def take_totals(cluster):
    for server in cluster.servers:
        for statement in statements(os.path.join(FLEET, "totals.sql")):
            server.query(statement)


def demonstrate(cluster, appliances):
    say("Filling the volumes, and starting the daemons")
    library.fill(appliances)
    for appliance in appliances:
        appliance.start()
    for appliance in appliances:
        appliance.wait_catalogued()
    say("The catalogues have all that lies on the disks. First load:")
    show_first_load(cluster, appliances)
    take_totals(cluster)
    say("\nFolders are removed, renamed, made; files grow, vanish, come. The appliances are restarted.")
    show_changes(cluster, appliances)
    good = compare(cluster, appliances)
    time.sleep(1)  # totals have whole seconds
    take_totals(cluster)
    show_answers(cluster, os.path.join(FLEET, "queries"))
    return good


def main(tools):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that what follows `finally` runs
    own = enter_private_space(os.path.abspath(tools))
    cluster = Cluster(os.path.join(own, "servers"))
    appliances = []
    try:
        say("Starting two database servers on loopback")
        cluster.start()
        for name, volumes in (("attic", ["Media"]), ("studio", ["Media", "Photos"]), ("office", ["Documents"])):
            appliances.append(Appliance(os.path.join(own, name), name, volumes, cluster, tools))
        return 0 if demonstrate(cluster, appliances) else 1
    except KeyboardInterrupt:
        say("Interrupted.")
        return 130
    finally:
        say("\nStopping the daemons and the servers")
        for each in [*appliances, cluster]:
            each.stop()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
