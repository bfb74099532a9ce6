"""From the lines of `quarrowctl changes` to rows of the database, as TabSeparated text."""
import operator

FILE_KEYS = ("id", "folder_id", "path", "name", "category", "size",
             "created_time", "modified_time", "last_updated_time", "deleted")
FOLDER_KEYS = ("id", "parent_id", "path", "name", "created_time", "modified_time", "last_updated_time", "deleted")
PREFIX_KEYS = ("appliance", "volume", "generation", "version")
NEVER_BEFORE_1970 = ("created_time", "last_updated_time")  # an inode's change, and the writing of a row
TEXTS = ("volume", "path", "name")

#: The columns of each table, in the order of its rows here.
COLUMNS = {"files": PREFIX_KEYS + FILE_KEYS, "folders": PREFIX_KEYS + FOLDER_KEYS,
           "volumes": ("appliance", "volume", "generation", "identity", "purged_before", "updated"),
           "appliances": ("appliance", "last_contact", "cursor", "software", "updated")}

SHAPES = {"file": ("%d\t%d\t%s\t%s\t%s\t%d\t%d\t%d\t%d\t%d\n", operator.itemgetter(*FILE_KEYS)),
          "folder": ("%d\t%d\t%s\t%s\t%d\t%d\t%d\t%d\n", operator.itemgetter(*FOLDER_KEYS))}

#: A byte that is no UTF-8 is a lone surrogate here, and becomes that byte again when the rows are encoded.
ENCODING = ("utf-8", "surrogateescape")
ESCAPES = str.maketrans({"\\": r"\\", "\t": r"\t", "\n": r"\n", "\r": r"\r", "\0": r"\0", "\b": r"\b", "\f": r"\f"})


def row_text(values):
    """A row of values that may be texts with any bytes."""
    return "\t".join(str(value).translate(ESCAPES) for value in values) + "\n"


def original(line, key):
    """The text of a line, with the bytes that it had on the disk."""
    if key + "_hex" in line:
        return bytes.fromhex(line[key + "_hex"]).decode(*ENCODING)
    return line[key]


def is_awkward(text):
    """Whether a line of JSON has a text that cannot go into a row as it is. What has to be escaped there has a backslash here."""
    return "\\" in text or '_hex":' in text


def restore(line):
    """Puts the escaped original texts into the line. Raises ValueError for what no bytes can be."""
    for key in TEXTS:
        line[key] = original(line, key).translate(ESCAPES)
        line[key].encode(*ENCODING)


def unwrapped(seconds):
    """The daemon's times have 32 bits with a sign. Not so one that something else has written: it stays below 1970."""
    return seconds + (1 << 32) if -(1 << 31) <= seconds < 0 else seconds
