#!/usr/bin/env python3
"""Makes a catalogue without a daemon: of a tree on the disk, or of as many files as wanted that are nowhere.

    make_catalogue.py VOLUME_FOLDER --files 1000000 --seed 1
"""
import argparse
import contextlib
import os
import random
import sqlite3
import stat

HERE = os.path.dirname(os.path.abspath(__file__))
CATEGORIES = {1: ("mkv", "mp4", "avi", "m4v", "mov"), 2: ("mp3", "flac", "m4a", "ogg", "wav"),
              3: ("jpg", "JPG", "png", "gif", "tif")}
CATEGORY = {extension: category for category, extensions in CATEGORIES.items() for extension in extensions}
SHELVES = {"Music": "mp3", "Photos": "jpg", "Video": "mkv", "Documents": "pdf", "Backup": "bin"}
WORDS = """holiday summer winter rock jazz blues mountain river ocean family birthday wedding concert live studio session album
    track remaster forest garden house project report invoice scan letter backup archive""".split()
FILES_PER_FOLDER = 20
FOLDERS_PER_FOLDER = 100
DELETED = 0.02  # of all files
EARLIEST, LATEST = 1_100_000_000, 1_700_000_000


def schema():
    """The statements as the catalogue's documentation has them."""
    with open(f"{HERE}/../docs/catalogue.md", encoding="utf-8") as file:
        return [line for line in file if line.startswith("create ")]


@contextlib.contextmanager
def new_catalogue(volume):
    """Two functions that add rows to the volume's new catalogue: folder(path, modified), which returns the folder's id, and
    file(folder id, path, size, modified, deleted)."""
    os.makedirs(f"{volume}/.quarrow", exist_ok=True)
    connection = sqlite3.connect(f"{volume}/.quarrow/quarrow.db")
    connection.execute("pragma synchronous=off")
    for statement in schema():
        connection.execute(statement)
    ids = {}

    def folder(path, modified):
        parent = ids.get(os.path.dirname(path) if path.count("/") > 1 else "", -1) if path else -1
        ids[path] = connection.execute(
            "insert into Folders(parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
            " values (?, ?, ?, ?, ?, 0, ?)", (parent, path, os.path.basename(path), modified, modified, LATEST)).lastrowid
        return ids[path]

    def file(folder_id, path, size, modified, deleted=False):
        name = path[path.rfind("/") + 1:]
        connection.execute(
            "insert into Files(folder_id, path, name, category, size, modified_time, created_time, is_deleted, last_updated_time)"
            " values (?, ?, ?, ?, ?, ?, ?, ?, ?)",
            (folder_id, path, name, CATEGORY.get(name[name.rfind(".") + 1:], 4), size, modified, modified, deleted, LATEST))

    with connection:
        yield folder, file
    connection.close()


def of_tree(volume):
    """The catalogue of what is in the volume's folder."""
    with new_catalogue(volume) as (add_folder, add_file):
        for place, folders, names in os.walk(volume):
            if ".quarrow" in folders:
                folders.remove(".quarrow")
            number = add_folder(place[len(volume):], int(os.stat(place).st_mtime))
            for name in names:
                status = os.lstat(f"{place}/{name}")
                if stat.S_ISREG(status.st_mode):
                    add_file(number, f"{place}/{name}"[len(volume):], status.st_size, int(status.st_mtime))


def of_nothing(volume, files, seed):
    """The catalogue of so many files, with paths of some 80 bytes, none of which is there."""
    chance = random.Random(seed)
    words = lambda count: " ".join(chance.choice(WORDS) for _ in range(count))
    moment = lambda: chance.randrange(EARLIEST, LATEST)
    with new_catalogue(volume) as (add_folder, add_file):
        add_folder("", LATEST)
        for shelf, extension in SHELVES.items():
            add_folder(f"/{shelf}", moment())
            place = 0
            for number in range(files // len(SHELVES)):
                if number % (FILES_PER_FOLDER * FOLDERS_PER_FOLDER) == 0:
                    above = f"/{shelf}/{words(2).title()} {number // (FILES_PER_FOLDER * FOLDERS_PER_FOLDER)}"
                    add_folder(above, moment())
                if number % FILES_PER_FOLDER == 0:
                    path = f"{above}/{1980 + number % 45} - {words(2).title()} {number // FILES_PER_FOLDER % FOLDERS_PER_FOLDER}"
                    place = add_folder(path, moment())
                name = f"{number % FILES_PER_FOLDER:02} {words(3)} {chance.randrange(10**6)}.{extension}"
                add_file(place, f"{path}/{name}", chance.randrange(1 << 30) >> chance.randrange(20), moment(),
                         chance.random() < DELETED)


def main():
    parser = argparse.ArgumentParser(description="Makes a catalogue of files that are nowhere.")
    parser.add_argument("folder", metavar="VOLUME_FOLDER")
    parser.add_argument("--files", type=int, default=1000000)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    of_nothing(options.folder, options.files, options.seed)


if __name__ == "__main__":
    main()
