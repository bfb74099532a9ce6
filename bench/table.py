"""The tables in which measurements are printed."""
import statistics


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
