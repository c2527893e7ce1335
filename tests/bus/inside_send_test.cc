// An application may handle an event inside the send, in the middle of the
// plug-in's own work, and do there whatever it likes.

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/bluez_client.h"
#include "tests/bus/connection_test.h"
#include "tests/bus/prober_test.h"

namespace lumso_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr char kSecondAddress[] = "AA:BB:CC:DD:EE:02";
constexpr char kThirdAddress[] = "AA:BB:CC:DD:EE:03";
constexpr char kFirstRead[] = "lumso_bluetooth/read/1";

// The event of the device at kDeviceAddress.
std::string DeviceNamed(const std::string& name) {
  return R"({"device": {"address": "AA:BB:CC:DD:EE:FF", "name": ")" + name +
         R"(", "type": 0, "isConnected": 0, "bondState": 10, "rssi": 0}})";
}

class InsideSend;

// One kind of event. Two come: the application acts inside the first, and the
// second shows what its action has changed.
struct Event {
  const char* name;
  std::string channel;
  std::string first;
  std::string second;            // empty: none may follow
  bool for_listeners;            // sent only while somebody listens
  void (*prepare)(InsideSend&);  // does what has to come before
  void (*cause)(InsideSend&);    // makes both come
};

// What an action ends, and with it the second event.
enum class Ends { kNothing, kFirstConnection, kListening, kPlugin };

struct Action {
  const char* name;
  Ends ends;
  void (*act)(InsideSend&, const Event&);
  // Looks afterwards at what the action has come to.
  void (*check)(InsideSend&, const Event&);
};

struct Case {
  Event event;
  Action action;
};

void PrintTo(const Case& test, std::ostream* out) {
  *out << test.event.name << "_" << test.action.name;
}

// Two connections are open, a third device waits, the daemon knows a lamp.
class InsideSend : public ProberTest,
                   public ::testing::WithParamInterface<Case> {
 public:
  void SetUp() override {
    ProberTest::SetUp();
    shared = SharedBus();
    daemon->AddDevice(kDevicePath,
                      "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Alias': <'lamp'>}");
    EXPECT_EQ(Connect(kDeviceAddress, &device), "1");
    EXPECT_EQ(Connect(kSecondAddress, &second_device), "2");
  }

  void TearDown() override {
    shared.reset();
    ProberTest::TearDown();
    EXPECT_TRUE(
        Eventually([] { return CountThreadsNamed("lumso-reader") == 0; }));
  }

  std::string Connect(const char* address, std::shared_ptr<Peer>* peer) {
    air.AddDevice(address);
    const std::string answer = host->Call("connect", Address(address));
    *peer = air.NextPeer(address);
    return answer;
  }

  std::string Write(int id) {
    return host->Call("write", Map({{"id", fl_value_new_int(id)},
                                    {"bytes", ByteList("hello")}}));
  }

  std::string Disconnect(int id) {
    return host->Call("disconnect", Map({{"id", fl_value_new_int(id)}}));
  }

  // Returns when the first connection's reader has these bytes and no others.
  void SendToReader(const std::string& bytes) {
    const size_t reads = air.count(Call::kRead, 1);
    EXPECT_TRUE(device->Send(bytes));
    EXPECT_TRUE(Eventually([&] { return air.count(Call::kRead, 1) > reads; }));
  }

  void EmitNewDevice(const std::string& name) {
    daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded",
                 "(oa{sa{sv}})",
                 "('/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF', "
                 "{'org.bluez.Device1': {'Address': <'AA:BB:CC:DD:EE:FF'>, "
                 "'Alias': <'" +
                     name + "'>}})");
  }

  // Every event since the preparations, those of all channels.
  std::vector<std::string> SeenEvents() const {
    std::vector<std::string> texts;
    for (size_t i = prepared; i < host->records().size(); ++i) {
      const PluginHost::Record& record = host->records()[i];
      if (!record.is_answer) {
        texts.push_back(record.channel + " " + record.text);
      }
    }
    return texts;
  }

  // What the tables below work with.
  using ProberTest::AddTarget;
  using ProberTest::air;
  using ProberTest::BeginCycle;
  using ProberTest::daemon;
  using ProberTest::EndCycle;
  using ProberTest::host;
  using ProberTest::RunCycle;
  std::shared_ptr<Peer> device;         // of connection 1
  std::shared_ptr<Peer> second_device;  // of connection 2
  std::shared_ptr<Peer> third_device;   // of what is connected inside the send
  std::string listed;                   // what "getDiscoveredDevices" answers
  size_t prepared = 0;                  // how many records come before
  // Lets Settle() do without the plug-in.
  BusPtr shared;
};

// -- Events ------------------------------------------------------------------

void PrepareNothing(InsideSend&) {}

