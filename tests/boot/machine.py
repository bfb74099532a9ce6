"""A Debian 12 of its own, booted in a container: where systemd does with the package what it does on an appliance."""
import os
import shutil
import signal
import subprocess
import time

BOUND = 120  # seconds that anything may take on a machine that has other things to do
PACKAGES = "systemd,systemd-sysv,dbus,libsqlite3-0,libxml2,sqlite3,faketime,procps,ucf,python3"


def call(*command, **options):
    """Runs a program of this machine; raises when it fails, with what it said."""
    process = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False,
                             **options)
    if process.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: status {process.returncode}: {process.stdout.decode(errors='replace')[-2000:]}")
    return process.stdout.decode(errors="surrogateescape")


def wait_for(condition, what):
    end = time.monotonic() + BOUND
    while time.monotonic() < end:
        found = condition()
        if found:
            return found
        time.sleep(0.1)
    raise AssertionError(f"waited in vain for {what}")


class Machine:
    """Boots a root file system that stays as it is: what is written goes to memory and is forgotten."""

    def __init__(self, root, work, shared):
        """`shared`: a folder of this machine that the container has as /shared."""
        self.work = work
        self.system = f"{work}/system"  # the container's root file system, as this machine sees it
        call("mount", "-t", "tmpfs", "tmpfs", work)
        for name in ("root", "upper", "changes", "system"):
            os.mkdir(f"{work}/{name}")
        call("mount", "--bind", root, f"{work}/root")  # by a name without what an option could not have
        call("mount", "-t", "overlay", "overlay", "-o",
             f"lowerdir={work}/root,upperdir={work}/upper,workdir={work}/changes", self.system)
        self.log = open(f"{work}/console", "wb")
        self.process = subprocess.Popen(
            ["systemd-nspawn", "--boot", "--quiet", "--register=no", "--keep-unit", "--private-network", "--link-journal=no",
             "--console=pipe", f"--bind={shared}:/shared", "--directory", self.system],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT, start_new_session=True,
            env={**os.environ, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1"})
        self.leader = None
        try:
            self.leader = wait_for(self._find_leader, "the container's first process")
            wait_for(lambda: self.run("systemctl", "is-system-running").text.strip() in ("running", "degraded"), "the boot")
        except BaseException:
            self.stop()
            raise

    def _find_leader(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"systemd-nspawn ended: {self.console()}")
        with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children", encoding="ascii") as file:
            children = file.read().split()
        for child in children:
            if os.readlink(f"/proc/{child}/exe").endswith("/systemd"):
                return int(child)
        return None

    def console(self):
        with open(f"{self.work}/console", encoding="utf-8", errors="replace") as file:
            return file.read()[-2000:]

    def run(self, *command, stdin=b""):
        """Runs a program in the container. Never raises for its status."""
        process = subprocess.run(
            ["nsenter", f"--target={self.leader}", "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--", *command],
            input=stdin, capture_output=True, timeout=BOUND, check=False)
        return Result(process)

    def good(self, *command, stdin=b""):
        """Runs a program in the container that is to succeed; what it prints."""
        result = self.run(*command, stdin=stdin)
        assert result.status == 0, f"{' '.join(command)}: {result.status}: {result.text}{result.errors}"
        return result.text

    def write(self, path, text):
        """Writes a file of the container, and makes the folders above it."""
        self.good("mkdir", "-p", os.path.dirname(path))
        self.good("tee", path, stdin=text.encode(errors="surrogateescape"))

    def stop(self):
        if self.leader is not None:
            os.kill(self.leader, signal.SIGRTMIN + 4)  # power off
        else:
            self.process.terminate()
        try:
            self.process.wait(BOUND)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.log.close()
        call("umount", "--lazy", self.system, f"{self.work}/root", self.work)


class Result:
    def __init__(self, process):
        self.status = process.returncode
        self.text = process.stdout.decode(errors="surrogateescape")
        self.errors = process.stderr.decode(errors="surrogateescape")


def make_root(folder):
    """A freshly installed Debian 12 at `folder`, made once: the next run finds it, and makes it anew for other packages."""
    complete = f"{folder}/.complete"
    if os.path.exists(complete):
        with open(complete, encoding="ascii") as file:
            if file.read() == PACKAGES:
                return
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    call("debootstrap", "--variant=minbase", f"--include={PACKAGES}", "bookworm", folder)
    shutil.rmtree(f"{folder}/var/cache/apt/archives", ignore_errors=True)
    with open(complete, "w", encoding="ascii") as file:
        file.write(PACKAGES)
