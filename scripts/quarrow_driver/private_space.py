"""A mount namespace in which the daemon meets the fixed paths it is built for (/dev/log, /tmp/standby and
/usr/local/quarrow/mime_types.txt), while the machine's own stay as they are.

Two ways lead there. `lay_over_machine()` changes what the calling process and its children see of the machine. A new root
that is furnished with `fill_dev()` and `mount_usr_local()` gives a single program a world of its own.
"""
import os
import shutil

from quarrow_driver.mounting import (CLONE_NEWNS, CLONE_NEWUSER, MS_MOVE, MS_PRIVATE, MS_REC, MS_SLAVE, bind, mount,
                                     unshare)

DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
DEVICE_LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}


def write_text(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def enter_user_namespace(flags, inside_user, inside_group):
    """Enters a user namespace, in which this process has the given ids, and the other namespaces of `flags` with it."""
    user, group = os.geteuid(), os.getegid()
    unshare(flags | CLONE_NEWUSER)
    write_text("/proc/self/setgroups", "deny")
    write_text("/proc/self/uid_map", f"{inside_user} {user} 1")
    write_text("/proc/self/gid_map", f"{inside_group} {group} 1")


def leave_the_machine(follow_mounts=False):
    """Enters a private mount namespace; without privileges, as root of a private user namespace. What is mounted on the
    machine later is seen only with `follow_mounts`."""
    if os.geteuid() == 0:
        unshare(CLONE_NEWNS)
    else:
        enter_user_namespace(CLONE_NEWNS, 0, 0)
    mount("none", "/", None, MS_REC | (MS_SLAVE if follow_mounts else MS_PRIVATE))


def fill_dev(folder, log):
    """Furnishes an empty folder as /dev: the few devices, and a `log` that leads to the given socket (None: no `log`)."""
    for name in DEVICES:
        if os.path.exists(f"/dev/{name}"):
            bind(f"/dev/{name}", f"{folder}/{name}")
    for name, target in DEVICE_LINKS.items():
        os.symlink(target, f"{folder}/{name}")
    if log is not None:
        os.symlink(log, f"{folder}/log")


def mount_usr_local(folder, mime_table):
    """Mounts on `folder` the machine's /usr/local with a `quarrow` of its own, which holds the table (None: nothing)."""
    mount("tmpfs", folder, "tmpfs", 0, "mode=755")
    for name in os.listdir("/usr/local"):
        if name != "quarrow":
            bind(f"/usr/local/{name}", f"{folder}/{name}")
    os.mkdir(f"{folder}/quarrow")
    if mime_table is not None:
        shutil.copyfile(mime_table, f"{folder}/quarrow/mime_types.txt")


def lay_over_machine(stage, mime_table, log=None):
    """Gives this process, which is in a namespace of its own, a private /dev and /usr/local. Each is furnished on the folder
    `stage` first, because it is made of what it will cover."""
    os.makedirs(stage, exist_ok=True)
    mount_usr_local(stage, mime_table)
    mount(stage, "/usr/local", None, MS_MOVE)
    mount("tmpfs", stage, "tmpfs", 0, "mode=755")
    fill_dev(stage, log)
    bind("/dev/shm", f"{stage}/shm")
    mount(stage, "/dev", None, MS_MOVE)


def lay_over_tmp(stage, keep):
    """Gives this process, likewise, an empty /tmp, in which only the given paths stay visible."""
    os.makedirs(stage, exist_ok=True)
    mount("tmpfs", stage, "tmpfs", 0, "mode=1777")
    for path in sorted(keep):  # parents first: they bring what is below them
        place = stage + path[len("/tmp"):]
        if path.startswith("/tmp/") and not os.path.exists(place):
            bind(path, place)
    mount(stage, "/tmp", None, MS_MOVE)
