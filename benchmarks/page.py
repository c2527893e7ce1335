#!/usr/bin/python3
"""Puts the results of a run into doc/performance.md: page.py [BUILD].

Takes the parts and the charts that run.py left in BUILD, build/bench by default.
"""

import pathlib
import re
import shutil
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
CHARTS = ("list.svg", "receive.svg")


def main():
    build = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else ROOT / "build/bench"
    page = ROOT / "doc/performance.md"

    def part(match):
        return match[1] + (build / f"{match[2]}.md").read_text(encoding="utf-8")

    # A part goes from the line that names it to the next empty one.
    text, count = re.subn(r"(<!-- (\w+)\.md -->\n)(?:.+\n)*", part,
                          page.read_text(encoding="utf-8"))
    if count != 3:
        sys.exit(f"page: {page} has {count} places for results, not 3")
    page.write_text(text, encoding="utf-8")
    for chart in CHARTS:
        shutil.copy(build / chart, page.parent / "performance" / chart)


if __name__ == "__main__":
    main()
