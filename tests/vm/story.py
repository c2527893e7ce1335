#!/usr/bin/python3
"""Drives lumso_host through everything the plug-in does, on a real stack.

Shows every request, answer and event, and fails at the first thing that is not
as it must be. Without --here it is meant for the virtual machine (see run): of
the daemon's two adapters the plug-in takes one, and the other, with peer.py on
it, plays the device. With --here ADDRESS it uses the machine's own adapter and
the device with that address; steps that need a hand on the device's side are
then left out, each with a line that says so.
"""

import argparse
import contextlib
import os
import pathlib
import sys
import time

from gi.repository import GLib

from bluez import Bluez
from programs import Failure, Host, Peer, Program, Rounds, show

DISCOVERY = "lumso_bluetooth/discovery"
STATE = "lumso_bluetooth/state"
PEER_NAME = "VELKAN-0001"  # begins with one of the prober's prefixes
SECRET = "s3cret of the demo"
READING = -57
CYCLE_PAUSE = 30  # seconds between two rounds of the prober
PROBE_LINE = "lumso_bluetooth: RSSI probe "


def check(condition, text):
    if not condition:
        raise Failure(text)


def same(value, wanted):
    """Equal, and of one type: 1 is not true."""
    return type(value) is type(wanted) and value == wanted


