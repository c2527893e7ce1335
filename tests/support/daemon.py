#!/usr/bin/python3
"""A double of the BlueZ daemon for one test case.

Takes the name org.bluez on the bus of DBUS_SYSTEM_BUS_ADDRESS, says "ready" on
standard output and behaves as the daemon does, tests/contract says how, until
the test scripts something else over D-Bus, with the calls of
org.freedesktop.DBus.Mock on the object "/". It is a daemon whose adapters are
always pairable, and it finds nearby devices at once.
"""

import ctypes
import os
import signal
import sys

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from dbusmock import mockobject
from dbusmock.mockobject import MOCK_IFACE, objects

ADAPTER = 'org.bluez.Adapter1'
AGENT = 'org.bluez.Agent1'
AGENT_MANAGER = 'org.bluez.AgentManager1'
DEVICE = 'org.bluez.Device1'
OBJECT_MANAGER = mockobject.OBJECT_MANAGER_IFACE
UNLOGGED = (MOCK_IFACE, dbus.PEER_IFACE, dbus.INTROSPECTABLE_IFACE)
ANSWERED_LATER = {'async_callbacks': ('reply', 'fail')}

LOG = open(os.devnull, 'wb')

CAPABILITIES = ('', 'DisplayOnly', 'DisplayYesNo', 'KeyboardOnly',
                'NoInputNoOutput', 'KeyboardDisplay')

# The order of a device's properties; Name, Class, Icon, Modalias and the rest
# of the radio's need not be there.
DEVICE_ORDER = (
    'Address', 'AddressType', 'Name', 'Alias', 'Class', 'Appearance', 'Icon',
    'Paired', 'Bonded', 'Trusted', 'Blocked', 'LegacyPairing', 'RSSI',
    'Connected', 'UUIDs', 'Modalias', 'Adapter', 'ManufacturerData',
    'ServiceData', 'TxPower', 'ServicesResolved', 'AdvertisingFlags')


def adapter_values(given):
    """What the daemon says of an adapter of which this is given."""
    name = given.get('Name', 'desk')
    values = {
        'Address': '00:11:22:33:44:55', 'AddressType': 'public', 'Name': name,
        'Alias': name, 'Class': dbus.UInt32(0x10c), 'Powered': False,
        'Discoverable': False, 'DiscoverableTimeout': dbus.UInt32(180),
        'Pairable': True, 'PairableTimeout': dbus.UInt32(0),
        'Discovering': False,
        'UUIDs': dbus.Array(['00001800-0000-1000-8000-00805f9b34fb'], 's'),
        'Modalias': 'usb:v1D6Bp0246d0542',
        'Roles': dbus.Array(['central', 'peripheral'], 's')}
    return {**values, **given}


def device_values(path, given):
    """What the daemon says of a device of which this is given."""
    adapter, _, name = path.rpartition('/')
    address = given.get('Address', name[len('dev_'):].replace('_', ':'))
    alias = given.get('Name', str(address).replace(':', '-'))
    values = {
        'Address': address, 'AddressType': 'public', 'Alias': alias,
        'Paired': False, 'Bonded': given.get('Paired', False),
        'Trusted': False, 'Blocked': False, 'LegacyPairing': False,
        'Connected': False, 'UUIDs': dbus.Array([], 's'),
        'Adapter': dbus.ObjectPath(adapter), 'ServicesResolved': False}
    values.update(given)
    known = [name for name in DEVICE_ORDER if name in values]
    return {name: values[name] for name in [*known, *values]}


def describe(value):
    """Text of one argument, as the test compares it."""
    if isinstance(value, dbus.Boolean):
        return 'true' if value else 'false'
    return str(value)


def failure(name, text):
    if '.' not in name:
        name = 'org.bluez.Error.' + name
    return dbus.exceptions.DBusException(text, name=name)


