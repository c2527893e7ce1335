"""Runs the benchmarks side by side and judges them: run.py [--short] BUILD.

Expects an empty message bus in DBUS_SYSTEM_BUS_ADDRESS. Every round runs every
program once, so that whatever the machine does meanwhile meets all of them. The
figures are medians of the rounds; ratios are taken within a round. --short
counts instructions instead of measuring time, and leaves the peers out.
"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import svg_chart

LIST_SIZES = (10, 100, 1000, 5000)
CHUNK_SIZES = (16, 127, 1024, 2048)
WRITE_SIZES = (16, 127, 1024, 4096, 16384, 65536)
BURST = 5000
HERE = pathlib.Path(__file__).resolve().parent


class Bench:
    """The programs, and the daemon that they talk to."""

    def __init__(self, build):
        self.build = build
        self.log = open(build / "bench.log", "w", encoding="utf-8")
        self.daemon = subprocess.Popen(
            [build / "bench_daemon"], stdout=subprocess.PIPE, text=True
        )
        if self.daemon.stdout.readline() != "ready\n":
            sys.exit("bench: the daemon does not start")
        self.devices = None
        self.tree_bytes = {}

    def close(self):
        self.daemon.terminate()
        self.daemon.wait()
        self.log.close()

    def run(self, command):
        """Returns {(subject, metric): value} as one program prints them."""
        output = subprocess.run(
            [str(word) for word in command],
            stdout=subprocess.PIPE,
            stderr=self.log,
            text=True,
            check=True,
        ).stdout
        lines = [json.loads(line) for line in output.splitlines()]
        return {(line["subject"], line["metric"]): line["value"] for line in lines}

    def set_devices(self, count):
        if self.devices != count:
            figures = self.run([self.build / "lumso_bench", "devices", count, "-"])
            self.devices = count
            self.tree_bytes[count] = figures["daemon", "bytes"]

    def ours(self, work, size, *subjects):
        return [self.build / "lumso_bench", work, size, ",".join(subjects)]

    def peers(self, work, size):
        """The commands of those peers that are there and can do it."""
        commands = []
        if work in ("list", "start"):
            commands.append(self.ours(work, size, "object manager"))
        if work in ("list", "start", "bond") and (self.build / "bench_qt").exists():
            commands.append([self.build / "bench_qt", work, size])
        if work == "list" and has_bleak():
            commands.append([sys.executable, HERE / "bleak_peer.py"])
        return commands


def has_bleak():
    command = [sys.executable, "-c", "import bleak"]
    return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0


def plan(bench):
    """Lists (work, size, devices, commands) for one round."""
    rounds = []

    def add(work, size, devices, *commands):
        rounds.append((work, size, devices, commands))

    for size in LIST_SIZES:
        commands = [bench.ours("list", size, "ours", "plain", "floor"),
                    *bench.peers("list", size)]
        add("list", size, size, *commands)
        if size == 1000:
            bond = bench.ours("bond", size, "ours", "floor")
            lower = bench.ours("bond-lower-case", size, "ours", "floor")
            starts = [bench.ours("start", size, subject) for subject in ("ours", "floor")]
            bursts = [bench.ours("burst", BURST, subject) for subject in ("ours", "floor")]
            add("bond", size, size, bond, *bench.peers("bond", size))
            add("bond-lower-case", size, size, lower)
            add("start", size, size, *starts, *bench.peers("start", size))
            add("burst", BURST, size, *bursts)
        if size == 5000:
            for subject in ("ours", "floor"):
                add("list-memory", size, size, bench.ours("list-memory", size, subject))
    for size in CHUNK_SIZES:
        add("receive", size, 10,
            bench.ours("receive", size, "ours", "plain", "floor", "GSource"))
    add("latency", 127, 10, bench.ours("latency", 127, "ours", "plain", "floor", "GSource"))
    for size in WRITE_SIZES:
        add("write", size, 10,
            bench.ours("write", size, "ours", "plain", "floor", "slices", "handler"))
    for work in ("call", "unknown-call"):
        add(work, 0, 10, bench.ours(work, 0, "ours", "floor"))
    add("connection-memory", 100, 10, bench.ours("connection-memory", 100, "ours"))
    library = bench.build / "liblumso_bluetooth_plugin.so"
    add("load", 0, 10, [bench.build / "bench_load", library])
    return rounds


def measure(bench, rounds):
    """Returns {(work, size): {(subject, metric): [value per round]}}."""
    samples = {}
    for number in range(rounds):
        print(f"round {number + 1} of {rounds}", file=sys.stderr)
        for work, size, devices, commands in plan(bench):
            bench.set_devices(devices)
            found = samples.setdefault((work, size), {})
            for command in commands:
                for key, value in bench.run(command).items():
                    found.setdefault(key, []).append(value)
    return samples


class Results:
    """The rows of one table: ours beside `base`, a subject that others measure up to."""

    def __init__(self, samples, base):
        self.samples = samples
        self.base = base
        self.rows = []
        self.spreads = []

    def median(self, work, size, subject, metric="wall"):
        return statistics.median(self.samples[work, size][subject, metric])

    def ratios(self, work, size, metric):
        found = self.samples[work, size]
        pairs = zip(found["ours", metric], found[self.base, metric])
        return [ours / base for ours, base in pairs]

    def spread(self, work, size, metric):
        """The middle half of the rounds, relative to their median."""
        values = self.samples[work, size]["ours", metric]
        low, middle, high = statistics.quantiles(values, n=4)
        return (high - low) / middle

    def add(self, label, size, ours, unit, target, met, base=None, peers=None,
            ratio=None, spread=None):
        row = {"work": label, "size": size, "ours": ours, self.base: base,
               "peers": peers or {}, "unit": unit, "ratio": ratio, "target": target,
               "met": met}
        self.rows.append({key: rounded(value) for key, value in row.items()})
        self.spreads.append(spread)

    def compare(self, label, work, size, unit, target, judge, metric="wall",
                peers=("object manager", "Qt", "bleak", "GSource", "slices", "handler")):
        """A row of ours, the base and whichever peers there are. `judge` gets the
        three, in nanoseconds, and the ratio, and tells whether the target is met."""
        found = self.samples[work, size]
        ours = self.median(work, size, "ours", metric)
        base = self.median(work, size, self.base, metric)
        beside = {name: self.median(work, size, name, metric)
                  for name in peers if (name, metric) in found}
        ratio = statistics.median(self.ratios(work, size, metric))
        met = None if judge is None else judge(ours, base, beside, ratio)
        scale = {"ms": 1e6, "us": 1e3}[unit]
        self.add(label, size, ours / scale, unit, target, met, base / scale,
                 {name: value / scale for name, value in beside.items()}, ratio,
                 self.spread(work, size, metric))


def rounded(value):
    if isinstance(value, dict):
        return {key: rounded(inner) for key, inner in value.items()}
    return float(f"{value:.4g}") if isinstance(value, float) else value


def at_most(bound):
    return lambda ours, base, peers, ratio: ratio <= bound


def above_floor(nanoseconds):
    return lambda ours, floor, peers, ratio: ours - floor <= nanoseconds


def judge_plain(results):
    """What is within reach: the steps are the same, and so is all that they run on."""

    def compare(label, work, size, unit, metric="wall"):
        results.compare(label, work, size, unit, "<= 1.10 x plain", at_most(1.1), metric, ())

    for size in LIST_SIZES:
        compare("list", "list", size, "ms")
    for size in CHUNK_SIZES:
        compare("receive, per chunk", "receive", size, "us")
    for size in CHUNK_SIZES:
        compare("receive, processor time per chunk", "receive", size, "us", "cpu")
    compare("latency to the event, median", "latency", 127, "us")
    for size in WRITE_SIZES:
        compare("write", "write", size, "us")


def judge_bus(results):
    for size in LIST_SIZES:
        results.compare(
            "list", "list", size, "ms", "<= 1.25 x floor, ahead of peers",
            lambda ours, floor, peers, ratio: ratio <= 1.25
            and all(ours < peer for peer in peers.values()))
    flatness = {}
    for subject in ("ours", "floor"):
        costs = [results.median("list", size, subject) / size for size in LIST_SIZES[1:]]
        flatness[subject] = max(costs) / min(costs)
    results.add("list: cost per device, largest to smallest", "100..5000",
                flatness["ours"], "x", "<= 1.10", flatness["ours"] <= 1.1,
                flatness["floor"])
    results.compare("bond state", "bond", 1000, "us", "<= 1.1 x floor", at_most(1.1))
    results.compare("bond state, lower case", "bond-lower-case", 1000, "ms", "stated", None)
    results.compare("start-up", "start", 1000, "ms", "<= 1.25 x floor", at_most(1.25))
    results.compare("burst, per change", "burst", BURST, "us", "<= 1.15 x floor, none lost",
                    at_most(1.15))


def judge_streams(results):
    for size in CHUNK_SIZES:
        results.compare("receive, per chunk", "receive", size, "us", "<= GSource",
                        lambda ours, floor, peers, ratio: ours <= peers["GSource"])
    results.compare("receive, processor time per chunk", "receive", 127, "us",
                    "<= floor + 3 us", above_floor(3000), "cpu")
    results.compare("latency to the event, median", "latency", 127, "us", "< 30 us",
                    lambda ours, floor, peers, ratio: ours < 30000)
    results.compare("latency to the event, 99th", "latency", 127, "us", "< 200 us",
                    lambda ours, floor, peers, ratio: ours < 200000, "p99")
    for size in WRITE_SIZES:
        results.compare("write", "write", size, "us", "<= floor + 2 us", above_floor(2000))
    results.compare("call without the bus", "call", 0, "us", "< floor + 1 us",
                    above_floor(1000))
    results.compare("call of an unknown name", "unknown-call", 0, "us", "< floor + 1 us",
                    above_floor(1000))


def judge_main_loop(results):
    def held(label, work, size, metric, peers):
        found = results.samples[work, size]
        values = {name: max(found[name, kind]) / 1e6
                  for name, kind in peers if (name, kind) in found}
        results.add(f"main loop held: {label}", size, max(found["ours", metric]) / 1e6,
                    "ms", "stated", None, peers=values)

    for size in LIST_SIZES:
        held("list", "list", size, "longest", [("Qt", "gap")])
    held("bond state", "bond", 1000, "longest", [])
    held("burst", "burst", BURST, "gap", [("floor", "gap")])
    for size in CHUNK_SIZES:
        held("4,000 chunks at once", "receive", size, "gap", [("GSource", "gap")])


def judge_memory(results, bench):
    connection = results.median("connection-memory", 100, "ours", "bytes")
    results.add("memory per connection", 100, connection / 1024, "KiB", "< 64",
                connection < 64 * 1024)
    tree = bench.tree_bytes[5000]
    ours = results.median("list-memory", 5000, "ours", "bytes")
    floor = results.median("list-memory", 5000, "floor", "bytes")
    results.add("memory peak of a list", 5000, ours / tree, "x reply", "< 3", ours < 3 * tree,
                floor / tree, ratio=ours / floor)
    results.add("memory peak per listed device", 5000, ours / 5000 / 1024, "KiB", "stated",
                None, floor / 5000 / 1024, ratio=ours / floor)
    library = bench.build / "liblumso_bluetooth_plugin.so"
    with tempfile.TemporaryDirectory() as folder:
        stripped = pathlib.Path(folder) / "stripped.so"
        subprocess.run(["strip", "-o", stripped, library], check=True)
        size = stripped.stat().st_size
    results.add("library, stripped", 0, size / 1000, "kB", "< 150", size < 150000)
    listing = subprocess.run(["readelf", "-rW", library], stdout=subprocess.PIPE, text=True,
                             check=True).stdout
    relocations = sum(" R_X86_64_" in line or " R_AARCH64_" in line
                      for line in listing.splitlines())
    results.add("library, relocations", 0, relocations, "", "stated", None)
    results.add("library, load time", 0, results.median("load", 0, "ours") / 1e6, "ms",
                "stated", None, spread=results.spread("load", 0, "wall"))


def show(value):
    return "-" if value is None else f"{value:.4g}" if isinstance(value, float) else str(value)


def print_table(title, results):
    head = ("work", "size", "ours", results.base, "peers", "unit", "ratio", "spread", "target",
            "met")
    lines = [head]
    for row, spread in zip(results.rows, results.spreads):
        peers = ", ".join(f"{name} {show(value)}" for name, value in row["peers"].items())
        met = {True: "yes", False: "NO", None: "-"}[row["met"]]
        share = "-" if spread is None else f"{spread:.0%}"
        lines.append((row["work"], show(row["size"]), show(row["ours"]),
                      show(row[results.base]),
                      peers or "-", row["unit"], show(row["ratio"]), share, row["target"],
                      met))
    used = [i for i in range(len(head)) if any(line[i] != "-" for line in lines[1:])]
    lines = [tuple(line[i] for i in used) for line in lines]
    widths = [max(map(len, column)) for column in zip(*lines)]
    lines.insert(1, tuple("-" * width for width in widths))
    print(f"{title}\n")
    for line in lines:
        cells = (cell.ljust(width) for cell, width in zip(line, widths))
        print("| " + " | ".join(cells) + " |")
    print()


def draw_charts(results, folder):
    def series(work, sizes, scale):
        names = {name for name, metric in results.samples[work, sizes[0]] if metric == "wall"}
        order = ("ours", "plain", "floor", "GSource", "object manager", "Qt", "bleak")
        return {name: [(size, results.median(work, size, name) / scale(size))
                       for size in sizes]
                for name in order if name in names}

    svg_chart.write(folder / "list.svg", "A list of N devices", "devices", "milliseconds",
                    series("list", LIST_SIZES, lambda size: 1e6))
    svg_chart.write(folder / "receive.svg", "Receiving chunks of N bytes", "bytes in a chunk",
                    "nanoseconds per byte",
                    series("receive", CHUNK_SIZES, lambda size: size))


# What is accepted of the instructions that the client's process executes for one
# operation: at most so many times those of another subject. Each bound leaves room
# for what differs from run to run: GDBus's thread and ours share an allocator, and
# what two threads cost depends on how often one has to wake the other.
SHORT = (
    ("list", 200, 200, "plain", 1.10),
    ("bond", 100, 100, "floor", 1.15),
    ("burst", 200, 100, "floor", 1.13),
    ("receive", 127, 10, "plain", 1.10),
    ("receive", 2048, 10, "plain", 1.10),
    ("write", 127, 10, "plain", 1.10),
    ("write", 65536, 10, "plain", 1.05),
    ("call", 0, 10, "floor", 1.03),
    # All the names are compared, which no other program would do.
    ("unknown-call", 0, 10, "floor", 1.15),
)


def count_instructions(bench, work, size, subjects):
    """Returns the instructions per operation of each subject: the median of the runs
    after the warm-up, since GDBus's thread may free a reply after the dump."""
    with tempfile.TemporaryDirectory() as folder:
        dumps = pathlib.Path(folder)
        figures = bench.run(["valgrind", "--quiet", "--tool=callgrind",
                             f"--callgrind-out-file={dumps}/dump",
                             *bench.ours(work, size, *subjects)])
        counts = {subject: [] for subject in subjects}
        for dump in sorted(dumps.glob("dump.*"), key=lambda path: int(path.suffix[1:])):
            fields = dict(line.split(": ", 1) for line in dump.read_text().splitlines()
                          if line.startswith(("desc: Trigger", "totals")))
            subject = fields["desc"].rpartition(": ")[2]
            counts[subject].append(int(fields["totals"]))
    return {subject: statistics.median(runs[1:]) * len(runs[1:]) / figures[subject, "operations"]
            for subject, runs in counts.items()}


