"""The changes that nobody can tell from the original, with the reasons."""

import re
import sys

from changes import ROOT

EQUIVALENT = ROOT / "tests/mutation/equivalent.txt"


def read_equivalent(mutants):
    """Returns the reason for each equivalent change, by its place among all."""
    reasons, misfits = {}, []
    text = re.sub(r"^#.*\n", "", EQUIVALENT.read_text(), flags=re.M)
    for block in filter(str.strip, re.split(r"\n\n+", text)):
        fields = re.findall(r"^(file|in|line|change|reason): +(.*(?:\n  .*)*)", block, re.M)
        found, key = [], {}
        for name, value in fields:
            key[name] = " ".join(value.split())
            if name == "change":
                found.append([n for n, mutant in enumerate(mutants) if fits(mutant, key)])
        if found and key.get("reason") and all(len(places) == 1 for places in found):
            reasons.update({n: key["reason"] for n, in found})
        else:
            misfits.append(
                f"fits {[len(places) for places in found]} changes:\n{block.strip()}\n"
            )
    for misfit in misfits:
        print(f"{EQUIVALENT}: {misfit}", file=sys.stderr)
    if misfits:
        raise SystemExit(2)
    return reasons


def fits(mutant, key):
    return all(key.get(name, value) == " ".join(value.split()) for name, value in mutant.key())
