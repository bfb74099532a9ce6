"""Volumes that have something to purge."""
import shutil
import subprocess

from catalogue import Rows, edit

#: The age in seconds at which a row marked deleted is purged.
THRESHOLD = 3600
#: How long after the clock's first moment the purge of such a volume falls due.
DUE_AFTER = 500


def with_deleted_rows(arena, clock, name="Template", folders=3, files=4):
    """A volume with that many live files in each of that many folders, and as many again that are to be purged."""
    volume = arena.volume(name, crawl=["/m"])
    for top in ("keep", "gone"):
        for number in range(folders * files):
            volume.make_file(f"/m/{top}/{number % folders}/{number}.mp3", b"x", modified=1_500_000_000)
    volume.write_state(clock.now)
    for _ in range(2):
        daemon = arena.start([volume], clock=clock)
        daemon.wait_walks()
        daemon.stop()
        shutil.rmtree(volume.path("/m/gone"), ignore_errors=True)
    for table in ("Files", "Folders"):
        edit(volume.catalogue.path, f"update {table} set last_updated_time = 1000000000 where is_deleted = 1")
    volume.write_state(last_purge_time(clock))
    return volume


def last_purge_time(clock):
    return clock.now - 2 * THRESHOLD + DUE_AFTER


def copy_of(arena, template, name):
    volume = arena.volume(name, crawl=template.crawl)
    subprocess.run(["cp", "-a", template.path("/."), volume.folder], check=True)
    return volume


def without_deleted(rows):
    return Rows(*([row for row in kind if not row.deleted] for kind in rows))


def is_purge_end(line):
    return line.text.startswith("Done with the purge")
