"""The receiving end of /dev/log."""
import collections
import os
import re
import socket
import threading

LOCAL5 = 21
PRIORITIES = ("EMERG", "ALERT", "CRIT", "ERR", "WARNING", "NOTICE", "INFO", "DEBUG")
DATAGRAM = re.compile(rb"<(\d{1,3})>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^:\[]+): (.*)", re.DOTALL)

LogLine = collections.namedtuple("LogLine", "priority text")


def parse(datagram, ident):
    """The line that the program of that name has logged; None when the datagram is no message of the daemon's."""
    match = DATAGRAM.fullmatch(datagram)
    if match is None or match[2] != os.fsencode(ident) or int(match[1]) >> 3 != LOCAL5:
        return None
    return LogLine(PRIORITIES[int(match[1]) & 7], match[3].decode("utf-8", "surrogateescape"))


class LogReceiver:
    """Receives datagrams on the socket `log` in a folder and has a thread of its own give each to `take()`, under the lock
    of `changed`. Start it when all that `take()` uses is there."""

    def __init__(self, folder):
        self.path = os.path.join(folder, "log")
        self.changed = threading.Condition(threading.RLock())
        self.settled = 0
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        # Through the folder's descriptor: a socket's address has room for 107 bytes, a temporary folder may be longer.
        self.folder = os.open(folder, os.O_PATH)
        self.address = f"/proc/self/fd/{self.folder}/log"
        self.socket.bind(self.address)
        self.thread = threading.Thread(target=self.receive, daemon=True)

    def start(self):
        self.thread.start()

    def take(self, datagram):
        raise NotImplementedError

    def receive(self):
        while True:
            datagram = self.socket.recv(1 << 20)
            with self.changed:
                if datagram == b"settle":
                    self.settled += 1
                elif datagram == b"end":
                    return
                else:
                    self.take(datagram)
                self.changed.notify_all()

    def send(self, datagram):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(self.address)
            sender.send(datagram)

    def settle(self, bound):
        """Returns when everything sent before this call has been taken."""
        with self.changed:
            aim = self.settled + 1
        self.send(b"settle")
        with self.changed:
            assert self.changed.wait_for(lambda: self.settled >= aim, bound)

    def close(self):
        self.send(b"end")
        self.thread.join()
        self.socket.close()
        os.close(self.folder)
