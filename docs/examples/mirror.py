#!/usr/bin/env python3
"""Keeps in the file STATE what the catalogues hold: the cursor, then each live row as a JSON line.

    quarrowctl changes --since "$(head -n 1 STATE)" | mirror.py STATE

Ends with status 3 when a full listing is due: run it again with --full instead of --since.
"""
import json
import os
import sys


def key(row):
    return row.get("volume_hex", row["volume"]), row["kind"], row["id"]


def load(path):
    if not os.path.exists(path):
        return {}
    with open(path, encoding="utf-8") as file:
        next(file, None)  # the cursor
        return {key(row): row for row in map(json.loads, file)}


def store(path, cursor, rows):
    """Rows and cursor in one step: whenever this program dies, both are of the same batch."""
    with open(path + ".new", "w", encoding="utf-8") as file:
        file.write(cursor + "\n")
        for row in rows.values():
            file.write(json.dumps(row, ensure_ascii=False) + "\n")
        file.flush()
        os.fsync(file.fileno())
    os.rename(path + ".new", path)


def main(path):
    rows, restarts = load(path), set()  # the volumes that need one
    for text in sys.stdin.buffer:
        if not text.endswith(b"\n"):
            break  # the rest of a line whose writer was killed
        line = json.loads(text)
        if "cursor" in line:
            store(path, line["cursor"], rows)
        elif line.get("event") == "full-listing":
            volume = line.get("volume_hex", line["volume"])
            rows = {each: row for each, row in rows.items() if each[0] != volume}
            restarts.discard(volume)
        elif line.get("event") == "restart-needed":
            restarts.add(line.get("volume_hex", line["volume"]))
        elif "kind" in line and line["deleted"]:
            rows.pop(key(line), None)
        elif "kind" in line:
            rows[key(line)] = line
    return 3 if restarts else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
