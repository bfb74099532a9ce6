"""Says what came of a test run: `port_results.py FILE` with what `ctest --output-junit` wrote. A skipped test is named with its
reason. The status is 1 when a test failed, or when there is no such file."""
import re
import sys
import xml.etree.ElementTree as ElementTree
from collections import Counter


def text_of(case):
    return case.findtext("system-out") or ""


def unit_outcome(case):
    """How a test of GoogleTest ended, and the reason of a skip."""
    if case.get("status") == "fail":
        return "failed", None
    skip = re.search(r": Skipped\n(.*)", text_of(case))
    return ("skipped", skip[1]) if skip or case.get("status") != "run" else ("passed", None)


def count(cases):
    """Of the unit tests, one each, and of those of a file of system tests, which pytest counts: outcomes and skips."""
    counts = {"unit": Counter(), "system": Counter()}
    skips = []
    for case in cases:
        name = case.get("name")
        if not name.startswith("system."):
            outcome, reason = unit_outcome(case)
            counts["unit"][outcome] += 1
            if outcome == "skipped":
                skips.append(f"{name}: {reason}")
            continue
        summary = re.findall(r"^(?:\d+ \w+, )*\d+ \w+(?:, \d+ \w+)* in [\d.]+s", text_of(case), re.MULTILINE)
        for number, outcome in re.findall(r"(\d+) (passed|failed|skipped|error)", summary[-1] if summary else "1 failed"):
            counts["system"]["failed" if outcome == "error" else outcome] += int(number)
        skips += [f"{name}: {reason}" for reason in re.findall(r"^SKIPPED (.*)", text_of(case), re.MULTILINE)]
    return counts, skips


def main():
    try:
        suite = ElementTree.parse(sys.argv[1]).getroot()
    except (OSError, ElementTree.ParseError) as error:
        print(f"no results: {error}")
        return 1
    counts, skips = count(suite.iter("testcase"))
    for kind, outcomes in counts.items():
        if outcomes:
            print(f"{kind} tests:", ", ".join(f"{outcomes[outcome]} {outcome}" for outcome in ("passed", "skipped", "failed")))
    for skip in skips:
        print(f"  skipped {skip}")
    return 1 if counts["unit"]["failed"] + counts["system"]["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
