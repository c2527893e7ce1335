#!/usr/bin/python3
"""Drives lumso_host through what goes wrong, on a real stack.

Peers that refuse, are absent or vanish, a daemon that dies, an adapter that is
switched off: each step states what the application and standard error get to
see, and within which time. It ends with a table of the times that were
measured. Meant for the virtual machine (see run).
"""

import argparse
import hashlib
import os
import socket
import sys
import time

from gi.repository import GLib

from bluez import ADAPTER, DEVICE
from emulated import Emulated, silent_controller, slow_controllers
from peer import SINK_SIZE
from programs import BusCalls, show
from story import SECRET, STATE, check, play

SERVICE = "8b3f2c1e-5d0a-4f57-9c55-6f3d0e1b7a42"
SERVICE_CHANNEL = 9


class Trouble(Emulated):
    # What several steps do.

    def answered_late(self, address, text, reason):
        """A connect that fails as soon as the controllers answer.

        The emulator is held until connect() waits: it answers in less time than
        any radio, the kernel would miss the wake-up and look 30 s later.
        """
        errors = len(self.host.errors)
        lines = len(self.host.lines)
        self.vanish()
        self.host.tell(f'call connect {{"address": "{address}"}}')
        self.wait_until(
            lambda: self.is_asleep_in("bt_sock_wait_state"), 1, "wait for the connection"
        )
        self.come_back()
        # Of an absent device an emulator from 5.82 on tells after 5.12 s.
        with self.measured(text, 8):
            answer = self.host.answer(lines, 10, "answer to connect")
        self.check_failed(answer.get("error", {}), address, errors, reason)

    def check_failed(self, error, address, since, *reasons):
        wanted = {"code": "ECONN", "message": "RFCOMM connect failed"}
        check(error.items() >= wanted.items(), f"the error is {error}")
        start = f"RFCOMM connect to {address} failed: "
        self.log_line(since, *(start + reason for reason in reasons))

    def connect_fails(self, address, limit, text, *reasons):
        since = len(self.host.errors)
        line = f'call connect {{"address": "{address}"}}'
        with self.measured(text, limit):
            error = self.host.ask(line, "error", limit + 5)
        self.check_failed(error, address, since, *reasons)

    # The parts, in the order of run().

    def start_peer(self):
        with self.step("Nobody listens on the device's channel: refused"):
            self.answered_late(self.device, "connect, refused", "Connection refused")
        with self.step("Nobody has the address: host is down"):
            with silent_controller() as absent:
                self.answered_late(absent, "connect, absent address", "Host is down")
        super().start_peer()

    def reconnect(self):
        with self.step("A connect right after a disconnect"):
            connection = self.open()
            most = (0, 0.0)
            for _ in range(5):
                self.shut(connection)
                began = time.monotonic()
                connection, tries = self.reopen(40)
                most = max(most, (tries, time.monotonic() - began))
            self.figure(f"disconnect to connected again ({most[0]} refused tries)", most[1], 40)
            self.echo(connection, b"connected again")
            self.shut(connection)

    def bulk(self):
        with self.step("A megabyte in one write arrives whole"):
            self.peer.mode("sink")
            connection, _ = self.reopen(40)
            data = os.urandom(SINK_SIZE)
            since = len(self.peer.lines)
            with self.measured("write of 1 MB, until the device has it", 20):
                with self.measured("write of 1 MB, until it is answered", 20):
                    self.write(connection, data)
                sunk = self.peer.saw(lambda item: item.get("peer") == "sunk", "megabyte", since, 20)
            check(sunk["received"] == SINK_SIZE, f"{sunk['received']} bytes arrived")
            digest = hashlib.sha256(data).hexdigest()
            check(sunk["sha256"] == digest, "what arrived differs from what was sent")
            self.shut(connection)
            self.peer.mode("echo")

    def own_entry(self):
        """This adapter's path in the device's own list."""
        return f"{self.peer_adapter}/dev_{self.own_address.replace(':', '_')}"

    def find_back(self):
        """Finds this adapter as a user of the device would."""
        adapter = ("org.bluez", self.peer_adapter, ADAPTER)
        self.bluez.call(*adapter, "StartDiscovery")
        listed = "this adapter in the device's list"
        self.wait_until(lambda: self.own_entry() in self.bluez.objects(), 30, listed)
        self.bluez.call(*adapter, "StopDiscovery")

    def questions(self, method):
        """Watches what the daemon asks the plug-in's agent from now on."""
        name = self.bluez.name_of_process(self.host.process.pid)
        return BusCalls("destination", name, method)

    def pair_from_device(self):
        with self.step("Both sides forget the bond that connecting made"):
            self.expect("getBondState", 12, {"address": self.device})
            self.expect("removeDeviceBond", True, {"address": self.device})
            self.bluez.forget(self.peer_adapter, self.own_address)
            self.expect("getBondState", 10, {"address": self.device})
        with self.step("The device pairs with this adapter, and nobody has to do anything"):
            self.find_back()
            with self.measured("pairing begun by the device", 10):
                self.bluez.call("org.bluez", self.own_entry(), DEVICE, "Pair")
            self.expect("getBondState", 12, {"address": self.device})
            connection, _ = self.reopen(40)
            self.echo(connection, b"bonded")
            self.shut(connection)

    def authorize(self):
        with self.step("A service that needs authorization: the plug-in's agent gives it"):
            connection, _ = self.reopen(40)
            check(self.has_session(), "no session in the kernel's list")
            asked = self.questions("AuthorizeService")
            options = {
                "Name": GLib.Variant("s", "trouble"),
                "Role": GLib.Variant("s", "server"),
                "Channel": GLib.Variant("q", SERVICE_CHANNEL),
                "RequireAuthentication": GLib.Variant("b", False),
                "RequireAuthorization": GLib.Variant("b", True),
            }
            profile = GLib.Variant("(osa{sv})", ("/trouble/profile", SERVICE, options))
            manager = ("org.bluez", "/org/bluez", "org.bluez.ProfileManager1")
            self.bluez.call(*manager, "RegisterProfile", profile)
            with socket.socket(
                socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM
            ) as client:
                client.settimeout(10)
                client.bind((self.device, 0))
                # It is accepted only when the agent has answered.
                with self.measured("authorized connection from the device", 10):
                    client.connect((self.own_address, SERVICE_CHANNEL))
                asked.wait(lambda: asked.count() == 1, 5, "question to the agent")
            profile = GLib.Variant("(o)", ("/trouble/profile",))
            self.bluez.call(*manager, "UnregisterProfile", profile)
            asked.kill()
            self.shut(connection)

    def pair_anew(self):
        with self.step("The device forgot its bond and pairs anew: the agent allows it"):
            self.bluez.forget(self.peer_adapter, self.own_address)
            self.find_back()
            asked = self.questions("RequestAuthorization")
            # Not waited for: the emulator ends this authentication on the asked
            # side only.
            self.bluez.begin("org.bluez", self.own_entry(), DEVICE, "Pair")
            asked.wait(lambda: asked.count() == 1, 10, "question to the agent")
            asked.kill()
            self.wait_until(self.is_bonded_there, 10, "bond on the device's side")
            self.expect("getBondState", 12, {"address": self.device})

    def is_bonded_there(self):
        return self.bluez.objects()[self.own_entry()][DEVICE]["Bonded"]

    def restart_daemon(self):
        with self.step("The daemon is killed: an open connection goes on"):
            connection, _ = self.reopen(40)
            check(self.knows_device(), "the device is not in the list")
            errors = len(self.host.errors)
            self.kill_daemon()
            self.echo(connection, b"without a daemon")
        with self.step("Without a daemon every answer is the neutral one, and quick"):
            with self.measured("getDiscoveredDevices without a daemon", 2):
                self.expect("getDiscoveredDevices", [])
            self.expect("getBondState", 10, {"address": self.device})
            self.expect("bondDevice", False, {"address": self.device})
            self.log_line(errors, f"pair: device not known yet ({self.device})")
        with self.step("The daemon is started again: it is asked and answers"):
            with self.measured("start of the daemon until the device is listed", 30):
                self.start_daemon()
                self.wait_until(self.knows_device, 30, f"{self.device} in the list")
            self.bluez.ready_adapters(2)
            self.expect("getBondState", 12, {"address": self.device})
            self.echo(connection, b"with a new daemon")
            self.shut(connection)
            said = self.host.errors[errors:]
            check(len(said) == 1, f"standard error says {said}")

    def switch_off(self):
        with self.step("The adapter is switched off: state 10, and the stream ends"):
            connection, _ = self.reopen(40)
            since = len(self.host.lines)
            errors = len(self.host.errors)
            began = time.monotonic()
            self.bluez.set_adapter(self.own_adapter, Powered=False)
            self.host.event(STATE, lambda value: value == 10, 10, "state event 10", since)
            self.figure("switched off, until the state event", time.monotonic() - began, 5)
            self.end_of(connection, since, 10)
            self.figure("switched off, until the end of stream", time.monotonic() - began, 5)
            self.log_line(errors, "RFCOMM read error: Connection reset by peer")
            self.expect("isOn", False)
            self.expect("write", False, self.bytes_for(connection, b"x"))
            self.shut(connection)
        with self.step("A connect meanwhile fails at once"):
            self.connect_fails(self.device, 2, "connect, adapter off", "No route to host")
        with self.step("Switched on again: state 12, and a connect works"):
            since = len(self.host.lines)
            with self.measured("switched on, until the state event", 10):
                self.bluez.set_adapter(self.own_adapter, Powered=True)
                self.host.event(STATE, lambda value: value == 12, 10, "state event 12", since)
            connection, _ = self.reopen(40)
            self.echo(connection, b"on again")
            self.shut(connection)

    def recover(self, text):
        self.come_back()
        with self.measured(text, 60):
            connection, _ = self.reopen(60)
            self.echo(connection, b"here again")
        return connection

    def disconnect_vanished(self):
        with self.step("The device vanished: a disconnect answers at once, without a word"):
            connection, _ = self.reopen(40)
            errors = len(self.host.errors)
            self.vanish()
            with self.measured("disconnect from a vanished device", 0.05):
                self.shut(connection)
        with self.step("It is back: a connect works again"):
            self.shut(self.recover("device back, until connected"))
            said = [line for line in self.host.errors[errors:] if "connect to" not in line]
            check(not said, f"standard error says {said}")

    def connect_vanished(self):
        with self.step("A connect to a vanished device fails when the kernel gives up"):
            self.wait_until(lambda: not self.has_session(), 10, "end of the last session")
            self.vanish()
            # The channel's timer and the wait of connect() end at the same time.
            reasons = ("Operation now in progress", "Connection timed out")
            self.connect_fails(self.device, 45, "connect, vanished device", *reasons)
        with self.step("It is back: a connect works again after that, too"):
            self.shut(self.recover("device back after a connect, until connected"))

    def write_vanished(self):
        with self.step("A write to a vanished device fails when the kernel gives up"):
            connection, _ = self.reopen(40)
            errors = len(self.host.errors)
            self.vanish()
            with self.measured("write of 200 kB to a vanished device", 60):
                self.expect("write", False, self.bytes_for(connection, os.urandom(200_000)), 70)
            self.log_line(errors, "RFCOMM write error: Resource temporarily unavailable")
            with self.measured("disconnect after that write", 0.05):
                self.shut(connection)
        with self.step("It is back: a connect works again after the write, too"):
            self.shut(self.recover("device back after a write, until connected"))

    def dispose_while_probing(self):
        with self.step("A vanished device is probed: dispose waits for the end of the probe"):
            check(self.knows_device(), "the device is not in the list")
            self.wait_until(lambda: not self.has_session(), 10, "end of the last session")
            self.wait_until(lambda: self.socket_state() is None, 10, "end of the last socket")
            self.vanish()
            began = time.monotonic()
            self.host.call("setAuthSecret", {"secret": SECRET})
            self.wait_until(self.socket_state, 5, "socket of the prober")
            with self.measured("dispose while a vanished device is probed", 7):
                check(self.host.ask("dispose", "dispose", 10) is True, "dispose was not answered")
            self.host.wait(self.probe_lines, 5, "line of the prober")
            self.figure("probe of a vanished device", time.monotonic() - began, 7)
            said = self.probe_lines()
            check(said == [f"{self.device} fail 1/2: connect timeout"], f"it says {said}")
            status = self.host.end()
            check(status == 0, f"lumso_host ended with status {status}")

    def run(self):
        slow_controllers()
        self.start()
        self.reconnect()
        self.bulk()
        self.pair_from_device()
        self.authorize()
        self.pair_anew()
        self.restart_daemon()
        self.switch_off()
        self.disconnect_vanished()
        self.connect_vanished()
        self.write_vanished()
        self.dispose_while_probing()

    def close(self):
        super().close()
        if self.figures:
            show("\nMeasured:")
        for text, shown in self.figures:
            show(f"  {text:<58} {shown:>8}")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--host", required=True, help="the program lumso_host")
    return parser.parse_args()


if __name__ == "__main__":
    sys.exit(play(Trouble(parse_arguments())))
