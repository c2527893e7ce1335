"""The changes that nobody can tell from the original, with the reasons."""

import re
import sys

from changes import ROOT

EQUIVALENT = ROOT / "tests/mutation/equivalent.txt"


def read_equivalent(mutants):
    """Returns the reason for each equivalent change, by its place among all."""
    reasons = {}
    text = re.sub(r"^#.*\n", "", EQUIVALENT.read_text(), flags=re.M)
    for block in filter(str.strip, re.split(r"\n\n+", text)):
        fields = re.findall(r"^(file|in|line|change|reason): +(.*(?:\n  .*)*)", block, re.M)
        found, key = [], {}
        for name, value in fields:
            key[name] = " ".join(value.split())
            if name == "change":
                found.append(
                    [
                        n
                        for n, m in enumerate(mutants)
                        if all(key.get(k, v) == " ".join(v.split()) for k, v in m.key())
                    ]
                )
        if not found or not key.get("reason") or any(len(f) != 1 for f in found):
            print(
                f"{EQUIVALENT}: fits {[len(f) for f in found]} changes:\n{block.strip()}\n",
                file=sys.stderr,
            )
            raise SystemExit(2)
        reasons.update({n: key["reason"] for n, in found})
    return reasons
