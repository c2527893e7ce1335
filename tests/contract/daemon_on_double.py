#!/usr/bin/python3
"""States the contract of the Bluetooth daemon on its double.

Run it with dbus-run-session, whose bus it takes as the system bus.
"""

import contextlib
import os
import pathlib
import subprocess
import sys

from gi.repository import Gio, GLib

import daemon_contract

DOUBLE = pathlib.Path(__file__).parents[1] / "support" / "daemon.py"
SCRIPT = "org.freedesktop.DBus.Mock"
PEER = "00:AA:01:01:00:01"
SERVICE = "8b3f2c1e-5d0a-4f57-9c55-6f3d0e1b7a42"


def values(**given):
    return {name: GLib.Variant(*value) for name, value in given.items()}


def scripting(method, kind, *arguments):
    """The arguments of a GDBus call of the double's scripting interface."""
    arguments = GLib.Variant(kind, arguments)
    return "org.bluez", "/", SCRIPT, method, arguments, None, Gio.DBusCallFlags.NONE, -1, None


class Double(daemon_contract.World):
    def __init__(self):
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
        self.plug_in()
        path = "/org/bluez/hci1/dev_00_AA_01_01_00_01"
        found = values(Name=("s", "VELKAN-0001"), RSSI=("n", -60), TxPower=("n", 0))
        self.script("AddNearbyDevice", "(sa{sv})", path, found)
        self.script("AddDevice", "(sa{sv})", "/org/bluez/hci0/dev_00_AA_01_00_00_00", {})

    def script(self, *call):
        self.bus.call_sync(*scripting(*call))

    def begin(self, *call):
        """Scripts something that is over when our agent has answered."""
        self.bus.call(*scripting(*call))

    @contextlib.contextmanager
    def device_connects(self, adapter):
        path = daemon_contract.path_of(adapter, PEER)
        connected = values(Connected=("b", True), ServicesResolved=("b", True))
        self.script("AddDevice", "(sa{sv})", path, connected)
        self.script("Announce", "(s)", path)
        device = GLib.Variant("o", path)
        service = GLib.Variant("s", SERVICE)
        self.begin("AskAgent", "(ssav)", "RequestAuthorization", "o", [device])
        self.begin("AskAgent", "(ssav)", "AuthorizeService", "os", [device, service])
        yield

    def unplug(self):
        for number in (0, 1):
            self.script("Unplug", "(s)", f"/org/bluez/hci{number}")

    def plug_in(self):
        for number in (0, 1):
            path = f"/org/bluez/hci{number}"
            given = values(Address=("s", f"00:AA:01:0{number}:00:0{number}"), Powered=("b", True))
            self.script("AddAdapter", "(sa{sv})", path, given)
            self.script("Announce", "(s)", path)


def main():
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = os.environ["DBUS_SESSION_BUS_ADDRESS"]
    with subprocess.Popen([sys.executable, DOUBLE], stdout=subprocess.PIPE) as double:
        try:
            double.stdout.readline()
            return daemon_contract.Contract(Double()).run()
        finally:
            double.kill()


if __name__ == "__main__":
    sys.exit(main())