class Object(mockobject.DBusMockObject):
    """An object of the daemon. A scripted method comes before one that is
    written here."""

    def __init__(self, bus_name, path, interfaces):
        super().__init__(bus_name, path, '', {})
        self.logfile, self.is_logfile_owner = LOG, False
        # None is the main one: AddMethod would give its methods to all objects.
        self.interface = None
        self.props = interfaces
        self.rank = 0  # the place among its siblings, the newest first

    def _message_cb(self, connection, message):
        """Leaves calls that nobody here takes to libdbus, which refuses them."""
        if self.takes(message):
            super()._message_cb(connection, message)
            return dbus.lowlevel.HANDLER_RESULT_HANDLED
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    def takes(self, message):
        interface = message.get_interface()
        if interface == dbus.PROPERTIES_IFACE and interface not in self.props:
            return False
        try:
            _, method = dbus.service._method_lookup(
                self, message.get_member(), interface)
        except dbus.exceptions.UnknownMethodException:
            return False
        return method._dbus_in_signature in (None, message.get_signature())

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature='ss',
                         out_signature='v')
    def Get(self, interface_name, property_name):
        values = self.GetAll(interface_name)
        if property_name not in values:
            raise failure('org.freedesktop.DBus.Error.InvalidArgs',
                          f"No such property '{property_name}'")
        return values[property_name]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature='s',
                         out_signature='a{sv}')
    def GetAll(self, interface_name):
        if interface_name not in self.props:
            raise failure('org.freedesktop.DBus.Error.InvalidArgs',
                          f"No such interface '{interface_name}'")
        return self.props[interface_name]

    def change(self, interface, changed, cleared=()):
        """Changes properties and tells so."""
        values = self.props.setdefault(interface, {})
        values.update(changed)
        for name in cleared:
            values.pop(name, None)
        self.EmitSignal(
            dbus.PROPERTIES_IFACE, 'PropertiesChanged', 'sa{sv}as',
            [interface, dbus.Dictionary(changed, 'sv'),
             dbus.Array(cleared, 's')])


class Agent:
    def __init__(self, bus, sender, path, capability):
        self.bus = bus
        self.sender = sender
        self.path = path
        self.capability = capability

    def ask(self, method, signature, args, granted, refused):
        self.bus.call_async(self.sender, self.path, AGENT, method, signature,
                            args, granted, refused, timeout=60)

    def tell(self, method):
        message = dbus.lowlevel.MethodCallMessage(
            self.sender, self.path, AGENT, method)
        message.set_no_reply(True)
        self.bus.send_message(message)


class Manager(Object):
    """The agents, one for each connection, and the order of the defaults."""

    def __init__(self, bus_name):
        super().__init__(bus_name, '/org/bluez', {
            dbus.INTROSPECTABLE_IFACE: {}, AGENT_MANAGER: {},
            'org.bluez.ProfileManager1': {}, 'org.bluez.HealthManager1': {}})
        self.agents = {}
        self.defaults = []  # the newest is the last

    def known(self, sender, path):
        agent = self.agents.get(sender)
        if agent is None or agent.path != path:
            raise failure('DoesNotExist', 'Does Not Exist')
        return agent

    def serving(self, sender=None):
        """The agent for what a connection, or nobody here, has begun."""
        return self.agents.get(sender, self.defaults[-1] if self.defaults else None)

    def forget(self, sender):
        agent = self.agents.pop(sender, None)
        if agent in self.defaults:
            self.defaults.remove(agent)

    @dbus.service.method(AGENT_MANAGER, in_signature='os', out_signature='',
                         sender_keyword='sender')
    def RegisterAgent(self, path, capability, sender):
        if sender in self.agents:
            raise failure('AlreadyExists', 'Already Exists')
        if capability not in CAPABILITIES:
            raise failure('InvalidArguments', 'Invalid arguments in method call')
        agent = Agent(self.connection, sender, path, capability)
        self.agents[sender] = agent
        if not self.defaults:
            self.defaults.append(agent)

    @dbus.service.method(AGENT_MANAGER, in_signature='o', out_signature='',
                         sender_keyword='sender')
    def RequestDefaultAgent(self, path, sender):
        agent = self.known(sender, path)
        if agent in self.defaults:
            self.defaults.remove(agent)
        self.defaults.append(agent)

    @dbus.service.method(AGENT_MANAGER, in_signature='o', out_signature='',
                         sender_keyword='sender')
    def UnregisterAgent(self, path, sender):
        self.known(sender, path)
        self.forget(sender)


