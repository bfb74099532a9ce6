"""A page that quarrowctl report has written: its data, without a browser."""
import json
import re


class Page:
    def __init__(self, content):
        self.content = content  # bytes
        self.text = content.decode()  # a page is UTF-8 whatever the names are

    @property
    def data(self):
        found = re.findall(r'<script type="application/json" id="data">\n(.*?)\n</script>', self.text, re.DOTALL)
        assert len(found) == 1
        return json.loads(found[0])

    def volume(self, name):
        return next(volume for volume in self.data["volumes"] if volume["name"] == name)


def folder_sums(volume):
    """Path of each folder in the page's tree, and what is in and below it: (files, bytes)."""
    rows = volume["tree"]
    sums = [[files + other_files, size + other_size]
            for _parent, _name, _category, files, size, _others, other_files, other_size in rows]
    paths = []
    for number, row in enumerate(rows):
        paths.append("" if number == 0 else f"{paths[row[0]]}/{row[1]}")
    for number in range(len(rows) - 1, 0, -1):
        parent = rows[number][0]
        sums[parent] = [mine + more for mine, more in zip(sums[parent], sums[number])]
    return {path: tuple(total) for path, total in zip(paths, sums)}
