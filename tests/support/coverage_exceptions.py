#!/usr/bin/python3
"""Compares the branches that no test takes with the listed exceptions.

    coverage_exceptions.py EXCEPTIONS GCOVR_JSON

Fails when a line has such a branch and is not listed, or is listed for nothing.
"""

import json
import pathlib
import sys


def listed(path):
    """The (file, line text) pairs of the list."""
    entries = set()
    file = None
    for line in path.read_text().splitlines():
        if line.startswith("#") or not line.strip() or line.startswith("    "):
            continue
        if line.startswith("  "):
            entries.add((file, line.strip()))
        else:
            file = line
    return entries


def untaken(report):
    """The (file, line text) pairs of lines with a branch that was never taken."""
    lines = set()
    for file in json.loads(report.read_text())["files"]:
        source = pathlib.Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            if line["count"] == 0 or any(branch["count"] == 0 for branch in line["branches"]):
                lines.add((file["file"], source[line["line_number"] - 1].strip()))
    return lines


def main():
    exceptions, report = (pathlib.Path(name) for name in sys.argv[1:])
    wanted, seen = listed(exceptions), untaken(report)
    for file, text in sorted(seen - wanted):
        print(f"not reached, and no exception: {file}: {text}")
    for file, text in sorted(wanted - seen):
        print(f"reached now: take it from {exceptions}: {file}: {text}")
    print(f"{len(seen)} lines with branches that no test takes, {len(wanted)} exceptions")
    return 1 if seen != wanted else 0


if __name__ == "__main__":
    sys.exit(main())
