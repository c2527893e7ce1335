#!/usr/bin/python3
"""Ends streams in every way that there is, on a real stack.

Each end meets a connection in each of four states, then each step of the
prober's exchange: the kernel tells the end of a stream once, to whoever asks
first, and nobody may wait for it after that. Each time it is stated what the
application sees, how soon, and that nothing is left behind. It ends with tables
of what was counted and measured. Meant for the virtual machine (see run).
"""

import argparse
import collections
import contextlib
import os
import pathlib
import signal
import sys
import time

from emulated import Emulated, slow_controllers
from peer import FINISH_SIZE, pattern
from programs import Failure, Host, show
from story import PROBE_LINE, READING, SECRET, check, play

SPOKEN = b"both ways"
WRITE_SIZE = 120_000  # more than all the buffers on the way hold
CONNECTED, CONNECTING, CLOSED = "1", "5", "9"  # in the kernel's list of sockets

# Seconds.
CONNECT_LIMIT = 40  # with a try that the kernel tells of 30 s late (see emulated.py)
FROZEN_LIMIT = 8  # whoever has not answered by then never will
DISCONNECT_LIMIT = 0.1
FLOODED_LIMIT = 2  # for the same, while the device floods the host
END_LIMIT = 1  # from an end to the outcome of a probe: none of its waits runs out
SILENCE_LIMIT = 6  # for the same, where one has to
DISPOSE_LIMIT = 2  # after the outcome of a probe: the prober rests in seconds

# What the device does in each state of a connection, as peer.py calls it.
STATES = {"idle": "echo", "receiving": "flood", "blocked write": "still", "slow reader": "slow"}

AT_ONCE = "device closes at once"
DEVICE_ENDS = {
    "device closes": "close",
    AT_ONCE: "close",
    "20 kB, then closed": "finish",
    "SHUT_WR": "shut-write",
    "SHUT_RDWR": "shut-both",
    "device killed": "kill",
}
LINK_ENDS = ["own adapter off", "its adapter off"]
OUTLIVED = ["daemon killed", "controllers stopped"]
OWN_ENDS = ["disconnect", "dispose"]
ENDS = [*DEVICE_ENDS, *LINK_ENDS, *OUTLIVED, *OWN_ENDS]

# Up to where the device takes the exchange, so that the prober waits at a step.
STEPS = {
    "connecting": "deferring",
    "greeting wait": "silent",
    "ready wait": "greeting",
    "reply wait": "ready",
}
# By what the device has heard the prober is at a step.
HEARD = {"ready wait": f"auth={SECRET}", "reply wait": "rssi"}
# The device says a word and ends the stream while the host is held, so that both
# are there when the prober goes on: it reads the word, then it writes, or ends its
# own half. That ends both directions, so nobody else can meet its last wait.
LAST_WORDS = {
    "sending auth": ("greeting wait", "greeting"),
    "sending rssi": ("ready wait", "ready"),
    "draining": ("reply wait", "reply"),
}
FAILURES = {
    "greeting wait": "greeting timeout",
    "sending auth": "send auth",
    "ready wait": "ready timeout",
    "sending rssi": "send rssi",
    "reply wait": "rssi timeout",
}
# A line that leaves before the end arrives is sent, and the wait after it fails.
WAITS_AFTER = {"sending auth": "ready wait", "sending rssi": "reply wait"}

# Of the connections in a row.
WARM_UP = 20  # by then the allocator has what it needs
MEMORY_EACH = 0.5  # kB: the embedding keeps a record per channel name
MEMORY_SLACK = 100  # kB


class Frozen(Failure):
    """The host does not answer."""


class Tally:
    """What came of the tries of one thing."""

    def __init__(self):
        self.seen = []  # a pair for each that went as it must
        self.failed = 0
        self.frozen = 0

    def slowest(self, which):
        return max((pair[which] for pair in self.seen), default=0)

    def text(self, text):
        words = [f"{len(self.seen)} x {text}"] if self.seen else []
        words += [f"{self.frozen} FROZEN"] if self.frozen else []
        words += [f"{self.failed} FAILED"] if self.failed else []
        return ", ".join(words) or "-"


