// Registration under all circumstances, dispose, and what outlives what: the
// bus, the daemon and the plug-in.

#include <dirent.h>
#include <lumso_bluetooth/lumso_bluetooth_plugin.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kListCall[] =
    "org.freedesktop.DBus.ObjectManager.GetManagedObjects /";
constexpr char kGetAllCall[] =
    "org.freedesktop.DBus.Properties.GetAll /org/bluez/hci0 (s) "
    "org.bluez.Adapter1";
constexpr char kRegisterCall[] =
    "org.bluez.AgentManager1.RegisterAgent /org/bluez (os) "
    "/brel/lumso/lumso_bluetooth/agent NoInputNoOutput";
constexpr char kDefaultCall[] =
    "org.bluez.AgentManager1.RequestDefaultAgent /org/bluez (o) "
    "/brel/lumso/lumso_bluetooth/agent";
constexpr char kUnregisterCall[] =
    "org.bluez.AgentManager1.UnregisterAgent /org/bluez (o) "
    "/brel/lumso/lumso_bluetooth/agent";
constexpr char kNoDaemon[] =
    "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The name org.bluez "
    "was not provided by any .service files\n";

// Script of the daemon: notes how many rules the bus keeps about the daemon.
constexpr char kNoteRules[] =
    "bus = self.bus_name.get_bus()\n"
    "rules = bus.call_blocking('org.freedesktop.DBus', "
    "'/org/freedesktop/DBus', 'org.freedesktop.DBus.Debug.Stats', "
    "'GetAllMatchRules', '', ())\n"
    "mine = [r for of in rules.values() for r in of if 'org.bluez' in r]\n"
    "objects['/'].arrivals.append(f'{len(mine)} rules')\n";

// Counts the entries of a folder of /proc/self.
size_t CountEntries(const char* folder) {
  DIR* entries = opendir(folder);
  size_t count = 0;
  while (readdir(entries) != nullptr) count++;
  closedir(entries);
  return count;
}

size_t CountDescriptors() { return CountEntries("/proc/self/fd"); }
size_t CountThreads() { return CountEntries("/proc/self/task"); }

class Registration : public BusTest {
 protected:
  // The plug-in's channels are there and it has nothing to report.
  void ExpectNeutral() {
    for (const char* channel : {kMethods, kDiscovery, kState, kDebug}) {
      EXPECT_TRUE(host->HasHandler(channel)) << channel;
    }
    EXPECT_EQ(host->Call("isAvailable"), "false");
    EXPECT_EQ(host->Call("getState"), "10");
    EXPECT_EQ(host->Call("getName"), "\"\"");
    EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
    EXPECT_EQ(host->Listen(kState), "null");
    EXPECT_EQ(host->Listen(kDiscovery), "null");
    EXPECT_EQ(host->Listen(kDebug), "null");
    for (const PluginHost::Record& record : host->records()) {
      EXPECT_TRUE(record.is_answer) << record.channel << record.text;
    }
  }

  // The rules that the bus keeps for the plug-in's connection, sorted.
  std::vector<std::string> PluginMatchRules() {
    std::vector<std::string> rules = bus->MatchRules(PluginBusName());
    std::sort(rules.begin(), rules.end());
    return rules;
  }
};

// Sees every rule that anybody asks the bus for. One at a time.
class RuleMonitor {
 public:
  RuleMonitor() {
    TakeMembers();
    g_autoptr(GError) error = nullptr;
    connection_ = g_dbus_connection_new_for_address_sync(
        g_getenv("DBUS_SYSTEM_BUS_ADDRESS"),
        static_cast<GDBusConnectionFlags>(
            G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (connection_ == nullptr) g_error("monitor: %s", error->message);
    g_dbus_connection_add_filter(connection_, Note, nullptr, nullptr);
    const char* rules[] = {"type='method_call',member='AddMatch'", nullptr};
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Monitoring", "BecomeMonitor",
        g_variant_new("(^asu)", rules, 0U), nullptr, G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, &error);
    if (reply == nullptr) g_error("monitor: %s", error->message);
  }
  ~RuleMonitor() {
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
  }
  RuleMonitor(const RuleMonitor&) = delete;
  RuleMonitor& operator=(const RuleMonitor&) = delete;

  // The "member" of each rule since the last time, in the order of their
  // coming.
  static std::vector<std::string> TakeMembers() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(Seen(), {});
  }

