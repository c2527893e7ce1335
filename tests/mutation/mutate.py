"""Changes src/ in one place at a time and says which changes no test notices.

Each change is made in a copy of the checkout, built, and met with the cases that
drive the library. A change is killed when a case fails, crashes, does not end, or
a sanitizer reports; it is invalid when it does not compile, and equivalent when
tests/mutation/equivalent.txt tells why nobody can tell it from the original.
The rest survived. Nothing in the checkout is touched but build/mutate.

What survives the plain build is tried under the address sanitizer, which also
sees leaks; what has to do with threads is tried under the thread sanitizer.

exit status: 0 when nothing survived, 1 when something did, 2 when the unchanged
sources do not pass or the list of equivalent changes does not fit them
"""

import argparse
import collections
import concurrent.futures
import os
import pathlib
import queue
import re
import signal
import sys
import threading

from builds import INTERRUPTED, TREES, Tree
from cases import Order, may_show, programs_of
from changes import ROOT, all_mutants
from equivalents import read_equivalent


def try_in(tree, mutant, order):
    tree.change(mutant)
    for cases in order.stages(mutant, tree):
        if not tree.compiles({case.program for case in cases}):
            return "invalid", ""
        killer = tree.run(cases)
        if killer is not None:
            order.note(mutant, killer)
            return "killed", str(killer) if tree.name == "plain" else f"{tree.name}: {killer}"
    return "survived", ""


class Report:
    def __init__(self, path):
        self.lock = threading.Lock()
        self.totals = collections.defaultdict(collections.Counter)
        self.file = open(path, "w", encoding="utf-8")

    def add(self, mutant, verdict, detail):
        with self.lock:
            self.totals[mutant.file][verdict] += 1
            for out in (sys.stdout, self.file):
                print(
                    f"{verdict:10} {mutant}" + (f"  [{detail}]" if detail else ""),
                    file=out,
                    flush=True,
                )

    def close(self):
        verdicts = ["killed", "survived", "equivalent", "invalid"]
        print(f'\n{"":32}' + "".join(f"{verdict:>12}" for verdict in verdicts))
        rows = dict(self.totals, total=sum(self.totals.values(), collections.Counter()))
        for name, counts in rows.items():
            print(f"{name:32}" + "".join(f"{counts[verdict]:12}" for verdict in verdicts))
        self.file.close()
        return rows["total"]["survived"]


def run_phase(trees, mutants, judge):
    """Lets each tree take mutants from one queue; returns what judge() keeps."""
    waiting = queue.SimpleQueue()
    for mutant in mutants:
        waiting.put(mutant)
    kept = []

    def work(tree):
        while True:
            try:
                mutant = waiting.get_nowait()
            except queue.Empty:
                return
            if judge(tree, mutant):
                kept.append(mutant)

    with concurrent.futures.ThreadPoolExecutor(len(trees)) as pool:
        list(pool.map(Tree.prepare, trees))
        trees[0].check()
        for tree in trees[1:]:
            tree.seconds = trees[0].seconds
        list(pool.map(work, trees))
    return kept


def run_all(mutants, work, jobs, report):
    order = Order()

    def judge(tree, mutant):
        verdict, detail = try_in(tree, mutant, order)
        if verdict == "survived":
            print(f"passed {tree.name}: {mutant}", flush=True)
            return True
        report.add(mutant, verdict, detail)
        return False

    left = mutants
    for name in TREES:
        chosen = [m for m in left if may_show(m, name)]
        if not chosen:
            continue
        print(f"-- {name}: {len(chosen)} changes", flush=True)
        programs = sorted({program for mutant in chosen for program in programs_of(mutant)})
        count = min(jobs, 1 + len(chosen) // 10)
        trees = [Tree(work / str(n), name, programs) for n in range(count)]
        kept = run_phase(trees, chosen, judge)
        left = [m for m in left if m in kept or m not in chosen]
    for mutant in left:
        report.add(mutant, "survived", "")


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="script/mutate",
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--list", action="store_true", help="print the changes and end")
    parser.add_argument(
        "--file",
        action="append",
        metavar="NAME",
        help="only changes of files whose path contains NAME",
    )
    parser.add_argument(
        "--only", metavar="REGEX", help="only changes whose line in the report matches"
    )
    parser.add_argument("--sample", type=int, metavar="N", help="an even choice of N of them")
    parser.add_argument(
        "--except",
        dest="reports",
        action="append",
        default=[],
        type=pathlib.Path,
        metavar="FILE",
        help="leave out what a report (results.txt of a run) has as killed or invalid",
    )
    parser.add_argument(
        "--jobs",
        type=int,
        default=os.cpu_count(),
        metavar="N",
        help="builds and runs at a time (default: one per processor)",
    )
    parser.add_argument(
        "--work",
        type=pathlib.Path,
        default=ROOT / "build/mutate",
        metavar="DIR",
        help="folder for the copies and builds (default: build/mutate)",
    )
    return parser.parse_args()


def choose(arguments, mutants):
    done = {
        change
        for report in arguments.reports
        for change in re.findall(
            r"^(?:killed|invalid) +(.*?)(?:  \[.*)?$", report.read_text(), re.M
        )
    }
    chosen = [
        n
        for n, m in enumerate(mutants)
        if str(m) not in done
        and (not arguments.file or any(name in m.file for name in arguments.file))
        and (not arguments.only or re.search(arguments.only, str(m)))
    ]
    if arguments.sample and arguments.sample < len(chosen):
        count = len(chosen)
        chosen = [chosen[i * count // arguments.sample] for i in range(arguments.sample)]
    return chosen


def main():
    arguments = parse_arguments()
    mutants = all_mutants()
    reasons = read_equivalent(mutants)
    chosen = choose(arguments, mutants)
    if arguments.list:
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # as for other filters
        for n in chosen:
            print(f"{mutants[n]}" + (f"  [equivalent: {reasons[n]}]" if n in reasons else ""))
        print(f"{len(chosen)} changes", file=sys.stderr)
        return 0
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: INTERRUPTED.set())
    arguments.work.mkdir(parents=True, exist_ok=True)
    report = Report(arguments.work / "results.txt")
    for n in chosen:
        if n in reasons:
            report.add(mutants[n], "equivalent", reasons[n])
    try:
        run_all(
            [mutants[n] for n in chosen if n not in reasons],
            arguments.work.resolve(),
            arguments.jobs,
            report,
        )
    except RuntimeError as error:
        print(f"mutate: {error}", file=sys.stderr)
        return 2
    return 1 if report.close() else 0


if __name__ == "__main__":
    sys.exit(main())
