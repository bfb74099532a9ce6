"""The questions in fleet/queries, and their answers as tables."""
import os
import re

from demo.cluster import statements

WIDEST = 60
MOST_LINES = 8


def questions(folder):
    """(title, statement) of each file, in their order. The title is what the head comment asks."""
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name)
        with open(path, encoding="utf-8") as file:
            title = re.match(r"-- ([^?]*\?)", file.read())[1]
        [statement] = statements(path)
        yield title, statement


def show_answers(cluster, folder):
    reader = cluster.login("reader")
    for title, statement in questions(folder):
        print(f"\n{title}")
        show(cluster.rows(f"{statement}\nFORMAT TabSeparatedWithNames", user=reader))
        if "86400\n" in statement and "silent" in title:
            print("Nobody has been silent for a day. And who has not pushed for a second?")
            show(cluster.rows(f"{statement.replace('- 86400', '- 1')}\nFORMAT TabSeparatedWithNames", user=reader))


def show(rows):
    """The first row has the names of the columns."""
    texts = [[readable(field) for field in row] for row in rows[:MOST_LINES + 1]]
    widths = [max(len(row[column]) for row in texts) for column in range(len(texts[0]))]
    for row in texts:
        print("  " + "  ".join(text.rjust(width) if is_number(text) else text.ljust(width)
                               for text, width in zip(row, widths)).rstrip())
    if len(rows) == 1:
        print("  none")
    elif len(rows) > len(texts):
        print(f"  and {len(rows) - len(texts)} more")


def readable(field):
    """Bytes that are no text, and what does not print, as escapes."""
    text = field.decode(errors="backslashreplace")
    text = "".join(character if character.isprintable() else character.encode("unicode_escape").decode() for character in text)
    return text if len(text) <= WIDEST else text[:WIDEST - 3] + "..."


def is_number(text):
    return text.lstrip("-").isdigit()
