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
import json
import os
import resource
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../scripts"))

from quarrow_driver.mounting import MS_BIND, bind, mount  # (the path comes first)
from quarrow_driver.private_space import enter_user_namespace, fill_dev, leave_the_machine, mount_usr_local, write_text

REPLACED = ("dev", "tmp")


def furnish(settings):
    root = settings["root"]
    mount("tmpfs", root, "tmpfs", 0, "mode=755")
    for name in os.listdir("/"):
        if name not in REPLACED:
            bind(f"/{name}", f"{root}/{name}")

    os.mkdir(f"{root}/dev")
    fill_dev(f"{root}/dev", settings["log"])
    os.mkdir(f"{root}/dev/shm")
    os.chmod(f"{root}/dev/shm", 0o1777)
    mount_usr_local(f"{root}/usr/local", settings["mime_table"])

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
    enter_user_namespace(0, os.geteuid(), os.getegid())
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
