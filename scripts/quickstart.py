"""The show of quickstart.sh: one daemon, one folder, one change.

  quickstart.py --make-sample FOLDER     makes the sample library
  quickstart.py DAEMON FOLDER            runs DAEMON on FOLDER and shows what it logs, and what quarrowctl beside it tells

The daemon runs in a mount namespace in which /tmp, /dev and /usr/local/quarrow are private. They are furnished beside DAEMON.
"""
import os
import queue
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True

from quarrow_driver.configuration import host_configuration, volume_element
from quarrow_driver.log import LogReceiver, parse
from quarrow_driver.private_space import lay_over_machine, lay_over_tmp, leave_the_machine
from quarrow_driver.process import DaemonProcess
from quarrow_driver.reading import open_for_reading
from quarrow_driver.waiting import poll

CHECKOUT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SAMPLE = ["Music/Ella & Louis/01 Can’t We Be Friends.flac", "Music/Ella & Louis/02 Isn’t This a Lovely Day.flac",
          "Music/Ella & Louis/cover.jpg", "Music/Björk/Debut/03 Venus as a Boy.mp3", "Music/playlist.m3u8",
          "Photos/2024/Summer/IMG_0001.JPG", "Photos/2024/Summer/IMG_0002.HEIC", "Photos/2024/Summer/raw/DSC_0003.NEF",
          "Photos/2025/it's me.png", "Videos/Holiday 50% off.mp4", "Videos/Old/tape 7.avi", "Videos/Holiday.srt",
          "Documents/warranty.pdf", ".hidden/notes.txt", "README"]
CATEGORIES = {1: "video", 2: "audio", 3: "image", 4: "other"}
PATIENCE = 120  # seconds until something that should have happened counts as failed


