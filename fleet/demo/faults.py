"""Kills at the worst moment, made certain: a server that is frozen does not read, so what was sent to it can be seen waiting."""
import subprocess

from quarrow_driver.waiting import poll

BOUND = 120


def shard_of(cluster, appliance):
    """The server that keeps the rows of the appliance."""
    [[number]] = cluster.rows(f"SELECT cityHash64('{appliance}') % {len(cluster.servers)}")
    return cluster.servers[int(number)]


def kill_server_in_load(cluster, appliance):
    """Starts a first load and kills the appliance's server when it has a part of the rows and a request is under way. Returns
    the pusher's process, which goes on trying, the server, and how many rows it was seen to have."""
    server = shard_of(cluster, appliance.name)
    count = f"SELECT count() FROM quarrow.files_shard WHERE appliance = '{appliance.name}'"
    options = []
    while True:
        before = seen = int(server.query(count))
        process = appliance.pusher.start(*options, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        while seen == before and process.poll() is None:
            seen = int(server.query(count))
        for each in cluster.servers:
            each.freeze()
        poll(lambda: any(each.unread() for each in cluster.servers) or process.poll() is not None, BOUND)
        if process.poll() is None:
            server.kill()
            thaw(cluster)
            return process, server, seen - before
        # It was through before the server was frozen: once more from the beginning.
        thaw(cluster)
        process.communicate()
        options = ["--full"]


def kill_pusher_in_send(cluster, appliance):
    """Starts a pusher that has something to send, and kills it when the request waits at a server. Returns how many bytes
    did: the server reads them when the pusher is gone."""
    for server in cluster.servers:
        server.freeze()
    try:
        process = appliance.pusher.start(stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        sent = poll(lambda: sum(server.unread() for server in cluster.servers) or process.poll() is not None, BOUND)
        process.kill()
        process.communicate()
    finally:
        thaw(cluster)
    if sent is True or not sent:
        raise RuntimeError(f"The pusher of {appliance.name} sent nothing.")
    return sent


def thaw(cluster):
    for server in cluster.servers:
        if server.process.poll() is None:
            server.thaw()
