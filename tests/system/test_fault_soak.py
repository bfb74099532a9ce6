"""A long life in short: time runs a few hundred times as fast while everything on two volumes keeps changing.

QUARROW_SOAK_SECONDS says for how long, in real seconds (an hour is a month), QUARROW_SOAK_SEED which changes are made.
"""
import contextlib
import os
import random
import re
import shutil
import signal
import time

from daemon import has_address_sanitizer, has_thread_sanitizer
from quarrow_driver.clock import fast_clock
from quarrow_driver.waiting import wait_for
from recovery import assert_converged

SECONDS = float(os.environ.get("QUARROW_SOAK_SECONDS", "75"))
SEED = int(os.environ.get("QUARROW_SOAK_SEED", "1"))
FACTOR = 720
ROUNDS = 10
WARM_UP = 4  # rounds after which memory and descriptors are to stay as they are
MORE_MEMORY = 1024  # KiB, for pages of the catalogues and the allocator's mood
#: A folder that is gone leaves its entry in the registry of watches: two nodes of a map, a path and a name.
STALE_ENTRY = 0.5  # KiB


class Changes:
    """Changes to the trees of volumes, one after the other, which hang on the seed alone and keep to about a size."""

    EXTENSIONS = ("mp3", "avi", "jpg", "txt", "MP3", "tar.gz", "")

    def __init__(self, volumes, choice):
        self.volumes, self.choice, self.made = volumes, choice, 0
        self.counts = {}
        for volume in volumes:
            for number in range(80):
                volume.make_folder(f"/m/{number % 8}/{number}")

    def folders(self, volume):
        found = []
        for path, names, _ in os.walk(volume.path("/m")):
            found.append(path)
            names.sort()
        return found

    def new_name(self):
        self.made += 1
        extension = self.choice.choice(self.EXTENSIONS)
        return f"{self.choice.choice('abcdefgh')}{self.choice.randrange(60)}" + (f".{extension}" if extension else "")

    def make(self, number):
        """That many changes, wherever they lead: what is in the way of one is not replaced by another."""
        folders = {volume.name: self.folders(volume) for volume in self.volumes}
        for _ in range(number):
            volume = self.choice.choice(self.volumes)
            places = folders[volume.name]
            path = self.choice.choice(places)
            kind = self.choice.choices(("write", "touch", "delete", "rename", "move", "folder", "tree", "remove", "across"),
                                       (30, 5, 22, 10, 6, 6, 2, 4, 1))[0]
            with contextlib.suppress(OSError, shutil.Error):
                getattr(self, kind)(path, places)
                self.counts[kind] = self.counts.get(kind, 0) + 1
            if not os.path.isdir(path) or kind in ("folder", "tree", "remove", "across", "move"):
                folders = {each.name: self.folders(each) for each in self.volumes}

    def a_file(self, path):
        return os.path.join(path, self.choice.choice(sorted(entry.name for entry in os.scandir(path) if entry.is_file()) or [""]))

    def write(self, path, _):
        with open(os.path.join(path, self.new_name()), "ab") as file:
            file.write(b"x" * self.choice.randrange(1, 100))

    def touch(self, path, _):
        os.utime(self.a_file(path), (self.choice.randrange(2**31), self.choice.randrange(2**31)))

    def delete(self, path, _):
        os.unlink(self.a_file(path))

    def rename(self, path, _):
        os.rename(self.a_file(path), os.path.join(path, self.new_name()))

    def move(self, path, places):
        """A folder with all that is in it, or a file."""
        target = os.path.join(self.choice.choice(places), self.new_name())
        if self.choice.random() < 0.5 and path != places[0] and not os.path.exists(target):
            os.rename(path, target)
        else:
            os.rename(self.a_file(path), target)

    def folder(self, path, places):
        if len(places) < 200:
            os.mkdir(os.path.join(path, self.new_name()))

    def tree(self, path, places):
        if len(places) < 200:
            base = os.path.join(path, self.new_name())
            for number in range(self.choice.randrange(1, 6)):
                os.makedirs(f"{base}/{number}/deep/deeper")
                self.write(f"{base}/{number}/deep", places)

    def remove(self, path, places):
        if len(places) > 40 and path != places[0]:
            shutil.rmtree(path)

    def across(self, path, places):
        """From one volume to another, in the same file system."""
        other = self.choice.choice(self.volumes).path("/m")
        if path != places[0]:
            os.rename(path, os.path.join(other, f"from afar {self.made}"))
            self.made += 1


