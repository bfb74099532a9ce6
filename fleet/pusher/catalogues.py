"""What the pusher says of a catalogue as a whole."""
import os
import re
import stat
import time

from pusher.rows import unwrapped

LONGEST_RECORD = 16384
RECORDED = re.compile(rb"<last_purge_time>\s*(-?\d{1,10})\s*</last_purge_time>")


def identity(root):
    """Tells the catalogue file from one that takes its place, unless its inode is used again. Empty when it is gone again."""
    try:
        status = os.stat(root + b"/.quarrow/quarrow.db")
    except OSError:
        return ""
    return f"{os.major(status.st_dev)}:{os.minor(status.st_dev)}-{status.st_ino}"


def purged_before(root):
    """The catalogue has no deleted rows any more that were last written before this time. The daemon records it with each
    purge, in the volume's state file: it is not the time of the purge, but lies a threshold before. 0: none is known of. So it
    is when the time lies ahead: the clock was wrong then, and deleted rows of now have times before it."""
    try:
        descriptor = os.open(root + b"/.quarrow/quarrow-volume.xml", os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC)
        with open(descriptor, "rb") as file:
            if not stat.S_ISREG(os.fstat(descriptor).st_mode):
                return 0
            found = RECORDED.findall(file.read(LONGEST_RECORD))
    except OSError:
        return 0
    recorded = unwrapped(int(found[-1])) if found else 0
    return recorded if recorded <= time.time() else 0
