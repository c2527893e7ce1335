// Every D-Bus call that the plug-in makes fails in every way that a call can.

#include <dlfcn.h>
#include <glib/gstdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/bus/prober_test.h"

namespace lumso_test {
namespace {

using ::testing::IsEmpty;

// -- The calls as the plug-in makes them -------------------------------------

struct MadeCall {
  std::string path;
  std::string method;  // with its interface
  std::string arguments;
  std::string reply_type;  // empty: any
  GDBusCallFlags flags;
  int timeout_ms;
};

// The prober's thread calls too.
std::mutex made_calls_mutex;
std::vector<MadeCall> made_calls;        // those that have returned
std::optional<MadeCall> impatient_call;  // the next such call waits briefly

constexpr int kBriefTimeoutMs = 50;

bool IsSameMethod(const MadeCall& one, const MadeCall& other) {
  return one.path == other.path && one.method == other.method;
}

}  // namespace
}  // namespace lumso_test

// Stands in front of GLib's function for the whole program, the plug-in
// included.
extern "C" __attribute__((visibility("default"))) GVariant*
g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* bus_name,
                            const gchar* path, const gchar* interface,
                            const gchar* method, GVariant* arguments,
                            const GVariantType* reply_type,
                            GDBusCallFlags flags, gint timeout_ms,
                            GCancellable* cancellable, GError** error) {
  static const auto next =
      reinterpret_cast<decltype(&g_dbus_connection_call_sync)>(
          dlsym(RTLD_NEXT, "g_dbus_connection_call_sync"));
  g_autofree gchar* text =
      arguments == nullptr ? g_strdup("") : g_variant_print(arguments, TRUE);
  g_autofree gchar* type = reply_type == nullptr
                               ? g_strdup("")
                               : g_variant_type_dup_string(reply_type);
  const lumso_test::MadeCall call = {
      path,       std::string(interface) + "." + method, text, type, flags,
      timeout_ms,
  };
  {
    const std::lock_guard<std::mutex> lock(lumso_test::made_calls_mutex);
    auto& impatient = lumso_test::impatient_call;
    if (impatient && lumso_test::IsSameMethod(*impatient, call)) {
      impatient.reset();
      timeout_ms = lumso_test::kBriefTimeoutMs;
    }
  }
  GVariant* reply =
      next(connection, bus_name, path, interface, method, arguments, reply_type,
           flags, timeout_ms, cancellable, error);
  const std::lock_guard<std::mutex> lock(lumso_test::made_calls_mutex);
  lumso_test::made_calls.push_back(call);
  return reply;
}

