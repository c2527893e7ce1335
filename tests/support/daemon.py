#!/usr/bin/python3
"""A double of the BlueZ daemon for one test case.

Takes the name org.bluez on the bus of DBUS_SYSTEM_BUS_ADDRESS, says "ready" on
standard output and then does what the test scripts over D-Bus, with the calls of
org.freedesktop.DBus.Mock on the object "/". Objects and properties are sent in
the order in which they were added, with the types they were given.
"""

import ctypes
import os
import sys

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from dbusmock import mockobject

OBJECT_MANAGER = mockobject.OBJECT_MANAGER_IFACE
UNLOGGED = (mockobject.MOCK_IFACE, dbus.PEER_IFACE, dbus.INTROSPECTABLE_IFACE)


def describe(value):
    """Text of one argument, as the test compares it."""
    if isinstance(value, dbus.Boolean):
        return 'true' if value else 'false'
    return str(value)


class Daemon(mockobject.DBusMockObject):
    """The root object, with a log of all calls in the order of their arrival.

    The log of the base class is one per object and leaves out the property
    calls; this one sees every method call before it is dispatched, calls on
    objects that do not exist included.
    """

    def __init__(self, name, logfile):
        super().__init__(name, '/', OBJECT_MANAGER, {}, logfile, True)
        self.arrivals = []
        self.fault = None
        name.get_bus().add_message_filter(self.note)

    def note(self, connection, message):
        """Logs a method call; leaves it to the fault or to the dispatcher."""
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
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED

    @dbus.service.method(mockobject.MOCK_IFACE, out_signature='as')
    def TakeCalls(self):
        """Gives the calls logged since the last time, and forgets them."""
        calls, self.arrivals = self.arrivals, []
        return calls

    @dbus.service.method(mockobject.MOCK_IFACE, in_signature='sss')
    def FailNextCall(self, method, path, code):
        """Lets code handle the next call of a method in the dispatcher's place."""
        self.fault = [str(method), str(path), str(code)]

    @dbus.service.method(mockobject.MOCK_IFACE, in_signature='osa{sv}')
    def ReplaceProperties(self, path, interface, properties):
        """Sets the whole properties of an interface and sends no signal."""
        mockobject.objects[path].props[interface] = properties


def main():
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    bus = dbus.bus.BusConnection(os.environ['DBUS_SYSTEM_BUS_ADDRESS'])
    bus.set_exit_on_disconnect(True)
    # The name comes last: whoever sees it finds the objects in place.
    with_objects = dbus.service.BusName('org.lumso.Daemon', bus)
    mockobject.objects['/'] = Daemon(with_objects, os.devnull)
    mockobject.objects['/'].AddObject(
        '/org/bluez', 'org.bluez.AgentManager1', {},
        [('RegisterAgent', 'os', '', ''), ('RequestDefaultAgent', 'o', '', ''),
         ('UnregisterAgent', 'o', '', '')])
    name = dbus.service.BusName('org.bluez', bus, do_not_queue=True)
    print('ready', flush=True)
    glib = ctypes.cdll.LoadLibrary('libglib-2.0.so.0')
    while name:
        glib.g_main_context_iteration(None, True)


if __name__ == '__main__':
    sys.exit(main())
