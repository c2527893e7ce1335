"""Child programs that speak lines, shown as they speak.

Every line of every program goes to standard output with a sign in front:
"> " what a program is told, "< " what lumso_host says, "! " what it writes to
standard error, "~ " what the peer or another helper says. Of bytes that come in
many chunks the first is shown, and what the rest come to.
"""

import collections
import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import threading
import time

LONGEST_LINE = 400
OUTPUT_LIMIT = 5  # seconds that the output of a killed program may still take
# What every report of a sanitizer has: address, leak, thread or undefined behaviour.
SANITIZER_REPORT = re.compile(r"\w+Sanitizer\b|: runtime error: ")


def _shorten_bytes(match):
    digits = match.group(1)
    return f'"{digits[:48]}… {len(digits) // 2} bytes"'


class Screen:
    """Prints lines; long byte lists are shown by their beginning and size."""

    def __init__(self, out=None):
        self.out = out or sys.stdout
        self.lock = threading.Lock()
        self.source = None  # of the chunks that come now, one after the other
        self.sizes = []  # of those that were not shown

    def show(self, text):
        with self.lock:
            self._end_chunks()
            self._print(text)

    def show_chunk(self, source, text, size):
        """Shows a line that stands for `size` bytes, if it is the first of a run."""
        with self.lock:
            if source == self.source:
                self.sizes.append(size)
                return
            self._end_chunks()
            self.source = source
            self._print(text)

    def _end_chunks(self):
        if self.sizes:
            chunks = "chunk" if len(self.sizes) == 1 else "chunks"
            self._print(f"    … {len(self.sizes)} more {chunks}, {sum(self.sizes):,} bytes")
        self.source, self.sizes = None, []

    def _print(self, text):
        text = re.sub(r'"([0-9a-f]{97,})"', _shorten_bytes, text)
        if len(text) > LONGEST_LINE:
            text = f"{text[:LONGEST_LINE]}… ({len(text)} characters)"
        print(text, file=self.out, flush=True)


SCREEN = Screen()
show = SCREEN.show


class Failure(Exception):
    """A step did not go as it must; the text says what was missing."""


