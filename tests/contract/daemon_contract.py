"""What the plug-in relies on of the Bluetooth daemon, fact by fact.

The same facts are stated on the daemon's double (daemon_on_double.py) and on
bluetoothd (tests/vm/contract_daemon.py). They are found out with plain D-Bus
calls, and adapters and devices are learnt from the bus: nothing here knows the
library, the double's scripting or the machine. What neither the daemon nor its
double does when asked over D-Bus, a device that connects by itself and adapters
that are unplugged, each world arranges in its own way (see World).

A daemon is the one of a fresh machine: two adapters, both on, no device known
and no agent registered; a device that can be paired is near the first adapter.
"""

import contextlib
import os
import signal
import time
from typing import NamedTuple

from gi.repository import Gio, GLib

DAEMON = "org.bluez"
ADAPTER = "org.bluez.Adapter1"
AGENT = "org.bluez.Agent1"
AGENT_MANAGER = "org.bluez.AgentManager1"
DEVICE = "org.bluez.Device1"
ERROR = "org.bluez.Error."
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
OBJECT_MANAGER = "org.freedesktop.DBus.ObjectManager"
PROPERTIES = "org.freedesktop.DBus.Properties"
BUS_ERROR = "org.freedesktop.DBus.Error."
BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")

AGENT_DESCRIPTION = """<node><interface name="org.bluez.Agent1">
  <method name="Release"/>
  <method name="RequestConfirmation">
    <arg type="o" direction="in"/><arg type="u" direction="in"/>
  </method>
  <method name="RequestAuthorization"><arg type="o" direction="in"/></method>
  <method name="AuthorizeService">
    <arg type="o" direction="in"/><arg type="s" direction="in"/>
  </method>
  <method name="Cancel"/>
</interface></node>"""

ADAPTER_TYPES = {
    "Address": "s",
    "AddressType": "s",
    "Name": "s",
    "Alias": "s",
    "Class": "u",
    "Powered": "b",
    "Discoverable": "b",
    "DiscoverableTimeout": "u",
    "Pairable": "b",
    "PairableTimeout": "u",
    "Discovering": "b",
    "UUIDs": "as",
    "Roles": "as",
}
DEVICE_TYPES = {
    "Address": "s",
    "AddressType": "s",
    "Alias": "s",
    "Paired": "b",
    "Bonded": "b",
    "Trusted": "b",
    "Blocked": "b",
    "LegacyPairing": "b",
    "Connected": "b",
    "UUIDs": "as",
    "Adapter": "o",
    "ServicesResolved": "b",
}
# A device need not have these.
MORE_DEVICE_TYPES = {
    "Name": "s",
    "Class": "u",
    "Appearance": "q",
    "Icon": "s",
    "RSSI": "n",
    "TxPower": "n",
    "Modalias": "s",
    "ManufacturerData": "a{qv}",
    "ServiceData": "a{sv}",
    "AdvertisingFlags": "ay",
}

# An adapter that is switched off tells these too in newer daemons: bluetoothd 5.82
# does, 5.66 does not. Nothing relies on them.
UNHEEDED = ("PowerState", "Class")

CALL_SECONDS = 30
WAIT_SECONDS = 20
AGENT_PATH = "/contract/agent"


class World:
    """What has to be arranged differently for each daemon."""

    def device_connects(self, adapter):
        """A context in which a device that the adapter at this path does not
        know, and that has no name, connects to it for a service that needs
        authorization. It is over when both were asked for and given."""
        raise NotImplementedError

    def unplug(self):
        """Takes both adapters away."""
        raise NotImplementedError

    def plug_in(self):
        """Brings both adapters back."""
        raise NotImplementedError


class Signal(NamedTuple):
    sender: str
    path: str
    interface: str
    name: str
    value: GLib.Variant

    def about(self):
        """The path of the object that it tells of."""
        return self.path if self.interface == PROPERTIES else self.value.unpack()[0]

    def told(self):
        """What it tells, such as "Powered=false", "-RSSI" or "InterfacesAdded"; nothing
        when that is of no concern."""
        if self.interface != PROPERTIES:
            return self.name
        changed = self.changed().items()
        cleared = sorted(self.value.get_child_value(2).unpack())
        words = [f"{name}={value.print_(False)}" for name, value in changed if name not in UNHEEDED]
        return " ".join(words + [f"-{name}" for name in cleared])

    def changed(self):
        """Name -> value of the properties that it tells of."""
        return properties(self.value.get_child_value(1))


class Question(NamedTuple):
    """A call of our agent."""

    sender: str
    path: str
    interface: str
    method: str
    value: GLib.Variant
    expects_reply: bool


