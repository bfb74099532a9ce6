"""Signals at moments that chance chooses."""
import os
import random
import time

from lines import info
from quarrow_driver.waiting import BOUND

BANNER = info("================\n")


def seeded(name):
    """A source of chance, the same in every run unless QUARROW_FAULT_SEED gives another seed."""
    seed = int(os.environ.get("QUARROW_FAULT_SEED", "1"))
    print(f"{name}: QUARROW_FAULT_SEED={seed}")
    return random.Random(seed)


def batches(items, size):
    return [items[start:start + size] for start in range(0, len(items), size)]


def send_at(plan, since=BANNER):
    """Sends each daemon of the plan its signals, (seconds, number) pairs in order of time, that long after it has logged the
    given line. What has ended by then gets none."""
    seen, waiting = {}, {daemon: list(signals) for daemon, signals in plan.items()}
    deadline = time.monotonic() + BOUND
    while waiting:
        assert time.monotonic() < deadline, f"{len(waiting)} daemons have neither ended nor logged {since}"
        for daemon, signals in list(waiting.items()):
            if daemon.has_ended():
                del waiting[daemon]
                continue
            if daemon not in seen and since in daemon.lines:
                seen[daemon] = time.monotonic()
            while signals and daemon in seen and time.monotonic() - seen[daemon] >= signals[0][0]:
                os.kill(daemon.pid, signals.pop(0)[1])
            if not signals:
                del waiting[daemon]
        time.sleep(0.0005)
