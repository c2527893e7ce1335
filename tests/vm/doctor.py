#!/usr/bin/python3
"""Makes what goes wrong with Bluetooth, and lets lumso_doctor find it.

A healthy machine first; then each problem for real, alone, and taken back. The
doctor must name that problem, and no other. Meant for the virtual machine (see
run).
"""

import argparse
import contextlib
import ctypes
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

from gi.repository import Gio, GLib

from bluez import ADAPTER, DEVICE
from programs import Peer, show
from story import SECRET, check, play
from emulated import silent_controller, slow_controllers
from trouble import Trouble

CHANNEL = 1
POLICY = pathlib.Path("/etc/dbus-1/system.d/doctor.conf")
DENIAL = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><policy context="mandatory"><deny send_destination="org.bluez"/></policy></busconfig>
"""
BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
# A terminal would clear itself and turn what follows; the rest looks like a fact.
HOSTILE = 'VELKAN-\u009b2J\u202e"; paired'
HOSTILE_SHOWN = r'"VELKAN-\u009b2J\u202e\"; paired"'
HCI_CHANNEL_USER = 1  # of Linux: the controller is one program's alone
LIMIT = 45  # seconds, whatever hangs
ENDS = 20  # points of the way at which the doctor is ended


class Doctor(Trouble):
    def examine(self, text, *arguments, before=(), **options):
        """Runs the doctor; returns its findings by step."""
        began = time.monotonic()
        command = [*before, self.options.doctor, *arguments, "--json"]
        run = subprocess.run(
            command, capture_output=True, timeout=LIMIT, encoding="utf-8", **options
        )
        for line in run.stdout.splitlines():
            show(f"  < {line}")
        for line in run.stderr.splitlines():
            show(f"  ! {line}")
        self.figure(text, time.monotonic() - began, LIMIT)
        findings = {item["step"]: item for item in map(json.loads, run.stdout.splitlines())}
        problems = any(item["verdict"] == "problem" for item in findings.values())
        check(run.returncode == int(problems), f"the exit status is {run.returncode}")
        tried = "after" in " ".join(findings.get("stream", {}).get("saw", []))
        said = "opening channel 1" in run.stderr
        check(said == tried, f"standard error says {run.stderr!r}")
        return findings

    def finds(self, text, step, means, *arguments, **options):
        """The doctor names one problem, in that step and with those words."""
        with self.step(text):
            findings = self.examine(text, *arguments, **options)
            problems = [item for item in findings.values() if item["verdict"] == "problem"]
            named = [item["step"] for item in problems]
            check(named == [step], f"problems were found in {named}, not in {step}")
            check(means in problems[0]["means"], f"it means {problems[0]['means']!r}")
            return findings

    def healthy(self, text, *arguments, **options):
        with self.step(text):
            # With a device the link itself changes what the daemon lists.
            listed = self.bluez.adapters if arguments else self.bluez.objects
            before = listed()
            findings = self.examine(text, *arguments, **options)
            now = listed()
            check(now == before, f"the doctor changed {before} to {now}")
            doubtful = [step for step, item in findings.items() if item["verdict"] != "ok"]
            check(not doubtful, f"not ok: {doubtful}")
            return findings

    def healthy_in_words(self):
        with self.step("The same in words"):
            run = subprocess.run(
                [self.options.doctor], capture_output=True, timeout=LIMIT, encoding="utf-8"
            )
            lines = run.stdout.splitlines()
            for line in lines:
                show(f"  < {line}")
            last = lines[-1]
            check(last == "Nothing is wrong that can be seen from here.", f"it ends with {last!r}")
            check(run.returncode == 0, f"the exit status is {run.returncode}")

    def listen(self):
        script = pathlib.Path(__file__).with_name("peer.py")
        self.peer = Peer(str(script), self.device, SECRET, -57)

    def start(self):
        # The checkout may lie in a home folder that is closed to other users.
        for folder in pathlib.Path(self.options.doctor).resolve().parents:
            folder.chmod(folder.stat().st_mode | 0o011)
        with self.step("The stack is up; the other adapter plays the device"):
            adapters = self.bluez.ready_adapters(2)
            (self.own_adapter, own), (self.peer_adapter, other) = adapters.items()
            self.own_address, self.device = own["Address"], other["Address"]
            self.bluez.set_adapter(self.peer_adapter, Alias=HOSTILE)
            self.listen()

    def well(self):
        with self.step("A device that nobody has seen yet: no problem"):
            findings = self.examine("a device not seen yet", self.device)
            check(findings["device"]["verdict"] == "cannot tell", "it is known")
            check(findings["stream"]["verdict"] == "ok", "no stream")
            # Which its last line tells how to remove, in words too.
            left = findings["stream"]["saw"][-1]
            check(f"then remove {self.device} removes it" in left, f"it says {left!r}")
            self.forget()
            run = subprocess.run(
                [self.options.doctor, self.device], capture_output=True, encoding="utf-8"
            )
            last = run.stdout.splitlines()[-1]
            check(last == left + ".", f"it ends with {last!r}")
        with self.step("The two are bonded"):
            self.forget()
            self.bond()
        findings = self.healthy("A healthy machine and its device", self.device)
        own = self.own_adapter.rsplit("/", 1)[1]
        check(f"paired with {own}" in findings["device"]["saw"], "the device is not paired")
        several = "are on: a stream is opened by whichever the kernel chooses"
        check(several in findings["adapter"]["saw"][1], "nothing is said of several adapters")
        check(f"by {own}" in findings["stream"]["saw"], "it left by another adapter")
        taken = f"an application takes {self.own_adapter.rsplit('/', 1)[1]}, the first"
        check(any(taken in text for text in findings["adapter"]["saw"]), "another adapter")
        name = f"known to {own} as {HOSTILE_SHOWN}"
        check(name in findings["device"]["saw"], f"it says {findings['device']['saw']}")
        self.names_are_safe()
        self.healthy("The same to a user without rights", user="nobody", group="nogroup")
        self.healthy_in_words()
        self.leaves_all_alone()

    def names_are_safe(self):
        with self.step("A device's name commands no terminal"):
            known = subprocess.run(
                [self.options.host], input="call getDiscoveredDevices\n",
                capture_output=True, encoding="utf-8",
            ).stdout
            said = subprocess.run(
                [self.options.doctor, self.device, "--verbose"],
                capture_output=True, encoding="utf-8",
            ).stdout
            for text in (known, said):
                check(r"\u009b2J\u202e" in text, f"no name in {text!r}")
                check("\u009b" not in text and "\u202e" not in text, f"raw in {text!r}")
            (answer,) = map(json.loads, known.splitlines())
            names = [item["name"] for item in answer["result"]]
            check(HOSTILE in names, f"the names are {names}")
            self.wait_until(self.idle, 10, "end of the link")

    @contextlib.contextmanager
    def nothing_changes(self):
        """Compares all that others can see before and after, and meanwhile."""

        def seen():
            links = subprocess.run(["hcitool", "con"], capture_output=True, check=True)
            (names,) = self.bluez.call(*BUS, "ListNames")
            return self.bluez.objects(), sorted(names), links.stdout

        def note(_bus, sender, path, _interface, signal_name, values):
            # Whoever comes to the bus or leaves it is told by its number.
            if signal_name != "NameOwnerChanged" or values[0][0] != ":":
                told.append((sender, path, signal_name, str(values)))

        told = []
        watch = self.bluez.bus.signal_subscribe(
            None, None, None, None, None, Gio.DBusSignalFlags.NONE, note
        )
        before = seen()
        yield
        self.wait_until(lambda: len(seen()[1]) == len(before[1]), 5, "end of the doctor's bus")
        now = seen()
        while GLib.MainContext.default().iteration(False):
            pass
        self.bluez.bus.signal_unsubscribe(watch)
        check(now == before, f"{before} became {now}")
        check(not told, f"others were told {told}")

    def leaves_all_alone(self):
        with self.step("Nobody notices the doctor, nor its end at any point"):
            # With an agent the daemon would touch this one.
            self.bluez.set_adapter(self.own_adapter, Pairable=False)
            with self.nothing_changes():
                began = time.monotonic()
                subprocess.run([self.options.doctor], capture_output=True)
                whole = time.monotonic() - began
            self.figure("the doctor by itself", whole, LIMIT)
            with self.nothing_changes():
                for part in range(ENDS):
                    doctor = subprocess.Popen([self.options.doctor], stdout=subprocess.DEVNULL)
                    time.sleep(whole * part / ENDS)
                    doctor.send_signal(signal.SIGINT)
                    doctor.wait(LIMIT)
            self.bluez.set_adapter(self.own_adapter, Pairable=True)

    def entry(self):
        return f"{self.own_adapter}/dev_{self.device.replace(':', '_')}"

    def bond(self):
        adapter = ("org.bluez", self.own_adapter, ADAPTER)
        self.bluez.call(*adapter, "StartDiscovery")
        self.wait_until(lambda: self.entry() in self.bluez.objects(), 30, "device")
        self.bluez.call(*adapter, "StopDiscovery")
        self.bluez.call("org.bluez", self.entry(), DEVICE, "Pair")
        self.wait_until(self.idle, 10, "end of the link")

    @contextlib.contextmanager
    def channel_open(self):
        with socket.socket(
            socket.AF_BLUETOOTH, socket.SOCK_STREAM, socket.BTPROTO_RFCOMM
        ) as holder:
            holder.connect((self.device, CHANNEL))
            yield

    def forget(self):
        self.bluez.forget(self.own_adapter, self.device)
        self.bluez.forget(self.peer_adapter, self.own_address)

    def device_troubles(self):
        with self.channel_open():
            self.finds("The channel is taken", "stream", "open already", self.device)
        self.wait_until(self.idle, 10, "end of the link")
        self.bluez.forget(self.own_adapter, self.device)
        self.finds("This side forgot the bond", "stream", "refused to auth", self.device)
        self.bluez.forget(self.peer_adapter, self.own_address)
        self.peer.end()
        self.finds("Nobody listens", "stream", "nothing listens", self.device)
        with silent_controller() as absent:
            self.finds("Nobody has the address", "stream", "out of range", absent)
        self.finds("No address", "address", "six hexadecimal pairs", "01:23")

    def idle(self):
        """Whether no link is left between the two adapters."""
        return not list(pathlib.Path("/sys/class/bluetooth").glob("hci*:*"))

    def adapter_troubles(self):
        self.bluez.set_adapter(self.own_adapter, Powered=False)
        self.finds("The adapter is off", "adapter", "the adapter is off")
        # The other one is the device itself.
        with self.step("The device is the only adapter that is on"):
            findings = self.examine("the only adapter", self.device)
            check(findings["device"]["trouble"] == "own-address", "it does not say what it is")
            check(findings["stream"]["saw"] == ["not looked at: see device"], "it was tried")
        self.bluez.set_adapter(self.own_adapter, Powered=True)
        switches = [
            folder / "soft"
            for folder in pathlib.Path("/sys/class/rfkill").iterdir()
            if (folder / "type").read_text().strip() == "bluetooth"
        ]
        check(len(switches) == 2, f"the switches are {switches}")
        for switch in switches:
            switch.write_text("1")
        self.finds("The radio is blocked", "radio switch", "blocked", self.device)
        for switch in switches:
            switch.write_text("0")
        # The daemon is busy while it switches the adapters on by itself.
        self.wait_until(self.switched_on, 10, "adapters that are on")
        with self.controllers_held():
            self.finds("Another program holds the controllers", "adapter", "does not get")
        self.wait_until(self.switched_on, 10, "adapters that are on")

    @contextlib.contextmanager
    def controllers_held(self):
        libc = ctypes.CDLL(None, use_errno=True)
        for path in (self.own_adapter, self.peer_adapter):
            self.bluez.set_adapter(path, Powered=False)
        with contextlib.ExitStack() as holders:
            for number in range(2):
                holder = holders.enter_context(
                    socket.socket(socket.AF_BLUETOOTH, socket.SOCK_RAW, socket.BTPROTO_HCI)
                )
                name = struct.pack("HHH", socket.AF_BLUETOOTH, number, HCI_CHANNEL_USER)
                bound = libc.bind(holder.fileno(), name, len(name))
                check(bound == 0, f"no user channel: {os.strerror(ctypes.get_errno())}")
            self.wait_until(lambda: not self.bluez.adapters(), 10, "daemon without adapters")
            yield

    def switched_on(self):
        try:
            return self.bluez.ready_adapters(2)
        except GLib.Error:
            return False

    def place_troubles(self):
        self.finds(
            "Another network namespace", "this process", "network namespace", self.device,
            before=("unshare", "--net"),
        )
        self.finds(
            "The same namespace to a user without rights", "this process", "network namespace",
            before=("unshare", "--net", "setpriv", "--reuid=nobody", "--clear-groups"),
        )
        self.finds(
            "No system bus", "bus", "no system bus", self.device,
            env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nowhere"},
        )
        POLICY.write_text(DENIAL)
        self.bluez.call(*BUS, "ReloadConfig")
        self.finds("The bus forbids the daemon", "bus", "policy forbids", self.device)
        POLICY.unlink()
        self.bluez.call(*BUS, "ReloadConfig")
        (bus,) = self.bluez.call(
            *BUS, "GetConnectionUnixProcessID", GLib.Variant("(s)", ("org.freedesktop.DBus",))
        )
        with self.held(bus):
            self.finds("The bus hangs", "bus", "does not answer", self.device)

    @contextlib.contextmanager
    def held(self, process):
        os.kill(process, signal.SIGSTOP)
        try:
            yield
        finally:
            os.kill(process, signal.SIGCONT)

    def daemon_troubles(self):
        daemon = int(os.environ["BLUETOOTHD_PID"])
        with self.held(daemon):
            self.finds("The daemon hangs", "daemon", "hangs", self.device)
        with self.held(daemon):
            awake = threading.Timer(3, os.kill, (daemon, signal.SIGCONT))
            awake.start()
            self.finds("The daemon is slow", "daemon", "slowly")
            awake.join()
        self.kill_daemon()
        # The bus may start it, and there is no systemd here to do so.
        self.finds("No daemon", "daemon", "nothing starts its daemon", self.device)
        # Whoever asks for a socket would have it loaded again.
        pathlib.Path("/etc/modprobe.d/doctor.conf").write_text("install rfcomm /bin/false\n")
        subprocess.run(["rmmod", "rfcomm"], check=True)
        self.start_daemon()
        self.bluez.ready_adapters(2)
        self.finds("No RFCOMM in the kernel", "kernel", "module is missing", self.device)
        pathlib.Path("/etc/modprobe.d/doctor.conf").unlink()
        self.healthy("All is well again")
        os.kill(int(os.environ["BTVIRT_PID"]), signal.SIGKILL)
        self.wait_until(lambda: not self.bluez.adapters(), 10, "end of the controllers")
        self.finds("No adapter", "adapter", "has no adapter", self.device)

    def run(self):
        slow_controllers()
        self.start()
        self.well()
        self.device_troubles()
        self.adapter_troubles()
        self.place_troubles()
        self.daemon_troubles()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--doctor", required=True, help="the program lumso_doctor")
    parser.add_argument("--host", required=True, help="the program lumso_host")
    return parser.parse_args()


if __name__ == "__main__":
    sys.exit(play(Doctor(parse_arguments())))