def run_short(bench):
    failures = 0
    for work, size, devices, other, bound in SHORT:
        bench.set_devices(devices)
        if work == "burst":
            counts = {subject: count_instructions(bench, work, size, (subject,))[subject]
                      for subject in ("ours", other)}
        else:
            counts = count_instructions(bench, work, size, ("ours", other))
        ratio = counts["ours"] / counts[other]
        failures += ratio > bound
        print(f"{'ok ' if ratio <= bound else 'BAD'} {work} {size}: "
              f"{counts['ours']:.0f} instructions, {other} {counts[other]:.0f}: "
              f"{ratio:.3f} times, at most {bound:.2f}", flush=True)
    return 1 if failures else 0


def run_full(bench, rounds):
    samples = measure(bench, rounds)
    plain = Results(samples, "plain")
    judge_plain(plain)
    price = Results(samples, "floor")
    judge_bus(price)
    judge_streams(price)
    judge_main_loop(price)
    judge_memory(price, bench)
    print_table("Beside the plainest program that makes the same steps", plain)
    print_table("The price of the design", price)
    draw_charts(price, bench.build)
    (bench.build / "results.json").write_text(
        json.dumps({"plain": plain.rows, "floor": price.rows}, indent=2) + "\n")
    print(f"written: {bench.build}/results.json, list.svg, receive.svg", file=sys.stderr)
    return 0


def main():
    parser = argparse.ArgumentParser(description="Runs the benchmarks.")
    parser.add_argument("--short", action="store_true",
                        help="count instructions, for continuous integration")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("build", type=pathlib.Path)
    options = parser.parse_args()
    bench = Bench(options.build.resolve())
    try:
        return run_short(bench) if options.short else run_full(bench, options.rounds)
    finally:
        bench.close()


if __name__ == "__main__":
    sys.exit(main())