namespace lumso_test {
namespace {

// -- The table ---------------------------------------------------------------

enum class Fault { kError, kWrongType, kNoReply, kDaemonDies, kBusDies };

// What the daemon does with the call instead of answering it, and the text that
// GLib makes of it.
struct FaultRow {
  Fault fault;
  const char* name;
  const char* code;  // %d: the process of the bus
  const char* text;
};

const FaultRow kFaults[] = {
    {Fault::kError, "error reply",
     "connection.send_message(dbus.lowlevel.ErrorMessage("
     "message, 'org.bluez.Error.Failed', 'not today'))",
     "GDBus.Error:org.bluez.Error.Failed: not today"},
    {Fault::kWrongType, "reply of another type",
     "reply = dbus.lowlevel.MethodReturnMessage(message)\n"
     "reply.append('text', signature='s')\n"
     "connection.send_message(reply)",
     "Method “%s” returned type “(s)”, but expected “%s”"},
    {Fault::kNoReply, "no reply", "pass", "Timeout was reached"},
    {Fault::kDaemonDies, "daemon gone in the middle", "os._exit(1)",
     "GDBus.Error:org.freedesktop.DBus.Error.NoReply: Message recipient "
     "disconnected from message bus without replying"},
    {Fault::kBusDies, "bus gone in the middle", "os.kill(%d, 9)",
     "The connection is closed"},
};

// The bus library's text for every call after the fault.
constexpr char kNoDaemon[] =
    "GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown: The name org.bluez "
    "was not provided by any .service files";
constexpr char kNoBus[] = "The connection is closed";

constexpr char kManagerPath[] = "/org/bluez";
constexpr char kListType[] = "(a{oa{sa{sv}}})";
constexpr char kPropertiesType[] = "(a{sv})";

// A device whose object path does not come from its address.
constexpr char kHiddenAddress[] = "AA:BB:CC:DD:EE:01";
constexpr char kHiddenPath[] = "/org/bluez/hci0/hidden";

constexpr char kDevice[] =
    R"({"address": "11:11:11:11:11:11", "name": "pen", "type": 0, )"
    R"("isConnected": 0, "bondState": 12, "rssi": 0})";
constexpr char kHidden[] =
    R"({"address": "AA:BB:CC:DD:EE:01", "name": "VELKAN-1", "type": 0, )"
    R"("isConnected": 0, "bondState": 12, "rssi": 0})";

class FailedCall;

// One place where the plug-in makes a call.
struct CallSite {
  const char* name;
  // The call.
  const char* path;
  const char* interface;
  const char* method;
  const char* arguments;   // as text
  const char* reply_type;  // empty: nobody reads the reply
  int timeout_ms;
  // Leads to the call and returns what the application gets to see of it.
  std::string (*drive)(FailedCall* test);
  std::string worked;
  std::string failed;
  // What standard error gets before the bus's text; null: nothing at all.
  const char* message;
  enum Moment { kInUse, kAtRegistration, kAtDispose } moment = kInUse;
  // Whether the plug-in has an adapter after the failure.
  bool ready = true;
  // Whether it goes on to register the agent, which then may fail as well.
  bool registers_agent = false;
  // Whether the daemon has an adapter at all.
  bool has_adapter = true;
};

// Names the ctest cases.
void PrintTo(const CallSite& site, std::ostream* out) { *out << site.name; }

// -- The fixture -------------------------------------------------------------

class FailedCall : public BusTest,
                   public ::testing::WithParamInterface<CallSite> {
 public:
  // For the table's drives.
  PluginHost& Host() { return *host; }
  DaemonDouble& Daemon() { return *daemon; }

  std::string RegisterAndCall(const char* method) {
    RegisterHost();
    return host->Call(method);
  }

  std::string DisposeAndCall() {
    host->Dispose();
    return host->Call("isAvailable");
  }

  // Announces a change of `path` and returns the events on `channel` that come
  // of it.
  std::string Announce(const char* path, const char* interface,
                       const char* changed, const char* channel) {
    host->Listen(channel);
    const size_t before = host->Events(channel).size();
    const size_t calls = SiteCalls().size();
    daemon->EmitPropertiesChanged(path, interface, changed);
    EXPECT_TRUE(WaitUntil([&] { return SiteCalls().size() > calls; }));
    return EventsSince(before, channel);
  }

  // Lets the prober run one cycle and returns the events that come of it.
  std::string Probe() {
    const size_t before = host->Events(kDiscovery).size();
    const size_t sleeps = gate_->sleeps().size();
    if (sleeps == 0) {
      EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
    } else {
      gate_->Allow(kPauseSteps);
    }
    EXPECT_TRUE(gate_->WaitForSleeps(sleeps == 0 ? 1 : sleeps + kPauseSteps));
    air_.JoinDevices();
    return EventsSince(before, kDiscovery);
  }

 protected:
  static constexpr int kPauseSteps = 30;

  void SetUp() override {
    air_.AddDevice(kHiddenAddress, Reading(-61));
    StartBus();
    StartScriptedDaemon();
  }

  void TearDown() override {
    BusTest::TearDown();
    EXPECT_TRUE(air_.EachClosedOnce());
    EXPECT_EQ(CountThreadsNamed(kProber), 0U);
  }

  const CallSite& Site() const { return GetParam(); }

  MadeCall SiteCall() const {
    return {Site().path,
            std::string(Site().interface) + "." + Site().method,
            Site().arguments,
            Site().reply_type,
            G_DBUS_CALL_FLAGS_NONE,
            Site().timeout_ms};
  }

  // The calls made at the site since the row began, each of which has to be as
  // the table says.
  std::vector<MadeCall> SiteCalls() const {
    const MadeCall expected = SiteCall();
    std::vector<MadeCall> found;
    const std::lock_guard<std::mutex> lock(made_calls_mutex);
    for (const MadeCall& call : made_calls) {
      if (!IsSameMethod(call, expected)) continue;
      EXPECT_EQ(call.arguments, expected.arguments);
      EXPECT_EQ(call.reply_type, expected.reply_type);
      EXPECT_EQ(call.flags, expected.flags);
      EXPECT_EQ(call.timeout_ms, expected.timeout_ms);
      found.push_back(call);
    }
    return found;
  }

  void StartScriptedDaemon() {
    StartDaemon();
    if (Site().has_adapter) {
      daemon->AddAdapter(kAdapterPath,
                         "{'Powered': <true>, 'Discovering': <false>}");
      for (const char* method : {"StartDiscovery", "StopDiscovery"}) {
        Forget(kAdapterPath, kAdapterInterface, method, "");
      }
      Forget(kAdapterPath, kAdapterInterface, "RemoveDevice", "o");
    }
    Forget(kManagerPath, kAgentManagerInterface, "RegisterAgent", "os");
    // Its address is not the one that its path says: only the path leads to it.
    daemon->AddDevice(kDevicePath,
                      "{'Address': <'11:11:11:11:11:11'>, 'Alias': <'pen'>, "
                      "'Paired': <true>}");
    daemon->AddDevice(kHiddenPath,
                      "{'Address': <'AA:BB:CC:DD:EE:01'>, 'Alias': "
                      "<'VELKAN-1'>, 'Paired': <true>}");
    Forget(kDevicePath, kDeviceInterface, "Pair", "");
  }

  // Lets a method succeed and change nothing: every row finds the daemon as the
  // first one did.
  void Forget(const char* path, const char* interface, const char* method,
              const char* in_type) {
    daemon->OnCall(path, interface, method, in_type, "", "");
  }

  void RegisterHost() {
    host.reset();
    gate_.emplace();
    Register();
  }

  std::string EventsSince(size_t before, const char* channel) {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    std::string text;
    const auto events = host->Events(channel);
    for (size_t i = before; i < events.size(); ++i) text += events[i];
    return text;
  }

  // Lets the daemon do to the next call at the site what the row says.
  void Arm(const FaultRow& row) {
    g_autoptr(GVariant) reply =
        bus->CallBus("org.freedesktop.DBus", "GetConnectionUnixProcessID",
                     g_variant_new("(s)", "org.freedesktop.DBus"));
    guint process = 0;
    g_variant_get(reply, "(u)", &process);
    std::string code = row.code;
    if (row.fault == Fault::kBusDies) {
      code.replace(code.find("%d"), 2, std::to_string(process));
    }
    daemon->FailNextCall(Site().path, Site().interface, Site().method, code);
    const std::lock_guard<std::mutex> lock(made_calls_mutex);
    made_calls.clear();
    if (row.fault == Fault::kNoReply) impatient_call = SiteCall();
  }

  // What the row's failure prints.
  std::string Told(const FaultRow& row) const {
    std::string told;
    std::string text = row.text;
    if (row.fault == Fault::kWrongType) {
      text.replace(text.find("%s"), 2, Site().method);
      text.replace(text.find("%s"), 2, Site().reply_type);
    }
    if (Site().message != nullptr && Fails(row)) {
      told = std::string("lumso_bluetooth: ") + Site().message + text + "\n";
    }
    if (Site().registers_agent && row.fault >= Fault::kDaemonDies) {
      told += std::string("lumso_bluetooth: RegisterAgent failed: ") +
              (row.fault == Fault::kBusDies ? kNoBus : kNoDaemon) + "\n";
    }
    return told;
  }

  // A reply that nobody reads may have any type.
  bool Fails(const FaultRow& row) const {
    return row.fault != Fault::kWrongType || Site().reply_type[0] != '\0';
  }

  // The plug-in answers neutrally once nobody is there to ask.
  void ExpectNeutral(const char* text) {
    EXPECT_EQ(host->Call("isAvailable"), Site().ready ? "true" : "false");
    EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
    EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "10");
    EXPECT_EQ(TakeStandardError(), "");
    EXPECT_EQ(host->Call("startDiscovery"), "false");
    EXPECT_EQ(TakeStandardError(),
              Site().ready
                  ? std::string("lumso_bluetooth: StartDiscovery failed: ") +
                        text + "\n"
                  : "");
  }

