"""A disk whose power can be cut at any write, and what may be left on it then.

The disk is a file in a file system of its own, which a process apart from the test serves: run as a program, this module is
that process. A loop device makes a disk of the file. The server notes each write and each flush in the order in which they
come. From its notes the test makes what a cut may leave: everything that was written before the last flush, and any part, in
whole blocks, of what came after it. A disk with a cache promises no more.
"""
import collections
import importlib.util
import os
import stat
import struct
import subprocess
import sys

import pytest

from mounts import unmount
from quarrow_driver.waiting import wait_for

BLOCK = 4096
SETPRIV = "/usr/bin/setpriv"

#: Before each record of the notes: where its data belongs, and how many bytes there are of it.
HEADER = struct.Struct("<QQ")

#: A write, or a flush, which has no data. `position` is where the notes have it.
Record = collections.namedtuple("Record", "position offset data")

#: An image of the disk after a cut: only records before `position` count. How many blocks were written after the last flush
#: of these, and how many of those blocks were lost.
Cut = collections.namedtuple("Cut", "image position unflushed lost")


class Disk:
    """A disk with a new ext4 on it."""

    def __init__(self, mounts, size):
        self.mounts = mounts
        self.arena = mounts.arena
        self.first = mounts.image("disk", size, "-b", str(BLOCK), "-E", "lazy_itable_init=0,lazy_journal_init=0")
        self.notes = self.arena.path("notes")
        self.device = self.arena.path("device")
        self.place = None
        os.mkdir(self.device)
        open(self.notes, "xb").close()
        self.server = subprocess.Popen([SETPRIV, "--pdeathsig", "KILL", sys.executable, "-B", os.path.abspath(__file__),
                                        self.first, self.notes, self.device], stdin=subprocess.DEVNULL,
                                       env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)})
        wait_for(lambda: self.server.poll() is not None or os.path.ismount(self.device), "the server of the disk")
        assert self.server.poll() is None, "the server of the disk has ended"

    def mount(self, path, options):
        self.mounts.disk(f"{self.device}/disk", path, options)
        self.place = path

    def unmount(self):
        self.mounts.remove(self.place)
        self.place = None

    def now(self):
        """The position of the next record."""
        return os.path.getsize(self.notes)

    def records(self):
        with open(self.notes, "rb") as file:
            notes = memoryview(file.read())
        records, position = [], 0
        while position < len(notes):
            offset, length = HEADER.unpack_from(notes, position)
            start = position + HEADER.size
            records.append(Record(position, offset, notes[start:start + length]))
            position = start + length
        return records

    def close(self):
        """The server goes last: nothing that still has to do with the disk gets on without it. After a failure daemons may
        be left that keep the disk busy."""
        for daemon in self.arena.daemons:
            daemon.close()
        try:
            if self.place is not None:
                self.unmount()
            unmount(self.device)
        finally:
            self.server.kill()
            self.server.wait()


def is_flush(record):
    return len(record.data) == 0


def blocks(records):
    """What is written, as pairs of an offset and no more than a block of data."""
    for record in records:
        start, end = record.offset, record.offset + len(record.data)
        while start < end:
            stop = min(end, start - start % BLOCK + BLOCK)
            yield start, record.data[start - record.offset:stop - record.offset]
            start = stop


def moments(records, since, until, count, choice):
    """That many moments between two positions to cut the power at, each the number of the first record that does not count
    any more; none when nothing was written. The more blocks are written between one flush and the next, the more cuts come
    there, but not in proportion: else all would come where a lot is written. Half of them come early, where a start or a
    stop is decided, and half of them right before a flush, when most can be lost."""
    stretches, start = [], None
    for number, record in enumerate(records):
        if is_flush(record) or not since <= record.position < until:
            if start is not None:
                stretches.append((start, number))
            start = None
        elif start is None:
            start = number
    found = []
    for _ in range(count if stretches else 0):
        among = stretches[:5] if choice.random() < 0.5 else stretches
        weights = [sum(1 for _ in blocks(records[first:end])) ** 0.5 for first, end in among]
        [(first, end)] = choice.choices(among, weights)
        found.append(end if choice.random() < 0.5 else choice.randint(first + 1, end))
    return found


def cut_at(disk, records, when, choice):
    """Makes an image for each moment, in order of time. Of what was not flushed all, nothing or some share is kept."""
    base = disk.arena.path("flushed")
    subprocess.run(["cp", "--sparse=always", disk.first, base], check=True)
    flushed = 0  # that many records are in it
    for number, moment in enumerate(sorted(when)):
        last = max((at for at in range(flushed, moment) if is_flush(records[at])), default=flushed)
        write(base, blocks(records[flushed:last]))
        flushed = last
        image = disk.arena.path(f"cut {number}")
        subprocess.run(["cp", "--sparse=always", base, image], check=True)
        unflushed = list(blocks(records[flushed:moment]))
        share = choice.choice((0, 1, choice.random(), choice.random()))
        kept = [block for block in unflushed if choice.random() < share]
        write(image, kept)
        yield Cut(image, records[moment - 1].position + 1, len(unflushed), len(unflushed) - len(kept))


def write(path, content):
    with open(path, "r+b") as file:
        for offset, data in content:
            file.seek(offset)
            file.write(data)


def serve(image, notes, folder):
    """Serves the disk, with the image as its first content, until it is unmounted. No cache lies in between: each write and
    each flush of the loop device becomes a call."""
    import fusepy  # only here: the test does without it

    class Device(fusepy.Operations):
        use_ns = True

        def __init__(self):
            with open(image, "rb") as file:
                self.content = bytearray(file.read())
            self.notes = open(notes, "ab", buffering=0)

        def getattr(self, path, fh=None):
            kind = stat.S_IFDIR | 0o700 if path == "/" else stat.S_IFREG | 0o600
            return {"st_mode": kind, "st_nlink": 1, "st_size": len(self.content)}

        def read(self, path, size, offset, fh):
            return bytes(self.content[offset:offset + size])

        def write(self, path, data, offset, fh):
            self.notes.write(HEADER.pack(offset, len(data)) + data)
            self.content[offset:offset + len(data)] = data
            return len(data)

        def fsync(self, path, datasync, fh):
            self.notes.write(HEADER.pack(0, 0))
            return 0

    fusepy.FUSE(Device(), folder, foreground=True, nothreads=True, direct_io=True, big_writes=True)


@pytest.fixture
def disk(disks):
    """A disk of 32 MiB, where that can be had."""
    for tool in ("/dev/fuse", SETPRIV):
        if not os.path.exists(tool):
            pytest.skip(f"{tool} is not there")
    if importlib.util.find_spec("fusepy") is None:
        pytest.skip("python3-fusepy is not installed")
    served = Disk(disks, 32 << 20)
    yield served
    served.close()


if __name__ == "__main__":
    serve(*sys.argv[1:])
