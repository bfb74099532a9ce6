"""Trees to be catalogued."""
import os
import random
import socket

from daemon import MIME_TABLE
from model import MimeTable

#: Names that a careless hand would mangle: as text, as a format, as SQL, as a path, as a shell command.
AWKWARD_NAMES = [
    "plain", "two words.mp3", " leading.mp3", "trailing.mp3 ", "quote's.jpg", 'double"quote.jpg', "new\nline.mp3", "tab\t.avi",
    "percent%s%n%d.mp4", "back\\slash.png", "semicolon;.mp3", "$(touch x).mp3", "`touch y`.mp3", "-rf", "*.mp3", "?.jpg",
    "ends.with.dot.", "..twodots", "...", ".hidden", ".hidden.mp3", "UPPER.MP3", "Mixed.Mp3", "no_extension", "a.", ".a", "#comment",
    "& <xml> ]]>.mp3", "Größe.mp3", "日本語.avi", "\u202eright-to-left.jpg", "combining e\u0301.mp3",
    "\udcff\udcfe invalid.mp3", "\udce9t\udce9.jpg", "cut \udce2\udc82", "'; drop table Files; --.mp3", "x" * 255, "y" * 251 + ".mp3",
    ("é" * 127) + "x", "\x01\x02\x7f.mp3", "emoji😀.mp4", "..mp3", "a..mp3", ".mp3", "a.mp3.", "tar.gz", "comma,.mp3", "(1).mp3",
]


def extensions():
    return sorted(MimeTable(MIME_TABLE).categories)


def make_media_tree(volume, base, folders, files, seed):
    """A tree of that many folders, `base` included, and regular files, whose shape hangs on the seed alone."""
    choice = random.Random(seed)
    paths = [base]
    volume.make_folder(base)
    for number in range(folders - 1):
        awkward = AWKWARD_NAMES[number] if number < len(AWKWARD_NAMES) else f"folder {number}"
        path = f"{choice.choice(paths[-40:])}/{awkward}"
        if len(os.fsencode(volume.path(path))) > 2000:
            path = f"{base}/{awkward}"
        volume.make_folder(path)
        paths.append(path)
    names = ([f"every.{extension}" for extension in extensions()] + AWKWARD_NAMES)[:files]
    names += [f"{number:04}.{choice.choice(extensions())}" for number in range(files - len(names))]
    made = set(paths)
    for name in names:
        path = choice.choice(paths) + "/" + name
        while path in made or len(os.fsencode(volume.path(path))) > 3500:
            path = choice.choice(paths) + "/" + name
        made.add(path)
        volume.make_file(path, content=bytes(choice.randrange(50)), modified=choice.randrange(1, 2**31 - 1))


def media_volume(arena, name, folders, files, seed):
    """A volume with such a tree below its crawl path /m."""
    volume = arena.volume(name, crawl=["/m"])
    make_media_tree(volume, "/m", folders, files, seed)
    return volume


def media_volumes(arena, count, folders, files):
    """That many, each with a tree of its own."""
    return [media_volume(arena, f"V{number}", folders, files, seed=number) for number in range(count)]


def change_something(volume, choice, number):
    """New files, as many that are gone, one that has another size, a folder that moves."""
    tree = volume.tree()
    folder = choice.choice(tree.folders).path
    for extension in ("mp3", "jpg"):
        volume.make_file(f"{folder}/new {number}.{extension}", b"x")
    for row in choice.sample(tree.files, 2):
        os.unlink(volume.path(row.path))
    with open(volume.path(choice.choice(volume.tree().files).path), "ab") as file:
        file.write(b"more")
    leaf = choice.choice([row.path for row in tree.folders if not any(other.parent == row.path for other in tree.folders)])
    os.rename(volume.path(leaf), volume.path(f"/m/moved {number}"))


def make_strangers(volume, base):
    """What is no file and no folder, files of awkward sizes and times."""
    volume.make_folder(f"{base}/target")
    volume.make_file(f"{base}/target/inside.mp3", b"x")
    os.symlink("target", volume.path(f"{base}/link to folder"))
    os.symlink("target/inside.mp3", volume.path(f"{base}/link to file.mp3"))
    os.symlink("nowhere", volume.path(f"{base}/dangling.mp3"))
    os.symlink(".", volume.path(f"{base}/target/loop"))
    os.mkfifo(volume.path(f"{base}/fifo.mp3"))
    with socket.socket(socket.AF_UNIX) as server:
        folder = os.open(volume.path(base), os.O_PATH)
        server.bind(f"/proc/self/fd/{folder}/socket.mp3")
        os.close(folder)
    for name, size in (("two.mkv", 2**31 - 1), ("two more.mkv", 2**31), ("four.mkv", 2**32 - 1), ("four more.mkv", 2**32 + 5),
                       ("many.mkv", 2**40 + 1)):
        volume.make_file(f"{base}/{name}", size=size)
    for name, modified in (("old.mp3", -5), ("epoch.mp3", 0), ("last.mp3", 2**31 - 1), ("next.mp3", 2**31 + 100)):
        volume.make_file(f"{base}/{name}", b"x", modified=modified)
    os.link(volume.path(f"{base}/old.mp3"), volume.path(f"{base}/second name.jpg"))


def make_empty_folders(volume, base, count):
    """That many empty folders, `base` included, forty in each."""
    volume.make_folder(base)
    paths = [base]
    for number in range(count - 1):
        path = f"{paths[number // 40]}/{number}"
        os.mkdir(volume.path(path))
        paths.append(path)


def many_folders(arena, name, folders, files=2, long_names=False):
    """A volume with so many folders of so many files, in seven others."""
    volume = arena.volume(name, crawl=["/m"])
    for number in range(folders):
        for file in range(files):
            volume.make_file(f"/m/{number % 7}/{number}/{file}{' and so on' * 20 * long_names}.mp3", b"x")
    return volume


def volume_of_files(arena, name, folders, files, prefix="a"):
    """A volume with so many folders of so many files."""
    volume = arena.volume(name, crawl=["/m"])
    for number in range(folders):
        write_files(volume, number, files, prefix)
    return volume


def write_files(volume, folder, files, prefix):
    for file in range(files):
        volume.make_file(f"/m/{folder}/{prefix}{file}.mp3", b"x")
