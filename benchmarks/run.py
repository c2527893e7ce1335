"""Runs the benchmarks side by side and judges them: run.py [--short] BUILD.

Expects an empty message bus in DBUS_SYSTEM_BUS_ADDRESS. Every round runs every
program once, so that whatever the machine does meanwhile meets all of them. The
figures are medians of the rounds; ratios are taken within a round. Two tables and
two charts go into BUILD, for page.py. --short counts instructions instead of
measuring time, and leaves the peers out.
"""

import argparse
import datetime
import importlib.metadata
import json
import math
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile

import svg_chart

LIST_SIZES = (10, 100, 1000, 5000)
CHUNK_SIZES = (16, 127, 1024, 2048)
WRITE_SIZES = (16, 127, 1024, 4096, 16384, 65536)
BURST = 5000
PEERS = ("object manager", "Qt", "bleak", "GSource", "slices", "handler")
UNITS = {"ms": 1e6, "µs": 1e3}  # in nanoseconds
COLUMNS = ("work", "size", "ours", "plain", "floor", "unit", "ratio", "spread", "at most",
           "held", "peers", "what it buys")
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


def median(samples, work, size, subject, metric="wall"):
    return statistics.median(samples[work, size][subject, metric])


# What is judged: the plain program makes the same steps, and what they run on is the
# same. Label, work, sizes, unit, metric, and how many times the plain program's.
PLAIN = (
    ("list", "list", LIST_SIZES, "ms", "wall", 1.10),
    ("receive, per chunk", "receive", CHUNK_SIZES, "µs", "wall", 1.10),
    ("receive, processor time", "receive", CHUNK_SIZES, "µs", "cpu", 1.10),
    # Two thread switches, on processors that others use too.
    ("latency, median", "latency", (127,), "µs", "wall", 1.35),
    ("write", "write", WRITE_SIZES, "µs", "wall", 1.10),
)

# The price of the design, above a floor that it forbids, and what it buys.
PRICE = (
    ("list", "list", LIST_SIZES, "ms", "wall",
     "a record for each device, from a tree that is read anew: no cache that can be wrong"),
    ("bond state", "bond", (1000,), "µs", "wall", "the daemon's answer, each time"),
    ("bond state, lower case", "bond-lower-case", (1000,), "ms", "wall",
     "a device is found however its address is written"),
    ("start-up", "start", (1000,), "ms", "wall", "the agent, and every change from then on"),
    ("burst, per change", "burst", (BURST,), "µs", "wall",
     "each event is a whole record, and none is lost"),
    ("receive, per chunk", "receive", (127, 2048), "µs", "wall",
     "a busy main loop never stops the device; chunks keep their bounds and order"),
    ("receive, processor time", "receive", (127,), "µs", "cpu", "as for a chunk"),
    ("latency, median", "latency", (127,), "µs", "wall", "as for a chunk"),
    ("latency, 99th percentile", "latency", (127,), "µs", "p99", "as for a chunk"),
    ("write", "write", (127, 65536), "µs", "wall",
     "bytes from an application, however many: RFCOMM never stalls"),
    ("call without the bus", "call", (0,), "µs", "wall", "arguments are checked"),
    ("call of an unknown name", "unknown-call", (0,), "µs", "wall",
     "names are compared in their order"),
)

# For how long at most the main loop stood still. Whoever answers only when it runs
# again counts the gap, ours the longest call.
HELD = (
    ("list", "list", 1000, "longest"),
    ("bond state", "bond", 1000, "longest"),
    ("burst", "burst", BURST, "gap"),
    ("4,000 chunks at once", "receive", 127, "gap"),
)


def compare(samples, base, label, work, size, unit, metric):
    """A row of ours, the base and the peers: medians of the rounds, and the median of
    the ratios within a round. The spread is what the middle half of the rounds
    covers, relative to their median."""
    found = samples[work, size]
    scale = UNITS[unit]
    pairs = zip(found["ours", metric], found[base, metric])
    low, middle, high = statistics.quantiles(found["ours", metric], n=4)
    return {
        "work": label,
        "size": size,
        "ours": median(samples, work, size, "ours", metric) / scale,
        base: median(samples, work, size, base, metric) / scale,
        "unit": unit,
        "ratio": statistics.median(ours / other for ours, other in pairs),
        "spread": (high - low) / middle,
        "peers": {name: median(samples, work, size, name, metric) / scale
                  for name in PEERS if (name, metric) in found},
    }


def judge(samples):
    rows = []
    for label, work, sizes, unit, metric, bound in PLAIN:
        for size in sizes:
            row = compare(samples, "plain", label, work, size, unit, metric)
            rows.append({**row, "peers": {}, "at most": bound, "held": row["ratio"] <= bound})
    return rows


