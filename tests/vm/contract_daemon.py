#!/usr/bin/python3
"""States the contract of the Bluetooth daemon on bluetoothd.

Meant for the virtual machine (see run): its second adapter plays the device.
"""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import sys

from gi.repository import GLib

from bluez import Bluez

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "contract"))

import daemon_contract  # noqa: E402

SERVICE = "8b3f2c1e-5d0a-4f57-9c55-6f3d0e1b7a42"
SERVICE_CHANNEL = 9
PROFILE = "/contract/profile"
MANAGER = ("org.bluez", "/org/bluez", "org.bluez.ProfileManager1")


class Bluetoothd(daemon_contract.World):
    def __init__(self):
        self.bluez = Bluez()
        self.bluez.ready_adapters(2)

    @contextlib.contextmanager
    def device_connects(self, adapter):
        adapters = self.bluez.adapters()
        own = adapters.pop(adapter)["Address"]
        ((path, device),) = adapters.items()
        # With one half of a bond left, connecting fails.
        for known in self.bluez.objects():
            if known.startswith(path + "/dev_"):
                self.bluez.forget(path, own)
        # Lasts until the adapter is switched on anew: then the daemon names it.
        subprocess.run(["hciconfig", path.rpartition("/")[2], "name", ""], check=True)
        options = {
            "Name": GLib.Variant("s", "contract"),
            "Role": GLib.Variant("s", "server"),
            "Channel": GLib.Variant("q", SERVICE_CHANNEL),
            "RequireAuthentication": GLib.Variant("b", False),
            "RequireAuthorization": GLib.Variant("b", True),
        }
        profile = GLib.Variant("(osa{sv})", (PROFILE, SERVICE, options))
        self.bluez.call(*MANAGER, "RegisterProfile", profile)
        family, protocol = socket.AF_BLUETOOTH, socket.BTPROTO_RFCOMM
        with socket.socket(family, socket.SOCK_STREAM, protocol) as client:
            # Not waited for: the agent answers from the loop of this thread.
            client.setblocking(False)
            client.bind((device["Address"], 0))
            with contextlib.suppress(BlockingIOError):
                client.connect((own, SERVICE_CHANNEL))
            yield
        self.bluez.call(*MANAGER, "UnregisterProfile", GLib.Variant("(o)", (PROFILE,)))

    def unplug(self):
        os.kill(int(os.environ["BTVIRT_PID"]), signal.SIGKILL)

    def plug_in(self):
        subprocess.run(["/run/lumso-vm/controllers"], check=True)
        self.bluez.ready_adapters(2)


if __name__ == "__main__":
    sys.exit(daemon_contract.Contract(Bluetoothd()).run())
