"""A mount namespace of the runner's own, so that the daemon meets the fixed paths it is built for and the machine's stay
as they are: a /dev whose `log` is ours, and /usr/local/quarrow/mime_types.txt.

The runner starts itself again inside. Work folders are made and removed outside, where nothing is mounted below them.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

WORK = "QUARROW_BENCH_WORK"  # set inside the namespace: the work folder that the outer process made
DEVICES = ["null", "zero", "full", "random", "urandom", "tty"]
DEVICE_LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2", "ptmx": "pts/ptmx"}


def inside():
    return WORK in os.environ


def run_again_inside(parent):
    """Runs this program once more in a namespace of its own and returns its exit status. `parent` is where the work folder
    goes (None: the usual place for temporary files)."""
    work = tempfile.mkdtemp(prefix="quarrow-bench-", dir=parent)
    command = ["unshare", "--mount", "--propagation", "private"]
    if os.geteuid() != 0:
        command.append("--map-root-user")
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the inner process ends what it started, then this one tidies up
    child = subprocess.Popen([*command, sys.executable, *sys.argv], env={**os.environ, WORK: work},
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))
    signal.signal(signal.SIGTERM, lambda *_: child.terminate())
    try:
        return child.wait()
    finally:
        shutil.rmtree(work)


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def lay_over(mount_point, target, fill):
    """Mounts an empty tmpfs on `mount_point`, has `fill` furnish it and moves it over `target`."""
    os.makedirs(mount_point, exist_ok=True)
    mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", mount_point)
    fill(mount_point)
    mount("--move", mount_point, target)


def bind_entry(source, target):
    if os.path.islink(source):
        os.symlink(os.readlink(source), target)
    elif os.path.isdir(source):
        os.mkdir(target)
        mount("--rbind", source, target)
    else:
        open(target, "w").close()
        mount("--bind", source, target)


def furnish(mime_types):
    """Inside the namespace: lays the private /dev and /usr/local over the machine's. Returns the work folder."""
    work = os.environ[WORK]

    def fill_dev(folder):
        for name in DEVICES + ["shm", "pts"]:
            if os.path.exists(f"/dev/{name}"):
                bind_entry(f"/dev/{name}", f"{folder}/{name}")
        for name, target in DEVICE_LINKS.items():
            os.symlink(target, f"{folder}/{name}")

    def fill_local(folder):
        for name in os.listdir("/usr/local"):
            if name != "quarrow":
                bind_entry(f"/usr/local/{name}", f"{folder}/{name}")
        os.mkdir(f"{folder}/quarrow")
        shutil.copyfile(mime_types, f"{folder}/quarrow/mime_types.txt")

    lay_over(f"{work}/mount", "/dev", fill_dev)
    lay_over(f"{work}/mount", "/usr/local", fill_local)
    if os.path.exists("/tmp/standby"):
        raise SystemExit("/tmp/standby exists: the daemon would not walk")
    return work