 private:
  // Guarded by mutex_. Not of the object: GLib hands the object over to its
  // thread with a lock that the thread sanitizer does not see.
  static std::vector<std::string>& Seen() {
    static auto* members = new std::vector<std::string>();
    return *members;
  }

  // Runs on the bus library's thread until the connection is closed.
  static GDBusMessage* Note(GDBusConnection*, GDBusMessage* message,
                            gboolean incoming, gpointer) {
    if (!incoming ||
        g_strcmp0(g_dbus_message_get_member(message), "AddMatch") != 0) {
      return message;
    }
    const std::string rule = g_dbus_message_get_arg0(message);
    const size_t start = rule.find("member='") + std::strlen("member='");
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      Seen().push_back(rule.substr(start, rule.find('\'', start) - start));
    }
    g_object_unref(message);
    return nullptr;  // a monitor answers nothing
  }

  static std::mutex mutex_;
  GDBusConnection* connection_;
};

std::mutex RuleMonitor::mutex_;

class Dispose : public Registration {};
class LostDaemon : public Registration {};

class LostBus : public Registration {
 protected:
  // Ends the bus and returns when the main loop has told everybody who holds
  // the plug-in's connection, which is where the default ends the process.
  void KillBus() {
    const BusPtr shared = SharedBus();
    bool told = false;
    const auto note = +[](GDBusConnection*, gboolean, GError*, gpointer data) {
      *static_cast<bool*>(data) = true;
    };
    const gulong handler =
        g_signal_connect(shared.get(), "closed", G_CALLBACK(note), &told);
    bus->Kill();
    EXPECT_TRUE(WaitUntil([&] { return told; }));
    g_signal_handler_disconnect(shared.get(), handler);
  }
};

class TwoInstances : public Registration {};

TEST_F(Registration, WithoutABusSaysWhy) {
  UseNoSystemBus();
  Register();
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: system bus connect failed: Could not connect: No "
            "such file or directory\n");
  ExpectNeutral();
}

TEST_F(Registration, WithABusAddressThatIsNoneSaysWhy) {
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", "nonsense", TRUE);
  Register();
  const std::string text = TakeStandardError();
  EXPECT_EQ(text.rfind("lumso_bluetooth: system bus connect failed: ", 0), 0U);
  EXPECT_EQ(text.find('\n'), text.size() - 1);
  ExpectNeutral();
}

TEST_F(Registration, WithoutADaemonSaysWhy) {
  StartBus();
  Register();
  EXPECT_EQ(
      TakeStandardError(),
      std::string("lumso_bluetooth: GetManagedObjects failed: ") + kNoDaemon);
  ExpectNeutral();
}

TEST_F(Registration, WithADaemonThatRefusesSaysWhy) {
  StartBus();
  StartDaemon();
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "not you");
  Register();
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: GetManagedObjects failed: "
            "GDBus.Error:org.freedesktop.DBus.Error.AccessDenied: not you\n");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kListCall, kUnregisterCall));
  ExpectNeutral();
}

TEST_F(Registration, WithADaemonThatAnswersAnotherTypeSaysWhy) {
  StartBus();
  StartDaemon();
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "", "s",
                 "ret = 'objects'");
  Register();
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: GetManagedObjects failed: Method "
            "“GetManagedObjects” returned type “(s)”, but expected "
            "“(a{oa{sa{sv}}})”\n");
  ExpectNeutral();
}

TEST_F(Registration, WithoutAnAdapterSaysNothing) {
  StartBus();
  StartDaemon();
  daemon->AddDevice(kDevicePath, "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  Register();
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kListCall, kUnregisterCall));
  ExpectNeutral();
}

TEST_F(Registration, WithoutAnAdapterLetsGoOfTheBus) {
  StartBus();
  StartDaemon();
  const std::vector<std::string> before = bus->OtherConnections();
  Register();
  EXPECT_TRUE(WaitUntil([&] { return bus->OtherConnections() == before; }));
}

TEST_F(Registration, WithNoObjectsAtAllSaysNothing) {
  StartBus();
  StartDaemon();
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                 "a{oa{sa{sv}}}", "ret = {}");
  Register();
  ExpectNeutral();
}