  // The plug-in works as if nothing had happened.
  void ExpectWorking() {
    if (Site().moment == CallSite::kAtDispose) RegisterHost();
    EXPECT_EQ(Site().drive(this), Site().worked);
    EXPECT_EQ(TakeStandardError(), "");
  }

  // Tells whether the agent's object is free for somebody else.
  static bool AgentIsGone(GDBusConnection* connection) {
    g_autoptr(GDBusNodeInfo) info = g_dbus_node_info_new_for_xml(
        "<node><interface name='org.bluez.Agent1'/></node>", nullptr);
    const guint id = g_dbus_connection_register_object(
        connection, "/brel/lumso/lumso_bluetooth/agent", info->interfaces[0],
        nullptr, nullptr, nullptr, nullptr);
    return id != 0 && g_dbus_connection_unregister_object(connection, id);
  }

  // Brings the plug-in to where the drive begins.
  void Prepare() {
    if (Site().has_adapter) {
      daemon->SetProperties(kAdapterPath, kAdapterInterface,
                            "{'Powered': <true>}");
    }
    if (Site().moment != CallSite::kAtRegistration) RegisterHost();
  }

  // The life of the plug-in after the fault, up to its end.
  void LiveOn(const FaultRow& row, GDBusConnection* shared) {
    if (row.fault == Fault::kBusDies) {
      EXPECT_TRUE(
          WaitUntil([&] { return g_dbus_connection_is_closed(shared); }));
    }
    if (row.fault >= Fault::kDaemonDies &&
        Site().moment != CallSite::kAtDispose) {
      ExpectNeutral(row.fault == Fault::kBusDies ? kNoBus : kNoDaemon);
    }
    if (row.fault == Fault::kDaemonDies) {
      daemon.reset();
      StartScriptedDaemon();
    }
    if (row.fault != Fault::kBusDies) ExpectWorking();
    host.reset();
    EXPECT_EQ(TakeStandardError(), "");
    EXPECT_THAT(TakeLog(), IsEmpty());
  }

