"""What a catalogue is to say, worked out from the tree on disk and the MIME table, without the daemon's help."""
import ctypes
import os
import stat
from collections import deque

from catalogue import File, Folder, Rows

OTHER = 4
CATEGORIES = {b"video": 1, b"audio": 2, b"image": 3}


class MimeTable:
    """Extension to category."""

    def __init__(self, path):
        self.categories = {}
        if path is None:
            return
        with open(path, "rb") as file:
            for line in file.read().split(b"\n"):
                words = self.words(line)
                for extension in words[1:]:
                    self.categories.setdefault(os.fsdecode(extension), CATEGORIES.get(words[0][:5], OTHER))

    @staticmethod
    def words(line):
        """The words before the first that begins with a '#'."""
        words = line.split()
        comment = next((place for place, word in enumerate(words) if word.startswith(b"#")), len(words))
        return words[:comment]

    def category(self, name):
        stem, dot, extension = name.rpartition(".")
        return self.categories.get(extension, OTHER) if dot and extension else OTHER


def as_32_bit(number):
    """Its low 32 bits, signed."""
    return ctypes.c_int32(number & 0xFFFFFFFF).value


def as_stored(seconds):
    """A time as the catalogue holds it: whole seconds, rounded down, in 32 signed bits."""
    return as_32_bit(int(seconds // 1_000_000_000))


def is_hidden(path):
    return int("/." in path)


def is_excluded(path, excludes):
    length = lambda text: len(os.fsencode(text))
    return any(length(path) > length(exclude) and exclude in path for exclude in excludes)


def folder_row(path, parent, status):
    return Folder(path=path, name=path[path.rfind("/") + 1:], parent=parent, category=-1,
                  created=as_stored(status.st_ctime_ns), modified=as_stored(status.st_mtime_ns), deleted=0, backup=0,
                  hidden=is_hidden(path), system=0)


def file_row(path, name, folder, status, mime):
    return File(path=path, name=name, folder=folder, category=mime.category(name), size=status.st_size,
                created=as_stored(status.st_ctime_ns), modified=as_stored(status.st_mtime_ns), deleted=0, backup=0,
                hidden=is_hidden(path), system=0)


def above(path):
    return path[:path.rfind("/")]


def add_folders_above(parent, folders):
    """A new folder brings rows for what lies above its parent, every other level, up to the first folder without a
    parent. Only above a crawl path of several elements is anything missing; such rows have no times."""
    path = above(parent)
    while path:
        if path in folders:
            if folders[path].parent is None:
                return
            path = above(path)
            continue
        grandparent = above(path)
        folders[path] = Folder(path=path, name=path[path.rfind("/") + 1:], parent=grandparent if grandparent in folders else None,
                               category=-1, created=0, modified=0, deleted=0, backup=0, hidden=is_hidden(path), system=0)
        path = above(grandparent)


def tree_rows(volume, crawl, excludes, mime):
    """The rows of a volume catalogued for the first time."""
    folders, files = {}, {}
    crawl = [path[:-1] if path.endswith("/") else path for path in crawl]
    excludes = [path[:-1] if path.endswith("/") else path for path in excludes]
    for start in [volume + path for path in crawl] or [volume]:
        queue = deque([start])
        while queue:
            path = queue.popleft()
            if is_excluded(path, excludes):
                continue
            try:
                status = os.stat(path)
            except OSError:  # gone, or too long a path
                continue
            if not stat.S_ISDIR(status.st_mode):
                continue
            relative = path[len(volume):]
            if relative in folders:  # perhaps as what lies above an earlier start folder
                times = folder_row(relative, None, status)
                folders[relative] = folders[relative]._replace(created=times.created, modified=times.modified)
            elif path == start:
                folders[relative] = folder_row(relative, None, status)
            else:
                parent = above(relative)
                folders[relative] = folder_row(relative, parent, status)
                add_folders_above(parent, folders)
            with os.scandir(path or "/") as entries:
                for entry in entries:
                    if entry.is_dir(follow_symlinks=False):
                        queue.append(f"{path}/{entry.name}")
                    elif entry.is_file(follow_symlinks=False):
                        try:
                            status = os.lstat(f"{path}/{entry.name}")
                        except OSError:
                            continue
                        place = f"{relative}/{entry.name}"
                        files[place] = file_row(place, entry.name, relative, status, mime)
    return Rows(sorted(folders.values()), sorted(files.values()))


def read_size(size):
    """A stored size as the daemon reads it back: its low 32 bits, signed."""
    return as_32_bit(size)


def after_walk(before, tree, within=""):
    """The rows that `before` turns into when the folder `within`, and all below it, is walked; `tree` is what is there."""
    inside = lambda path: path == within or path.startswith(within + "/")
    result = Rows([], [])
    for old_rows, new_rows, merged, fate in ((before.folders, tree.folders, result.folders, folder_after),
                                             (before.files, tree.files, result.files, file_after)):
        old = {row.path: row for row in old_rows}
        new = {row.path: row for row in new_rows}
        assert len(old) == len(old_rows), "a path has more than one row"
        for path in old.keys() | new.keys():
            if not inside(path):
                row = old.get(path)
            elif path not in new:
                row = old[path]._replace(deleted=1)
            elif path not in old:
                row = new[path]
            else:
                row = fate(old[path], new[path])
            if row is not None:
                merged.append(row)
    return Rows(sorted(result.folders), sorted(result.files))


def folder_after(old, new):
    if old.deleted or old.modified != new.modified:
        return old._replace(created=new.created, modified=new.modified, deleted=0,
                            parent=new.parent if old.deleted else old.parent)
    return old


def file_after(old, new):
    if old.deleted:  # brought back, with what 32 bits hold of its size
        return old._replace(folder=new.folder, size=read_size(new.size), created=new.created, modified=new.modified,
                            category=new.category, deleted=0)
    if old.modified != new.modified or read_size(old.size) != new.size:
        return old._replace(size=new.size, modified=new.modified)
    return old
