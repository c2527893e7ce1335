"""What the scenarios ask of the Bluetooth daemon beside the plug-in."""

import time

from gi.repository import Gio, GLib

ADAPTER = "org.bluez.Adapter1"
DEVICE = "org.bluez.Device1"


class Bluez:
    def __init__(self):
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)

    def call(self, name, path, interface, method, arguments=None):
        reply = self.bus.call_sync(
            name, path, interface, method, arguments, None, Gio.DBusCallFlags.NONE, 10000, None
        )
        return reply.unpack()

    def begin(self, name, path, interface, method):
        """Makes a call without arguments whose answer nobody waits for."""
        self.bus.call(name, path, interface, method, None, None, Gio.DBusCallFlags.NONE, -1, None)

    def objects(self):
        """Object path -> interfaces of everything; empty without a daemon."""
        try:
            (objects,) = self.call(
                "org.bluez", "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"
            )
        except GLib.Error:
            return {}
        return objects

    def adapters(self):
        """Object path -> properties of every adapter; empty without a daemon."""
        return {
            path: item[ADAPTER] for path, item in self.objects().items() if ADAPTER in item
        }

    def set_adapter(self, path, **properties):
        for name, value in properties.items():
            kind = {bool: "b", int: "u", str: "s"}[type(value)]
            self.call(
                "org.bluez",
                path,
                "org.freedesktop.DBus.Properties",
                "Set",
                GLib.Variant("(ssv)", (ADAPTER, name, GLib.Variant(kind, value))),
            )

    def ready_adapters(self, count, seconds=30):
        """Waits for `count` adapters and makes each findable and reachable."""
        deadline = time.monotonic() + seconds
        while len(self.adapters()) < count:
            if time.monotonic() > deadline:
                raise TimeoutError(f"the daemon shows no {count} adapters within {seconds} s")
            time.sleep(0.1)
        for path in self.adapters():
            self.set_adapter(
                path, Powered=True, Pairable=True, DiscoverableTimeout=0, Discoverable=True
            )
        return self.adapters()

    def forget(self, adapter, address):
        """Removes the device and its bond from one adapter."""
        device = f"{adapter}/dev_{address.replace(':', '_')}"
        self.call("org.bluez", adapter, ADAPTER, "RemoveDevice", GLib.Variant("(o)", (device,)))

    def name_of_process(self, pid):
        """The unique bus name of a process that is on the system bus."""
        daemon = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
        for name in self.call(*daemon, "ListNames")[0]:
            if not name.startswith(":"):
                continue
            try:
                owner = self.call(
                    *daemon, "GetConnectionUnixProcessID", GLib.Variant("(s)", (name,))
                )
            except GLib.Error:  # gone meanwhile
                continue
            if owner == (pid,):
                return name
        raise LookupError(f"process {pid} is not on the system bus")
