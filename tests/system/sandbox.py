"""Becomes the given program, in a mount namespace of its own: `sandbox.py SETTINGS` with one JSON object.

The daemon is built for fixed paths (/dev/log, /tmp/standby, /usr/local/quarrow/mime_types.txt, /CacheVolume). Here each
run gets its own: a new root is furnished with the machine's folders, save for those, and entered. No child is forked, so
whoever started this process can signal the program and wait for it as its own child.

Settings:
  argv        the program and its arguments; argv[0] is an absolute path
  root        an empty folder on which the new root is mounted
  tmp         the folder that becomes /tmp
  log         the socket that /dev/log leads to, or null for no /dev/log
  mime_table  the file copied to /usr/local/quarrow/mime_types.txt, or null for none
  keep        paths that stay visible where they are, also below /tmp
  binds       [source folder, folder in the new root] pairs
  mounts      places at which file systems are mounted that are to be seen there, as well as whatever is mounted or
              unmounted later where mounts are shared; or null to be cut off from all that
  closed      descriptors to close before the program starts
  user        user and group id to run as, or null
  environment the program's environment
  limits      {name of a resource: limit}, as in {"NOFILE": 20}; may be left out
  user_limits {name in /proc/sys/user: limit} of a user namespace of the program's own; may be left out
"""
import ctypes
import json
import os
import resource
import shutil
import signal
import sys

CLONE_NEWNS = 0x00020000
CLONE_NEWUSER = 0x10000000
MS_BIND = 0x1000
MS_REC = 0x4000
MS_PRIVATE = 0x40000
MS_SLAVE = 0x80000

DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
DEVICE_LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}
REPLACED = ("dev", "tmp")

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def mount(source, target, kind, flags, options=None):
    encode = lambda text: None if text is None else os.fsencode(text)
    check(libc.mount(encode(source), encode(target), encode(kind), ctypes.c_ulong(flags), encode(options)),
          f"mount {source} on {target}")


def write_text(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def leave_the_machine(follow_mounts):
    """Enters a private mount namespace; without privileges, as root of a private user namespace."""
    user, group = os.geteuid(), os.getegid()
    check(libc.unshare(CLONE_NEWNS if user == 0 else CLONE_NEWNS | CLONE_NEWUSER), "unshare")
    if user != 0:
        write_text("/proc/self/setgroups", "deny")
        write_text("/proc/self/uid_map", f"0 {user} 1")
        write_text("/proc/self/gid_map", f"0 {group} 1")
    mount("none", "/", None, MS_REC | (MS_SLAVE if follow_mounts else MS_PRIVATE))


def bind(source, target, flags=MS_BIND | MS_REC):
    """Shows `source` at `target`. Links are made again, as links."""
    if os.path.islink(source):
        os.symlink(os.readlink(source), target)
        return
    if os.path.isdir(source):
        os.makedirs(target, exist_ok=True)
    else:
        open(target, "xb").close()
    mount(source, target, None, flags)


def furnish(settings):
    root = settings["root"]
    mount("tmpfs", root, "tmpfs", 0, "mode=755")
    for name in os.listdir("/"):
        if name not in REPLACED:
            bind(f"/{name}", f"{root}/{name}")

    os.mkdir(f"{root}/dev")
    for name in DEVICES:
        bind(f"/dev/{name}", f"{root}/dev/{name}")
    for name, target in DEVICE_LINKS.items():
        os.symlink(target, f"{root}/dev/{name}")
    os.mkdir(f"{root}/dev/shm")
    os.chmod(f"{root}/dev/shm", 0o1777)
    if settings["log"] is not None:
        os.symlink(settings["log"], f"{root}/dev/log")

    mount("tmpfs", f"{root}/usr/local", "tmpfs", 0, "mode=755")
    for name in os.listdir("/usr/local"):
        if name != "quarrow":
            bind(f"/usr/local/{name}", f"{root}/usr/local/{name}")
    os.mkdir(f"{root}/usr/local/quarrow")
    if settings["mime_table"] is not None:
        shutil.copyfile(settings["mime_table"], f"{root}/usr/local/quarrow/mime_types.txt")

    os.mkdir(f"{root}/tmp")
    mount(settings["tmp"], f"{root}/tmp", None, MS_BIND)
    for path in sorted(settings["keep"]):
        if not os.path.exists(root + path):
            bind(path, root + path, MS_BIND)  # not what is mounted below it: the new root itself may be
    for path in settings["mounts"] or []:
        if os.stat(root + path).st_dev != os.stat(path).st_dev:
            bind(path, root + path)
    for source, target in settings["binds"]:
        bind(source, root + target)


def limit_user(limits):
    """In a user namespace of its own, root has limits of its own, which are the machine's at most."""
    user, group = os.geteuid(), os.getegid()
    check(libc.unshare(CLONE_NEWUSER), "unshare")
    write_text("/proc/self/setgroups", "deny")
    write_text("/proc/self/uid_map", f"{user} {user} 1")
    write_text("/proc/self/gid_map", f"{group} {group} 1")
    for name, limit in limits.items():
        write_text(f"/proc/sys/user/{name}", str(limit))


def become(settings):
    if settings.get("user_limits"):
        limit_user(settings["user_limits"])
    os.chroot(settings["root"])
    os.chdir("/")
    os.umask(0o022)
    if settings["user"] is not None:
        os.setgroups([])
        os.setgid(settings["user"])
        os.setuid(settings["user"])
    # The interpreter ignores these, and what is ignored stays so over an exec.
    for number in (signal.SIGPIPE, signal.SIGXFSZ, signal.SIGINT):
        signal.signal(number, signal.SIG_DFL)
    for descriptor in settings["closed"]:
        os.close(descriptor)
    for name, limit in settings.get("limits", {}).items():
        number = getattr(resource, f"RLIMIT_{name}")
        resource.setrlimit(number, (limit, resource.getrlimit(number)[1]))
    os.execve(settings["argv"][0], settings["argv"], settings["environment"])


def main():
    settings = json.loads(sys.argv[1])
    leave_the_machine(follow_mounts=settings["mounts"] is not None)
    furnish(settings)
    become(settings)


main()