  void RunRow(const FaultRow& row) {
    SCOPED_TRACE(row.name);
    // Somebody else's hold on the connection shows what is left on it.
    BusPtr shared = SharedBus();
    GWeakRef watch;
    g_weak_ref_init(&watch, shared.get());
    const size_t descriptors = CountDescriptors();
    const size_t threads = CountThreads();
    Prepare();
    Arm(row);
    EXPECT_EQ(Site().drive(this), Fails(row) ? Site().failed : Site().worked);
    EXPECT_EQ(SiteCalls().size(), 1U);
    EXPECT_EQ(TakeStandardError(), Told(row));
    LiveOn(row, shared.get());
    if (row.fault != Fault::kBusDies) {
      const std::string name = PluginBusName();
      EXPECT_TRUE(WaitUntil([&] { return bus->MatchRules(name).empty(); }));
    }
    EXPECT_TRUE(AgentIsGone(shared.get()));
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }))
        << CountDescriptors() << " for " << descriptors;
    EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }))
        << CountThreads() << " for " << threads;
    shared.reset();
    EXPECT_TRUE(WaitUntil([&] {
      const BusPtr left(G_DBUS_CONNECTION(g_weak_ref_get(&watch)));
      return left == nullptr;
    }));
    g_weak_ref_clear(&watch);
  }

  FakeRfcomm air_;
  std::optional<SleepGate> gate_;
};

// -- The drives --------------------------------------------------------------

std::string Bond(FailedCall* test, const char* method, const char* address) {
  return test->Host().Call(method, Address(address));
}

