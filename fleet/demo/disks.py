"""What lies on the disks, what the catalogues say and what the fleet says: each live file and folder of a volume, as bytes."""
import os

from quarrow_driver.reading import open_for_reading

OWN = b"/.quarrow"  # the daemon's folder, which the demo's configuration leaves out


def on_disk(root):
    """Path to (size, modification time) of each regular file; of a folder the size is None."""
    found, queue = {}, [b""]
    while queue:
        path = queue.pop()
        found[path] = (None, int(os.stat(os.fsencode(root) + path).st_mtime))
        with os.scandir(os.fsencode(root) + path) as entries:
            for entry in entries:
                place = path + b"/" + entry.name
                if entry.is_dir(follow_symlinks=False):
                    queue.append(place)
                elif entry.is_file(follow_symlinks=False):
                    status = entry.stat(follow_symlinks=False)
                    found[place] = (status.st_size, int(status.st_mtime))
    return without_own(found)


def without_own(found):
    """The daemon's own folder is listed, what is in it is not."""
    return {path: values for path, values in found.items() if path != OWN and not path.startswith(OWN + b"/")}


def in_catalogue(root):
    """The same, of a catalogue; nothing when there is none yet."""
    path = os.path.join(root, ".quarrow", "quarrow.db")
    if not os.path.exists(path):
        return {}
    reader = open_for_reading(path)
    try:
        reader.text_factory = bytes
        reader.execute("begin")  # both tables as of one moment
        rows = reader.execute("select path, null, modified_time from Folders where is_deleted = 0"
                              " union all select path, size, modified_time from Files where is_deleted = 0").fetchall()
    finally:
        reader.close()
    return without_own({path: (size, modified) for path, size, modified in rows})


def in_fleet(cluster, **settings):
    """(appliance, volume) to the same, of the fleet. Raises when a path has two rows."""
    found = {}
    for table, size in (("live_folders", "''"), ("live_files", "toString(size)")):
        for appliance, volume, path, size, modified in cluster.rows(
                f"SELECT appliance, volume, path, {size}, modified_time FROM quarrow.{table}", **settings):
            volume_rows = found.setdefault((os.fsdecode(appliance), os.fsdecode(volume)), {})
            if path in volume_rows:
                raise ValueError(f"{path!r} of {appliance!r}, {volume!r} has two live rows")
            volume_rows[path] = (int(size) if size else None, int(modified))
    return {key: without_own(rows) for key, rows in found.items()}


def differences(found, wanted):
    """What differs, in words, and at most a few of each kind."""
    return [*(f"missing: {path!r} {wanted[path]}" for path in sorted(wanted.keys() - found.keys())[:5]),
            *(f"too much: {path!r} {found[path]}" for path in sorted(found.keys() - wanted.keys())[:5]),
            *(f"{path!r} is {wanted[path]}, not {found[path]}"
              for path in sorted(path for path in found.keys() & wanted.keys() if found[path] != wanted[path])[:5])]