class Call:
    """A call of the daemon. Without an error it has succeeded, when it is done."""

    def __init__(self):
        self.done = False
        self.error = None
        self.text = None
        self.value = None

    def finish(self, message):
        body = message.get_body()
        if message.get_message_type() == Gio.DBusMessageType.ERROR:
            self.error = message.get_error_name()
            self.text = body and body.unpack()[0]
        else:
            self.value = body

    def __str__(self):
        if self.error:
            return f"{self.error}: {self.text!r}"
        return f"the answer {self.value}" if self.done else "no answer"


class Broken(Exception):
    """A fact does not hold; the text says what was seen."""


def check(condition, text):
    if not condition:
        raise Broken(text)


def until(condition, what, seconds=WAIT_SECONDS):
    """Runs the main loop until `condition()` gives something true."""
    # It also wakes the loop for conditions that change without it.
    ticker = GLib.timeout_add(20, lambda: GLib.SOURCE_CONTINUE)
    deadline = time.monotonic() + seconds
    try:
        while not (found := condition()):
            check(time.monotonic() < deadline, f"no {what} within {seconds} s")
            GLib.MainContext.default().iteration(True)
    finally:
        GLib.source_remove(ticker)
    return found


class Client:
    """A connection to the bus of its own, with an agent.

    `arrived` holds the daemon's signals, its calls of the agent and our own
    calls, these when they are answered, all in the order of their arrival.
    """

    def __init__(self):
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        flags = Gio.DBusConnectionFlags
        self.bus = Gio.DBusConnection.new_for_address_sync(
            address,
            flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION,
            None,
            None,
        )
        self.arrived = []
        self.accepts = True
        self.pending = []  # the questions that it does not answer by itself
        self.bus.signal_subscribe(
            DAEMON, None, None, None, None, Gio.DBusSignalFlags.NONE, self._note_signal
        )
        agent = Gio.DBusNodeInfo.new_for_xml(AGENT_DESCRIPTION).interfaces[0]
        self.bus.register_object(AGENT_PATH, agent, self._note_question, None, None)

    def _note_signal(self, _bus, sender, path, interface, name, value):
        self.arrived.append(Signal(sender, path, interface, name, value))

    def _note_question(self, _bus, sender, path, interface, method, value, invocation):
        flags = invocation.get_message().get_flags()
        expects_reply = not flags & Gio.DBusMessageFlags.NO_REPLY_EXPECTED
        self.arrived.append(Question(sender, path, interface, method, value, expects_reply))
        if self.accepts or not expects_reply:
            invocation.return_value(None)
        else:
            self.pending.append(invocation)

    def begin(self, path, interface, method, arguments=None, name=DAEMON):
        message = Gio.DBusMessage.new_method_call(name, path, interface, method)
        if arguments is not None:
            message.set_body(arguments)
        call = Call()

        def finish(bus, result):
            try:
                call.finish(bus.send_message_with_reply_finish(result))
            except GLib.Error as error:  # no answer
                call.error, call.text = "none", error.message
            call.done = True
            self.arrived.append(call)

        self.bus.send_message_with_reply(
            message, Gio.DBusSendMessageFlags.NONE, CALL_SECONDS * 1000, None, finish
        )
        return call

    def call(self, *arguments, **options):
        call = self.begin(*arguments, **options)
        until(lambda: call.done, "answer", CALL_SECONDS + 5)
        return call

    def ask_bus(self, method, *arguments):
        _, path, interface = BUS
        body = GLib.Variant(f"({'s' * len(arguments)})", arguments)
        call = self.call(path, interface, method, body, name=BUS[0])
        return call if call.error else call.value.unpack()[0]

    def settle(self):
        """Returns when all that the daemon had sent has arrived."""
        self.call("/", "org.freedesktop.DBus.Peer", "Ping")

    # What the facts need of one object.

    def on_adapter(self, path, method, device=None):
        arguments = GLib.Variant("(o)", (device,)) if device else None
        return self.call(path, ADAPTER, method, arguments)

    def on_agents(self, method, *arguments):
        kind = "(os)" if len(arguments) == 2 else "(o)"
        return self.call("/org/bluez", AGENT_MANAGER, method, GLib.Variant(kind, arguments))

    def get(self, path, interface, name):
        return self.call(path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name)))

    def get_all(self, path, interface):
        return self.call(path, PROPERTIES, "GetAll", GLib.Variant("(s)", (interface,)))

    def set_power(self, path, on):
        value = GLib.Variant("(ssv)", (ADAPTER, "Powered", GLib.Variant("b", on)))
        return self.call(path, PROPERTIES, "Set", value)

    def property(self, path, interface, name):
        call = self.get(path, interface, name)
        check(not call.error, f"{name} of {path}: {call}")
        return call.value.unpack()[0]

    def objects(self):
        """Object path -> interface -> name -> value, in the daemon's order."""
        call = self.call("/", OBJECT_MANAGER, "GetManagedObjects")
        check(not call.error, str(call))
        objects = entries(call.value.get_child_value(0))
        return {path: interfaces(value) for path, value in objects.items()}

    # What has arrived since a mark.

    def mark(self):
        return len(self.arrived)

    def signals(self, since, *paths):
        """The signals, perhaps only those about some objects."""
        found = [item for item in self.arrived[since:] if isinstance(item, Signal)]
        return [item for item in found if not paths or item.about() in paths]

    def questions(self, since):
        return [item for item in self.arrived[since:] if isinstance(item, Question)]

    def course(self, since, *paths):
        """What was told of some objects, and where the answers came between."""
        told = [item for item in self.signals(since, *paths) if item.told()]
        return [
            "answer" if isinstance(item, Call) else item.told()
            for item in self.arrived[since:]
            if isinstance(item, Call) or item in told
        ]

    def close(self):
        self.bus.close_sync(None)