const CallSite kSites[] = {
    {"ListAtRegistration", "/", kObjectManagerInterface, "GetManagedObjects",
     "", kListType, -1,
     [](FailedCall* test) { return test->RegisterAndCall("isAvailable"); },
     "true", "false", "GetManagedObjects failed: ", CallSite::kAtRegistration,
     false},
    {"AdapterAtRegistration", kAdapterPath, kPropertiesInterface, "GetAll",
     "('org.bluez.Adapter1',)", kPropertiesType, -1,
     [](FailedCall* test) { return test->RegisterAndCall("getState"); }, "12",
     "10", nullptr, CallSite::kAtRegistration, true, true},
    {"RegisterAgent", kManagerPath, kAgentManagerInterface, "RegisterAgent",
     "(objectpath '/brel/lumso/lumso_bluetooth/agent', 'NoInputNoOutput')", "",
     -1, [](FailedCall* test) { return test->RegisterAndCall("getState"); },
     "12", "12", "RegisterAgent failed: ", CallSite::kAtRegistration},
    {"RequestDefaultAgent", kManagerPath, kAgentManagerInterface,
     "RequestDefaultAgent", "(objectpath '/brel/lumso/lumso_bluetooth/agent',)",
     "", -1, [](FailedCall* test) { return test->RegisterAndCall("getState"); },
     "12", "12", nullptr, CallSite::kAtRegistration},
    {"UnregisterAgentWithoutAdapter", kManagerPath, kAgentManagerInterface,
     "UnregisterAgent", "(objectpath '/brel/lumso/lumso_bluetooth/agent',)", "",
     -1, [](FailedCall* test) { return test->RegisterAndCall("isAvailable"); },
     "false", "false", nullptr, CallSite::kAtRegistration, false, false, false},
    {"UnregisterAgent", kManagerPath, kAgentManagerInterface, "UnregisterAgent",
     "(objectpath '/brel/lumso/lumso_bluetooth/agent',)", "", -1,
     [](FailedCall* test) { return test->DisposeAndCall(); }, "not implemented",
     "not implemented", nullptr, CallSite::kAtDispose},
    {"ListOfKnownDevices", "/", kObjectManagerInterface, "GetManagedObjects",
     "", kListType, -1,
     [](FailedCall* test) { return test->Host().Call("getDiscoveredDevices"); },
     std::string("[") + kDevice + ", " + kHidden + "]", "[]", nullptr},
    {"ListOfBondedDevices", "/", kObjectManagerInterface, "GetManagedObjects",
     "", kListType, -1,
     [](FailedCall* test) { return test->Host().Call("getBondedDevices"); },
     std::string("[") + kDevice + ", " + kHidden + "]", "[]", nullptr},
    {"SearchForADevice", "/", kObjectManagerInterface, "GetManagedObjects", "",
     kListType, -1,
     [](FailedCall* test) {
       return Bond(test, "getBondState", kHiddenAddress);
     },
     "12", "10", nullptr},
    {"ListOfTheProber", "/", kObjectManagerInterface, "GetManagedObjects", "",
     kListType, -1, [](FailedCall* test) { return test->Probe(); },
     Update(kHiddenAddress, -61), "", nullptr},
    {"AddressOfADevice", kDevicePath, kPropertiesInterface, "Get",
     "('org.bluez.Device1', 'Address')", "(v)", -1,
     [](FailedCall* test) {
       return Bond(test, "getBondState", kDeviceAddress);
     },
     "12", "10", nullptr},
    {"PairedOfADevice", kHiddenPath, kPropertiesInterface, "Get",
     "('org.bluez.Device1', 'Paired')", "(v)", -1,
     [](FailedCall* test) {
       return Bond(test, "getBondState", kHiddenAddress);
     },
     "12", "10", nullptr},
    {"StartDiscovery", kAdapterPath, kAdapterInterface, "StartDiscovery", "",
     "", -1,
     [](FailedCall* test) { return test->Host().Call("startDiscovery"); },
     "true", "false", "StartDiscovery failed: "},
    {"StopDiscovery", kAdapterPath, kAdapterInterface, "StopDiscovery", "", "",
     -1,
     [](FailedCall* test) {
       test->Host().Call("startDiscovery");
       return test->Host().Call("cancelDiscovery");
     },
     "true", "false", nullptr},
    {"Pair", kDevicePath, kDeviceInterface, "Pair", "", "", 60000,
     [](FailedCall* test) { return Bond(test, "bondDevice", kDeviceAddress); },
     "true", "false", "Pair() failed: "},
    {"RemoveDevice", kAdapterPath, kAdapterInterface, "RemoveDevice",
     "(objectpath '/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF',)", "", -1,
     [](FailedCall* test) {
       return Bond(test, "removeDeviceBond", kDeviceAddress);
     },
     "true", "false", nullptr},
    {"ChangedAdapter", kAdapterPath, kPropertiesInterface, "GetAll",
     "('org.bluez.Adapter1',)", kPropertiesType, -1,
     [](FailedCall* test) {
       test->Daemon().SetProperties(kAdapterPath, kAdapterInterface,
                                    "{'Powered': <false>}");
       return test->Announce(kAdapterPath, kAdapterInterface, "{}", kState);
     },
     "10", "12", nullptr},
    {"ChangedDevice", kHiddenPath, kPropertiesInterface, "GetAll",
     "('org.bluez.Device1',)", kPropertiesType, -1,
     [](FailedCall* test) {
       return test->Announce(kHiddenPath, kDeviceInterface, "{}", kDiscovery);
     },
     std::string(R"({"device": )") + kHidden + "}", "", nullptr},
};