def price(samples, bench):
    rows = []
    for label, work, sizes, unit, metric, buys in PRICE:
        for size in sizes:
            row = compare(samples, "floor", label, work, size, unit, metric)
            rows.append({**row, "what it buys": buys if size == sizes[0] else ""})
    return rows + held(samples) + memory(samples, bench)


def held(samples):
    rows = []
    for label, work, size, metric in HELD:
        found = samples[work, size]
        longest = {name: max(found[name, "gap"]) / UNITS["ms"]
                   for name in ("floor", *PEERS) if (name, "gap") in found}
        buys = "" if rows else "an answer is given before the handler returns"
        rows.append({"work": f"main loop held: {label}", "size": size,
                     "ours": max(found["ours", metric]) / UNITS["ms"],
                     "floor": longest.pop("floor", None), "unit": "ms", "peers": longest,
                     "what it buys": buys})
    return rows


def memory(samples, bench):
    ours = median(samples, "list-memory", 5000, "ours", "bytes") / 5000 / 1024
    floor = median(samples, "list-memory", 5000, "floor", "bytes") / 5000 / 1024
    connection = median(samples, "connection-memory", 100, "ours", "bytes") / 1024
    library = bench.build / "liblumso_bluetooth_plugin.so"
    with tempfile.TemporaryDirectory() as folder:
        stripped = pathlib.Path(folder) / "stripped.so"
        subprocess.run(["strip", "-o", stripped, library], check=True)
        size = stripped.stat().st_size
    return [
        {"work": "memory peak, per listed device", "size": 5000, "ours": ours, "floor": floor,
         "unit": "KiB", "ratio": ours / floor, "what it buys": "as for a list"},
        {"work": "memory per connection", "size": 100, "ours": connection, "unit": "KiB",
         "what it buys": "a thread and a channel of its own"},
        {"work": "library, stripped", "size": 0, "ours": size / 1000, "unit": "kB"},
        {"work": "library, load time", "size": 0,
         "ours": median(samples, "load", 0, "ours") / UNITS["ms"], "unit": "ms"},
    ]


def show(value):
    if isinstance(value, bool):
        return "yes" if value else "NO"
    if isinstance(value, dict):
        return ", ".join(f"{name} {show(inner)}" for name, inner in value.items())
    if isinstance(value, float):
        return f"{value:,.{max(0, 2 - math.floor(math.log10(value)))}f}" if value else "0"
    return f"{value:,}" if isinstance(value, int) and value else value or ""


def table(rows):
    """The rows as lines of Markdown, without the columns that none of them has."""
    lines = []
    columns = [name for name in COLUMNS if any(row.get(name) for row in rows)]
    for row in rows:
        shown = {**row}
        if "ratio" in row:
            shown["ratio"] = f"{row['ratio']:.2f}"
        if "spread" in row:
            shown["spread"] = f"{row['spread']:.0%}"
        if "at most" in row:
            shown["at most"] = f"{row['at most']:.2f}"
        lines.append([show(shown.get(name)) for name in columns])
    head = [name.capitalize() for name in columns]
    widths = [max(map(len, column)) for column in zip(head, *lines)]
    lines[:0] = [head, ["-" * width for width in widths]]
    return "".join(
        "| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |\n"
        for line in lines)


def circumstances(bench, rounds, load):
    """A sentence on the machine, its load when the run began, and the libraries."""
    release = platform.freedesktop_os_release()["PRETTY_NAME"]
    names = {"glib-2.0": "GLib", "Qt6Bluetooth": "Qt"}
    found = []
    for package, name in names.items():
        version = subprocess.run(["pkg-config", "--modversion", package], check=False,
                                 stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        if version.returncode == 0:
            found.append(f"{name} {version.stdout.strip()}")
    if has_bleak():
        found.append(f"bleak {importlib.metadata.version('bleak')}")
    return (f"{release}, {platform.machine()}, {os.cpu_count()} processors, "
            f"{', '.join(found)}; {rounds} rounds on {datetime.date.today()}, with a load "
            f"average of {load:.1f} when they began.\n")


def draw_charts(samples, folder):
    def series(work, sizes, scale):
        names = {name for name, metric in samples[work, sizes[0]] if metric == "wall"}
        order = ("ours", "plain", "floor", "GSource", "object manager", "Qt", "bleak")
        return {name: [(size, median(samples, work, size, name) / scale(size))
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
    load = os.getloadavg()[0]
    samples = measure(bench, rounds)
    judged = judge(samples)
    parts = {"run": circumstances(bench, rounds, load), "plain": table(judged),
             "price": table(price(samples, bench))}
    for name, text in parts.items():
        (bench.build / f"{name}.md").write_text(text, encoding="utf-8")
        print(text)
    draw_charts(samples, bench.build)
    return 0 if all(row["held"] for row in judged) else 1


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