void ListenToDiscovery(InsideSend& test) {
  EXPECT_EQ(test.host->Listen(kDiscovery), "null");
}

void TurnOff(InsideSend& test) {
  test.daemon->SetProperties(kAdapterPath, kAdapterInterface,
                             "{'Powered': <false>}");
}

void EmitChangedAdapter(InsideSend& test) {
  test.daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
}

void EmitChangedDevice(InsideSend& test) {
  test.daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface, "{}");
}

const std::vector<Event>& Events() {
  static const std::vector<Event> events = {
      {"Data", kFirstRead, DescribeBytes("a"), DescribeBytes("b"), false,
       PrepareNothing,
       [](InsideSend& test) {
         test.SendToReader("a");
         test.SendToReader("b");
       }},
      {"EndOfStream", kFirstRead, "end of stream", "", false, PrepareNothing,
       [](InsideSend& test) { test.device->Close(); }},
      {"NewDevice", kDiscovery, DeviceNamed("lens"), DeviceNamed("lid"), true,
       ListenToDiscovery,
       [](InsideSend& test) {
         test.EmitNewDevice("lens");
         test.EmitNewDevice("lid");
       }},
      {"ChangedDevice", kDiscovery, DeviceNamed("lamp"), DeviceNamed("lamp"),
       true, ListenToDiscovery,
       [](InsideSend& test) {
         EmitChangedDevice(test);
         EmitChangedDevice(test);
       }},
      {"InitialState", kState, "12", "10", true, PrepareNothing,
       [](InsideSend& test) {
         EXPECT_EQ(test.host->Listen(kState), "null");
         TurnOff(test);
         EmitChangedAdapter(test);
       }},
      {"ChangedState", kState, "10", "10", true,
       [](InsideSend& test) {
         EXPECT_EQ(test.host->Listen(kState), "null");
         TurnOff(test);
       },
       [](InsideSend& test) {
         EmitChangedAdapter(test);
         EmitChangedAdapter(test);
       }},
      {"RssiUpdate", kDiscovery, Update("AA:BB:CC:00:00:00", -5),
       Update("AA:BB:CC:00:00:01", -6), false,
       [](InsideSend& test) {
         ListenToDiscovery(test);
         test.AddTarget(Reading(-5));
         test.AddTarget(Reading(-6));
         test.BeginCycle();
       },
       [](InsideSend& test) { test.EndCycle(); }},
      {"DeviceLost", kDiscovery, Lost("AA:BB:CC:00:00:00"),
       Lost("AA:BB:CC:00:00:01"), false,
       [](InsideSend& test) {
         ListenToDiscovery(test);
         test.AddTarget(HangUp);
         test.AddTarget(HangUp);
         test.RunCycle();
         test.BeginCycle();
       },
       [](InsideSend& test) {
         test.EndCycle();
         EXPECT_THAT(TakeLog(), SizeIs(4));  // two failures of each
       }},
  };
  return events;
}

bool IsEndOfStream(const Event& event) { return event.second.empty(); }

// -- Actions -----------------------------------------------------------------

void CheckNothing(InsideSend&, const Event&) {}

void CheckDisposed(InsideSend& test, const Event&) {
  for (const char* channel : {kMethods, kDiscovery, kState, kDebug, kFirstRead,
                              "lumso_bluetooth/read/2"}) {
    EXPECT_FALSE(test.host->HasHandler(channel)) << channel;
  }
  EXPECT_EQ(test.host->Call("getState"), "not implemented");
  EXPECT_EQ(test.air.open_sockets(), 0U);
  EXPECT_EQ(CountThreadsNamed(kProber), 0U);
}

constexpr Action kDropHandlers = {
    "DropAllHandlers", Ends::kPlugin,
    [](InsideSend& test, const Event&) { test.host->DropHandlers(); },
    CheckDisposed};

