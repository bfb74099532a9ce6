"""The runner in a mount namespace of its own, where it gives the daemon a private /dev, whose `log` is ours, and a private
/usr/local/quarrow.

The runner starts itself again inside. Work folders are made and removed outside, where nothing is mounted below them.
"""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

from quarrow_driver.private_space import lay_over_machine, leave_the_machine

WORK = "QUARROW_BENCH_WORK"  # set for the inner process: the work folder that the outer one made


def inside():
    return WORK in os.environ


def run_again_inside(parent):
    """Runs this program once more, as the inner process, and returns its exit status. `parent` is where the work folder goes
    (None: the usual place for temporary files)."""
    work = tempfile.mkdtemp(prefix="quarrow-bench-", dir=parent)
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the inner process ends what it started, then this one tidies up
    child = subprocess.Popen([sys.executable, *sys.argv], env={**os.environ, WORK: work},
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))
    signal.signal(signal.SIGTERM, lambda *_: child.terminate())
    try:
        return child.wait()
    finally:
        shutil.rmtree(work)


def furnish(mime_types):
    """In the inner process: enters the namespace and furnishes it. Returns the work folder."""
    work = os.environ[WORK]
    leave_the_machine()
    lay_over_machine(f"{work}/stage", mime_types)
    if os.path.exists("/tmp/standby"):
        raise SystemExit("/tmp/standby exists: the daemon would not walk")
    return work
