"""A strict parser of the part of OpenMetrics that gauges need."""
import re

NAME = re.compile(r"[a-zA-Z_:][a-zA-Z0-9_:]*")
SAMPLE = re.compile(r"([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (-?\d+(?:\.\d+)?(?:[eE][+-]?\d+)?)")
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\[\\"n])*)"(,|$)')
ESCAPES = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}


def parse_labels(text):
    labels, position = [], 0
    while position < len(text):
        match = LABEL.match(text, position)
        assert match, f"no label at {text[position:]!r}"
        assert match[3] == "" or match.end() < len(text), "a comma at the end"
        labels.append((match[1], re.sub(r'\\[\\"n]', lambda escape: ESCAPES[escape[0]], match[2])))
        position = match.end()
    assert len({name for name, _ in labels}) == len(labels), "a label twice"
    return tuple(sorted(labels))


def parse(data):
    """The samples: (name, labels) to value. Fails where the text is not as it has to be."""
    lines = data.decode("utf-8").split("\n")
    assert lines[-2:] == ["# EOF", ""], "the end is missing"
    samples, seen, family, helped = {}, set(), None, None
    for line in lines[:-2]:
        if line.startswith("# HELP "):
            helped, _, text = line[len("# HELP "):].partition(" ")
            assert NAME.fullmatch(helped) and text and helped not in seen, line
        elif line.startswith("# TYPE "):
            family, kind = line[len("# TYPE "):].split(" ")
            assert family == helped and kind == "gauge" and family not in seen, line
            seen.add(family)
        else:
            match = SAMPLE.fullmatch(line)
            assert match and match[1] == family, f"{line!r} in the family {family}"
            key = (match[1], parse_labels(match[2] or ""))
            assert key not in samples, f"{key} twice"
            samples[key] = float(match[3])
    return samples
