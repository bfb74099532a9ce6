"""Measuring one thing after the other, and the table in which it is printed."""
import json
import statistics
import sys


class Table:
    def __init__(self):
        self.rows = []

    def add(self, what, value, target="", good=None):
        self.rows.append((what, value, target, {None: "", True: "met", False: "MISSED"}[good]))

    def show(self):
        widths = [max(len(row[column]) for row in self.rows) for column in range(4)]
        for row in self.rows:
            print("  ".join(text.ljust(width) for text, width in zip(row, widths)).rstrip())


def spread(values, form, unit=""):
    """The median, with the least and the greatest behind it."""
    return (f"{statistics.median(values):{form}}{unit}"
            + (f"  ({min(values):{form}} to {max(values):{form}})" if len(values) > 1 else ""))


def run_measurements(names, measure, show, raw, table, json_file):
    """Measures each of the names and prints the table. `measure(name)` gives raw numbers, which go into `raw` and, after
    each so that a long run that fails late keeps what it has, to `json_file` if one is named; `show(name, numbers, table)`
    judges them."""
    for name in names:
        print(f"measuring {name} ...", file=sys.stderr, flush=True)
        raw[name] = measure(name)
        show(name, raw[name], table)
        if json_file:
            with open(json_file, "w", encoding="utf-8") as file:
                json.dump(raw, file, indent=1)
    table.show()