INSTANTIATE_TEST_SUITE_P(At, FailedCall, ::testing::ValuesIn(kSites));

TEST_P(FailedCall, IsToldAndDoesNoHarm) {
  {
    // The bus library keeps what it makes for the first one.
    const BusPtr shared = SharedBus();
    Prepare();
    EXPECT_EQ(Site().drive(this), Site().worked);
    host.reset();
    EXPECT_EQ(TakeStandardError(), "");
  }
  for (const FaultRow& row : kFaults) RunRow(row);
}

// -- The connection ----------------------------------------------------------

// One line, or the first message, of a bus that takes a connection; the answer
// to it, after which the bus says no more; and the text that GLib makes of
// that.
struct HandshakeRow {
  const char* name;
  const char* line;  // as ReadLine() gives it; null: nobody listens
  std::string answer;
  const char* text;
};

// The bytes of a reply to the first call of a connection, which is Hello.
std::string HelloReply(const char* error, GVariant* body) {
  g_autoptr(GDBusMessage) reply = g_dbus_message_new();
  g_dbus_message_set_serial(reply, 1);
  g_dbus_message_set_reply_serial(reply, 1);
  g_dbus_message_set_body(reply, body);
  g_dbus_message_set_message_type(reply, error == nullptr
                                             ? G_DBUS_MESSAGE_TYPE_METHOD_RETURN
                                             : G_DBUS_MESSAGE_TYPE_ERROR);
  if (error != nullptr) g_dbus_message_set_error_name(reply, error);
  gsize size = 0;
  g_autofree guchar* bytes = g_dbus_message_to_blob(
      reply, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  return {reinterpret_cast<const char*>(bytes), size};
}

constexpr char kNoLine[] = "Unexpected lack of content trying to read a line";
constexpr char kOk[] = "OK 0123456789abcdef0123456789abcdef\r\n";
constexpr char kHello[] = "l\1";  // a call in little-endian order

// A bus whose only talent is to take one connection.
class HandshakeBus {
 public:
  explicit HandshakeBus(const HandshakeRow& row) : row_(row) {
    g_autofree gchar* folder = g_dir_make_tmp("lumso-bus-XXXXXX", nullptr);
    folder_ = folder;
    sockaddr_un address = {AF_UNIX, ""};
    Path().copy(address.sun_path, sizeof(address.sun_path) - 1);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)),
              0);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + Path()).c_str(), TRUE);
    if (row.line == nullptr) {
      done_ = true;
      return;
    }
    listen(listener_, 1);
    thread_ = std::thread([this] { Serve(); });
  }
  // The bus library lets a connection that was closed go in the main loop.
  ~HandshakeBus() {
    EXPECT_TRUE(WaitUntil([this] { return done_.load(); }));
    if (thread_.joinable()) thread_.join();
    close(listener_);
    g_unlink(Path().c_str());
    g_rmdir(folder_.c_str());
  }
  HandshakeBus(const HandshakeBus&) = delete;
  HandshakeBus& operator=(const HandshakeBus&) = delete;

 private:
  std::string Path() const { return folder_ + "/bus"; }

  void Serve() {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    Peer client(std::make_shared<RfcommLink>(/*caller_fd=*/-1, fd));
    const std::map<std::string, std::string> answers = {
        {"AUTH", "REJECTED EXTERNAL\r\n"},
        {"AUTH EXTERNAL", "DATA\r\n"},
        {"DATA", std::string(kOk)},
        {"NEGOTIATE_UNIX_FD", "AGREE_UNIX_FD\r\n"},
        {"BEGIN", ""},
    };
    std::string line = ReadLine(&client);
    for (; line != row_.line; line = ReadLine(&client)) {
      const auto answer = answers.find(line);
      if (answer == answers.end()) break;
      client.Send(answer->second);
    }
    EXPECT_EQ(line, row_.line);
    client.Send(row_.answer);
    shutdown(fd, SHUT_WR);
    client.ReceiveAll();
    client.Close();
    done_ = true;
  }

  // The next line without its end, or the first bytes of a message.
  static std::string ReadLine(Peer* client) {
    std::string line = client->Receive(1);
    if (line == std::string(1, '\0')) line = client->Receive(1);  // credentials
    if (line == "l") return line + client->Receive(1);
    if (line.empty()) return line;
    line += client->ReceiveUntil("\r\n");
    return line.substr(0, line.size() - 2);
  }

  const HandshakeRow& row_;
  std::string folder_;
  int listener_ = -1;
  std::atomic<bool> done_{false};  // the client has closed its end
  std::thread thread_;
};

