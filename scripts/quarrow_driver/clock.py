"""Clocks for daemons, by libfaketime."""
import os

#: The dynamic linker of whatever is started puts its own architecture in place of $LIB. With a time of 64 bits on a machine
#: of 32, tests/system/wide_clock.cpp goes before it.
LIBRARIES = ":".join(filter(None, [os.environ.get("QUARROW_WIDE_CLOCK"), "/usr/$LIB/faketime/libfaketimeMT.so.1"]))
#: A program of another architecture is started by tests/system/foreign.sh.in, which gives the clock to it alone.
PRELOAD = "QUARROW_PRELOAD" if "QUARROW_FOREIGN" in os.environ else "LD_PRELOAD"
#: A file's times are the disk's, never the clock's.
COMMON = {PRELOAD: LIBRARIES, "NO_FAKE_STAT": "1"}


def fast_clock(factor):
    """Environment in which time, sleeps and timeouts run `factor` times as fast."""
    return {**COMMON, "FAKETIME": f"+0 x{factor}"}


class Clock:
    """A clock that stands still for the daemons that are given it, until it is set. The time is kept in a file."""

    def __init__(self, path, now):
        self.path = path
        self.set(now)

    def set(self, now):
        self.now = int(now)
        # Replaced in one step: the daemon reads the file whenever it asks for the time.
        with open(self.path + ".new", "w", encoding="ascii") as file:
            file.write(f"{self.now}\n")
        os.rename(self.path + ".new", self.path)

    def advance(self, seconds):
        self.set(self.now + seconds)

    def environment(self):
        return {**COMMON, "FAKETIME_TIMESTAMP_FILE": self.path, "FAKETIME_FMT": "%s", "TZ": "UTC",
                "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
