"""Servers on loopback that make one cluster, with the schema of the fleet."""
import os
import random
import re
import secrets
import socket

from demo.server import Server

FLEET = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PORTS = (15000, 32768)
SCHEMA = os.path.join(FLEET, "schema.sql")


def free_ports(number):
    """Ports that nobody listens on at this moment. Below those that the kernel gives to connections, so that a server that was
    killed finds its own again."""
    found = []
    while len(found) < number:
        port = random.SystemRandom().randrange(*PORTS)
        with socket.socket() as listener:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                listener.bind(("127.0.0.1", port))
            except OSError:
                continue
        if port not in found:
            found.append(port)
    return found


def statements(path):
    """The statements of a file, without comments. None of ours has a semicolon or two dashes in a text."""
    with open(path, encoding="utf-8") as file:
        text = re.sub(r"--.*", "", file.read())
    return [statement.strip() for statement in text.split(";") if statement.strip()]


class Cluster:
    """`shards` servers in folders below `folder`, each with the users admin, pusher and reader."""

    def __init__(self, folder, shards=2):
        self.folder = folder
        self.passwords = {name: secrets.token_urlsafe(24) for name in ("admin", "pusher", "reader")}
        users = [("admin", self.passwords["admin"], "default"), ("pusher", self.passwords["pusher"], "push"),
                 ("reader", self.passwords["reader"], "read")]
        ports = free_ports(3 * shards)
        self.servers = [Server(os.path.join(folder, f"server{number + 1}"), ports[3 * number:3 * number + 3], users)
                        for number in range(shards)]

    def configure(self):
        tcp_ports = [server.tcp for server in self.servers]
        for server in self.servers:
            server.configure(tcp_ports)

    def start(self, schema=SCHEMA):
        """Returns when all servers answer and have the schema."""
        self.configure()
        try:
            for server in self.servers:
                server.start()
            for server in self.servers:
                server.wait_ready()
            if schema is not None:
                self.load(schema)
        except BaseException:
            self.stop()
            raise

    def load(self, schema):
        for server in self.servers:
            for statement in statements(schema):
                server.query(statement)

    def login(self, name):
        return name, self.passwords[name]

    def query(self, statement, data=None, **settings):
        return self.servers[0].query(statement, data, **settings)

    def rows(self, statement, **settings):
        """The answer as lists of bytes, as the rows hold them."""
        return [[unescape(field) for field in line.split(b"\t")]
                for line in self.query(statement, **settings).split(b"\n")[:-1]]

    def stop(self):
        for server in self.servers:
            server.ask_to_stop()  # all at once: each waits for the connections of the others
        for server in self.servers:
            server.stop()


ESCAPES = {b"\\": b"\\", b"t": b"\t", b"n": b"\n", b"r": b"\r", b"0": b"\0", b"b": b"\b", b"f": b"\f", b"'": b"'"}


def unescape(field):
    """The bytes that a field of the format TabSeparated stands for."""
    return re.sub(rb"\\(.)", lambda match: ESCAPES[match[1]], field, flags=re.DOTALL)