class Adapter(Object):
    """An adapter with the discoveries that connections have begun on it."""

    def __init__(self, bus_name, path, interfaces):
        super().__init__(bus_name, path, interfaces)
        self.sessions = set()

    @property
    def values(self):
        return self.props[ADAPTER]

    def devices(self):
        return [item for path, item in objects.items()
                if isinstance(item, Device)
                and path.startswith(self.path + '/')]

    def stop(self):
        for device in self.devices():
            objects['/'].Withdraw(device.path)
        self.change(ADAPTER, {'Powered': False, 'Discovering': False})

    def need_power(self):
        if not self.values.get('Powered'):
            raise failure('NotReady', 'Resource Not Ready')

    @dbus.service.method(ADAPTER, in_signature='', out_signature='',
                         sender_keyword='sender', **ANSWERED_LATER)
    def StartDiscovery(self, sender, reply, fail):
        self.need_power()
        if sender in self.sessions:
            raise failure('InProgress', 'Operation already in progress')
        self.sessions.add(sender)
        reply()
        if len(self.sessions) == 1:
            self.change(ADAPTER, {'Discovering': True})
            objects['/'].look_around(self.path)

    @dbus.service.method(ADAPTER, in_signature='', out_signature='',
                         sender_keyword='sender', **ANSWERED_LATER)
    def StopDiscovery(self, sender, reply, fail):
        self.need_power()
        if sender not in self.sessions:
            raise failure('Failed', 'No discovery started')
        reply()
        self.forget(sender)

    def forget(self, sender):
        if sender not in self.sessions:
            return
        self.sessions.remove(sender)
        if self.sessions:
            return
        for device in self.devices():
            device.lose_sight()
        self.change(ADAPTER, {'Discovering': False})

    @dbus.service.method(ADAPTER, in_signature='o', out_signature='',
                         **ANSWERED_LATER)
    def RemoveDevice(self, path, reply, fail):
        device = objects.get(path)
        if device not in self.devices():
            raise failure('DoesNotExist', 'Does Not Exist')
        self.need_power()
        if device.values.get('Connected'):
            device.change(DEVICE, {'ServicesResolved': False})
            reply()
            device.change(DEVICE, {'Connected': False})
            objects['/'].Withdraw(path)
        else:
            objects['/'].Withdraw(path)
            reply()

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature='ssv',
                         out_signature='', **ANSWERED_LATER)
    def Set(self, interface_name, property_name, value, reply, fail):
        changed = {}
        if self.props[interface_name][property_name] != value:
            changed[property_name] = value
        if property_name == 'Powered' and changed and not value:
            changed['Discovering'] = False
            self.sessions.clear()
            for device in self.devices():
                device.lose_power()
        reply()
        if changed:
            self.change(interface_name, changed)


class Device(Object):
    """A device, with the pairing that is going on."""

    def __init__(self, bus_name, path, interfaces):
        super().__init__(bus_name, path, interfaces)
        self.pairing = None  # the agent, and how to fail

    @property
    def values(self):
        return self.props[DEVICE]

    def lose_sight(self):
        radio = [name for name in ('TxPower', 'RSSI') if name in self.values]
        if radio:
            self.change(DEVICE, {}, radio)

    def lose_power(self):
        if not self.values.get('Paired'):
            objects['/'].Withdraw(self.path)
        elif self.values.get('Connected'):
            self.change(DEVICE, {'ServicesResolved': False, 'Connected': False})

    @dbus.service.method(DEVICE, in_signature='', out_signature='',
                         sender_keyword='sender', **ANSWERED_LATER)
    def Pair(self, sender, reply, fail):
        if self.values.get('Paired'):
            raise failure('AlreadyExists', 'Already Exists')
        if self.pairing:
            raise failure('InProgress', 'In Progress')
        agent = objects['/org/bluez'].serving(sender)
        pairing = self.pairing = (agent, fail)

        def granted(*_):
            if self.pairing is pairing:
                self.pairing = None
                self.change(DEVICE, {'Bonded': True, 'ServicesResolved': True,
                                     'Paired': True})
                reply()

        def refused(_):
            if self.pairing is pairing:
                self.end_pairing('AuthenticationFailed', 'Authentication Failed')

        self.change(DEVICE, {'Connected': True})
        if agent is None or agent.capability == 'NoInputNoOutput':
            granted()
        else:
            agent.ask('RequestConfirmation', 'ou', (self.path, 0), granted,
                      refused)

    def end_pairing(self, error, text):
        _, fail = self.pairing
        self.pairing = None
        fail(failure(error, text))
        self.change(DEVICE, {'Connected': False})

    @dbus.service.method(DEVICE, in_signature='', out_signature='',
                         **ANSWERED_LATER)
    def CancelPairing(self, reply, fail):
        if not self.pairing:
            raise failure('DoesNotExist', 'Does Not Exist')
        agent, _ = self.pairing
        if agent:
            agent.tell('Cancel')
        self.end_pairing('AuthenticationCanceled', 'Authentication Canceled')
        reply()


