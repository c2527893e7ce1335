// A daemon that dies, a daemon that is slow, and a bus that goes away, each
// while everything is in use.

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/bus/connection_test.h"
#include "tests/bus/prober_test.h"
#include "tests/load/load_test.h"

namespace lumso_test {
namespace {

using ::testing::AnyOf;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kPauseSteps = 30;
constexpr int kDevices = 30;
constexpr char kReadingAddress[] = "AA:BB:CC:00:00:00";
constexpr char kReadingPath[] = "/org/bluez/hci0/dev_0";

// Adds the devices: the first is one that the prober asks, every second one is
// paired.
constexpr char kAddDevices[] = R"(
for i in range(30):
    self.AddObject(f'/org/bluez/hci0/dev_{i}', 'org.bluez.Device1', {
        'Address': f'AA:BB:CC:00:00:{i:02X}',
        'Alias': 'VELKAN-0' if i == 0 else f'device {i}',
        'Paired': i % 2 == 0}, [])
)";

// Lets the daemon end in the middle of the call that takes the last of its
// fuel. Up to then each list comes with a burst of changes.
constexpr char kBurnFuel[] = R"(
global fuel, burn
fuel = FUEL
def burn(connection, message):
    global fuel
    if (not isinstance(message, dbus.lowlevel.MethodCallMessage)
            or message.get_member() not in ('GetManagedObjects', 'GetAll', 'Get')):
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
    fuel -= 1
    if fuel == 0:
        os._exit(1)
    if message.get_member() == 'GetManagedObjects':
        for i in range(3):
            change = dbus.lowlevel.SignalMessage(
                f'/org/bluez/hci0/dev_{(fuel + i) % 30}',
                'org.freedesktop.DBus.Properties', 'PropertiesChanged')
            change.append('org.bluez.Device1', dbus.Dictionary({}, signature='sv'),
                          dbus.Array([], signature='s'), signature='sa{sv}as')
            connection.send_message(change)
    return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
self.bus_name.get_bus().add_message_filter(burn)
)";

// Answers only after SECONDS whether a device is paired, and everything else at
// once.
constexpr char kHoldAnswer[] = R"(
global hold, threading
import threading
def hold(connection, message):
    if (not isinstance(message, dbus.lowlevel.MethodCallMessage)
            or message.get_member() != 'Get'
            or message.get_args_list()[1] != 'Paired'):
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
    answer = dbus.lowlevel.MethodReturnMessage(message)
    answer.append(dbus.Boolean(True), signature='v')
    threading.Timer(SECONDS, connection.send_message, (answer,)).start()
    return dbus.lowlevel.HANDLER_RESULT_HANDLED
self.bus_name.get_bus().add_message_filter(hold)
)";

// Ends the bus, whose process is PROCESS, when MEMBER is called.
constexpr char kStrike[] = R"(
global strike
def strike(connection, message):
    if (not isinstance(message, dbus.lowlevel.MethodCallMessage)
            or message.get_member() != 'MEMBER'):
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
    os.kill(PROCESS, 9)
    return dbus.lowlevel.HANDLER_RESULT_HANDLED
self.bus_name.get_bus().add_message_filter(strike)
)";

// `code` with its one `word` replaced.
std::string With(std::string code, const std::string& word,
                 const std::string& text) {
  return code.replace(code.find(word), word.size(), text);
}

class Daemon : public LoadTest {
 protected:
  void SetUp() override {
    LoadTest::SetUp();
    air.KeepNoRecords();
    air.AddDevice(kDeviceAddress);
    air.AddDevice(kReadingAddress, [this](Peer& peer) {
      Reading(-61)(peer);
      ++probes;
    });
  }