class Story:
    def __init__(self, options):
        self.options = options
        self.here = options.here is not None
        self.bluez = Bluez()
        self.host = None
        self.peer = None
        self.rounds = None
        self.device = options.here
        self.own_address = None
        self.peer_adapter = None
        self.bonded_here = False
        self.current = "start"
        self.steps = 0
        self.left_out = []

    @contextlib.contextmanager
    def step(self, text):
        self.current = text
        show(f"\n== {text}")
        yield
        self.steps += 1

    def leave_out(self, text):
        show(f"\n-- left out: {text}")
        self.left_out.append(text)

    def with_device(self, method, seconds=30):
        return self.host.call(method, {"address": self.device}, seconds)

    def expect(self, method, wanted, arguments=None, seconds=30):
        result = self.host.call(method, arguments, seconds)
        check(same(result, wanted), f"{method} answered {result!r} instead of {wanted!r}")

    def expect_in_time(self, method, wanted, seconds=10):
        deadline = time.monotonic() + seconds
        while not same(self.host.call(method), wanted):
            check(time.monotonic() < deadline, f"{method} did not become {wanted!r}")
            time.sleep(0.2)

    # The parts, in the order of run().

    def start(self):
        with self.step("The stack is up, lumso_host starts"):
            adapters = self.bluez.adapters() if self.here else self.bluez.ready_adapters(2)
            check(adapters, "the Bluetooth daemon shows no adapter")
            self.start_host()
        with self.step("An adapter is available"):
            self.expect("isAvailable", True)
        with self.step("Its address and name are the daemon's"):
            address = self.host.call("getAddress")
            own = {path: item for path, item in adapters.items() if item["Address"] == address}
            check(own, f"no adapter of the daemon has the address {address!r}")
            (own,) = own.values()
            self.expect("getName", own["Name"])
        with self.step("It is on"):
            self.expect("getState", 12)
            self.expect("isOn", True)
        with self.step("The state stream tells so at once"):
            self.host.listen(STATE)
            self.host.event(STATE, lambda value: value == 12, 5, "state event 12")
        self.own_address = address
        if not self.here:
            ((self.peer_adapter, other),) = [
                entry for entry in adapters.items() if entry[1]["Address"] != address
            ]
            self.device = other["Address"]
            self.start_peer()

    def start_host(self):
        self.host = Host(self.options.host)

    def start_peer(self):
        with self.step("The other adapter plays the device"):
            self.bluez.set_adapter(self.peer_adapter, Alias=PEER_NAME)
            self.launch_peer()

    def launch_peer(self):
        script = pathlib.Path(__file__).with_name("peer.py")
        self.peer = Peer(str(script), self.device, SECRET, READING)

    def is_device(self, event):
        return event.get("device", {}).get("address") == self.device

    def discover(self):
        with self.step("Discovery starts"):
            self.host.listen(DISCOVERY)
            self.expect("startDiscovery", True)
            since = self.host.mark
        with self.step("The device is reported with its name and signal strength"):
            found = self.host.event(
                DISCOVERY,
                lambda event: self.is_device(event)
                and event["device"]["name"]
                and event["device"]["rssi"] < 0,
                60,
                f"discovery event of {self.device} with a name and a signal strength",
                since,
            )["device"]
            if self.peer:
                check(found["name"] == PEER_NAME, f"the device's name is {found['name']!r}")
            self.expect_in_time("isDiscovering", True)
        with self.step("The device list holds it"):
            devices = self.host.call("getDiscoveredDevices")
            check(
                any(item["address"] == self.device for item in devices),
                f"{self.device} is not in the list",
            )

    def bond(self):
        with self.step("The bond state can be asked"):
            state = self.with_device("getBondState")
            check(state in ([10, 12] if self.here else [10]), f"the bond state is {state!r}")
        if state == 12:
            self.leave_out("bonding: the device is bonded already")
        else:
            with self.step("The device is bonded"):
                check(self.with_device("bondDevice", 70) is True, "bondDevice failed")
                self.bonded_here = True
        with self.step("Bond state and bonded list show it"):
            state = self.with_device("getBondState")
            check(state == 12, f"the bond state is {state!r}")
            bonded = [item["address"] for item in self.host.call("getBondedDevices")]
            check(self.device in bonded, f"{self.device} is not in the list of bonded devices")

    def reading(self):
        with self.step("With the secret set, the device's own reading arrives"):
            if self.peer:
                self.peer.mode("reply close")
                self.rounds = Rounds(self.bluez.name_of_process(self.host.process.pid))
            secret = SECRET if self.peer else self.options.secret
            check(
                self.host.call("setAuthSecret", {"secret": secret}) is None,
                "setAuthSecret did not answer null",
            )
            update = self.host.event(
                DISCOVERY,
                lambda event: event.get("type") == "rssiUpdate"
                and event.get("address") == self.device,
                20,
                f"rssiUpdate of {self.device}",
            )
            reading = READING if self.peer else update.get("rssi")
            check(
                update == {"type": "rssiUpdate", "address": self.device, "rssi": reading},
                f"the reading came as {update}",
            )

    def connect(self, wanted_id):
        connection = self.with_device("connect", 60)
        check(same(connection, wanted_id), f"the id is {connection!r} instead of {wanted_id}")
        self.host.listen(f"lumso_bluetooth/read/{connection}")
        return connection

    def bytes_for(self, connection, data):
        return {"id": connection, "bytes": {"uint8": data.hex()}}

    def write(self, connection, data):
        self.expect("write", True, self.bytes_for(connection, data), 60)

    def echo(self, connection, data):
        since = len(self.host.lines)
        channel = f"lumso_bluetooth/read/{connection}"
        self.write(connection, data)
        self.host.wait(
            lambda: len(self.host.received(channel, since)) >= len(data),
            30,
            f"echo of all {len(data)} bytes",
        )
        check(self.host.received(channel, since) == data, "the echo differs from what was sent")

    def converse(self):
        if self.peer:
            self.peer.mode("echo")
        with self.step("Connected: the first id is 1"):
            connection = self.connect(1)
        if self.peer:
            with self.step("Text is written and comes back"):
                self.echo(connection, "Grüße from the host\r\n".encode())
            with self.step("100 kB of arbitrary bytes in one write come back"):
                self.echo(connection, os.urandom(100_000))
            with self.step("The device closes: end of stream, and nothing more can be written"):
                since = len(self.host.lines)
                self.peer.tell("close")
                self.host.end_of_stream(f"lumso_bluetooth/read/{connection}", 10, since)
                self.expect("write", False, self.bytes_for(connection, b"x"))
        else:
            with self.step("Text is written"):
                self.write(connection, b"hello from lumso_host\r\n")
            self.leave_out("echo of text and of 100 kB: the device need not send back what it gets")
            self.leave_out("end of stream: it needs a hand on the device to close the connection")
        with self.step("Disconnected, once"):
            self.expect("disconnect", True, {"id": connection})
            self.expect("disconnect", False, {"id": connection})

    def unbond(self):
        if not self.bonded_here:
            self.leave_out("removing the bond: it was there before, and stays")
            return
        with self.step("The bond is removed"):
            check(self.with_device("removeDeviceBond") is True, "removeDeviceBond failed")
            state = self.with_device("getBondState")
            check(state == 10, f"the bond state is {state!r}")
            # The device forgets it as well, as a device must before it can be
            # reached again: with one half of a bond left, connecting fails.
            if self.peer:
                self.bluez.forget(self.peer_adapter, self.own_address)

    def stop_discovery(self):
        with self.step("Discovery is cancelled"):
            self.expect("cancelDiscovery", True)
            # The adapter's own word follows with a signal of the daemon.
            self.expect_in_time("isDiscovering", False)

    def probe_lines(self):
        return [line.split(PROBE_LINE, 1)[1] for line in self.host.errors if PROBE_LINE in line]

    def skip(self):
        with self.step("The prober passes over what is connected to (half a minute)"):
            connection = self.connect(2)
            accepted = self.peer.accepted()
            self.rounds.wait_for_next(CYCLE_PAUSE + 5)
            # A probe would follow at once: an accepted connection, or, as the
            # channel is taken, a line about its failure.
            time.sleep(2)
            check(self.peer.accepted() == accepted, "the device was probed")
            check(not self.probe_lines(), f"a probe was tried: {self.probe_lines()}")
            self.echo(connection, b"still open")
            self.expect("disconnect", True, {"id": connection})

    def lose(self):
        with self.step("The device stops answering: it is lost after two rounds (a minute)"):
            self.peer.mode("silent")
            since = self.host.mark
            lost = self.host.event(
                DISCOVERY,
                lambda event: event.get("type") == "deviceLost",
                3 * (CYCLE_PAUSE + 5),
                "deviceLost",
                since,
            )
            check(
                lost == {"type": "deviceLost", "address": self.device},
                f"deviceLost came as {lost}",
            )
            # Standard error is a stream of its own and may come later.
            self.host.wait(lambda: len(self.probe_lines()) >= 2, 10, "warnings of the prober")
            wanted = [f"{self.device} fail {count}/2: greeting timeout" for count in (1, 2)]
            check(self.probe_lines() == wanted, f"the failures were {self.probe_lines()}")

    def end(self):
        with self.step("The streams are cancelled, the plug-in is disposed"):
            self.host.cancel(DISCOVERY)
            self.host.cancel(STATE)
            check(self.host.ask("dispose", "dispose", 30) is True, "dispose was not answered")
            status = self.host.end()
            check(status == 0, f"lumso_host ended with status {status}")

    def run(self):
        prober = not self.options.without_prober
        self.start()
        self.discover()
        self.bond()
        if prober and (self.peer or self.options.secret):
            self.reading()
        elif prober:
            self.leave_out("the prober's reading: it needs the device's secret (--secret)")
        self.converse()
        self.stop_discovery()
        # The bond keeps the device in the daemon's list for the prober.
        if prober and self.peer:
            self.skip()
            self.lose()
        elif prober:
            self.leave_out("the prober's skipping and losing: they need a hand on the device")
        self.unbond()
        self.end()

    def close(self):
        for program in (self.host, self.peer, self.rounds):
            if program:
                program.kill()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--host", required=True, help="the program lumso_host")
    parser.add_argument(
        "--here",
        metavar="ADDRESS",
        type=str.upper,
        help="use this machine's own adapter and the device with this address",
    )
    parser.add_argument("--secret", help="with --here: the device's secret, to ask for a reading")
    parser.add_argument(
        "--without-prober", action="store_true", help="leave out what takes the prober's rounds"
    )
    return parser.parse_args()


def play(story):
    """Runs a scenario, shows how it ended and returns the exit status. What a
    sanitizer says fails it, whatever the steps made of it."""
    began = time.monotonic()
    failed = False
    try:
        story.run()
    except (Failure, OSError, LookupError, GLib.Error) as failure:
        show(f"\nFAILED at step '{story.current}': {failure}")
        failed = True
    finally:
        story.close()
    for report in Program.reports:
        show(f"FAILED: {report}")
    if failed or Program.reports:
        return 1
    for text in story.left_out:
        show(f"left out: {text}")
    show(f"\nAll {story.steps} steps were seen, in {time.monotonic() - began:.0f} s.")
    return 0


if __name__ == "__main__":
    sys.exit(play(Story(parse_arguments())))