class Streams(Emulated):
    def __init__(self, options):
        super().__init__(options)
        self.cells = collections.defaultdict(Tally)
        self.probes = collections.defaultdict(Tally)
        self.held = None  # descriptors and threads of a host without a connection
        self.bare = None  # and after its dispose

    # The host.

    def start_host(self, **environment):
        environment.update(self.options.environment)
        self.host = Host(self.options.host, shows_bytes=False, **environment)
        self.opened = 0
        self.host.call("getState")

    def end_host(self):
        status = self.host.end()
        check(status == 0, f"lumso_host ended with status {status}")
        ends = collections.Counter(
            item["channel"] for item in self.host.lines if "endOfStream" in item
        )
        check(max(ends.values(), default=1) == 1, f"a stream ended more than once: {ends}")

    @contextlib.contextmanager
    def unless_frozen(self):
        try:
            yield
        except Failure as failure:
            raise Frozen(f"it is frozen: {failure}") from failure

    def answers(self, since, count):
        with self.unless_frozen():
            return self.host.answers(since, count, FROZEN_LIMIT, "answer")

    def is_off_bus(self):
        descriptors, _ = self.host.resources()
        return "socket" not in descriptors

    def ask_daemon(self):
        self.host.call("getBondState", {"address": self.device}, FROZEN_LIMIT)

    def note_resources(self):
        """Notes what a host holds. GDBus's thread keeps what the last call used
        until it wakes again, so the least of several looks counts."""
        self.connect_once()
        looks = []
        for _ in range(5):
            self.ask_daemon()
            looks.append(self.host.resources())
        self.held = min(looks, key=lambda look: sum(look[0].values()))
        check(self.host.ask("dispose", "dispose", 10) is True, "dispose was not answered")
        self.wait_until(self.is_off_bus, 5, "end of the bus connection")
        self.bare = self.host.resources()
        self.end_host()
        show(f"  = {self.held}, {self.bare}")

    def comes_back_to(self, wanted):
        """The host must come to hold that, and no more."""

        def does():
            if self.host.resources() == wanted:
                return True
            if wanted != self.bare:
                self.ask_daemon()
            return False

        try:
            self.wait_until(does, 2, "return to that")
        except Failure as failure:
            held = self.host.resources()
            raise Failure(f"the host held {wanted} and holds {held}: {failure}") from failure

    def is_writing(self):
        return self.is_asleep_in("sock_alloc_send_pskb")

    # The ends.

    def tell_peer(self, end, line):
        """Tells the peer a line that brings the end about."""
        if end == "device killed":
            told = len(self.peer.lines)
            self.peer.tell(line)
            self.peer.listens(told)
        else:
            self.peer.obey(line)

    def bring_unseen(self, end, line):
        """Holds the host while the device sends its last and ends the stream, so
        that the host finds both at once."""
        os.kill(self.host.process.pid, signal.SIGSTOP)
        self.tell_peer(end, line)
        self.wait_until(lambda: self.socket_state() == CLOSED, 5, "end of the stream")
        os.kill(self.host.process.pid, signal.SIGCONT)

    def bring(self, end):
        if end in DEVICE_ENDS:
            self.tell_peer(end, DEVICE_ENDS[end])
        elif end == "own adapter off":
            self.bluez.set_adapter(self.own_adapter, Powered=False)
        elif end == "its adapter off":
            self.bluez.set_adapter(self.peer_adapter, Powered=False)
        elif end == "daemon killed":
            self.kill_daemon()
        elif end == "controllers stopped":
            self.vanish()

    def mend(self, end):
        """Makes the stack what it was before the end."""
        self.peer.obey("close")
        if self.stopped:
            self.come_back()
        if end == "own adapter off":
            self.bluez.set_adapter(self.own_adapter, Powered=True)
        elif end == "its adapter off":
            self.bluez.set_adapter(self.peer_adapter, Powered=True)
        elif end == "daemon killed":
            self.start_daemon()
            self.bluez.ready_adapters(2)

    def begin_again(self):
        """Ends the host on which something failed, and mends everything."""
        self.host.kill()
        if self.stopped:
            self.come_back()
        if not self.bluez.adapters():
            self.start_daemon()
        self.bluez.ready_adapters(2)
        self.peer.obey("close")

    def attempt(self, tally, end, what, work, *arguments):
        """Does the work, which brings the end about and returns what to note.
        Returns whether all went as it must."""
        with self.step(f"{what}; {end}"):
            try:
                tally.seen.append(work(*arguments))
            except Failure as failure:
                if isinstance(failure, Frozen):
                    tally.frozen += 1
                else:
                    tally.failed += 1
                if not self.options.count:
                    raise
                show(f"  FAILED: {failure}")
                self.begin_again()
                return False
            self.mend(end)
            return True

    # Connections.

    def connect_once(self):
        connection, _ = self.reopen(CONNECT_LIMIT)
        self.echo(connection, SPOKEN)
        self.shut(connection)

    def enter(self, state, connection, since):
        """Brings a connection into its state. Returns the number of the line from
        which on the answer of a write comes, if one waits."""
        if state == "idle":
            self.echo(connection, SPOKEN)
        elif state == "receiving":
            channel = f"lumso_bluetooth/read/{connection}"
            self.host.wait(lambda: self.host.on_channel(channel, since), 5, "flood")
        else:
            asked = len(self.host.lines)
            data = os.urandom(WRITE_SIZE).hex()
            self.host.tell(f'call write {{"id": {connection}, "bytes": {{"uint8": "{data}"}}}}')
            self.wait_until(self.is_writing, 5, "write that waits")
            return asked
        return None

    def check_alive(self, state, connection):
        """The end was none: what was under way goes on."""
        if state in ("idle", "receiving"):
            self.enter(state, connection, len(self.host.lines))
        else:
            check(self.is_writing(), "the write does not wait any more")

    def leave(self, end, state, connection, asked):
        """Disconnects, or disposes of the plug-in, and returns the seconds that
        it took.

        A write that waits holds the main thread, so that neither can begin. It is
        asked for all the same, then the device reads on (controllers that were
        stopped go on before that; trouble.py waits for the kernel's 30 s), and the
        time counts from the answer of the write.
        """
        line = "dispose" if end == "dispose" else f'call disconnect {{"id": {connection}}}'
        since = len(self.host.lines) if asked is None else asked
        began = time.monotonic()
        self.host.tell(line)
        ended = end not in OUTLIVED + OWN_ENDS
        if asked is not None and not ended:
            check(self.is_writing(), "the write does not wait any more")
            if self.stopped:
                self.come_back()
            if state == "blocked write":
                self.peer.obey("become silent")
        *written, (left, moment) = self.answers(since, 1 if asked is None else 2)
        for answer, written_at in written:
            check(answer.get("result") is (not ended), f"the write was answered with {answer}")
            began = max(began, written_at)
        check(True in (left.get("result"), left.get("dispose")), f"{line} gave {left}")
        return moment - began

    def check_bytes(self, end, channel, since, told):
        """What came is what the device sent, and all of it if it ended in order."""
        received = self.host.received(channel, since)
        echo = SPOKEN * received.count(SPOKEN)
        rest = pattern(len(echo), len(received) - len(echo))
        check(received == echo + rest, "what came is not what the device sent")
        if end in DEVICE_ENDS and end != "device killed":
            sent = self.peer.saw(lambda item: "sent" in item, "count of bytes", told)["sent"]
            check(len(received) == sent, f"{len(received)} of {sent} bytes came")
            check(end != "20 kB, then closed" or sent >= FINISH_SIZE, f"it sent {sent} bytes")

    def end_one(self, end, state):
        """One connection: into its state, to its end and out again. Returns the
        seconds that the disconnect took, and how often the stream ended."""
        since = len(self.host.lines)
        told = len(self.peer.lines)
        at_once = end == AT_ONCE
        ended = end not in OUTLIVED + OWN_ENDS
        self.peer.mode(f"{STATES[state]} close" if at_once else STATES[state])
        connection, _ = self.reopen(CONNECT_LIMIT)
        channel = f"lumso_bluetooth/read/{connection}"
        asked = None
        if not at_once:
            asked = self.enter(state, connection, since)
            # Once so that all of it is still queued when the end comes.
            if end == "20 kB, then closed" and state == "idle":
                self.bring_unseen(end, DEVICE_ENDS[end])
            else:
                self.bring(end)
        if end == "daemon killed":
            self.check_alive(state, connection)
        if ended:
            with contextlib.suppress(Failure):  # they are counted below
                self.host.end_of_stream(channel, 2, since)
        took = self.leave(end, state, connection, asked)

        flooded = state == "receiving" and not ended
        limit = FLOODED_LIMIT if flooded else DISCONNECT_LIMIT
        check(took <= limit, f"it took {took * 1000:.0f} ms")
        disposed = end == "dispose"
        key = "notImplemented" if disposed else "result"
        self.host.ask("call getState", key, FROZEN_LIMIT)
        self.comes_back_to(self.bare if disposed else self.held)
        ends = self.host.ends_of_stream(channel, since)
        check(ends == ended, f"the stream ended {ends} times")
        self.check_bytes(end, channel, since, told)
        show(f"  = {took * 1000:.1f} ms, {ends} ends of stream")
        if disposed:
            self.end_host()
            self.start_host()
        return took, ends

    def end_all(self):
        for end in ENDS:
            # At once is before anything else could begin.
            states = ["idle"] if end == AT_ONCE else STATES
            for state in states:
                for _ in range(self.options.rounds):
                    tally = self.cells[end, state]
                    if not self.attempt(tally, end, state, self.end_one, end, state):
                        self.start_host()
        self.end_host()

    # The prober.

    def is_at(self, step, told):
        if step in HEARD:
            return any(item.get("line") == HEARD[step] for item in self.peer.lines[told:])
        return self.socket_state() == (CONNECTING if step == "connecting" else CONNECTED)

    def outcome(self):
        """What the prober said, or the reading; None before that."""
        logged = [item["unreadable"] for item in self.host.lines if "unreadable" in item]
        for line in self.host.errors + logged:
            if PROBE_LINE in line:
                return line.split(f"{PROBE_LINE}{self.device} ", 1)[1]
        for item in self.host.lines:
            if "channel" in item and item["event"].get("type") == "rssiUpdate":
                return f"reading {item['event']['rssi']}"
        return None

    def wanted_outcome(self, step, end):
        if step == "draining" or end == "daemon killed":
            return f"reading {READING}"
        if step != "connecting":
            return f"fail 1/2: {FAILURES[step]}"
        if end in LINK_ENDS or end == AT_ONCE:
            return "fail 1/2: connect: Connection reset by peer"
        if end == "controllers stopped":
            return "fail 1/2: connect timeout"
        return "transient: connect: Connection refused"

    def probe_one(self, step, end):
        """The first probe of a new host, to its step and to the end. Returns the
        seconds until the outcome, and from there to the answer of dispose.

        Dispose is asked for while the probe is at its step, and waits for its
        outcome. Only where that is a reading, which the application gets, it is
        asked for afterwards: then it waits for the end of the prober's rest.
        """
        at_once = end == AT_ONCE
        at, word = (step, "silent") if at_once else LAST_WORDS.get(step, (step, None))
        reads = end == "daemon killed" or step == "draining"
        self.drop_link()
        self.start_host(G_MESSAGES_DEBUG="all")
        told = len(self.peer.lines)
        self.peer.mode(STEPS[at])
        self.host.call("setAuthSecret", {"secret": SECRET})
        self.peer.saw(lambda item: item.get("peer") == "accepted", "probe", told)
        self.wait_until(lambda: self.is_at(at, told), 5, f"probe at {at}")

        asked = len(self.host.lines)
        if not reads:
            self.host.tell("dispose")
        began = time.monotonic()
        if word:
            self.bring_unseen(end, f"become {word} {DEVICE_ENDS[end]}")
        else:
            self.bring("device closes" if end == "dispose" else end)
        if end == "daemon killed":
            self.peer.obey("become reply close")
        with self.unless_frozen():
            outcome = self.host.wait(self.outcome, FROZEN_LIMIT, "outcome of the probe")
        known = time.monotonic()
        wanted = [self.wanted_outcome(step, end)]
        if step in WAITS_AFTER and not reads:
            wanted.append(f"fail 1/2: {FAILURES[WAITS_AFTER[step]]}")
        check(outcome in wanted, f"the outcome was '{outcome}', not {wanted}")
        limit = SILENCE_LIMIT if end == "controllers stopped" else END_LIMIT
        check(known - began <= limit, f"it took {known - began:.1f} s")
        if reads:
            descriptors, threads = self.held
            self.comes_back_to((descriptors, sorted([*threads, "lumso-prober"])))
            asked = len(self.host.lines)
            self.host.tell("dispose")
        ((answer, disposed),) = self.answers(asked, 1)
        check(answer == {"dispose": True}, f"dispose gave {answer}")
        check(disposed - known <= DISPOSE_LIMIT, f"dispose took {disposed - known:.1f} s")
        self.comes_back_to(self.bare)
        self.end_host()
        show(f"  = {outcome}")
        return known - began, max(0, disposed - known)

    def probe_all(self):
        cells = [(step, end) for step in STEPS for end in ENDS if self.exists(step, end)]
        cells += [(step, end) for step in LAST_WORDS for end in DEVICE_ENDS if end != AT_ONCE]
        for step, end in cells:
            for _ in range(self.options.probes):
                self.attempt(self.probes[step, end], end, step, self.probe_one, step, end)

    def exists(self, step, end):
        """A prober has nothing to disconnect; a device that has not accepted yet
        can send nothing, and when it accepts is at once."""
        return end != "disconnect" and (
            end != "20 kB, then closed" if step == "connecting" else end != AT_ONCE
        )

    # Many connections.

    def memory(self):
        """The kilobytes that the host alone wrote: heap and stacks. Pages of files
        that come and go are not among them."""
        rollup = pathlib.Path(f"/proc/{self.host.process.pid}/smaps_rollup").read_text()
        return int(rollup.split("Private_Dirty:")[1].split()[0])

    def in_a_row(self):
        count = self.options.connections
        if not count:
            self.leave_out("connections in a row")
            return
        with self.step(f"{count} connections in a row: nothing grows"):
            self.peer.mode("echo")
            self.start_host()
            for _ in range(WARM_UP):
                self.connect_once()
            before = self.memory()
            for _ in range(count):
                self.connect_once()
            self.comes_back_to(self.held)
            grown = self.memory() - before
            self.figures.append((f"heap and stacks, {count} connections", f"+{grown} kB"))
            limit = MEMORY_SLACK + MEMORY_EACH * count
            check(grown <= limit, f"it grew by {grown} kB, not at most {limit} kB")
            self.end_host()

    def run(self):
        slow_controllers()
        self.start_bonded()
        with self.step("What a host holds, and what is left of that after dispose"):
            self.note_resources()
            self.start_host()
        self.end_all()
        self.in_a_row()
        self.probe_all()
        tallies = [*self.cells.values(), *self.probes.values()]
        failed = sum(tally.failed + tally.frozen for tally in tallies)
        check(not failed, f"{failed} tries failed or froze")

    def close(self):
        super().close()
        show("\nTries x the slowest disconnect, ends of stream:")
        show(f"  {'':23}" + "".join(f"{state:<26}" for state in STATES))
        for end in ENDS:
            row = f"  {end:<23}"
            for state in STATES:
                cell = self.cells[end, state]
                ends = sum(ends for _, ends in cell.seen)
                row += f"{cell.text(f'{cell.slowest(0) * 1000:.1f} ms, {ends}'):<26}"
            show(row)
        for text, shown in self.figures:
            show(f"  {text}: {shown}")
        show("\nProbes: tries x the outcome, the slowest, the slowest dispose after it:")
        for (step, end), tally in self.probes.items():
            outcome = tally.text(self.wanted_outcome(step, end))
            times = f"{tally.slowest(0):.2f} s {tally.slowest(1):.2f} s"
            show(f"  {step:<15}{end:<23}{outcome:<52}{times}")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--host", required=True, help="the program lumso_host")
    parser.add_argument("--rounds", type=int, default=2, help="tries of each end in each state")
    parser.add_argument("--probes", type=int, default=1, help="tries of each end at each step")
    parser.add_argument(
        "--connections", type=int, default=30, help="how many in a row, for the memory; 0: none"
    )
    parser.add_argument(
        "--environment",
        action="append",
        default=[],
        metavar="NAME=VALUE",
        type=lambda text: text.split("=", 1),
        help="for the host, beside its own",
    )
    parser.add_argument(
        "--count", action="store_true", help="count what fails or freezes, and go on"
    )
    return parser.parse_args()


if __name__ == "__main__":
    sys.exit(play(Streams(parse_arguments())))
