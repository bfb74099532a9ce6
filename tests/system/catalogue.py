"""A catalogue as a reader sees it: through a connection of its own that can write nothing."""
import collections
import sqlite3

from quarrow_driver.reading import open_for_reading

Folder = collections.namedtuple("Folder", "path name parent category created modified deleted backup hidden system")
File = collections.namedtuple("File", "path name folder category size created modified deleted backup hidden system")

#: Whole state of a catalogue, save for ids and update times: sorted lists of rows.
Rows = collections.namedtuple("Rows", "folders files")


class Catalogue:
    def __init__(self, path):
        self.path = path

    def open(self):
        return open_for_reading(self.path)

    def query(self, statement, *values):
        connection = self.open()
        try:
            return connection.execute(statement, values).fetchall()
        finally:
            connection.close()

    def rows(self):
        """Parents and folders by path. None stands for no parent, "#7" for an id 7 that no folder has."""
        connection = self.open()
        try:
            connection.execute("begin")  # both tables as of one moment
            folders = connection.execute(
                "select folder_id, path, name, parent_id, category, created_time, modified_time, is_deleted, is_backup,"
                " is_hidden, is_system from Folders").fetchall()
            files = connection.execute(
                "select path, name, folder_id, category, size, created_time, modified_time, is_deleted, is_backup,"
                " is_hidden, is_system from Files").fetchall()
        finally:
            connection.close()
        paths = {folder[0]: folder[1] for folder in folders}
        paths[-1] = None
        place = lambda number: paths.get(number, f"#{number}")
        return Rows(sorted(Folder(*row[1:3], place(row[3]), *row[4:]) for row in folders),
                    sorted(File(*row[:2], place(row[2]), *row[3:]) for row in files))

    def live(self):
        """The paths that the catalogue offers to readers: folders and files."""
        connection = self.open()
        try:
            return ({path for path, in connection.execute("select path from Folders where is_deleted = 0")}
                    | {path for path, in connection.execute("select path from Files where is_deleted = 0")})
        finally:
            connection.close()

    def folder_ids(self):
        return dict(self.query("select path, folder_id from Folders"))

    def file_ids(self):
        return dict(self.query("select path, file_id from Files"))

    def updated(self):
        """When each row was last written."""
        return dict(self.query("select path, last_updated_time from Folders"
                               " union all select path, last_updated_time from Files"))

    def is_sound(self):
        return self.query("pragma integrity_check") == [("ok",)]


def edit(path, statement, *values):
    """Changes the catalogue of a volume on which no daemon runs."""
    connection = sqlite3.connect(path)
    try:
        with connection:
            connection.execute(statement, values)
    finally:
        connection.close()


def insert_chain(path, depth):
    """Puts in the rows of so many levels /m/d/d/d..., with a file in each, as if they had been walked."""
    edit(path, """
        with recursive level(number, path, parent) as (
            select 1, '/m/d', (select folder_id from Folders where path = '/m')
            union all select number + 1, path || '/d', 1000 + number from level where number < ?)
        insert into Folders(folder_id, parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)
            select 1000 + number, parent, path, 'd', 1, 1, 0, 1 from level""", depth)
    edit(path, """
        insert into Files(folder_id, path, name, category, size, created_time, modified_time, is_deleted, last_updated_time)
            select folder_id, path || '/f', 'f', 4, 1, 1, 1, 0, 1 from Folders where name = 'd'""")


def without(rows, folder):
    """The rows outside the given folder."""
    inside = lambda path: path == folder or path.startswith(folder + "/")
    return Rows([row for row in rows.folders if not inside(row.path)], [row for row in rows.files if not inside(row.path)])


def assert_same(actual, expected):
    """Compares row by row, and names the rows that differ."""
    for kind in Rows._fields:
        found, wanted = collections.Counter(getattr(actual, kind)), collections.Counter(getattr(expected, kind))
        missing, surplus = list((wanted - found).elements()), list((found - wanted).elements())
        if missing or surplus:
            show = lambda rows: "".join(f"\n    {row}" for row in rows[:10]) + ("\n    ..." if len(rows) > 10 else "")
            raise AssertionError(f"{kind}: {len(missing)} not there as expected:{show(missing)}\n"
                                 f"  {len(surplus)} not expected:{show(surplus)}")


def same(actual, expected):
    return sorted(actual.folders) == sorted(expected.folders) and sorted(actual.files) == sorted(expected.files)