TEST_F(Registration, WithAnAdapterMakesTheseCallsInThisOrder) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  Register();
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kListCall, kGetAllCall, kRegisterCall, kDefaultCall));
  for (const char* channel : {kMethods, kDiscovery, kState, kDebug}) {
    EXPECT_TRUE(host->HasHandler(channel)) << channel;
  }
  EXPECT_FALSE(host->HasHandler("lumso_bluetooth/read/1"));
  EXPECT_FALSE(host->HasHandler("lumso_bluetooth/read/0"));
  EXPECT_THAT(host->records(), IsEmpty());
}

TEST_F(Registration, WatchesThreeSignalsOfTheDaemon) {
  RegisterReady();
  // The one of the bus itself is how the bus library follows the daemon's name.
  EXPECT_THAT(
      PluginMatchRules(),
      ElementsAre("type='signal',interface='org.freedesktop.DBus',member='"
                  "NameOwnerChanged',path='/org/freedesktop/DBus',sender='org."
                  "freedesktop.DBus',arg0='org.bluez'",
                  "type='signal',interface='org.freedesktop.DBus.ObjectManager'"
                  ",member='InterfacesAdded',path='/',sender='org.bluez'",
                  "type='signal',interface='org.freedesktop.DBus.ObjectManager'"
                  ",member='InterfacesRemoved',path='/',sender='org.bluez'",
                  "type='signal',interface='org.freedesktop.DBus.Properties',"
                  "member='PropertiesChanged',sender='org.bluez'"));
}

TEST_F(Registration, WatchesTheSignalsInThisOrder) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  const RuleMonitor monitor;
  Register();
  std::vector<std::string> members;
  EXPECT_TRUE(WaitUntil([&] {
    for (const std::string& member : RuleMonitor::TakeMembers()) {
      members.push_back(member);
    }
    return members.size() >= 4;
  }));
  EXPECT_THAT(members, ElementsAre("NameOwnerChanged", "InterfacesAdded",
                                   "InterfacesRemoved", "PropertiesChanged"));
}

TEST_F(Registration, WatchesTheSignalsBeforeTheAgentIsRegistered) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->OnCall("/org/bluez", kAgentManagerInterface, "RegisterAgent", "os",
                 "", kNoteRules);
  Register();
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kListCall, kGetAllCall, kRegisterCall, "4 rules",
                          kDefaultCall));
}

TEST_F(Registration, ReadsTheAdapterBeforeItWatchesTheSignals) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->OnCall(kAdapterPath, "org.freedesktop.DBus.Properties", "GetAll", "s",
                 "a{sv}",
                 std::string(kNoteRules) + "ret = self.props[args[0]]");
  Register();
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kListCall, kGetAllCall, "0 rules", kRegisterCall,
                          kDefaultCall));
  EXPECT_EQ(host->Call("getState"), "12");
}

TEST_F(Registration, OutlivesABusThatEndsInTheMiddle) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Name': <'desk'>, 'Powered': <true>}");
  daemon->OnCall(kAdapterPath, "org.freedesktop.DBus.Properties", "GetAll", "s",
                 "a{sv}",
                 "import os, signal\n"
                 "bus = self.bus_name.get_bus()\n"
                 "os.kill(bus.call_blocking('org.freedesktop.DBus', '/', "
                 "'org.freedesktop.DBus', 'GetConnectionUnixProcessID', 's', "
                 "('org.freedesktop.DBus',)), signal.SIGKILL)\n"
                 "os._exit(0)");
  Register();
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: RegisterAgent failed: The connection is "
            "closed\n");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("getState"), "10");
}

TEST_F(Registration, TakesTheFirstAdapterInTheDaemonsOrder) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter("/org/bluez/hci1",
                     "{'Name': <'second'>, 'Address': <'66:11:22:33:44:55'>, "
                     "'Powered': <true>}");
  daemon->AddDevice("/org/bluez/hci1/dev_1", "{'Address': <'x'>}");
  daemon->AddAdapter(kAdapterPath,
                     "{'Address': <'00:11:22:33:44:55'>, 'Name': <'first'>, "
                     "'Powered': <false>}");
  Register();
  EXPECT_EQ(host->Call("getName"), "\"second\"");
  EXPECT_EQ(host->Call("getAddress"), "\"66:11:22:33:44:55\"");
  EXPECT_EQ(host->Call("getState"), "12");
  daemon->TakeCalls();
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.bluez.Adapter1.StartDiscovery /org/bluez/hci1"));
}

