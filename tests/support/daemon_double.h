// The BlueZ daemon's double: daemon.py as a child process, scripted over the
// case's private bus.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_DAEMON_DOUBLE_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_DAEMON_DOUBLE_H_

#include <gio/gio.h>

#include <string>
#include <vector>

#include "tests/support/private_bus.h"

namespace lumso_test {

inline constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
inline constexpr char kAgentManagerInterface[] = "org.bluez.AgentManager1";
inline constexpr char kDeviceInterface[] = "org.bluez.Device1";
inline constexpr char kObjectManagerInterface[] =
    "org.freedesktop.DBus.ObjectManager";
inline constexpr char kPropertiesInterface[] =
    "org.freedesktop.DBus.Properties";

// The daemon as the application's machine has it: it owns org.bluez, has the
// agent manager on "/org/bluez" and whatever adapters and devices are added. It
// answers and tells as the real one does, which tests/contract holds it to,
// where nothing else is scripted.
//
// `properties` is GVariant text of the type a{sv}, such as
// "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'RSSI': <int16 -70>}". A scripting call
// that fails ends the program.
class DaemonDouble {
 public:
  explicit DaemonDouble(PrivateBus* bus);

  // Makes an object of one interface with exactly these properties, in this
  // order. No signal is sent: it has always been there, and is listed behind
  // its parent and the siblings that were made before.
  void AddObject(const std::string& path, const std::string& interface,
                 const std::string& properties);

  // The same for an adapter or a device with the properties that each has, in
  // the daemon's order, and with these.
  void AddAdapter(const std::string& path, const std::string& properties);
  void AddDevice(const std::string& path, const std::string& properties);

  // Lets every discovery of its adapter find a device, with these properties.
  void AddNearbyDevice(const std::string& path, const std::string& properties);

  // Gives an object one more interface or replaces all properties of one that
  // it has. No signal is sent.
  void SetProperties(const std::string& path, const std::string& interface,
                     const std::string& properties);

  // Changes some properties, takes those away that `cleared` (text of type as)
  // names, and tells so with PropertiesChanged.
  void ChangeProperties(const std::string& path, const std::string& interface,
                        const std::string& changed,
                        const std::string& cleared = "[]");

  // Takes an object away. No signal is sent.
  void RemoveObject(const std::string& path);

  // Tells with InterfacesAdded that an object was added. From then on it is
  // listed before its siblings, as the newest one.
  void Announce(const std::string& path);

  // Takes an object away and tells so with InterfacesRemoved.
  void Withdraw(const std::string& path);

  // Sends a signal from `path`; `body` is GVariant text of the tuple type
  // `type`, such as "(oas)".
  void Emit(const std::string& path, const std::string& interface,
            const std::string& signal, const std::string& type,
            const std::string& body);

  // Sends PropertiesChanged for `interface` on `path` with `changed` (a{sv}
  // text) and nothing invalidated. What Get and GetAll answer stays.
  void EmitPropertiesChanged(const std::string& path,
                             const std::string& interface,
                             const std::string& changed);

  // Lets `code` (Python) answer a method of an object. The arguments are in
  // `args`, the object in `self`, its properties in self.props[interface], all
  // objects in `objects`; the answer goes into `ret`. While it sleeps the whole
  // daemon does. Works for the calls of the Properties interface too.
  void OnCall(const std::string& path, const std::string& interface,
              const std::string& method, const std::string& in_type,
              const std::string& out_type, const std::string& code);

  // Lets a method of an object fail.
  void FailCall(const std::string& path, const std::string& interface,
                const std::string& method, const std::string& in_type,
                const std::string& error, const std::string& message);

  // Lets `code` (Python) take the place of everything that the daemon would do
  // with the next call of a method on `path`; the call is in `message` and the
  // bus connection in `connection`. Nothing is sent but what `code` sends.
  void FailNextCall(const std::string& path, const std::string& interface,
                    const std::string& method, const std::string& code);

  // Returns the method calls that have arrived since the last time, those of
  // this class left out, each as
  // "interface.Method path (signature) argument argument", with the last two
  // parts only when there are arguments.
  std::vector<std::string> TakeCalls();

  // Asks the default agent something and returns its answer as text, which is
  // "()" when it has no value, or the error as "name: message".
  std::string AskAgent(const std::string& method, const std::string& type,
                       const std::string& arguments);

  // Ends the daemon without a word, as a crash does, or tells it to end, which
  // it does with its signals; returns when the bus knows it.
  void Kill();
  void Stop();

 private:
  void Add(const char* method, const std::string& path,
           const std::string& properties);
  void WaitForEnd();

  // Calls a method of the scripting interface on `path`; takes `args`.
  GVariant* Script(const std::string& path, const char* method, GVariant* args);

  PrivateBus* bus_;
  ChildProcess process_;
};

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_DAEMON_DOUBLE_H_