  void TearDown() override {
    LoadTest::TearDown();
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed(kProber) == 0; }));
  }

  void StartWithDevices() {
    StartDaemon();
    daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
    RunInDaemon(kAddDevices);
  }

  // What the list of the devices looks like.
  static std::string List() {
    std::string text;
    for (int i = 0; i < kDevices; ++i) {
      g_autofree gchar* device = g_strdup_printf(
          "%s{\"address\": \"AA:BB:CC:00:00:%02X\", \"name\": \"%s%d\", "
          "\"type\": 0, \"isConnected\": 0, \"bondState\": %d, \"rssi\": 0}",
          i == 0 ? "" : ", ", i, i == 0 ? "VELKAN-" : "device ", i,
          i % 2 == 0 ? 12 : 10);
      text += device;
    }
    return "[" + text + "]";
  }

  // Opens a stream, moves bytes both ways, closes it.
  void UseStream() {
    const std::string id = host->Call("connect", Address(kDeviceAddress));
    const auto peer = air.NextPeer(kDeviceAddress);
    ASSERT_NE(peer, nullptr) << id;
    EXPECT_TRUE(peer->Send("in"));
    EXPECT_EQ(Write(std::stoi(id), "out"), "true");
    EXPECT_EQ(peer->Receive(3), "out");
    EXPECT_EQ(Disconnect(std::stoi(id)), "true");
    peer->Close();
    ++streams;
  }

  std::atomic<int> probes{0};
  int streams = 0;
};

// ---------------------------------------------------------------------------

using DaemonRestarts = Daemon;

TEST_F(DaemonRestarts, UnderLoadAreSurvivedAndServedAgain) {
  StartBus();
  StartWithDevices();
  SleepGate gate;
  Register();
  size_t changes = 0;
  host->Observe([&changes](const std::string& channel, FlValue* event) {
    if (channel == kDiscovery &&
        fl_value_lookup_string(event, "device") != nullptr) {
      ++changes;
    }
  });
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  const std::string list = List();
  int served = 0;
  int neutral = 0;
  size_t allowed = 0;  // sleeps of the prober
  std::vector<int> streams_before;
  const auto round = [&](int) {
    streams_before.push_back(streams);
    // Served: the whole list, and the changes that come with it.
    EXPECT_EQ(host->Call("getDiscoveredDevices"), list);
    EXPECT_EQ(host->Call("getBondState", Address(kReadingAddress)), "12");
    RunInDaemon(With(kBurnFuel, "FUEL", std::to_string(Random(20, 200))));
    const size_t before = changes;
    while (bus->NameHasOwner("org.bluez") && !HasFailure()) {
      const std::string answer = host->Call("getDiscoveredDevices");
      EXPECT_THAT(answer, AnyOf(list, "[]"));
      ++(answer == "[]" ? neutral : served);
      EXPECT_THAT(host->Call("getBondState", Address(kReadingAddress)),
                  AnyOf("12", "10"));
      gate.Allow(kPauseSteps);
      allowed += kPauseSteps;
      UseStream();
      DispatchQueued();
    }
    EXPECT_GT(changes, before);
    EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
    EXPECT_EQ(host->Call("getBondState", Address(kReadingAddress)), "10");
    daemon.reset();
    StartWithDevices();
    // The prober has used up what it was allowed, and stands still.
    EXPECT_TRUE(gate.WaitForSleeps(allowed + 1));
    air.JoinDevices();
    DispatchQueued();
  };
  const int rounds = LongOrShort(50, 5);
  Allowance allowance;
  // Each daemon's fuel decides how many streams there were. The gate notes each
  // sleep and its thread, in arrays that double.
  allowance.known = [&](int first, int) {
    HeapUse known = ReadChannelRecords(
        streams_before[static_cast<size_t>(first)] + 1, streams + 1);
    known.bytes += 2 * gate.sleeps().size() *
                   (sizeof(std::chrono::nanoseconds) + sizeof(pthread_t));
    return known;
  };
  ExpectFlat("daemon killed and started again", rounds, round, allowance);
  daemon->EmitPropertiesChanged(kReadingPath, kDeviceInterface, "{}");
  const size_t before = changes;
  EXPECT_TRUE(WaitUntil([&] { return changes > before; }));
  EXPECT_EQ(host->Call("getDiscoveredDevices"), list);
  const int probes_before = probes;
  gate.Allow(kPauseSteps);
  EXPECT_TRUE(WaitUntil([&] { return probes > probes_before; }));
  Note(std::to_string(served) + " lists served, " + std::to_string(neutral) +
       " neutral, " + std::to_string(changes) + " changes, " +
       std::to_string(streams) + " streams, " + std::to_string(probes) +
       " probes");
}