// So hci1 comes before hci0 when both are there from the start.
TEST_F(Registration, TakesTheNewestOfTheAdapters) {
  StartBus();
  StartDaemon();
  for (const char* path : {"/org/bluez/hci0", "/org/bluez/hci1"}) {
    daemon->AddAdapter(path, std::string("{'Name': <'") + path + "'>}");
    daemon->Announce(path);
  }
  Register();
  EXPECT_EQ(host->Call("getName"), "\"/org/bluez/hci1\"");
}

TEST_F(Registration, FindsAnAdapterAmongOtherInterfaces) {
  StartBus();
  StartDaemon();
  daemon->AddObject(kAdapterPath, "org.bluez.Media1", "{'Name': <'unread'>}");
  daemon->SetProperties(kAdapterPath, kAdapterInterface,
                        "{'Name': <'desk'>, 'Powered': <true>}");
  daemon->SetProperties(kAdapterPath, "org.bluez.GattManager1",
                        "{'Name': <'unread'>}");
  Register();
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("getState"), "12");
}

TEST_F(Registration, StartsNoThread) {
  RegisterReady();
  host->Call("getDiscoveredDevices");
  host->Listen(kState);
  // What is there belongs to GLib: one more instance adds none.
  const size_t threads = CountThreads();
  PluginHost second;
  second.Call("getDiscoveredDevices");
  second.Listen(kDiscovery);
  EXPECT_EQ(CountThreads(), threads);
}

TEST_F(Registration, RegistersItsTypeOnce) {
  const GType type = lumso_bluetooth_plugin_get_type();
  EXPECT_EQ(lumso_bluetooth_plugin_get_type(), type);
  EXPECT_STREQ(g_type_name(type), "LumsoBluetoothPlugin");
  EXPECT_EQ(g_type_parent(type), G_TYPE_OBJECT);
  GTypeQuery query;
  g_type_query(type, &query);
  EXPECT_EQ(query.class_size, sizeof(GObjectClass));
  guint properties = 0;
  gpointer type_class = g_type_class_ref(type);
  g_free(
      g_object_class_list_properties(G_OBJECT_CLASS(type_class), &properties));
  g_type_class_unref(type_class);
  EXPECT_EQ(properties, 0U);
  guint signals = 0;
  g_free(g_signal_list_ids(type, &signals));
  EXPECT_EQ(signals, 0U);
}

TEST_F(Dispose, OfAnObjectThatWasNeverRegisteredDoesNothing) {
  GObject* plugin =
      G_OBJECT(g_object_new(lumso_bluetooth_plugin_get_type(), nullptr));
  bool gone = false;
  g_object_weak_ref(
      plugin, [](gpointer data, GObject*) { *static_cast<bool*>(data) = true; },
      &gone);
  // Runs dispose twice: here and with the last reference.
  g_object_run_dispose(plugin);
  EXPECT_TRUE(gone);
  g_object_unref(plugin);
}

TEST_F(Dispose, WithdrawsTheAgentOnceAndLeavesTheBus) {
  RegisterReady();
  const std::string name = PluginBusName();
  host->Dispose();
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kUnregisterCall));
  EXPECT_TRUE(WaitUntil([&] { return !bus->NameHasOwner(name); }));
}

TEST_F(Dispose, EndsTheSubscriptionsAndTheExportBeforeTheDaemonIsTold) {
  RegisterReady();
  // An object that is not exported is answered for by the bus connection's own
  // thread; an exported one would leave this call waiting.
  daemon->OnCall(
      "/org/bluez", kAgentManagerInterface, "UnregisterAgent", "o", "",
      std::string(kNoteRules) +
          "try:\n"
          "  bus.call_blocking('" +
          PluginBusName() +
          "', args[0], 'org.bluez.Agent1', 'Cancel', '', (), timeout=5)\n"
          "except dbus.exceptions.DBusException as e:\n"
          "  objects['/'].arrivals.append(e.get_dbus_name())\n");
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kUnregisterCall, "0 rules",
                          "org.freedesktop.DBus.Error.UnknownMethod"));
}

TEST_F(Dispose, LeavesNoRuleOnABusThatOthersStillUse) {
  RegisterReady();
  const BusPtr shared = SharedBus();
  EXPECT_THAT(PluginMatchRules(), SizeIs(4));
  host->Dispose();
  EXPECT_TRUE(WaitUntil([&] { return PluginMatchRules().empty(); }));
}

