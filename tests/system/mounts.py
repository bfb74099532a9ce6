"""File systems of a test's own: small ones that fill up, ones that turn read-only, are taken away or exchanged.

The test process enters a private mount namespace, in which the arena's folder is a shared mount. The daemons' sandboxes
follow what is mounted and unmounted there, so the test and its daemons see the same under the same paths.
"""
import contextlib
import functools
import os
import subprocess
import tempfile

import pytest

from quarrow_driver.mounting import (CLONE_NEWNS, MNT_DETACH, MS_BIND, MS_PRIVATE, MS_RDONLY, MS_REC, MS_REMOUNT, MS_SHARED, mount,
                                     unmount, unshare)


@functools.lru_cache(maxsize=None)
def enter_private_namespace():
    """For the rest of this process: nothing that is mounted from here on is seen on the machine."""
    unshare(CLONE_NEWNS)
    mount("none", "/", None, MS_REC | MS_PRIVATE)


class Mounts:
    """The file systems of one arena."""

    def __init__(self, arena):
        self.arena = arena
        mount(arena.folder, arena.folder, None, MS_BIND)
        mount("none", arena.folder, None, MS_SHARED)
        arena.mount_points = []

    def add(self, source, path, kind, flags=0, options=None):
        mount(source, path, kind, flags, options)
        self.arena.mount_points.append(path)

    def tmpfs(self, path, size=None, inodes=None):
        """A file system in memory of that many bytes and inodes, its root included."""
        os.makedirs(path, exist_ok=True)
        self.add("tmpfs", path, "tmpfs", options=tmpfs_options(size, inodes))

    def bind(self, source, path):
        """Shows a folder, with what is mounted on it, in a second place."""
        self.add(source, path, None, MS_BIND)

    def resize_tmpfs(self, path, size=None, inodes=None):
        mount("tmpfs", path, "tmpfs", MS_REMOUNT, tmpfs_options(size, inodes))

    def image(self, name, size, *options, kind="ext4"):
        """A file with a new file system of a disk's kind in it."""
        path = self.arena.path(name)
        with open(path, "wb") as file:
            file.truncate(size)
        make_file_system(kind, path, *options)
        return path

    def disk(self, image, path, options="", kind="ext4"):
        """Mounts an image. The kernel gives its loop device back once nobody has the file system any more."""
        os.makedirs(path, exist_ok=True)
        mount_image(kind, image, path, options)
        self.arena.mount_points.append(path)

    def remount(self, path, read_only):
        mount(None, path, None, MS_REMOUNT | (MS_RDONLY if read_only else 0))

    def cover(self, path):
        """Makes the place read-only for whatever is opened from here on; remove() undoes it."""
        stage = f"{self.arena.folder}/cover{len(self.arena.mount_points)}"
        os.makedirs(stage, exist_ok=True)
        mount(path, stage, None, MS_BIND)
        mount(None, stage, None, MS_PRIVATE)  # else the cover would come to lie on the stage as well
        mount(None, stage, None, MS_REMOUNT | MS_BIND | MS_RDONLY)
        self.bind(stage, path)
        unmount(stage)

    def remove(self, path, lazily=False):
        """Unmounts what was mounted last at the path; lazily, while files of it are open."""
        unmount(path, MNT_DETACH if lazily else 0)
        self.arena.mount_points.remove(path)

    def close(self):
        for path in [*reversed(self.arena.mount_points), self.arena.folder]:
            with contextlib.suppress(FileNotFoundError):
                unmount(path, MNT_DETACH)


def tmpfs_options(size, inodes):
    """Ample, but limited: what had no limit once cannot be given one."""
    return f"mode=755,size={32 << 20 if size is None else size},nr_inodes={1 << 20 if inodes is None else inodes}"


MAKE_FILE_SYSTEM = {"ext4": ["mkfs.ext4", "-q", "-F", "-m", "0"], "xfs": ["mkfs.xfs", "-q", "-f"], "btrfs": ["mkfs.btrfs", "-q", "-f"]}
#: The least that the tools make each of, in bytes.
SMALLEST = {"ext4": 1 << 20, "xfs": 300 << 20, "btrfs": 128 << 20}


def make_file_system(kind, path, *options):
    subprocess.run([*MAKE_FILE_SYSTEM[kind], *options, path], check=True, capture_output=True)


def mount_image(kind, image, path, options=""):
    subprocess.run(["mount", "-n", "-t", kind, "-o", ",".join(filter(None, ["loop", options])), image, path], check=True,
                   capture_output=True)


@functools.lru_cache(maxsize=None)
def disks_work(kind="ext4"):
    """Whether an image can be made and mounted on this machine, which takes loop devices and the file system with its tools."""
    enter_private_namespace()
    with tempfile.TemporaryDirectory(prefix="quarrow-") as folder:
        image = os.path.join(folder, "image")
        with open(image, "wb") as file:
            file.truncate(SMALLEST[kind])
        try:
            make_file_system(kind, image)
            mount_image(kind, image, folder)
        except (OSError, subprocess.CalledProcessError):
            return False
        unmount(folder)
    return True


def fill(path, leave=0):
    """Makes a file, or more of it, so that about that many bytes of its file system stay free, or not a single one."""
    with open(path, "ab", buffering=0) as file:
        for piece in (1 << 20, 4096, 1):
            with contextlib.suppress(OSError):
                while True:
                    file.write(bytes(piece))
                    os.fsync(file.fileno())  # a disk's file system finds out late
        # Not by what is said to be free: some file systems find more when they are asked for it.
        file.truncate(max(0, os.fstat(file.fileno()).st_size - leave))
        os.fsync(file.fileno())


@pytest.fixture
def mounts(arena):
    if os.geteuid() != 0:
        pytest.skip("mounting takes root")
    try:
        enter_private_namespace()
        world = Mounts(arena)
    except PermissionError:
        pytest.skip("mounting is not permitted here")
    yield world
    world.close()


@pytest.fixture
def disks(mounts):
    if not disks_work():
        pytest.skip("no image can be mounted on this machine")
    return mounts
