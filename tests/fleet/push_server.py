"""A server that takes rows as the database does, keeps what it has confirmed, and fails in the ways it is told to."""
import collections
import http.server
import os
import socket
import struct
import threading
import urllib.parse
import zlib

#: What it says when it cannot, in the engine's words.
FULL = (500, "Code: 243, e.displayText() = DB::Exception: Cannot reserve 1.00 MiB, not enough space, e.what() = DB::Exception")
WRONG_PASSWORD = (403, "Code: 516. DB::Exception: pusher: Authentication failed: password is incorrect. (AUTHENTICATION_FAILED)")
WRONG_PASSWORD_EARLIER = (401, "Code: 193, e.displayText() = DB::Exception: Wrong password for user pusher, e.what() = ...")
NO_TABLE = (404, "Code: 60, e.displayText() = DB::Exception: Table quarrow.files doesn't exist., e.what() = DB::Exception")
UNESCAPED = {b"t": b"\t", b"n": b"\n", b"r": b"\r", b"0": b"\0", b"b": b"\b", b"f": b"\f", b"\\": b"\\", b"'": b"'"}

Request = collections.namedtuple("Request", "table columns rows parameters headers")


def unescaped(field):
    first, *parts = field.split(b"\\")
    text, parts = first, iter(parts)
    for part in parts:
        text += UNESCAPED[part[:1]] + part[1:] if part else b"\\" + next(parts)
    return text


def parse_rows(content, columns):
    assert not content or content.endswith(b"\n"), "a row is cut short"
    rows = [tuple(map(unescaped, line.split(b"\t"))) for line in content.split(b"\n")[:-1]]
    assert all(len(row) == len(columns) for row in rows), "a row has not these columns"
    return rows


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *_):
        pass

    def do_POST(self):
        fake = self.server.fake
        fault = fake.next_fault()
        if fault == "half a request":
            self.rfile.read(int(self.headers["Content-Length"]) // 2)
            return self.hang_up()
        content = self.rfile.read(int(self.headers["Content-Length"]))
        if fault == "slow":
            fake.released.wait(60)
            return self.hang_up()
        if fault == "drip":
            return self.drip()
        if isinstance(fault, tuple):
            return self.answer(*fault)
        if isinstance(fault, dict):
            return self.answer(**fault)
        if fault == "late":
            fake.late.append((self.path, self.headers, content))
            return self.hang_up()
        fake.take(self.path, self.headers, content)
        if fault == "answer lost":
            return self.hang_up()
        return self.answer(200, "")

    def hang_up(self):
        """Resets the connection."""
        self.close_connection = True
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def drip(self):
        """Begins an answer and never gets to its end, though a byte comes before each timeout."""
        self.wfile.write(b"HTTP/1.1 200 OK\r\nX-Long: ")
        while not self.server.fake.released.wait(0.02):
            self.wfile.write(b"x")
        self.hang_up()

    def answer(self, status, text, is_engine=True, length="", **headers):
        body = text.encode()
        self.send_response(status)
        if is_engine:
            self.send_header("X-ClickHouse-Server-Display-Name", "one")
        for name, value in headers.items():
            self.send_header(name, value)
        if length != "none":
            self.send_header("Content-Length", length or str(len(body)))
        self.close_connection = True
        self.end_headers()
        self.wfile.write(body)


class PushServer:
    """`faults`: what goes wrong with the next requests, one after the other: None for nothing, one of the words above, or the
    arguments of answer(). `always`: what goes wrong with those after that."""

    def __init__(self, port=0, context=None):
        self.faults = collections.deque()
        self.always = None
        self.requests = []
        self.late = []
        self.attempts = 0
        self.released = threading.Event()
        self.changed = threading.Condition()
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler, bind_and_activate=False)
        self.server.allow_reuse_address = self.server.daemon_threads = True
        self.server.server_bind()
        self.server.server_activate()
        self.server.fake = self
        self.server.handle_error = lambda *_: None  # who hangs up on whom is the tests' own doing
        if context is not None:
            self.server.socket = context.wrap_socket(self.server.socket, server_side=True)
        self.port = self.server.server_address[1]
        self.url = f"{'http' if context is None else 'https'}://127.0.0.1:{self.port}"
        self.thread = threading.Thread(target=self.server.serve_forever, args=(0.05,), daemon=True)
        self.thread.start()

    def close(self):
        self.released.set()
        self.server.shutdown()
        self.server.server_close()
        self.thread.join()

    def next_fault(self):
        with self.changed:
            self.attempts += 1
            self.changed.notify_all()
            return self.faults.popleft() if self.faults else self.always

    def arrive(self):
        """What it was sent and did not answer is stored now, after all that came since."""
        for request in self.late:
            self.take(*request)

    def take(self, path, headers, content):
        parameters = urllib.parse.parse_qs(urllib.parse.urlsplit(path).query)
        words = parameters["query"][0].replace("(", "( ").replace(")", " )").split()
        assert words[:2] == ["INSERT", "INTO"] and words[-2:] == ["FORMAT", "TabSeparated"], words
        columns = [word.strip(",") for word in words[words.index("(") + 1:words.index(")")]]
        rows = parse_rows(zlib.decompress(content, 31), columns)
        with self.changed:
            self.requests.append(Request(words[2], columns, rows, parameters, headers))
            self.changed.notify_all()

    def wait(self, condition, what, bound=180):
        with self.changed:
            assert self.changed.wait_for(condition, bound), f"not within {bound} s: {what}"

    # What it has, as dictionaries by column

    def rows(self, table):
        with self.changed:
            requests = list(self.requests)
        return [dict(zip(request.columns, row)) for request in requests if request.table == table for row in request.rows]

    def newest(self, table, keys, version):
        """Of the rows with one key the one with the greatest version, as the database merges them."""
        found = {}
        for row in self.rows(table):
            key = tuple(row[name] for name in keys)
            if key not in found or int(row[version]) > int(found[key][version]):
                found[key] = row
            assert row[version] != found[key][version] or row == found[key], "which one counts?"
        return found

    def volumes(self):
        return {os.fsdecode(key[1]): row for key, row in self.newest("volumes", ("appliance", "volume"), "updated").items()}

    def valid(self, table):
        """The rows of the generations that count, purged ones included: (volume, id) -> row."""
        generations = {name: row["generation"] for name, row in self.volumes().items()}
        return {(os.fsdecode(key[1]), int(key[3])): row for key, row
                in self.newest(table, ("appliance", "volume", "generation", "id"), "version").items()
                if generations.get(os.fsdecode(key[1])) == key[2]}