TEST_F(Dispose, SilencesSignalsThatHadArrived) {
  RegisterReady();
  daemon->AddDevice(kDevicePath, "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  host->Listen(kDiscovery);
  host->Listen(kState);
  const BusPtr shared = SharedBus();
  daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}})",
               "('/a', {'org.bluez.Device1': {}})");
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface, "{}");
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
  // The reply comes after the signals on the same connection, so they have
  // been queued to the main loop when it is here; the loop has not run.
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      shared.get(), "org.bluez", "/", "org.freedesktop.DBus.Peer", "Ping",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  daemon->TakeCalls();
  host->Dispose();
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kUnregisterCall));
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(Dispose, SilencesSignalsThatComeLater) {
  RegisterReady();
  host->Listen(kDiscovery);
  host->Listen(kState);
  const BusPtr shared = SharedBus();
  host->Dispose();
  daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}})",
               "('/a', {'org.bluez.Device1': {}})");
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(Dispose, LeavesNoHandlerBehind) {
  RegisterReady();
  host->Dispose();
  for (const char* channel : {kMethods, kDiscovery, kState, kDebug}) {
    EXPECT_FALSE(host->HasHandler(channel)) << channel;
  }
  EXPECT_EQ(host->Call("isAvailable"), "not implemented");
}

TEST_F(Dispose, InManyRoundsLeaksNothing) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  const std::vector<std::string> connections = bus->OtherConnections();
  const auto round = [&] {
    PluginHost plugin;
    EXPECT_EQ(plugin.Call("isAvailable"), "true");
    EXPECT_EQ(plugin.Call("getDiscoveredDevices"), "[]");
    plugin.Listen(kDiscovery);
    plugin.Listen(kState);
    Settle();
  };
  const auto is_alone = [&] { return bus->OtherConnections() == connections; };
  // GLib keeps what it makes for the first one.
  round();
  ASSERT_TRUE(WaitUntil(is_alone));
  const size_t descriptors = CountDescriptors();
  const size_t threads = CountThreads();
  for (int i = 0; i < 20; i++) round();
  EXPECT_TRUE(WaitUntil(is_alone));
  EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }))
      << CountDescriptors() << " for " << descriptors;
  EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }))
      << CountThreads() << " for " << threads;
}

TEST_F(Dispose, InManyRoundsOnASharedBusLeavesNoRule) {
  StartBus();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  const BusPtr shared = SharedBus();
  for (int i = 0; i < 20; i++) {
    PluginHost plugin;
    EXPECT_EQ(plugin.Call("isAvailable"), "true");
    EXPECT_THAT(PluginMatchRules(), SizeIs(4));
  }
  EXPECT_TRUE(WaitUntil([&] { return PluginMatchRules().empty(); }));
}

TEST_F(Dispose, WithoutAnAdapterInManyRoundsLeaksNothing) {
  StartBus();
  StartDaemon();
  const std::vector<std::string> connections = bus->OtherConnections();
  const auto is_alone = [&] { return bus->OtherConnections() == connections; };
  std::make_unique<PluginHost>().reset();  // Warms up.
  ASSERT_TRUE(WaitUntil(is_alone));
  const size_t descriptors = CountDescriptors();
  for (int i = 0; i < 20; i++) PluginHost plugin;
  EXPECT_TRUE(WaitUntil(is_alone));
  EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }));
}

TEST_F(LostDaemon, LeavesNeutralAnswersAndMessages) {
  RegisterReady();
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
  host->Listen(kState);
  host->Listen(kDiscovery);
  daemon->Kill();
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getState"), "12");
  EXPECT_EQ(host->Call("getAddress"), "\"00:11:22:33:44:55\"");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "10");
  EXPECT_EQ(host->Call("removeDeviceBond", Address(kDeviceAddress)), "true");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_EQ(TakeStandardError(), "");
  EXPECT_EQ(host->Call("startDiscovery"), "false");
  EXPECT_EQ(
      TakeStandardError(),
      std::string("lumso_bluetooth: StartDiscovery failed: ") + kNoDaemon);
  EXPECT_EQ(host->Call("bondDevice", Address(kDeviceAddress)), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: pair: device not known yet "
            "(AA:BB:CC:DD:EE:FF)\n");
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
}