// ---------------------------------------------------------------------------

using SlowDaemon = Daemon;

TEST_F(SlowDaemon, IsAwaitedWhileTheProberAndTheReadersGoOn) {
  const int seconds = LongOrShort(20, 1);
  StartBus();
  StartWithDevices();
  SleepGate gate;
  Register();
  const auto peer = Open(1, kDeviceAddress);
  EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
  RunInDaemon(With(kHoldAnswer, "SECONDS", std::to_string(seconds)));
  std::atomic<bool> answered{false};
  int rounds = 0;
  std::thread witness([&] {
    while (!answered && rounds < 10000) {
      const int before = probes;
      gate.Allow(kPauseSteps);
      if (!peer->Send("on")) return;
      if (!peer->WaitUntilRead()) return;
      if (!Eventually([&] { return probes > before; })) return;
      air.JoinDevices();
      if (!answered) ++rounds;
    }
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(host->Call("getBondState", Address(kReadingAddress)), "12");
  answered = true;
  const std::chrono::duration<double> waited =
      std::chrono::steady_clock::now() - begin;
  witness.join();
  EXPECT_GE(waited.count(), seconds - 0.1);
  EXPECT_LT(waited.count(), seconds + 4.0);
  // Each round listed the devices, asked one and received something.
  EXPECT_GE(rounds, 3);
  const auto received = [&] { return host->Events(ReadChannel(1)).size(); };
  EXPECT_TRUE(WaitUntil([&] { return received() >= size_t(rounds); }));
  const auto readings = host->Events(kDiscovery);
  EXPECT_GE(readings.size(), static_cast<size_t>(rounds));
  EXPECT_THAT(readings, Each(Update(kReadingAddress, -61)));
  Note("answered after " + std::to_string(waited.count()) + " s; meanwhile " +
       std::to_string(rounds) +
       " cycles of the prober and as many chunks read");
  // The prober goes on behind the gate, and its next connection drops what
  // nobody holds: then the device of an open stream is gone.
  EXPECT_EQ(Disconnect(1), "true");
}

// ---------------------------------------------------------------------------

class BusLoss : public Daemon {
 protected:
  // Starts everything on a new bus.
  void StartAll() {
    StartBus();
    StartWithDevices();
    Register();
    const BusPtr bus_connection = SharedBus();
    lost = bus_connection.get();
    g_object_add_weak_pointer(G_OBJECT(lost), &lost);
  }

  // Lets the daemon end the bus as soon as the method is called.
  void StrikeAt(const std::string& member) {
    g_autoptr(GVariant) reply =
        bus->CallBus("org.freedesktop.DBus", "GetConnectionUnixProcessID",
                     g_variant_new("(s)", "org.freedesktop.DBus"));
    guint32 process = 0;
    g_variant_get(reply, "(u)", &process);
    RunInDaemon(With(With(kStrike, "MEMBER", member), "PROCESS",
                     std::to_string(process)));
  }

  void ExpectNeutral() {
    EXPECT_EQ(host->Call("isAvailable"), "true");
    EXPECT_EQ(host->Call("getState"), "12");
    EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
    EXPECT_EQ(host->Call("getBondedDevices"), "[]");
    EXPECT_EQ(host->Call("getBondState", Address(kReadingAddress)), "10");
    EXPECT_EQ(host->Call("removeDeviceBond", Address(kReadingAddress)), "true");
    EXPECT_EQ(TakeStandardError(), "");
    // Streams need no bus.
    UseStream();
  }

  // Ends the plug-in and what is left of the bus.
  void EndAll() {
    host->Dispose();
    host.reset();
    EXPECT_TRUE(WaitUntil([this] { return lost == nullptr; }));
    air.JoinDevices();
    daemon.reset();
    bus.reset();
  }

  gpointer lost = nullptr;  // the bus connection, until it is gone
};

struct StruckCall {
  const char* method;  // of the plug-in
  const char* member;  // of the daemon, in which the bus ends
  const char* answer;
  const char* error;  // how standard error begins
};

constexpr StruckCall kStruckCalls[] = {
    {"getDiscoveredDevices", "GetManagedObjects", "[]", ""},
    {"getBondedDevices", "GetManagedObjects", "[]", ""},
    {"getBondState", "Get", "10", ""},
    {"startDiscovery", "StartDiscovery", "false",
     "lumso_bluetooth: StartDiscovery failed: "},
    {"bondDevice", "Get", "false",
     "lumso_bluetooth: pair: device not known yet "},
    {"removeDeviceBond", "RemoveDevice", "false", ""},
};

TEST_F(BusLoss, InTheMiddleOfACallGivesANeutralAnswer) {
  const int rounds = LongOrShort(10, 1);
  size_t descriptors = 0;
  size_t threads = 0;
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    for (const StruckCall& call : kStruckCalls) {
      SCOPED_TRACE(call.method);
      StartAll();
      StrikeAt(call.member);
      EXPECT_EQ(host->Call(call.method, Address(kReadingAddress)), call.answer);
      EXPECT_THAT(TakeStandardError(), StartsWith(call.error));
      ExpectNeutral();
      EndAll();
      if (descriptors == 0) {
        descriptors = CountDescriptors();
        threads = CountThreads();
      }
    }
  }
  EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }))
      << CountDescriptors() << " for " << descriptors;
  EXPECT_TRUE(WaitUntil([&] { return CountThreads() <= threads; }))
      << CountThreads() << " for " << threads;
  Note(std::to_string(rounds * std::size(kStruckCalls)) +
       " buses ended in a call; descriptors " + std::to_string(descriptors) +
       " and " + std::to_string(CountDescriptors()) + ", threads " +
       std::to_string(threads) + " and " + std::to_string(CountThreads()));
}