constexpr Action kActions[] = {
    {"Disconnect", Ends::kFirstConnection,
     [](InsideSend& test, const Event&) {
       EXPECT_EQ(test.Disconnect(1), "true");
     },
     [](InsideSend& test, const Event& event) {
       EXPECT_TRUE(IsEndOfStream(event) || test.device->WaitForClose());
       EXPECT_EQ(test.Disconnect(1), "false");
     }},
    {"DisconnectAnother", Ends::kNothing,
     [](InsideSend& test, const Event&) {
       EXPECT_EQ(test.Disconnect(2), "true");
     },
     [](InsideSend& test, const Event&) {
       EXPECT_TRUE(test.second_device->WaitForClose());
       EXPECT_EQ(test.Disconnect(2), "false");
     }},
    {"Write", Ends::kNothing,
     [](InsideSend& test, const Event& event) {
       EXPECT_EQ(test.Write(1), IsEndOfStream(event) ? "false" : "true");
     },
     [](InsideSend& test, const Event& event) {
       if (!IsEndOfStream(event)) {
         EXPECT_EQ(test.device->Receive(5), "hello");
       }
     }},
    {"WriteToAnother", Ends::kNothing,
     [](InsideSend& test, const Event&) { EXPECT_EQ(test.Write(2), "true"); },
     [](InsideSend& test, const Event&) {
       EXPECT_EQ(test.second_device->Receive(5), "hello");
     }},
    {"Connect", Ends::kNothing,
     [](InsideSend& test, const Event&) {
       EXPECT_EQ(test.Connect(kThirdAddress, &test.third_device), "3");
     },
     [](InsideSend& test, const Event&) {
       EXPECT_TRUE(test.third_device->Send("new"));
       EXPECT_TRUE(WaitUntil(
           [&] { return test.host->Events(ReadChannel(3)).size() == 1; }));
     }},
    {"Listen", Ends::kNothing,
     [](InsideSend& test, const Event& event) {
       EXPECT_EQ(test.host->Listen(event.channel), "null");
     },
     CheckNothing},
    {"Cancel", Ends::kListening,
     [](InsideSend& test, const Event& event) {
       EXPECT_EQ(test.host->Cancel(event.channel), "null");
     },
     CheckNothing},
    {"ListDevices", Ends::kNothing,
     [](InsideSend& test, const Event&) {
       EXPECT_EQ(test.host->Call("getDiscoveredDevices"), test.listed);
     },
     CheckNothing},
    {"StartDiscovery", Ends::kNothing,
     [](InsideSend& test, const Event&) {
       // Without the change of "Discovering", which is an event as well.
       test.daemon->OnCall(kAdapterPath, kAdapterInterface, "StartDiscovery",
                           "", "", "pass");
       EXPECT_EQ(test.host->Call("startDiscovery"), "true");
     },
     [](InsideSend& test, const Event&) {
       EXPECT_THAT(
           test.daemon->TakeCalls(),
           Contains("org.bluez.Adapter1.StartDiscovery /org/bluez/hci0"));
     }},
    {"Dispose", Ends::kPlugin,
     [](InsideSend& test, const Event&) { test.host->Dispose(); },
     CheckDisposed},
};

