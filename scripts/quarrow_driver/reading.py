"""Reading a catalogue while the daemon writes it."""
import sqlite3
import urllib.parse


def open_for_reading(path, timeout=60):
    """A connection that can write nothing, not even the shared index: closing it would else look like a change in the
    catalogue's folder to the daemon's watch. Names are bytes, so texts that are no UTF-8 come with surrogates."""
    quoted = urllib.parse.quote_from_bytes(path.encode("utf-8", "surrogateescape"))
    connection = sqlite3.connect(f"file:{quoted}?mode=ro&readonly_shm=1", uri=True, timeout=timeout)
    connection.text_factory = lambda text: text.decode("utf-8", "surrogateescape")
    return connection