def make_sample(folder):
    for number, name in enumerate(SAMPLE):
        path = os.path.join(folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.truncate(1000 * (number + 1))


def say(text):
    # A name may hold bytes that are no text; they are shown as escapes. In one piece: the log has a thread of its own.
    sys.stdout.write(text.encode(errors="backslashreplace").decode() + "\n")
    sys.stdout.flush()


class Log(LogReceiver):
    """Receives what the daemon logs. The three lines of each walked folder become a count; all others are shown."""

    def __init__(self, folder, ident):
        super().__init__(folder)
        self.ident = ident
        self.folders = 0
        self.files = 0
        self.shown_at = 0.0
        self.texts = queue.Queue()
        self.start()

    def take(self, datagram):
        line = parse(datagram, self.ident)
        if line is None:  # another program's
            return
        text = line.text.rstrip("\n")
        if text.startswith("For folder "):
            self.folders += 1
        elif text.startswith("Add file count = "):
            self.files += int(text.split(" = ")[1].split(",")[0])
        elif not text.startswith("Add folder count = "):
            self.show_count()
            level = "ERROR" if line.priority == "ERR" else "info "
            say(f"  {time.strftime('%H:%M:%S')} {level} {text}")
        if time.monotonic() - self.shown_at > 1:
            self.show_count()
        self.texts.put(text)

    def show_count(self):
        self.shown_at = time.monotonic()
        if self.folders:
            say(f"  ... {self.folders} folders walked, {self.files} files added")
        self.folders = self.files = 0

    def wait_for(self, beginning, daemon):
        """Waits until a line that begins so was logged; false when the daemon ended instead."""
        while not daemon.has_ended():
            try:
                if self.texts.get(timeout=1).startswith(beginning):
                    return True
            except queue.Empty:
                pass
        return False


class Catalogue:
    """A reader of the catalogue."""

    def __init__(self, folder):
        self.reader = open_for_reading(os.path.join(folder, ".quarrow", "quarrow.db"))

    def close(self):
        self.reader.close()

    def rows(self, query, *values):
        return self.reader.execute(query, values).fetchall()

    def show_summary(self):
        folders = self.rows("select count(*) from Folders where is_deleted = 0")[0][0]
        say(f"\nThe catalogue holds {folders} folders and these files:")
        say(f"  {'category':<10}{'files':>12}{'bytes':>20}")
        counts = self.rows("select category, count(*), sum(size) from Files where is_deleted = 0 group by category")
        for category, files, size in counts:
            say(f"  {CATEGORIES[category]:<10}{files:>12,}{size:>20,}")
        total = [sum(row[column] for row in counts) for column in (1, 2)]
        say(f"  {'all':<10}{total[0]:>12,}{total[1]:>20,}\n")

    def wait_for_state(self, path, deleted):
        """Waits until the file has a row with this deleted flag; the seconds that took, or None."""
        start = time.monotonic()
        has_it = lambda: self.rows("select 1 from Files where path = ? and is_deleted = ?", path, deleted)
        return time.monotonic() - start if poll(has_it, PATIENCE, pause=0.1) else None


def write_configuration(path, folder):
    # Readers of the catalogue may change that folder; left in, they would keep the burst of the change going.
    volume = volume_element("quickstart", folder, exclude=["/.quarrow"])
    with open(path, "w", encoding="utf-8") as file:
        file.write(host_configuration([volume], int(time.time())))


def refuse_unusable(folder):
    """Says why the folder cannot be catalogued, or nothing when it can."""
    try:
        folder.encode()
    except UnicodeEncodeError:
        return "its path is not UTF-8, which the configuration file has to be"
    if any(ord(character) < 32 for character in folder):
        return "its path holds control characters, which the configuration file cannot"
    try:
        os.makedirs(os.path.join(folder, ".quarrow"), exist_ok=True)
        with tempfile.TemporaryFile(dir=os.path.join(folder, ".quarrow")):
            pass
    except OSError as error:
        return f"it cannot be written: {error.strerror}"
    return None


def show_change(folder, catalogue, log, daemon):
    descriptor, path = tempfile.mkstemp(prefix="quarrow-quickstart-", suffix=".mp3", dir=folder)
    os.close(descriptor)
    name = "/" + os.path.basename(path)
    say(f"Made the file {path}; changes are looked at after 5 quiet seconds:")
    try:
        arrived = catalogue.wait_for_state(name, 0)
        if arrived is not None:
            log.wait_for("======", daemon)  # the rest of what the daemon says about it
    finally:
        os.unlink(path)
    if arrived is None:
        say("It did not reach the catalogue.")
        return False
    say(f"It reached the catalogue after {arrived:.1f} seconds. Removed it again:")
    gone = catalogue.wait_for_state(name, 1)
    if gone is not None:
        log.wait_for("======", daemon)
    say("That did not reach the catalogue." if gone is None else f"Its row is marked deleted after {gone:.1f} seconds.")
    return gone is not None


def enter_private_space(daemon_path, folder):
    """Returns a folder that goes with the process. The daemon's /dev/log leads to `log` in there."""
    here, stage = os.getcwd(), os.path.join(os.path.dirname(daemon_path), "stage")
    leave_the_machine()
    lay_over_tmp(stage, [CHECKOUT, folder])
    own = tempfile.mkdtemp(dir="/tmp")
    lay_over_machine(stage, f"{CHECKOUT}/data/mime_types.txt", log=f"{own}/log")
    os.chdir(here)
    return own


def show_daemon(daemon, log, folder, command):
    """From the start to the stop; whether all went well."""
    good = False
    try:
        if log.wait_for("Actively watching", daemon):
            catalogue = Catalogue(folder)
            catalogue.show_summary()
            good = show_change(folder, catalogue, log, daemon)
            catalogue.close()  # the daemon leaves one plain file behind when no reader prevents it
            good = command.show_status() and good
    except KeyboardInterrupt:
        say("Interrupted.")
    finally:
        say("\nStopping the daemon with SIGTERM:")
        status = daemon.terminate()
        log.settle(PATIENCE)  # its last lines are shown
    say(f"It ended with exit status {status}.")
    return good and status == 0


class Command:
    """quarrowctl, with what it keeps for the next time in a folder that goes with the process."""

    def __init__(self, program, configuration, cache):
        self.command = [program, "--config", configuration]
        self.environment = {**os.environ, "XDG_CACHE_HOME": cache}

    def run(self, *arguments):
        return subprocess.run([*self.command, *arguments], env=self.environment, check=False).returncode == 0

    def show_status(self):
        say("\nquarrowctl status:")
        return self.run("status")

    def write_report(self, page):
        say("\nquarrowctl report made a page of it for your browser:")
        return self.run("report", "-o", page)


def run(daemon_path, folder):
    daemon_path = os.path.abspath(daemon_path)
    own = enter_private_space(daemon_path, folder)
    reason = refuse_unusable(folder)
    if reason is not None:
        say(f"{folder} cannot be catalogued: {reason}.")
        return 1
    tickle = os.path.join(folder, ".tickle")
    had_tickle = os.path.lexists(tickle)
    configuration = os.path.join(own, "quarrow-host.xml")
    write_configuration(configuration, folder)
    log = Log(own, os.path.basename(daemon_path))
    say(f"\nStarting the daemon on {folder}. It logs:")
    tools = os.path.dirname(daemon_path)
    command = Command(f"{tools}/quarrowctl", configuration, own)
    good = show_daemon(DaemonProcess([daemon_path], configuration, stdout=subprocess.DEVNULL), log, folder, command)
    if not had_tickle and os.path.lexists(tickle):
        os.unlink(tickle)  # what the daemon wakes its watcher with
    good = command.write_report(f"{tools}/report.html") and good
    say(f"The catalogue is {folder}/.quarrow/quarrow.db: look into it with sqlite3, or with quarrowctl.")
    return 0 if good else 1


if sys.argv[1] == "--make-sample":
    make_sample(sys.argv[2])
else:
    sys.exit(run(*sys.argv[1:]))