class Daemon(Object):
    """The root object, with a log of all calls in the order of their arrival.

    The log of the base class is one per object and leaves out the property
    calls; this one sees every method call before it is dispatched, calls on
    objects that do not exist included.
    """

    def __init__(self, bus_name):
        super().__init__(bus_name, '/', {})
        self.arrivals = []
        self.fault = None
        self.nearby = {}
        self.added = 0
        bus = bus_name.get_bus()
        bus.add_match_string("type='signal',member='NameOwnerChanged',arg2=''")
        bus.add_message_filter(self.note)

    def note(self, connection, message):
        """Logs a method call; leaves it to the fault or to the dispatcher.
        Forgets whoever leaves the bus."""
        if (isinstance(message, dbus.lowlevel.MethodCallMessage)
                and message.get_interface() not in UNLOGGED):
            words = [f'{message.get_interface()}.{message.get_member()}',
                     message.get_path()]
            if message.get_signature():
                words.append(f'({message.get_signature()})')
                words += [describe(arg) for arg in message.get_args_list()]
            self.arrivals.append(' '.join(words))
            if self.fault and words[:2] == self.fault[:2]:
                code, self.fault = self.fault[2], None
                exec(code, globals(),
                     {'connection': connection, 'message': message})
                return dbus.lowlevel.HANDLER_RESULT_HANDLED
        elif message.get_member() == 'NameOwnerChanged':
            name, _, owner = message.get_args_list()
            if not owner:
                for item in list(objects.values()):
                    if isinstance(item, (Adapter, Manager)):
                        item.forget(name)
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    @dbus.service.method(OBJECT_MANAGER, in_signature='',
                         out_signature='a{oa{sa{sv}}}')
    def GetManagedObjects(self):
        return {path: objects[path].props for path in self.tree()}

    def tree(self):
        """The paths of all objects below, parents first, siblings newest
        first."""
        children = {}
        for path in sorted(objects, key=lambda path: objects[path].rank):
            parent = path.rpartition('/')[0]
            while parent and parent not in objects:
                parent = parent.rpartition('/')[0]
            children.setdefault(parent, []).append(path)
        del children[''][children[''].index('/')]

        def below(parent):
            for path in children.get(parent, ()):
                yield path
                yield from below(path)

        return below('')

    def add(self, kind, path, interface, values):
        if path in objects:
            raise failure(MOCK_IFACE + '.NameError', f'{path} exists')
        objects[path] = kind(self.bus_name, path, {
            dbus.INTROSPECTABLE_IFACE: {}, interface: values,
            dbus.PROPERTIES_IFACE: {}})
        self.added += 1
        objects[path].rank = self.added

    def look_around(self, adapter):
        """Tells of the devices near an adapter that discovers."""
        for path, values in self.nearby.items():
            if not path.startswith(adapter + '/'):
                continue
            if path in objects:
                seen = {name: value for name, value in values.items()
                        if name in ('RSSI', 'TxPower')}
                objects[path].change(DEVICE, seen)
            else:
                self.AddDevice(path, values)
                self.Announce(path)

    def end(self):
        """Says goodbye as the daemon does when it is told to end."""
        adapters = [item for item in objects.values()
                    if isinstance(item, Adapter)]
        manager = objects['/org/bluez']
        for adapter in adapters:
            adapter.stop()
        self.Withdraw('/org/bluez')
        for agent in manager.agents.values():
            agent.tell('Release')
        for adapter in adapters:
            self.Withdraw(adapter.path)
        self.connection.flush()
        os._exit(0)

    # What the test scripts.

    @dbus.service.method(MOCK_IFACE, out_signature='as')
    def TakeCalls(self):
        """Gives the calls logged since the last time, and forgets them."""
        calls, self.arrivals = self.arrivals, []
        return calls

    @dbus.service.method(MOCK_IFACE, in_signature='sss')
    def FailNextCall(self, method, path, code):
        """Lets code handle the next call of a method in the dispatcher's place."""
        self.fault = [str(method), str(path), str(code)]

    @dbus.service.method(MOCK_IFACE, in_signature='osa{sv}')
    def ReplaceProperties(self, path, interface, properties):
        """Sets the whole properties of an interface and sends no signal."""
        objects[path].props[interface] = properties

    @dbus.service.method(MOCK_IFACE, in_signature='osa{sv}as')
    def ChangeProperties(self, path, interface, changed, cleared):
        objects[path].change(interface, changed, cleared)

    @dbus.service.method(MOCK_IFACE, in_signature='ssa{sv}a(ssss)')
    def AddObject(self, path, interface, properties, methods):
        self.add(Object, path, interface, properties)
        objects[path].AddMethods(interface, methods)

    @dbus.service.method(MOCK_IFACE, in_signature='sa{sv}')
    def AddAdapter(self, path, properties):
        self.add(Adapter, path, ADAPTER, adapter_values(properties))

    @dbus.service.method(MOCK_IFACE, in_signature='sa{sv}')
    def AddDevice(self, path, properties):
        self.add(Device, path, DEVICE, device_values(path, properties))

    @dbus.service.method(MOCK_IFACE, in_signature='sa{sv}')
    def AddNearbyDevice(self, path, properties):
        self.nearby[path] = properties

    @dbus.service.method(MOCK_IFACE, in_signature='s')
    def Announce(self, path):
        """Tells that an object was added, which is then the newest one."""
        self.added += 1
        objects[path].rank = -self.added
        self.EmitSignal(OBJECT_MANAGER, 'InterfacesAdded', 'oa{sa{sv}}',
                        [path, objects[path].props])

    @dbus.service.method(MOCK_IFACE, in_signature='s')
    def Withdraw(self, path):
        """Takes an object away and tells so."""
        interfaces = list(objects[path].props)
        self.RemoveObject(path)
        self.EmitSignal(OBJECT_MANAGER, 'InterfacesRemoved', 'oas',
                        [path, interfaces])

    @dbus.service.method(MOCK_IFACE, in_signature='s')
    def Unplug(self, path):
        """Takes an adapter away with all its devices."""
        objects[path].stop()
        self.Withdraw(path)

    @dbus.service.method(MOCK_IFACE, in_signature='ssav', out_signature='s',
                         **ANSWERED_LATER)
    def AskAgent(self, method, signature, args, reply, fail):
        """Asks the default agent, and gives its answer as text."""
        def granted(*values):
            reply(str(values))

        def refused(error):
            reply(f'{error.get_dbus_name()}: {error.get_dbus_message()}')

        objects['/org/bluez'].serving().ask(
            method, signature, args, granted, refused)


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(os.environ['DBUS_SYSTEM_BUS_ADDRESS'])
    bus.set_exit_on_disconnect(True)
    # The name comes last: whoever sees it finds the objects in place.
    with_objects = dbus.service.BusName('org.lumso.Daemon', bus)
    objects['/'] = Daemon(with_objects)
    objects['/org/bluez'] = Manager(with_objects)
    name = dbus.service.BusName('org.bluez', bus, do_not_queue=True)
    glib = ctypes.cdll.LoadLibrary('libglib-2.0.so.0')
    end = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p)(
        lambda _: objects['/'].end())
    glib.g_unix_signal_add(signal.SIGTERM, end, None)
    print('ready', flush=True)
    while name:
        glib.g_main_context_iteration(None, True)


if __name__ == '__main__':
    sys.exit(main())
