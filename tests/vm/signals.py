#!/usr/bin/python3
"""Drives lumso_host in a storm of signals, on a real stack.

A handler that runs while the kernel connects ends the call, and not the attempt:
every connect is interrupted and must succeed all the same. The library's own
threads take no signals but those of their own faults, and the host's thread takes
those that it took. The signals that end the host wait for a connect, or end it.
Meant for the virtual machine (see run).
"""

import argparse
import pathlib
import signal
import sys

from emulated import Emulated, slow_controllers
from programs import Host
from story import SECRET, check, play, same

CONNECTS = 20
# Which one depends on what the compiler made of the kernel: of 6.12, of 7.2.
ASLEEP_IN_POLL = ("do_sys_poll", "poll_schedule_timeout")
# What nobody can block: the kernel leaves two signals out, and the C library two
# that are its own.
UNBLOCKABLE = (signal.SIGKILL, signal.SIGSTOP, 32, 33)
# What stays open on every thread: the host's crash handler hears of these.
FAULTS = (signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGTRAP,
          signal.SIGSYS, signal.SIGABRT)
HOSTS_BLOCKED = (1 << 64) - 1 - sum(1 << number - 1 for number in UNBLOCKABLE + FAULTS)

WAITS = (
    "lumso_host: waits for call connect (about 30 s at most), then ends; "
    "another signal ends it at once"
)


class Signals(Emulated):
    def start_host(self):
        self.host = Host(self.options.host, LD_PRELOAD=self.options.storm)

    def blocked(self):
        """The signals that each thread of the host has blocked, by its name."""
        masks = {}
        for task in pathlib.Path(f"/proc/{self.host.process.pid}/task").iterdir():
            status = task.joinpath("status").read_text()
            fields = dict(line.split(":\t", 1) for line in status.splitlines())
            masks[fields["Name"]] = int(fields["SigBlk"], 16)
        return masks

    def begin_connect(self):
        """Until the call was interrupted and the library waits for the outcome:
        the device does not accept yet."""
        self.wait_for_end()
        told = len(self.peer.lines)
        self.peer.mode("deferring")
        self.host.tell(f'call connect {{"address": "{self.device}"}}')
        self.peer.saw(lambda item: item.get("peer") == "accepted", "connect", told)
        self.wait_until(lambda: self.is_asleep_in(*ASLEEP_IN_POLL), 5, "wait for the outcome")

    def connect_interrupted(self):
        since = len(self.host.lines)
        self.begin_connect()
        self.peer.obey("become echo")
        answer = self.host.answer(since, 5, "answer to connect")
        self.opened += 1
        check(same(answer.get("result"), self.opened), f"connect was answered with {answer}")
        self.host.listen(f"lumso_bluetooth/read/{self.opened}")
        self.echo(self.opened, b"in the storm")
        return self.opened

    def end_while_connecting(self, number):
        """Sends a new host a signal that ends it, and hears what it waits for."""
        self.start_host()
        self.begin_connect()
        self.host.process.send_signal(number)
        self.host.wait(lambda: WAITS in self.host.errors, 5, f"line '{WAITS}'")

    def run(self):
        slow_controllers()
        self.start_bonded()
        before = self.blocked()
        # Once only: the daemon, which looks for the device's services meanwhile, sets up
        # anew what is dropped under it.
        self.drop_link()
        with self.step(f"{CONNECTS} connects, all interrupted, succeed"):
            for _ in range(CONNECTS - 1):
                self.shut(self.connect_interrupted())
            connection = self.connect_interrupted()
        with self.step("The library's threads take no signals but of faults, others as before"):
            self.host.call("setAuthSecret", {"secret": SECRET})
            self.wait_until(lambda: "lumso-prober" in self.blocked(), 5, "prober")
            own = {"lumso-reader": HOSTS_BLOCKED, "lumso-prober": HOSTS_BLOCKED}
            blocked = self.blocked()
            check(blocked == {**before, **own}, f"blocked: {blocked}, before: {before}")
            check(before["lumso_host"] == 0, f"the host blocks signals: {before}")
            self.shut(connection)
        with self.step("The plug-in is disposed"):
            check(self.host.ask("dispose", "dispose", 30) is True, "dispose was not answered")
            status = self.host.end()
            check(status == 0, f"lumso_host ended with status {status}")
            # The prober may have met the channel while it closed.
            said = [line for line in self.host.errors if line and "RSSI probe" not in line]
            check(not said, f"standard error says {said}")
        with self.step("A signal that ends the host waits for the connect, which succeeds"):
            self.end_while_connecting(signal.SIGTERM)
            since = len(self.host.lines)
            self.peer.obey("become echo")
            answer = self.host.answer(since, 5, "answer to connect")
            check(same(answer.get("result"), 1), f"connect was answered with {answer}")
            status = self.host.process.wait(5)
            check(status == 0, f"lumso_host ended with status {status}")
        with self.step("A second one ends it at once"):
            self.end_while_connecting(signal.SIGINT)
            with self.measured("second signal to the host's end", 1):
                self.host.process.send_signal(signal.SIGINT)
                status = self.host.process.wait(5)
            check(status == 130, f"lumso_host ended with status {status}")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--host", required=True, help="the program lumso_host")
    parser.add_argument("--storm", required=True, help="the library that makes the signals")
    return parser.parse_args()


if __name__ == "__main__":
    sys.exit(play(Signals(parse_arguments())))