class Program:
    """Keeps every line that a child writes and lets others wait for one."""

    reports = []  # what sanitizers said, in whichever program

    def __init__(self, command, sign, **environment):
        self.sign = sign
        self.lines = []
        self.times = []  # when each line came
        self.errors = []
        self.ended = False
        self.changed = threading.Condition()
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            encoding="utf-8",
            errors="replace",
            env={**os.environ, **environment},
        )
        self.readers = [
            threading.Thread(target=self._read, args=source, daemon=True)
            for source in (
                (self.process.stdout, self.lines, sign),
                (self.process.stderr, self.errors, "!"),
            )
        ]
        for reader in self.readers:
            reader.start()

    def _read(self, stream, lines, sign):
        for line in stream:
            line = line.rstrip("\n")
            item = self.parse(line) if lines is self.lines else line
            if line and lines is self.errors:
                show(f"  {sign} {line}")
                if SANITIZER_REPORT.search(line):
                    self.reports.append(line)
            elif line and self.shows(line):
                self.display(f"  {sign} {line}", item)
            with self.changed:
                if lines is self.lines:
                    self.times.append(time.monotonic())
                lines.append(item)
                self.changed.notify_all()
        if lines is self.lines:
            with self.changed:
                self.ended = True
                self.changed.notify_all()

    def parse(self, line):
        return line

    def shows(self, _line):
        return True

    def display(self, text, _item):
        show(text)

    def tell(self, line):
        show(f"  > {line}")
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except OSError as error:
            raise Failure(f"{self.process.args[0]} is gone: {error}") from error

    def wait(self, condition, seconds, what):
        """Waits until `condition()` gives something true and returns that."""
        deadline = time.monotonic() + seconds
        with self.changed:
            while not (found := condition()):
                if self.ended:
                    raise Failure(f"no {what}: {self.process.args[0]} ended")
                left = deadline - time.monotonic()
                if left <= 0:
                    raise Failure(f"no {what} within {seconds} s")
                self.changed.wait(left)
            return found

    def end(self, seconds=10):
        """Closes standard input and returns the exit status."""
        try:
            self.process.stdin.close()
        except OSError:
            pass
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired as error:
            raise Failure(f"{self.process.args[0]} did not end within {seconds} s") from error
        for reader in self.readers:
            reader.join(seconds)
        return status

    def kill(self):
        """Kills it unless it has ended, and waits for what it said last."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        with contextlib.suppress(OSError):  # for a child that listens there
            self.process.stdin.close()
        for reader in self.readers:
            reader.join(OUTPUT_LIMIT)

    def resources(self):
        """How many descriptors of each kind it has, and the names of its threads."""
        folder = pathlib.Path(f"/proc/{self.process.pid}")
        kinds = collections.Counter()
        threads = []
        for item in folder.glob("fd/*"):
            with contextlib.suppress(OSError):  # closed meanwhile
                kinds[os.readlink(item).split(":[")[0]] += 1
        for item in folder.glob("task/*/comm"):
            with contextlib.suppress(OSError):  # ended meanwhile
                threads.append(item.read_text().strip())
        return dict(kinds), sorted(threads)


class JsonProgram(Program):
    def parse(self, line):
        try:
            return json.loads(line)
        except ValueError:
            return {"unreadable": line}


class Host(JsonProgram):
    """lumso_host: the plug-in and its channels as lines.

    An answer is any line that does not come from a channel, nor from GLib's log.
    What a step waits for on a channel counts from `mark`, which each request
    moves on unless the step holds it.
    """

    def __init__(self, path, shows_bytes=True, **environment):
        self.shows_bytes = shows_bytes
        super().__init__([path], "<", **environment)
        self.mark = 0

    def shows(self, line):
        return self.shows_bytes or '"event":{"uint8":' not in line

    def display(self, text, item):
        event = item.get("event")
        if isinstance(event, dict) and "uint8" in event:
            SCREEN.show_chunk(item["channel"], text, len(event["uint8"]) // 2)
        else:
            show(text)

    def ask(self, line, key, seconds):
        with self.changed:
            self.mark = before = len(self.lines)
        self.tell(line)

        item = self.answer(before, seconds, f"answer to '{line[:80]}'")
        if key not in item:
            raise Failure(f"'{line[:80]}' was answered with {item}")
        return item[key]

    def answer(self, since, seconds, what):
        """Waits for the next answer, of whatever kind."""
        return self.answers(since, 1, seconds, what)[0][0]

    def answers(self, since, count, seconds, what):
        """Waits for the next answers, and returns each with the time it came."""

        def find():
            found = [
                (item, moment)
                for item, moment in zip(self.lines[since:], self.times[since:])
                if "channel" not in item and "unreadable" not in item
            ]
            return found[:count] if len(found) >= count else None

        return self.wait(find, seconds, what)

    def call(self, method, arguments=None, seconds=30):
        words = ["call", method]
        if arguments is not None:
            words.append(json.dumps(arguments))
        return self.ask(" ".join(words), "result", seconds)

    def listen(self, channel):
        return self.ask(f"listen {channel}", "result", 10)

    def cancel(self, channel):
        return self.ask(f"cancel {channel}", "result", 10)

    def on_channel(self, channel, since):
        return [item for item in self.lines[since:] if item.get("channel") == channel]

    def event(self, channel, matches, seconds, what, since=None):
        """Waits for an event of `channel` that `matches` and returns its value."""
        start = self.mark if since is None else since

        def find():
            for item in self.on_channel(channel, start):
                if "event" in item and matches(item["event"]):
                    return item
            return None

        return self.wait(find, seconds, what)["event"]

    def ends_of_stream(self, channel, since):
        return sum("endOfStream" in item for item in self.on_channel(channel, since))

    def end_of_stream(self, channel, seconds, since):
        self.wait(
            lambda: self.ends_of_stream(channel, since), seconds, f"end of stream on {channel}"
        )

    def received(self, channel, since):
        """The bytes that came on a read channel."""
        return b"".join(
            bytes.fromhex(item["event"]["uint8"])
            for item in self.on_channel(channel, since)
            if "event" in item
        )


class Peer(JsonProgram):
    """peer.py: the remote device."""

    def __init__(self, script, address, secret, rssi):
        command = [sys.executable, script, address, f"--secret={secret}", f"--rssi={rssi}"]
        super().__init__(command, "~")
        self.listens(0)

    def listens(self, since):
        self.saw(lambda item: item.get("peer") == "listening", "peer that listens", since)

    def saw(self, matches, what, since, seconds=10):
        return self.wait(
            lambda: next((item for item in self.lines[since:] if matches(item)), None),
            seconds,
            what,
        )

    def obey(self, line):
        since = len(self.lines)
        self.tell(line)
        self.saw(lambda item: item.get("peer") == "done", f"answer to '{line}'", since)

    def mode(self, mode):
        self.obey(f"mode {mode}")

    def accepted(self):
        return sum(1 for item in self.lines if item.get("peer") == "accepted")


class BusCalls(Program):
    """Counts the calls of one method from or to one name on the system bus,
    with dbus-monitor."""

    def __init__(self, side, bus_name, method):
        self.method = f"member={method}"
        rule = f"type='method_call',{side}='{bus_name}',member='{method}'"
        super().__init__(["dbus-monitor", "--system", rule], "~")
        # NameLost is what a monitor hears last before it begins.
        self.wait(
            lambda: any("member=NameLost" in line for line in self.lines), 10, "bus monitor"
        )

    def shows(self, line):
        return self.method in line

    def count(self):
        return sum(self.method in line for line in self.lines)


class Rounds(BusCalls):
    """Counts the prober's rounds: each begins with one look at the daemon's
    list of devices."""

    def __init__(self, bus_name):
        super().__init__("sender", bus_name, "GetManagedObjects")

    def wait_for_next(self, seconds):
        before = self.count()
        self.wait(lambda: self.count() > before, seconds, "next round of the prober")