std::vector<Case> Cases() {
  std::vector<Case> cases;
  for (const Event& event : Events()) {
    // Nobody gets the answer to a request inside which the engine goes, and an
    // SDK's event channel does not survive that it is dropped inside one.
    const bool in_request = std::string_view(event.name) == "InitialState";
    for (const Action& action : kActions) {
      if (in_request && action.ends == Ends::kPlugin) continue;
      cases.push_back({event, action});
    }
#ifndef FLUTTER_LINUX_STAND_IN
    if (in_request) continue;
#endif
    cases.push_back({event, kDropHandlers});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(On, InsideSend, ::testing::ValuesIn(Cases()));

// Returns the events that the case sees, each with its channel.
std::vector<std::string> ExpectedEvents(const Case& test) {
  const Event& event = test.event;
  const Action& action = test.action;
  const std::string channel = event.channel + " ";
  std::vector<std::string> events = {channel + event.first};
  // Listening to the state is answered with the state first.
  if (event.channel == kState && std::string_view(action.name) == "Listen") {
    events.push_back(channel + event.first);
  }
  const bool ended =
      action.ends == Ends::kPlugin ||
      (action.ends == Ends::kListening && event.for_listeners) ||
      (action.ends == Ends::kFirstConnection && event.channel == kFirstRead);
  if (!ended && !event.second.empty()) {
    events.push_back(channel + event.second);
  }
  return events;
}

TEST_P(InsideSend, TheApplicationMayAct) {
  const Event& event = GetParam().event;
  const Action& action = GetParam().action;
  event.prepare(*this);
  listed = host->Call("getDiscoveredDevices");
  prepared = host->records().size();
  int acted = 0;
  host->ReactInsideSends([&](const PluginHost::Record& record) {
    if (acted++ > 0) return;
    EXPECT_EQ(record.text, event.first);
    action.act(*this, event);
  });
  event.cause(*this);
  const std::vector<std::string> expected = ExpectedEvents(GetParam());
  EXPECT_TRUE(
      WaitUntil([&] { return SeenEvents().size() >= expected.size(); }, 20));
  Settle();
  EXPECT_EQ(SeenEvents(), expected);
  EXPECT_NE(listed, "[]");
  action.check(*this, event);
  // A device that closes may be told as an error.
  if (IsEndOfStream(event)) TakeStandardError();
}

// ---------------------------------------------------------------------------

// Without a connection, whose last record on its way to the main loop would
// keep the memory of the plug-in's state: who used the state after a send that
// ended it would use freed memory.
class EndInsideSend : public ReadyTest {
 protected:
  // Lets an event on `channel` end the plug-in, and expects it to be the last.
  void ExpectTheLastEvent(const char* channel,
                          const std::function<void()>& emit) {
    const BusPtr shared = SharedBus();
    EXPECT_EQ(host->Listen(channel), "null");
    const size_t before = host->Events(channel).size();
    host->ReactInsideSends([this](const auto&) { host->Dispose(); });
    emit();
    emit();
    EXPECT_TRUE(
        WaitUntil([&] { return host->Events(channel).size() > before; }));
    Settle();
    EXPECT_THAT(host->Events(channel), SizeIs(before + 1));
    EXPECT_EQ(host->Call("getState"), "not implemented");
  }
};

TEST_F(EndInsideSend, OfTheState) {
  ExpectTheLastEvent(kState, [this] {
    daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
  });
}

TEST_F(EndInsideSend, OfADevice) {
  ExpectTheLastEvent(kDiscovery, [this] {
    daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded",
                 "(oa{sa{sv}})", "('/a', {'org.bluez.Device1': {}})");
  });
}

// ---------------------------------------------------------------------------

// The client alone. Its callables own what they use, as those of the plug-in
// need not.
class ClientCallable : public BusTest {
 protected:
  void SetUp() override {
    StartBus();
    StartDaemon();
    daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
    daemon->AddDevice(kDevicePath, "{'Alias': <'lamp'>}");
  }

  void TearDown() override {
    client.reset();
    BusTest::TearDown();
  }

  // Makes a client whose callables run `action` and then note a text of theirs.
  void MakeClient(std::function<void()> action) {
    client = std::make_unique<lumso_bluetooth::BluezClient>();
    ASSERT_TRUE(client->Initialize());
    const auto callable = [this, action = std::move(action),
                           text = std::string(kText)] {
      action();
      noted.push_back(text);
    };
    client->on_device = [callable](const auto&) { callable(); };
    client->on_state_changed = callable;
  }

  // Lets the daemon send each signal that makes the client call one of them,
  // twice and every time with a new client, and expects what is noted.
  void ExpectNotes(const std::vector<std::string>& expected,
                   const std::function<void()>& action) {
    const std::function<void()> signals[] = {
        [this] {
          daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded",
                       "(oa{sa{sv}})", "('/a', {'org.bluez.Device1': {}})");
        },
        [this] {
          daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface, "{}");
        },
        [this] {
          daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
        }};
    for (const auto& emit : signals) {
      MakeClient(action);
      emit();
      emit();
      EXPECT_TRUE(WaitUntil([this] { return !noted.empty(); }));
      Settle();
      EXPECT_EQ(noted, expected);
      noted.clear();
    }
  }

  // Too long to lie in the string itself: what is left of the text after its
  // callable is memory that was freed.
  static constexpr char kText[] =
      "captured, and used when the callable has gone from the client";

  std::unique_ptr<lumso_bluetooth::BluezClient> client;
  std::vector<std::string> noted;
};

TEST_F(ClientCallable, MayBeClearedFromWithin) {
  ExpectNotes({kText}, [this] {
    client->on_device = nullptr;
    client->on_state_changed = nullptr;
  });
}

TEST_F(ClientCallable, MayBeReplacedFromWithin) {
  ExpectNotes({kText, "new"}, [this] {
    client->on_device = [this](const auto&) { noted.push_back("new"); };
    client->on_state_changed = [this] { noted.push_back("new"); };
  });
}

TEST_F(ClientCallable, MayDestroyTheClient) {
  ExpectNotes({kText}, [this] { client.reset(); });
}

// No daemon names an interface twice; what does must not bring the host down.
TEST_F(ClientCallable, MayDestroyTheClientBetweenTwoDevicesOfOneSignal) {
  MakeClient([this] { client.reset(); });
  daemon->Kill();
  g_variant_unref(bus->CallBus("org.freedesktop.DBus", "RequestName",
                               g_variant_new("(su)", "org.bluez", 0)));
  g_autoptr(GVariant) twice = g_variant_ref_sink(
      g_variant_new_parsed("(objectpath '/a', [{'org.bluez.Device1', "
                           "@a{sv} {}}, {'org.bluez.Device1', @a{sv} {}}])"));
  EXPECT_TRUE(WaitUntil([&] {
    g_dbus_connection_emit_signal(bus->connection(), nullptr, "/",
                                  kObjectManagerInterface, "InterfacesAdded",
                                  twice, nullptr);
    return !noted.empty();
  }));
  Settle();
  EXPECT_THAT(noted, SizeIs(1));
}

}  // namespace
}  // namespace lumso_test