def settle(daemon, volumes):
    """Waits for the bursts to end, then one full walk: catalogue, disk and watches are to agree."""
    def is_quiet():
        bursts = daemon.bursts()
        time.sleep(0.5)
        return daemon.bursts() == bursts
    wait_for(is_quiet, "an end of the bursts")
    daemon.rewalk()
    for volume in volumes:
        assert_converged(volume)
    assert daemon.kernel_watches() == sum(len(volume.tree().folders) for volume in volumes)


def forget_lines(daemon):
    """Drops what the daemon has logged so far, which is much in a long run; returns the errors in it."""
    with daemon.log.changed:
        errors = daemon.errors()
        loop = ("Going to sleep", "We received", "Woke up")  # stays: rewalk() counts these
        daemon.log.lines[:] = [line for line in daemon.log.lines if line.text.startswith(loop)]
    return errors


def last_figure(texts, pattern):
    return int([match[1] for match in (re.fullmatch(pattern, text) for text in texts) if match][-1])


def test_a_month_in_an_hour(arena):
    """Live changes, full walks and purges all the time. Every now and then the changes stop: one full walk then makes the
    catalogue the same as the disk, every folder has one watch, and the daemon holds no more descriptors than
    it did before, and no more memory but for what it keeps of folders that are gone."""
    choice = random.Random(SEED)
    print(f"seed {SEED}, {SECONDS} s")
    volumes = [arena.volume(name, crawl=["/m"]) for name in "AB"]
    changes = Changes(volumes, choice)
    daemon = arena.start(volumes, environment=fast_clock(FACTOR), purge_threshold=1200)
    daemon.wait_walks(2)
    figures, errors, purges, bursts, walks = [], [], 0, 0, 0
    for number in range(ROUNDS):
        end = time.monotonic() + SECONDS / ROUNDS
        while time.monotonic() < end:
            changes.make(choice.randrange(1, 60))
            if choice.random() < 0.2:
                daemon.signal(signal.SIGUSR1)
            time.sleep(choice.random() / 10)
        settle(daemon, volumes)
        texts = daemon.texts()
        purges += sum(text.startswith("Done with the purge") for text in texts)
        walks += sum(text.startswith("Finished walk") for text in texts)
        bursts += daemon.bursts()
        errors += forget_lines(daemon)
        stale = last_figure(texts, r"Actively watching (\d+) folders\n") - daemon.kernel_watches()
        assert stale >= 0
        figures.append((daemon.memory()["RssAnon"], stale, daemon.descriptors()))
        print(f"round {number}: {figures[-1][0]} KiB, {len(figures[-1][2])} descriptors, {daemon.kernel_watches()} watches,"
              f" {stale} stale entries, {walks} walks, {bursts} bursts, {purges} purges, {sum(changes.counts.values())} changes")
    print(changes.counts)
    assert set(changes.counts) == {"write", "touch", "delete", "rename", "move", "folder", "tree", "remove", "across"}
    assert purges >= ROUNDS and bursts >= ROUNDS and walks > 2 * ROUNDS
    # The kernel tells of watches that are no more; and two volumes that swap folders are no error.
    assert set(errors) <= {"No listener/directory found for \n"}
    memory_then, stale_then, descriptors_then = figures[WARM_UP - 1]
    for memory, stale, descriptors in figures[WARM_UP:]:
        if not (has_address_sanitizer() or has_thread_sanitizer()):  # they keep what is freed
            assert memory <= memory_then + MORE_MEMORY + STALE_ENTRY * (stale - stale_then)
        assert descriptors == descriptors_then
    daemon.stop()
    for volume in volumes:
        assert volume.catalogue.is_sound()
    assert "Done with the stop\n" in daemon.texts()