def entries(value):
    """Key -> value of a dictionary, in its order."""
    check(value.get_type_string().startswith("a{"), f"no dictionary: {value}")
    pairs = [value.get_child_value(i) for i in range(value.n_children())]
    return {pair.get_child_value(0).unpack(): pair.get_child_value(1) for pair in pairs}


def properties(value):
    return {name: item.get_variant() for name, item in entries(value).items()}


def interfaces(value):
    return {name: properties(item) for name, item in entries(value).items()}


def text_of_unknown(interface, method, signature):
    """What libdbus says of a call that nobody takes."""
    return (
        f'Method "{method}" with signature "{signature}" on interface "{interface}"'
        " doesn't exist\n"
    )


def path_of(adapter, address):
    return f"{adapter}/dev_{address.replace(':', '_')}"


def wrong_types(values, types):
    """The names among the properties that are absent or have another type."""
    return [
        name
        for name, kind in types.items()
        if name not in values or values[name].get_type_string() != kind
    ]


class Contract:
    """States the facts in their order and prints each with its outcome.

    What one group leaves is what the next one finds.
    """

    def __init__(self, world):
        self.world = world
        self.us = Client()
        self.them = Client()
        self.own = None  # the first adapter in the list, and the other one
        self.other = None
        self.device = None  # near the first adapter
        self.held = 0
        self.broken = 0

    @contextlib.contextmanager
    def fact(self, text):
        with self.step(text):
            yield
            self.held += 1
            print(f"  holds   {text}", flush=True)

    @contextlib.contextmanager
    def step(self, text):
        """Notes what goes wrong, and lets the next step be taken."""
        try:
            yield
        except Exception as why:  # a daemon can be wrong in any way
            self.broken += 1
            print(f"  BROKEN  {text}\n          {type(why).__name__}: {why}", flush=True)

    def refused(self, what, call, error, text):
        with self.fact(f"{what}: {error} {text!r}"):
            check((call.error, call.text) == (error, text), call)

    def answered(self, what, call):
        with self.fact(what):
            check(call.error is None and call.value is None, call)

    def told(self, text, since, paths, wanted):
        """A fact about the order of what is told and of the answers."""
        us = self.us
        with self.fact(text):
            with contextlib.suppress(Broken):
                until(lambda: len(us.course(since, *paths)) >= len(wanted), text)
            us.settle()
            seen = us.course(since, *paths)[:-1]  # the last is that of settle()
            check(seen == wanted, f"{seen} instead of {wanted}")

    def run(self):
        """Returns the exit status."""
        began = time.monotonic()
        for group in (
            self.objects,
            self.properties,
            self.agents,
            self.power,
            self.discovery,
            self.sessions,
            self.pairing,
            self.removal,
            self.adapters,
            self.requests,
            self.end,
        ):
            print(f"\n{group.__doc__}", flush=True)
            with self.step("the way to the next fact"):
                group()
        seconds = time.monotonic() - began
        print(f"\n{self.held} facts hold, {self.broken} do not, in {seconds:.0f} s.", flush=True)
        return 1 if self.broken else 0

    # The groups, in the order of run().

    def check_tree(self, objects):
        above = []
        for path in objects:
            while above and not path.startswith(above[-1] + "/"):
                above.pop()
            parents = [other for other in objects if path.startswith(other + "/")]
            nearest = max(parents, key=len, default=None)
            check((above[-1] if above else None) == nearest, f"{path} in {list(objects)}")
            above.append(path)

    def check_interfaces(self, item, main):
        wanted = [INTROSPECTABLE, main, PROPERTIES]
        seen = [name for name in item if name in wanted]
        check(seen == wanted, f"{list(item)}")

    def check_names(self, values):
        names = [name for name in values if name in ("Name", "Alias")]
        check(names == ["Name", "Alias"], f"{list(values)}")

    def objects(self):
        """The list of objects"""
        us = self.us
        with self.fact("GetManagedObjects answers (a{oa{sa{sv}}})"):
            kind = us.call("/", OBJECT_MANAGER, "GetManagedObjects").value.get_type_string()
            check(kind == "(a{oa{sa{sv}}})", kind)
        objects = us.objects()
        adapters = [path for path, item in objects.items() if ADAPTER in item]
        self.own, self.other = adapters
        with self.fact("/org/bluez comes first, with the agent manager, no adapter, no device"):
            first = objects["/org/bluez"]
            check(list(objects)[0] == "/org/bluez", list(objects))
            check(AGENT_MANAGER in first and not {ADAPTER, DEVICE} & set(first), list(first))
        with self.fact("parents come before children, all of a child before its next sibling"):
            self.check_tree(objects)
        with self.fact("an adapter's path is /org/bluez/hci and a number"):
            for path in adapters:
                check(path.startswith("/org/bluez/hci") and path[14:].isdigit(), path)
        with self.fact("an adapter has other interfaces too, before and after its own"):
            for path in adapters:
                self.check_interfaces(objects[path], ADAPTER)
        with self.fact(f"an adapter has {', '.join(ADAPTER_TYPES)}, of their types"):
            for path in adapters:
                wrong = wrong_types(objects[path][ADAPTER], ADAPTER_TYPES)
                check(not wrong, f"{path} has other or no values of {wrong}")
        with self.fact("an adapter's Name comes before its Alias"):
            for path in adapters:
                self.check_names(objects[path][ADAPTER])

    def properties(self):
        """Get and GetAll"""
        us, own = self.us, self.own
        absent = path_of(own, "00:00:00:00:00:01")
        with self.fact("Get answers (v)"):
            call = us.get(own, ADAPTER, "Powered")
            check(call.value.get_type_string() == "(v)", call)
        with self.fact("GetAll answers (a{sv}), the same as the list of objects"):
            call = us.get_all(own, ADAPTER)
            check(call.value.get_type_string() == "(a{sv})", call)
            listed = us.objects()[own][ADAPTER]
            check(properties(call.value.get_child_value(0)) == listed, call)
        with self.fact("GetAll of an interface without properties answers none"):
            call = us.get_all(own, PROPERTIES)
            check(not call.error and call.value.unpack() == ({},), call)
        invalid = BUS_ERROR + "InvalidArgs"
        no_interface = "No such interface 'org.bluez.None1'"
        self.refused(
            "Get of a property that there is not",
            us.get(own, ADAPTER, "None"),
            invalid,
            "No such property 'None'",
        )
        self.refused(
            "Get of an interface that there is not",
            us.get(own, "org.bluez.None1", "Powered"),
            invalid,
            no_interface,
        )
        self.refused(
            "GetAll of an interface that there is not",
            us.get_all(own, "org.bluez.None1"),
            invalid,
            no_interface,
        )
        self.refused(
            "Get of an object that there is not",
            us.get(absent, DEVICE, "Address"),
            BUS_ERROR + "UnknownObject",
            text_of_unknown(PROPERTIES, "Get", "ss"),
        )
        self.refused(
            "GetAll of an object that there is not",
            us.get_all(absent, DEVICE),
            BUS_ERROR + "UnknownObject",
            text_of_unknown(PROPERTIES, "GetAll", "s"),
        )
        self.refused(
            "Pair of a device that there is not",
            us.call(absent, DEVICE, "Pair"),
            BUS_ERROR + "UnknownObject",
            text_of_unknown(DEVICE, "Pair", ""),
        )
        self.refused(
            "StartDiscovery of an adapter that there is not",
            us.on_adapter("/org/bluez/hci99", "StartDiscovery"),
            BUS_ERROR + "UnknownObject",
            text_of_unknown(ADAPTER, "StartDiscovery", ""),
        )
        self.refused(
            "a method that there is not",
            us.on_adapter(own, "None"),
            BUS_ERROR + "UnknownMethod",
            text_of_unknown(ADAPTER, "None", ""),
        )
        self.refused(
            "a method with other arguments",
            us.on_adapter(own, "RemoveDevice"),
            BUS_ERROR + "UnknownMethod",
            text_of_unknown(ADAPTER, "RemoveDevice", ""),
        )

    def agents(self):
        """The agent manager"""
        us, them = self.us, self.them
        unknown = (ERROR + "DoesNotExist", "Does Not Exist")
        again = (ERROR + "AlreadyExists", "Already Exists")
        self.refused(
            "RegisterAgent with a capability that there is not",
            us.on_agents("RegisterAgent", AGENT_PATH, "Everything"),
            ERROR + "InvalidArguments",
            "Invalid arguments in method call",
        )
        for method in ("RequestDefaultAgent", "UnregisterAgent"):
            what = f"{method} without an agent"
            self.refused(what, us.on_agents(method, AGENT_PATH), *unknown)
        self.answered(
            "RegisterAgent", us.on_agents("RegisterAgent", AGENT_PATH, "NoInputNoOutput")
        )
        self.refused(
            "RegisterAgent again",
            us.on_agents("RegisterAgent", AGENT_PATH, "NoInputNoOutput"),
            *again,
        )
        self.refused(
            "RegisterAgent with another path",
            us.on_agents("RegisterAgent", "/other", "NoInputNoOutput"),
            *again,
        )
        for method in ("RequestDefaultAgent", "UnregisterAgent"):
            what = f"{method} with another path"
            self.refused(what, us.on_agents(method, "/other"), *unknown)
        for what in ("RequestDefaultAgent", "RequestDefaultAgent again"):
            self.answered(what, us.on_agents("RequestDefaultAgent", AGENT_PATH))
        self.answered(
            "RegisterAgent of another connection, same path, no capability named",
            them.on_agents("RegisterAgent", AGENT_PATH, ""),
        )
        since = us.mark()
        for client in (them, us):
            self.answered("UnregisterAgent", client.on_agents("UnregisterAgent", AGENT_PATH))
        self.refused("UnregisterAgent again", us.on_agents("UnregisterAgent", AGENT_PATH), *unknown)
        with self.fact("an agent that is unregistered is not called"):
            us.settle()
            check(not us.questions(since), us.questions(since))

    def switch(self, on):
        since = self.us.mark()
        check(not self.us.set_power(self.own, on).error, "Powered cannot be set")
        word = f"Powered={str(on).lower()}"
        until(lambda: word in " ".join(self.us.course(since, self.own)), word)

    def power(self):
        """An adapter that is switched off and on"""
        us, own = self.us, self.own
        not_ready = (ERROR + "NotReady", "Resource Not Ready")
        since = us.mark()
        us.set_power(own, False)
        self.told(
            "off: the answer, then Powered and Discovering in one signal",
            since,
            [own],
            ["answer", "Powered=false Discovering=false"],
        )
        if "PowerState" in us.objects()[own][ADAPTER]:
            with self.fact("PowerState, from 5.82 on: on the way alone, at the end with Powered"):
                way, end = [item.changed() for item in us.signals(since, own)]
                check(list(way) == ["PowerState"], way)
                check({"PowerState", "Powered"} <= set(end), end)
        for method in ("StartDiscovery", "StopDiscovery"):
            self.refused(f"{method} while off", us.on_adapter(own, method), *not_ready)
        since = us.mark()
        us.set_power(own, True)
        self.told("on: the answer, then Powered", since, [own], ["answer", "Powered=true"])
        since = us.mark()
        us.set_power(own, True)
        self.told("on again: the answer, and nothing is told", since, [own], ["answer"])

    def found(self, since):
        """Waits for a device that is added under the own adapter."""

        def find():
            for item in self.us.signals(since):
                below = item.about().startswith(self.own + "/dev_")
                if below and DEVICE in interfaces_of(item):
                    return item
            return None

        return until(find, "device")

    def discovery(self):
        """Discovery"""
        us, own = self.us, self.own
        none = (ERROR + "Failed", "No discovery started")
        stop = us.on_adapter(own, "StopDiscovery")
        self.refused("StopDiscovery without a discovery", stop, *none)
        since = us.mark()
        us.on_adapter(own, "StartDiscovery")
        self.told(
            "StartDiscovery: the answer, then Discovering and nothing else",
            since,
            [own],
            ["answer", "Discovering=true"],
        )
        with self.fact("PropertiesChanged comes from the object's path and is (sa{sv}as)"):
            (change,) = us.signals(since, own)
            check(change.path == own and change.interface == PROPERTIES, change)
            check(change.name == "PropertiesChanged", change)
            check(change.value.get_type_string() == "(sa{sv}as)", change.value)
            check(change.value.unpack() == (ADAPTER, {"Discovering": True}, []), change.value)
        self.refused(
            "StartDiscovery again",
            us.on_adapter(own, "StartDiscovery"),
            ERROR + "InProgress",
            "Operation already in progress",
        )
        found = self.found(since)
        self.device = found.about()
        with self.fact("InterfacesAdded comes from / and is (oa{sa{sv}})"):
            check((found.path, found.interface) == ("/", OBJECT_MANAGER), found)
            check(found.name == "InterfacesAdded", found)
            check(found.value.get_type_string() == "(oa{sa{sv}})", found.value)
        values = interfaces_of(found)[DEVICE]
        with self.fact("it holds the device's interfaces, others before and after Device1"):
            self.check_interfaces(interfaces_of(found), DEVICE)
        with self.fact(f"a device has {', '.join(DEVICE_TYPES)}, of their types"):
            wrong = wrong_types(values, DEVICE_TYPES)
            check(not wrong, f"it has other or no values of {wrong}")
        with self.fact(f"it may have {', '.join(MORE_DEVICE_TYPES)}, of their types"):
            types = {name: kind for name, kind in MORE_DEVICE_TYPES.items() if name in values}
            wrong = wrong_types(values, types)
            check(not wrong, f"it has other values of {wrong}")
        with self.fact("one that was found has a signal strength below zero"):
            check(values["RSSI"].unpack() < 0, values)
        with self.fact("its path is the adapter's, /dev_ and its address with underscores"):
            check(self.device == path_of(own, values["Address"].unpack()), self.device)
            check(values["Adapter"].unpack() == own, values)
        with self.fact("its Name comes before its Alias"):
            self.check_names(values)
        with self.fact("GetAll and the list of objects say the same as the signal"):
            call = us.get_all(self.device, DEVICE)
            check(properties(call.value.get_child_value(0)) == values, call)
            check(us.objects()[self.device] == interfaces_of(found), "the list differs")
        with self.fact("the list stays a tree: the device comes right after its adapter"):
            paths = list(us.objects())
            self.check_tree(paths)
            check(paths.index(self.device) == paths.index(own) + 1, paths)
        since = us.mark()
        us.on_adapter(own, "StopDiscovery")
        self.told(
            "StopDiscovery: the answer, then RSSI and TxPower invalidated, then Discovering",
            since,
            [own, self.device],
            ["answer", "-RSSI -TxPower", "Discovering=false"],
        )
        self.refused(
            "Get of the RSSI then",
            us.get(self.device, DEVICE, "RSSI"),
            BUS_ERROR + "InvalidArgs",
            "No such property 'RSSI'",
        )
        self.refused("StopDiscovery again", us.on_adapter(own, "StopDiscovery"), *none)

    def sessions(self):
        """Discovery of two connections"""
        us, them, own = self.us, self.them, self.own
        since = us.mark()
        self.answered("StartDiscovery", us.on_adapter(own, "StartDiscovery"))
        self.answered("StartDiscovery of the other", them.on_adapter(own, "StartDiscovery"))
        until(lambda: us.signals(since, self.device), "sign of the device")
        with self.fact("a known device that is seen again: only what changed is told"):
            changed = us.signals(since, self.device)[0].changed()
            check("RSSI" in changed, changed)
            check(set(changed) <= {"RSSI", "TxPower"}, changed)
        since = us.mark()
        us.on_adapter(own, "StopDiscovery")
        self.told(
            "StopDiscovery while the other discovers: the answer, and nothing is told",
            since,
            [own, self.device],
            ["answer"],
        )
        with self.fact("Discovering stays true"):
            check(us.property(own, ADAPTER, "Discovering") is True, "it is false")
        since = us.mark()
        them.close()
        self.told(
            "the other leaves the bus: its discovery ends",
            since,
            [own, self.device],
            ["-RSSI -TxPower", "Discovering=false"],
        )
        us.on_adapter(own, "StartDiscovery")
        until(lambda: us.course(since, own)[-1] == "Discovering=true", "discovery")
        us.settle()  # a double sees its devices at once
        since = us.mark()
        us.set_power(own, False)
        self.told(
            "off while discovering: a device that is not paired goes, the answer, the adapter",
            since,
            [own, self.device],
            ["InterfacesRemoved", "answer", "Powered=false Discovering=false"],
        )
        with self.fact("InterfacesRemoved comes from /, is (oas) and names every interface"):
            removed = us.signals(since, self.device)[0]
            check((removed.path, removed.interface) == ("/", OBJECT_MANAGER), removed)
            check(removed.value.get_type_string() == "(oas)", removed.value)
            names = set(removed.value.unpack()[1])
            check(names >= {DEVICE, INTROSPECTABLE, PROPERTIES}, names)
        self.switch(True)
        self.refused(
            "StopDiscovery after off and on",
            us.on_adapter(own, "StopDiscovery"),
            ERROR + "Failed",
            "No discovery started",
        )

    def asked(self, since):
        """Begins to pair, and waits until our agent is asked."""
        call = self.us.begin(self.device, DEVICE, "Pair")
        return call, until(lambda: self.us.questions(since), "question to the agent")[0]

    def failed(self, call, since):
        """Waits until a pairing is over and its connection, too."""
        until(lambda: call.done, "answer of Pair")
        course = self.us.course
        until(lambda: "Connected=false" in course(since, self.device), "end of the connection")
        self.us.pending.clear()

    def pairing(self):
        """Pairing"""
        us, device = self.us, self.device
        since = us.mark()
        us.on_adapter(self.own, "StartDiscovery")
        self.found(since)
        us.on_adapter(self.own, "StopDiscovery")
        us.on_agents("RegisterAgent", AGENT_PATH, "DisplayYesNo")
        # Where one daemon has both ends of the pairing, the other end asks the
        # default agent.
        self.them = Client()
        self.them.on_agents("RegisterAgent", AGENT_PATH, "DisplayYesNo")
        self.them.on_agents("RequestDefaultAgent", AGENT_PATH)

        us.accepts = False
        since = us.mark()
        with self.fact("Pair asks the agent of the connection that pairs"):
            call, question = self.asked(since)
        with self.fact("RequestConfirmation is (ou), the device and a passkey, to be answered"):
            check(question.method == "RequestConfirmation", question)
            check(question.value.get_type_string() == "(ou)", question.value)
            check(question.value.unpack()[0] == device, question.value)
            check(question.expects_reply, "no reply is expected")
        self.refused(
            "Pair while pairing",
            us.call(device, DEVICE, "Pair"),
            ERROR + "InProgress",
            "In Progress",
        )
        us.call(device, DEVICE, "CancelPairing")
        self.failed(call, since)
        self.refused(
            "Pair that is cancelled",
            call,
            ERROR + "AuthenticationCanceled",
            "Authentication Canceled",
        )
        with self.fact("before that the agent is told with Cancel, (), not to be answered"):
            _, cancel = us.questions(since)
            check((cancel.method, cancel.path) == ("Cancel", AGENT_PATH), cancel)
            check(cancel.value.get_type_string() == "()", cancel.value)
            check(not cancel.expects_reply, "a reply is expected")
            check(us.arrived.index(cancel) < us.arrived.index(call), "it came later")

        since = us.mark()
        call, _ = self.asked(since)
        us.pending.pop().return_dbus_error(ERROR + "Rejected", "no")
        self.failed(call, since)
        self.refused(
            "Pair that the agent rejects",
            call,
            ERROR + "AuthenticationFailed",
            "Authentication Failed",
        )
        with self.fact("its end: Connected is told, the answer, Connected is told again"):
            course = us.course(since, device)
            check(course == ["Connected=true", "answer", "Connected=false"], course)

        us.accepts = True
        us.on_agents("UnregisterAgent", AGENT_PATH)
        us.on_agents("RegisterAgent", AGENT_PATH, "NoInputNoOutput")
        us.on_agents("RequestDefaultAgent", AGENT_PATH)
        since = us.mark()
        call = us.call(device, DEVICE, "Pair")
        self.answered("Pair with an agent that can neither show nor ask", call)
        with self.fact("that agent is not asked"):
            check(not us.questions(since), us.questions(since))
        with self.fact("Connected and Paired are told before the answer"):
            course = us.course(since, device)
            before = " ".join(course[: course.index("answer")])
            check("Connected=true" in before and "Paired=true" in before, course)
        self.refused(
            "Pair of a device that is paired",
            us.call(device, DEVICE, "Pair"),
            ERROR + "AlreadyExists",
            "Already Exists",
        )
        us.on_agents("UnregisterAgent", AGENT_PATH)
        self.them.close()

    def removal(self):
        """Removing a device"""
        us, own, device = self.us, self.own, self.device
        unknown = (ERROR + "DoesNotExist", "Does Not Exist")

        def remove(path):
            return us.on_adapter(own, "RemoveDevice", path)

        self.refused("RemoveDevice of none", remove(path_of(own, "00:00:00:00:00:01")), *unknown)
        self.refused("RemoveDevice of what is no device", remove(own), *unknown)
        theirs = [path for path in us.objects() if path.startswith(self.other + "/dev_")]
        self.refused("RemoveDevice of another adapter's", remove(theirs[0]), *unknown)
        self.switch(False)
        until(lambda: not us.property(device, DEVICE, "Connected"), "end of the connection")
        with self.fact("off: a device that is paired stays"):
            check(device in us.objects(), "it is gone")
        self.refused(
            "RemoveDevice while off", remove(device), ERROR + "NotReady", "Resource Not Ready"
        )
        self.switch(True)
        since = us.mark()
        remove(device)
        self.told(
            "RemoveDevice: gone, then the answer",
            since,
            [device],
            ["InterfacesRemoved", "answer"],
        )
        self.refused("RemoveDevice again", remove(device), *unknown)
        self.refused(
            "Get of it then",
            us.get(device, DEVICE, "Paired"),
            BUS_ERROR + "UnknownObject",
            text_of_unknown(PROPERTIES, "Get", "ss"),
        )

    def check_end_of_adapters(self, since):
        for path in (self.own, self.other):
            told = self.us.signals(since, path)
            off = [item for item in told if "Powered=false" in item.told().split()]
            gone = [item for item in told if item.name == "InterfacesRemoved"]
            check(off and told.index(off[0]) < told.index(gone[0]), told)
            check(ADAPTER in gone[-1].value.unpack()[1], gone)

    def adapters(self):
        """Adapters that go and come"""
        us = self.us
        both = {self.own, self.other}

        def told_of(name, since):
            """The adapters of which that was told, in this order."""
            told = [item for item in us.signals(since, *both) if item.name == name]
            return [item.about() for item in told if ADAPTER in item.value.unpack()[1]]

        since = us.mark()
        self.world.unplug()
        until(lambda: set(told_of("InterfacesRemoved", since)) == both, "end of the adapters")
        with self.fact("unplugged: off, then removed with Adapter1"):
            self.check_end_of_adapters(since)
        with self.fact("the list of objects holds none of them"):
            check(not both & set(us.objects()), list(us.objects()))
        since = us.mark()
        self.world.plug_in()
        until(lambda: set(told_of("InterfacesAdded", since)) == both, "new adapters")
        with self.fact("plugged in: added with Adapter1"):
            for path in both:
                added = us.signals(since, path)[0]
                check(not wrong_types(interfaces_of(added)[ADAPTER], ADAPTER_TYPES), added)
        with self.fact("of siblings the list has the newest first"):
            listed = [path for path in us.objects() if path in both]
            check(listed == told_of("InterfacesAdded", since)[::-1], listed)

    def requests(self):
        """A device that connects"""
        us, own, device = self.us, self.own, self.device
        first, last = Client(), Client()
        for client in (first, us, last):
            client.on_agents("RegisterAgent", AGENT_PATH, "DisplayYesNo")
            client.on_agents("RequestDefaultAgent", AGENT_PATH)
        last.close()
        since = us.mark()
        with self.world.device_connects(own):
            with self.fact("the newest default agent is asked of those that are still there"):
                until(lambda: len(us.questions(since)) == 2, "two questions to the agent")
                check(not first.questions(0), "the first one is asked")
            may_pair, may_serve = us.questions(since)
            with self.fact("an agent is called by org.bluez, at its path, as org.bluez.Agent1"):
                check(may_pair.sender == us.ask_bus("GetNameOwner", DAEMON), may_pair)
                check((may_pair.path, may_pair.interface) == (AGENT_PATH, AGENT), may_pair)
            with self.fact("RequestAuthorization is (o), the device, to be answered"):
                check(may_pair.method == "RequestAuthorization", may_pair)
                check(may_pair.value.get_type_string() == "(o)", may_pair.value)
                check(may_pair.value.unpack() == (device,), may_pair.value)
                check(may_pair.expects_reply, "no reply is expected")
            with self.fact("AuthorizeService is (os), the device and a UUID, to be answered"):
                check(may_serve.method == "AuthorizeService", may_serve)
                check(may_serve.value.get_type_string() == "(os)", may_serve.value)
                check(may_serve.value.unpack()[0] == device, may_serve.value)
                check(len(may_serve.value.unpack()[1]) == 36, may_serve.value)
                check(may_serve.expects_reply, "no reply is expected")
            added = us.signals(since, device)[0]
            with self.fact("the device is added before, and connected"):
                check(added.name == "InterfacesAdded", added)
                check(us.arrived.index(added) < us.arrived.index(may_pair), "it came later")
                check(interfaces_of(added)[DEVICE]["Connected"].unpack() is True, added)
            values = interfaces_of(added)[DEVICE]
            with self.fact("without a name it has no Name, and its address with dashes as Alias"):
                check("Name" not in values, values)
                check(values["Alias"].unpack() == device[-17:].replace("_", "-"), values)
            with self.fact("one that was not found has no RSSI"):
                check("RSSI" not in values, values)
            until(lambda: us.property(device, DEVICE, "ServicesResolved"), "its services")
            since = us.mark()
            us.on_adapter(own, "RemoveDevice", device)
            # bluetoothd 5.66 tells of the connection after the answer, 5.82 before it.
            with self.fact("RemoveDevice of it: services first, answer and connection, gone last"):
                until(lambda: us.course(since, device)[-1] == "InterfacesRemoved", "removal")
                course = us.course(since, device)
                check(course[0].split()[0] == "ServicesResolved=false", course)
                check("answer" in course, course)
                check("Connected=false" in " ".join(course).split(), course)
        us.on_agents("UnregisterAgent", AGENT_PATH)
        first.close()

    def end(self):
        """The end of the daemon"""
        us = self.us
        owner = us.ask_bus("GetNameOwner", DAEMON)
        with self.fact("every signal and every question came from org.bluez's unique name"):
            heard = us.signals(0) + us.questions(0)
            check({item.sender for item in heard} == {owner}, owner)
        us.on_agents("RegisterAgent", AGENT_PATH, "NoInputNoOutput")
        _, path, interface = BUS
        body = GLib.Variant("(s)", (DAEMON,))
        pid = us.call(path, interface, "GetConnectionUnixProcessID", body, name=BUS[0])
        since = us.mark()
        os.kill(pid.value.unpack()[0], signal.SIGTERM)
        until(lambda: us.ask_bus("NameHasOwner", DAEMON) is False, "end of the daemon")
        with self.fact("told to end, it says of every adapter: off, then removed"):
            self.check_end_of_adapters(since)
        with self.fact("its agents are told with Release, which is () and expects no reply"):
            (release,) = us.questions(since)
            check((release.method, release.path) == ("Release", AGENT_PATH), release)
            check(release.value.get_type_string() == "()", release.value)
            check(not release.expects_reply, "a reply is expected")


def interfaces_of(added):
    """Interface -> name -> value of an InterfacesAdded."""
    return interfaces(added.value.get_child_value(1))
