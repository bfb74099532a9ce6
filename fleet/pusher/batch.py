"""Rows on their way to one table, compressed as they come: what waits for the server takes a few MiB at most."""
import zlib

from pusher.rows import ENCODING

MAX_ROWS = 50_000
MAX_BYTES = 8_000_000  # before compression
GZIP = 31  # as zlib calls a gzip header with the largest window


class Batch:
    """Rows are appended to `pending`, and pack() is to be called before these are too many."""

    def __init__(self, table):
        self.table = table
        self.begin()

    def begin(self):
        self.pending = []
        self.rows = 0
        self.bytes = 0
        self.compressor = zlib.compressobj(1, zlib.DEFLATED, GZIP)
        self.packed = []

    def pack(self):
        content = "".join(self.pending).encode(*ENCODING)
        self.rows += len(self.pending)
        self.bytes += len(content)
        self.packed.append(self.compressor.compress(content))
        self.pending.clear()

    def is_full(self):
        return self.rows >= MAX_ROWS or self.bytes >= MAX_BYTES

    def body(self):
        """All rows, as the body of a request."""
        self.pack()
        self.packed.append(self.compressor.flush())
        self.packed = [b"".join(self.packed)]
        return self.packed[0]
