#!/usr/bin/env python3
"""Makes a media library to walk: the same folders, names, sizes and times for the same seed.

    make_tree.py FOLDER --files 100000 --folders 5000 --seed 1

Every file is sparse, so that a library of terabytes costs inodes and no blocks.
"""
import argparse
import os
import random
import sys

# Below 2 GiB: the catalogue's look-up cuts larger sizes, so such files are written again on every walk, and the walk of an
# unchanged tree would measure those writes.
LARGEST = (1 << 31) - 4096 - 1
# top-level folder -> (extensions with their weights, largest size in bytes, words for the folders below it)
SHELVES = {
    "Music": ({"mp3": 50, "flac": 20, "m4a": 12, "ogg": 6, "wav": 2, "jpg": 6, "m3u": 2, "txt": 2}, 60 << 20,
              ["Café Lumière", "The Quiet Rivers", "Björn & Åse", "Live at Harbour Hall", "Greatest Hits", "Disc"]),
    "Photos": ({"jpg": 60, "JPG": 20, "png": 6, "gif": 2, "tif": 2, "cr2": 4, "mov": 4, "xmp": 2}, 40 << 20,
               ["Summer", "Wedding", "Holiday in Norway", "Birthday", "Camera Upload", "写真"]),
    "Movies": ({"mkv": 30, "mp4": 30, "avi": 15, "m4v": 5, "srt": 12, "nfo": 4, "jpg": 4}, LARGEST,
               ["The Long Winter (2009)", "Night Train", "Extras", "Director's Cut", "Subs", "Trilogy"]),
    "Series": ({"mkv": 45, "mp4": 25, "avi": 10, "srt": 15, "nfo": 5}, LARGEST,
               ["Season", "Lighthouse Keepers", "Specials", "Harbour Street", "Part", "Series"]),
    "Podcasts": ({"mp3": 80, "m4a": 15, "opus": 5}, 120 << 20, ["Weekly", "Archive", "Interviews", "Science Hour"]),
    "Documents": ({"pdf": 40, "docx": 20, "txt": 20, "xlsx": 10, "zip": 5, "": 5}, 8 << 20,
                  ["Taxes", "Letters", "Manuals", "School", "Scans", "old"]),
    "Backup": ({"zip": 20, "tar.gz": 20, "bak": 20, "jpg": 20, "db": 10, "": 10}, LARGEST,
               ["laptop", "phone", "2014", "copy of", ".snapshots", ".thumbnails"]),
}
TITLES = ["Morning Light", "track", "IMG", "DSC", "Episode", "Untitled", "Nocturne No. ", "S01E", "scan", "Über den Wolken",
          "clip", "Report", "What we did on our holidays, and why it rained", "a", "Kveldssang"]
DOT_FILES = [".nomedia", ".picasa.ini", ".directory", ".thumbs.db", ".hidden.mp3"]
DEEPEST = 9
EARLIEST, LATEST = 1_100_000_000, 1_700_000_000  # all times lie in the past, where no clock of a later run can meet them


def plan_folders(chance, count):
    """The relative folder paths, parents before children: `count` of them, each with its shelf."""
    shelves = list(SHELVES)[:count]
    folders = [(shelf, shelf, 1) for shelf in shelves]
    open_folders = list(folders)
    while len(folders) < count:
        # Recent folders are favoured: that gives branches of several levels instead of one flat layer.
        near = open_folders[-200:] if chance.random() < 0.7 else open_folders
        path, shelf, depth = chance.choice(near)
        name = f"{chance.choice(SHELVES[shelf][2])} {len(folders)}"
        folder = (f"{path}/{name}", shelf, depth + 1)
        folders.append(folder)
        if folder[2] < DEEPEST:
            open_folders.append(folder)
    return [(path, shelf) for path, shelf, _ in folders]


def plan_file(chance, number, shelf):
    """Name and size of one file; the number keeps names apart within a folder."""
    extensions, largest, _ = SHELVES[shelf]
    if chance.random() < 0.02:
        return f"{chance.choice(DOT_FILES)}.{number}", chance.randrange(4096)
    extension = chance.choices(list(extensions), weights=list(extensions.values()))[0]
    name = f"{chance.choice(TITLES)} {number}" + (f".{extension}" if extension else "")
    size = 0 if chance.random() < 0.01 else min(largest, int(largest * chance.paretovariate(1.2) / 50))
    return name, size + chance.randrange(4096)


def make_tree(root, file_count, folder_count, seed, largest=LARGEST):
    """Makes the tree in the folder `root`, which must be empty or missing; returns a description of it. No file is larger
    than `largest` bytes."""
    chance = random.Random(seed)
    os.makedirs(root, exist_ok=True)
    if os.listdir(root):
        raise SystemExit(f"{root} is not empty")

    folders = plan_folders(chance, folder_count)
    for path, _ in folders:
        os.mkdir(f"{root}/{path}")

    # A few folders hold many files and many hold a few, as libraries are.
    weights = [chance.paretovariate(1.5) for _ in folders]
    total_size = 0
    for number, (path, shelf) in enumerate(chance.choices(folders, weights=weights, k=file_count) if folders else []):
        name, size = plan_file(chance, number, shelf)
        size = min(size, largest)
        full = f"{root}/{path}/{name}"
        handle = os.open(full, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o644)
        os.ftruncate(handle, size)
        modified = chance.randrange(EARLIEST, LATEST)
        os.utime(handle, (modified, modified))
        os.close(handle)
        total_size += size

    # Last of all, since making an entry changes its folder's time.
    for path, _ in folders:
        modified = chance.randrange(EARLIEST, LATEST)
        os.utime(f"{root}/{path}", (modified, modified))
    os.utime(root, (EARLIEST, EARLIEST))
    return {"files": file_count if folders else 0, "folders": folder_count, "seed": seed, "bytes": total_size,
            "deepest": max((path.count("/") + 1 for path, _ in folders), default=0)}


def main():
    parser = argparse.ArgumentParser(description="Makes a deterministic media library of sparse files.")
    parser.add_argument("folder")
    parser.add_argument("--files", type=int, default=100000)
    parser.add_argument("--folders", type=int, default=5000, help="folders below FOLDER, FOLDER itself not counted")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    made = make_tree(options.folder, options.files, options.folders, options.seed)
    print(f"{options.folder}: {made['files']} files in {made['folders']} folders, {made['deepest']} levels deep, "
          f"{made['bytes'] / 1e9:.1f} GB as listed, seed {made['seed']}")


if __name__ == "__main__":
    sys.exit(main())