TEST_F(LostDaemon, InTheMiddleOfACallFailsTheCall) {
  RegisterReady();
  daemon->AddDevice(kDevicePath, "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  daemon->OnCall(kDevicePath, kDeviceInterface, "Pair", "", "", "os._exit(1)");
  EXPECT_EQ(host->Call("bondDevice", Address(kDeviceAddress)), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: Pair() failed: "
            "GDBus.Error:org.freedesktop.DBus.Error.NoReply: Message recipient "
            "disconnected from message bus without replying\n");
}

// It tells that the adapter is off, and is gone before anybody can ask.
TEST_F(LostDaemon, ThatIsToldToEndLeavesTheLastState) {
  RegisterReady();
  daemon->AddDevice(kDevicePath, "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  host->Listen(kState);
  host->Listen(kDiscovery);
  daemon->Stop();
  EXPECT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 2; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12"));
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_EQ(host->Call("getState"), "12");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
}

TEST_F(LostDaemon, CanBeDisposedOf) {
  RegisterReady();
  daemon->Kill();
  host->Dispose();
  EXPECT_EQ(TakeStandardError(), "");
}

TEST_F(LostDaemon, IsServedAgainAfterARestartButTheAgentStaysUnknown) {
  RegisterReady();
  host->Listen(kDiscovery);
  daemon->Kill();
  StartDaemon();
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
  Settle();
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "12");
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  daemon->ChangeProperties(kAdapterPath, kAdapterInterface,
                           "{'Powered': <false>}");
  EXPECT_TRUE(WaitUntil([&] { return host->Call("getState") == "10"; }));
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface, "{}");
  EXPECT_TRUE(WaitUntil([&] { return !host->Events(kDiscovery).empty(); }));
}

TEST_F(LostBus, LeavesTheProcessAndNeutralAnswers) {
  RegisterReady();
  host->Listen(kState);
  KillBus();
  EXPECT_EQ(host->Call("isAvailable"), "true");
  EXPECT_EQ(host->Call("getState"), "12");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "10");
  EXPECT_EQ(host->Call("removeDeviceBond", Address(kDeviceAddress)), "true");
  EXPECT_EQ(host->Call("startDiscovery"), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: StartDiscovery failed: The connection is "
            "closed\n");
  EXPECT_EQ(host->Call("bondDevice", Address(kDeviceAddress)), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: pair: device not known yet "
            "(AA:BB:CC:DD:EE:FF)\n");
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(LostBus, CanBeDisposedOf) {
  RegisterReady();
  KillBus();
  host->Dispose();
  EXPECT_EQ(TakeStandardError(), "");
}

TEST_F(LostBus, DoesNotEndAProcessWithoutAnAdapter) {
  StartBus();
  StartDaemon();
  // Somebody else in the process keeps the connection.
  const BusPtr shared = SharedBus();
  Register();
  KillBus();
  EXPECT_EQ(host->Call("isAvailable"), "false");
}

TEST_F(TwoInstances, BothAnswerAndHear) {
  RegisterReady();
  PluginHost second;
  EXPECT_EQ(second.Call("getName"), "\"desk\"");
  EXPECT_EQ(host->Call("getName"), "\"desk\"");
  host->Listen(kDiscovery);
  second.Listen(kDiscovery);
  second.Listen(kState);
  daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}})",
               "('/a', {'org.bluez.Device1': {}})");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), SizeIs(1));
  EXPECT_THAT(second.Events(kDiscovery), SizeIs(1));
  EXPECT_THAT(host->Events(kState), IsEmpty());
  EXPECT_THAT(second.Events(kState), ElementsAre("12"));
}

TEST_F(TwoInstances, ShareTheAgentOfTheFirst) {
  RegisterReady();
  PluginHost second;
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kListCall, kGetAllCall));
}

TEST_F(TwoInstances, DoNotShareTheDiscovery) {
  RegisterReady();
  PluginHost second;
  daemon->TakeCalls();
  host->Call("startDiscovery");
  second.Call("cancelDiscovery");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.bluez.Adapter1.StartDiscovery "
                          "/org/bluez/hci0"));
  host->Call("cancelDiscovery");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.bluez.Adapter1.StopDiscovery "
                          "/org/bluez/hci0"));
}

TEST_F(TwoInstances, OutliveEachOther) {
  RegisterReady();
  {
    PluginHost second;
    second.Listen(kDiscovery);
  }
  host->Listen(kDiscovery);
  daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}})",
               "('/a', {'org.bluez.Device1': {}})");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), SizeIs(1));
  EXPECT_EQ(host->Call("isAvailable"), "true");
}

}  // namespace
}  // namespace lumso_test
