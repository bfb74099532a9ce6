"""Lines that the daemon logs."""
import re

from quarrow_driver.log import LogLine


def info(text):
    return LogLine("INFO", text)


def err(text):
    return LogLine("ERR", text)


#: What the control loop says when it begins to wait, and when a signal has ended its wait.
SLEEP = info("Going to sleep.\n")
AWAKE = info("We received a wake up message from the signal handler\n")
#: The last line of a burst of changes.
BURST_END = info("======\n")


def is_walk_end(line):
    """A walk's last line."""
    return re.fullmatch(r"Actively watching \d+ folders\n", line.text) is not None


def walk_lines(lines):
    """Of a daemon's lines, those that walks write, in order."""
    return [line for line in lines if WALK_LINE.match(line.text)]


WALK_LINE = re.compile(r"For folder |Add f|Removing |Finished walk|Total folders|The time taken|Actively watching"
                       r"|Crawl paths is empty|Checking if|not found |Processed \d+ folders")
