"""The kernel's calls for mount namespaces. Called directly: the tests start hundreds of daemons, and a process for each mount
would take longer than the daemons do."""
import ctypes
import os

MS_RDONLY = 0x1
MS_REMOUNT = 0x20
MS_BIND = 0x1000
MS_MOVE = 0x2000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
MS_SLAVE = 0x80000
MS_SHARED = 0x100000
MNT_DETACH = 0x2
CLONE_NEWNS = 0x00020000
CLONE_NEWUSER = 0x10000000

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    """Raises the error of a call that did not return zero."""
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def mount(source, target, kind, flags, options=None):
    encode = lambda text: None if text is None else os.fsencode(text)
    check(libc.mount(encode(source), encode(target), encode(kind), ctypes.c_ulong(flags), encode(options)),
          f"mount {source} on {target}")


def unmount(path, flags=0):
    check(libc.umount2(os.fsencode(path), flags), f"unmount {path}")


def unshare(flags):
    check(libc.unshare(flags), "unshare")


def bind(source, target, flags=MS_BIND | MS_REC):
    """Shows `source` at `target`, which is made. Links are made again, as links."""
    if os.path.islink(source):
        os.symlink(os.readlink(source), target)
        return
    if os.path.isdir(source):
        os.makedirs(target, exist_ok=True)
    else:
        open(target, "xb").close()
    mount(source, target, None, flags)