TEST(FailedConnection, IsToldAndDoesNoHarm) {
  const HandshakeRow rows[] = {
      {"error reply to the first call", kHello,
       HelloReply("org.freedesktop.DBus.Error.LimitsExceeded",
                  g_variant_new("(s)", "too many")),
       "GDBus.Error:org.freedesktop.DBus.Error.LimitsExceeded: too many"},
      {"reply of another type to the first call", kHello,
       HelloReply(nullptr, g_variant_new("(u)", 1)),
       "Method “Hello” returned type “(u)”, but expected “(s)”"},
      {"closed in the middle of the first call", kHello, "",
       "The connection is closed"},
      {"nobody listens", nullptr, "", "Could not connect: Connection refused"},
      {"closed at once", "AUTH", "", kNoLine},
      {"no line of the protocol", "AUTH", "nonsense\r\n",
       "In WaitingForReject: Expected 'REJECTED am1 am2 ... amN', got "
       "'nonsense'"},
      {"no authentication known", "AUTH", "REJECTED MAGIC\r\n",
       "Exhausted all available authentication mechanisms (tried: ) "
       "(available: MAGIC)"},
      {"closed while it authenticates", "AUTH EXTERNAL", "", kNoLine},
      {"a line too early", "AUTH EXTERNAL", kOk,
       "In WaitingForData: unexpected response 'OK "
       "0123456789abcdef0123456789abcdef'"},
      {"closed before it agrees", "DATA", "", kNoLine},
      {"closed while it negotiates", "NEGOTIATE_UNIX_FD", "", kNoLine},
  };
  RecordLog();
  CapturedStandardError standard_error;
  {
    // The bus library keeps what it makes for the first one.
    const HandshakeBus bus(rows[0]);
    PluginHost().Call("isAvailable");
    standard_error.Take();
  }
  const size_t descriptors = CountDescriptors();
  for (const HandshakeRow& row : rows) {
    SCOPED_TRACE(row.name);
    {
      const HandshakeBus bus(row);
      PluginHost host;
      EXPECT_EQ(host.Call("isAvailable"), "false");
      EXPECT_EQ(host.Call("getDiscoveredDevices"), "[]");
      EXPECT_EQ(host.Listen(kState), "null");
    }
    EXPECT_EQ(standard_error.Take(),
              std::string("lumso_bluetooth: system bus connect failed: ") +
                  row.text + "\n");
    EXPECT_THAT(TakeLog(), IsEmpty());
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }))
        << CountDescriptors() << " for " << descriptors;
  }
}

}  // namespace
}  // namespace lumso_test