TEST_F(BusLoss, InTheMiddleOfAProbeLeavesTheReading) {
  const int rounds = LongOrShort(30, 2);
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    SleepGate gate;
    std::promise<void> asked;
    std::promise<void> go_on;
    air.AddDevice(kReadingAddress, [&](Peer& peer) {
      peer.Send("auth\r\n");
      EXPECT_NE(peer.ReceiveUntil("\r\n"), "");
      asked.set_value();
      go_on.get_future().wait();
      peer.Send("ready\r\n");
      EXPECT_EQ(peer.ReceiveUntil("\r\n"), "rssi\r\n");
      peer.Send(R"({"rssi": -40}!!END)");
      peer.WaitForClose();
    });
    StartAll();
    EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
    ASSERT_EQ(asked.get_future().wait_for(kFakeDeadline),
              std::future_status::ready);
    bus->Kill();
    ExpectNeutral();
    go_on.set_value();
    EXPECT_TRUE(
        WaitUntil([this] { return host->Events(kDiscovery).size() == 1; }));
    EXPECT_THAT(host->Events(kDiscovery), Each(Update(kReadingAddress, -40)));
    // The next cycle finds nobody to ask.
    EXPECT_TRUE(gate.WaitForSleeps(1));
    gate.Allow(kPauseSteps);
    EXPECT_TRUE(gate.WaitForSleeps(kPauseSteps + 1));
    ExpectNeutral();
    EndAll();
  }
  Note(std::to_string(rounds) + " buses ended in a probe");
}

TEST_F(BusLoss, InTheMiddleOfTheProbersListingLeavesTheProber) {
  const int rounds = LongOrShort(30, 2);
  for (int i = 0; i < rounds && !HasFailure(); ++i) {
    SleepGate gate;
    StartAll();
    StrikeAt("GetManagedObjects");
    EXPECT_EQ(host->Call("setAuthSecret", Secret(kSecret)), "null");
    EXPECT_TRUE(gate.WaitForSleeps(1));
    gate.Allow(kPauseSteps);
    EXPECT_TRUE(gate.WaitForSleeps(kPauseSteps + 1));
    ExpectNeutral();
    EXPECT_EQ(CountThreadsNamed(kProber), 1U);
    EndAll();
  }
  Note(std::to_string(rounds) + " buses ended in the prober's listing");
}

}  // namespace
}  // namespace lumso_test
