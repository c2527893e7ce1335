// What the three fixed event channels send, and when.

#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kOtherAdapterPath[] = "/org/bluez/hci1";
constexpr char kFullDevice[] =
    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Name': <'plain'>, 'Alias': "
    "<'chosen'>, 'Paired': <true>, 'Connected': <true>, 'RSSI': <int16 -70>, "
    "'UUIDs': <['0000110a-0000-1000-8000-00805f9b34fb']>}";
constexpr char kFullDeviceEvent[] =
    "{\"device\": {\"address\": \"AA:BB:CC:DD:EE:FF\", \"name\": \"chosen\", "
    "\"type\": 0, \"isConnected\": 1, \"bondState\": 12, \"rssi\": -70}}";
constexpr char kEmptyDeviceEvent[] =
    "{\"device\": {\"address\": \"\", \"name\": \"\", \"type\": 0, "
    "\"isConnected\": 0, \"bondState\": 10, \"rssi\": 0}}";

// The event of a device of which only the name is known.
std::string EventWithName(const std::string& name) {
  return "{\"device\": {\"address\": \"\", \"name\": \"" + name +
         "\", \"type\": 0, \"isConnected\": 0, \"bondState\": 10, \"rssi\": "
         "0}}";
}

std::string EventWithRssi(const std::string& rssi) {
  return "{\"device\": {\"address\": \"\", \"name\": \"\", \"type\": 0, "
         "\"isConnected\": 0, \"bondState\": 10, \"rssi\": " +
         rssi + "}}";
}

class EventStreams : public ReadyTest {
 protected:
  // Sends InterfacesAdded for `path` with the interfaces given (a{sa{sv}}).
  void EmitAdded(const std::string& path, const std::string& interfaces) {
    daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded",
                 "(oa{sa{sv}})", "('" + path + "', " + interfaces + ")");
  }

  void EmitDeviceAdded(const std::string& properties) {
    EmitAdded(kDevicePath, "{'org.bluez.Device1': " + properties + "}");
  }

  void SetPower(bool on) {
    daemon->ChangeProperties(kAdapterPath, kAdapterInterface,
                             on ? "{'Powered': <true>}"
                                : "{'Powered': <false>, 'Discovering': "
                                  "<false>}");
  }
};

class StateStream : public EventStreams {};
class DiscoveryStream : public EventStreams {};
class DebugStream : public EventStreams {};
class StreamsWithoutAdapter : public BusTest {};

TEST_F(StateStream, SendsTheStateBeforeTheListenIsAnswered) {
  EXPECT_EQ(host->Listen(kState), "null");
  ASSERT_EQ(host->records().size(), 2U);
  EXPECT_EQ(host->records()[0].text, "12");
  EXPECT_EQ(host->records()[0].channel, kState);
  EXPECT_FALSE(host->records()[0].is_answer);
  EXPECT_TRUE(host->records()[1].is_answer);
}

TEST_F(StateStream, SendsTenForAnAdapterThatIsOff) {
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Call("getState") == "10"; }));
  host->Listen(kState);
  EXPECT_THAT(host->Events(kState), ElementsAre("10"));
}

TEST_F(StateStream, SendsEachChange) {
  host->Listen(kState);
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 2; }));
  EXPECT_EQ(host->Call("getState"), "10");
  SetPower(true);
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 3; }));
  EXPECT_EQ(host->Call("getState"), "12");
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "10", "12"));
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
}

TEST_F(StateStream, ReadsTheStateAfreshInsteadOfFromTheSignal) {
  host->Listen(kState);
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface,
                                "{'Powered': <false>, 'Discovering': <true>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 2; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12"));
  EXPECT_EQ(host->Call("isDiscovering"), "false");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.freedesktop.DBus.Properties.GetAll "
                          "/org/bluez/hci0 (s) org.bluez.Adapter1"));
}

TEST_F(StateStream, SendsOnAnyChangeOfTheAdapter) {
  host->Listen(kState);
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface,
                                "{'Alias': <'new'>}");
  daemon->Emit(kAdapterPath, kPropertiesInterface, "PropertiesChanged",
               "(sa{sv}as)", "('org.bluez.Adapter1', {}, ['Alias'])");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 3; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12", "12"));
}

TEST_F(StateStream, IgnoresOtherObjectsAndInterfaces) {
  daemon->AddAdapter(kOtherAdapterPath, "{'Powered': <false>}");
  host->Listen(kState);
  daemon->EmitPropertiesChanged(kOtherAdapterPath, kAdapterInterface,
                                "{'Powered': <false>}");
  daemon->EmitPropertiesChanged("/org/bluez/hci00", kAdapterInterface,
                                "{'Powered': <false>}");
  daemon->EmitPropertiesChanged("/org/bluez/hci", kAdapterInterface,
                                "{'Powered': <false>}");
  daemon->EmitPropertiesChanged(kAdapterPath, "org.bluez.Media1",
                                "{'Powered': <false>}");
  daemon->EmitPropertiesChanged(kAdapterPath, "org.bluez.Adapter10",
                                "{'Powered': <false>}");
  Settle();
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(StateStream, SendsTheLastKnownStateWhenItCannotBeRead) {
  host->Listen(kState);
  daemon->FailCall(kAdapterPath, kPropertiesInterface, "GetAll", "s",
                   "org.bluez.Error.Failed", "no");
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 2; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12"));
}

TEST_F(StateStream, KeepsWhatTheDaemonLeavesOut) {
  host->Listen(kState);
  daemon->SetProperties(kAdapterPath, kAdapterInterface,
                        "{'Discovering': <true>}");
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface, "{}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 2; }));
  EXPECT_EQ(host->Events(kState).back(), "12");
  EXPECT_EQ(host->Call("isDiscovering"), "true");
}

TEST_F(StateStream, SendsNothingAfterCancelButTheStateIsFollowed) {
  host->Listen(kState);
  EXPECT_EQ(host->Cancel(kState), "null");
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Call("getState") == "10"; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(StateStream, SendsEachChangeOnceAfterASecondListen) {
  host->Listen(kState);
  host->Listen(kState);
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Call("getState") == "10"; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12", "10"));
}

TEST_F(StateStream, CanBeListenedToAgainAfterCancel) {
  host->Listen(kState);
  host->Cancel(kState);
  host->Cancel(kState);
  host->Listen(kState);
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kState).size() == 3; }));
  EXPECT_THAT(host->Events(kState), ElementsAre("12", "12", "10"));
}

TEST_F(StateStream, IgnoresTheArgumentsOfListenAndCancel) {
  EXPECT_EQ(host->CallOn(kState, "listen", fl_value_new_int(1)), "null");
  EXPECT_EQ(host->CallOn(kState, "cancel", Map()), "null");
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(DiscoveryStream, SendsADeviceThatAppears) {
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EmitDeviceAdded(kFullDevice);
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
  EXPECT_THAT(host->Events(kState), IsEmpty());
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, SendsWhatADiscoveryFindsAndLosesSightOf) {
  daemon->AddNearbyDevice(
      kDevicePath,
      "{'Name': <'VELKAN-1'>, 'RSSI': <int16 -60>, 'TxPower': <int16 0>}");
  const auto event = [](const char* rssi) {
    return std::string(
               "{\"device\": {\"address\": \"AA:BB:CC:DD:EE:FF\", \"name\": "
               "\"VELKAN-1\", \"type\": 0, \"isConnected\": 0, \"bondState\": "
               "10, \"rssi\": ") +
           rssi + "}}";
  };
  host->Listen(kDiscovery);
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 2; }));
  // Until it knows of the end, it begins none.
  ASSERT_TRUE(
      WaitUntil([&] { return host->Call("isDiscovering") == "false"; }));
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 3; }));
  EXPECT_THAT(host->Events(kDiscovery),
              ElementsAre(event("-60"), event("0"), event("-60")));
}

TEST_F(DiscoveryStream, SendsNeutralValuesForAbsentProperties) {
  host->Listen(kDiscovery);
  EmitDeviceAdded("{}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kEmptyDeviceEvent));
}

TEST_F(DiscoveryStream, TakesPropertiesOfTheWrongTypeAsAbsent) {
  host->Listen(kDiscovery);
  EmitDeviceAdded(
      "{'Address': <1>, 'Alias': <true>, 'Name': <objectpath '/a'>, 'Paired': "
      "<'yes'>, 'Connected': <1>, 'RSSI': <-70>, 'UUIDs': <'a'>}");
  EmitDeviceAdded(
      "{'Address': <['a']>, 'Alias': <<'boxed'>>, 'Name': <b'bytes'>, "
      "'Paired': <[true]>, 'Connected': <int16 1>, 'RSSI': <uint16 7>, "
      "'UUIDs': <[1, 2]>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 2; }));
  EXPECT_THAT(host->Events(kDiscovery),
              ElementsAre(kEmptyDeviceEvent, kEmptyDeviceEvent));
}

TEST_F(DiscoveryStream, PrefersTheAliasInEitherOrder) {
  host->Listen(kDiscovery);
  EmitDeviceAdded("{'Name': <'n'>, 'Alias': <'a'>}");
  EmitDeviceAdded("{'Alias': <'b'>, 'Name': <'n'>}");
  EmitDeviceAdded("{'Name': <'n'>}");
  EmitDeviceAdded("{'Alias': <'c'>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 4; }));
  EXPECT_THAT(host->Events(kDiscovery),
              ElementsAre(EventWithName("a"), EventWithName("b"),
                          EventWithName("n"), EventWithName("c")));
}

TEST_F(DiscoveryStream, LetsAnEmptyAliasEmptyTheNameOnlyFromBehind) {
  host->Listen(kDiscovery);
  EmitDeviceAdded("{'Name': <'n'>, 'Alias': <''>}");
  EmitDeviceAdded("{'Alias': <''>, 'Name': <'n'>}");
  EmitDeviceAdded("{'Name': <''>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 3; }));
  EXPECT_THAT(
      host->Events(kDiscovery),
      ElementsAre(EventWithName(""), EventWithName("n"), EventWithName("")));
}

TEST_F(DiscoveryStream, PassesNamesUnchanged) {
  host->Listen(kDiscovery);
  const std::string long_name(248, 'x');
  EmitDeviceAdded("{'Alias': <'Jürgen\\'s \"Gerät\"\\n📻'>}");
  EmitDeviceAdded("{'Alias': <'" + long_name + "'>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 2; }));
  EXPECT_THAT(host->Events(kDiscovery),
              ElementsAre(EventWithName("Jürgen's \"Gerät\"\n📻"),
                          EventWithName(long_name)));
}

TEST_F(DiscoveryStream, KeepsTheSignOfTheSignalStrength) {
  host->Listen(kDiscovery);
  for (const char* rssi : {"-1", "4", "-128", "-32768", "32767"}) {
    EmitDeviceAdded(std::string("{'RSSI': <int16 ") + rssi + ">}");
  }
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 5; }));
  EXPECT_THAT(host->Events(kDiscovery),
              ElementsAre(EventWithRssi("-1"), EventWithRssi("4"),
                          EventWithRssi("-128"), EventWithRssi("-32768"),
                          EventWithRssi("32767")));
}

TEST_F(DiscoveryStream, SendsOneEventForADeviceWithOtherInterfaces) {
  host->Listen(kDiscovery);
  EmitAdded(kDevicePath,
            std::string("{'org.freedesktop.DBus.Introspectable': {}, "
                        "'org.bluez.Battery1': {'Percentage': <byte 7>}, "
                        "'org.bluez.Device1': ") +
                kFullDevice + ", 'org.freedesktop.DBus.Properties': {}}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
}

TEST_F(DiscoveryStream, IgnoresObjectsThatAreNoDevices) {
  host->Listen(kDiscovery);
  EmitAdded(kOtherAdapterPath,
            "{'org.bluez.Adapter1': {'Address': <'66:11:22:33:44:55'>}}");
  EmitAdded("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF/service000a",
            "{'org.bluez.GattService1': {'UUID': <'180f'>}}");
  EmitAdded("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF", "{}");
  EmitAdded("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF",
            "{'org.bluez.Device10': {'Address': <'x'>}}");
  Settle();
  EXPECT_THAT(host->records(), ::testing::SizeIs(1));
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, ReportsDevicesOfEveryAdapter) {
  host->Listen(kDiscovery);
  EmitAdded("/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF",
            std::string("{'org.bluez.Device1': ") + kFullDevice + "}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
}

TEST_F(DiscoveryStream, SendsTheWholeDeviceWhenOnePropertyChanges) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface,
                                "{'RSSI': <int16 -3>, 'Alias': <'unread'>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.freedesktop.DBus.Properties.GetAll "
                          "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF (s) "
                          "org.bluez.Device1"));
}

TEST_F(DiscoveryStream, SendsTheDeviceWhenAPropertyIsInvalidated) {
  daemon->AddDevice("/org/bluez/hci1/dev_1", kFullDevice);
  host->Listen(kDiscovery);
  daemon->ChangeProperties("/org/bluez/hci1/dev_1", kDeviceInterface, "{}",
                           "['RSSI']");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  std::string event = kFullDeviceEvent;
  event.replace(event.find("-70"), 3, "0");
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(event));
}

TEST_F(DiscoveryStream, SendsAPairingAsItGoes) {
  daemon->AddDevice(kDevicePath, "{'Name': <'pen'>}");
  host->Listen(kDiscovery);
  EXPECT_EQ(host->Call("bondDevice", Address(kDeviceAddress)), "true");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 2; }));
  // Read when both were over.
  const char event[] =
      "{\"device\": {\"address\": \"AA:BB:CC:DD:EE:FF\", \"name\": \"pen\", "
      "\"type\": 0, \"isConnected\": 1, \"bondState\": 12, \"rssi\": 0}}";
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(event, event));
}

TEST_F(DiscoveryStream, DropsAChangeOfADeviceThatCannotBeRead) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  daemon->FailCall(kDevicePath, kPropertiesInterface, "GetAll", "s",
                   "org.freedesktop.DBus.Error.UnknownObject", "gone");
  host->Listen(kDiscovery);
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface,
                                "{'RSSI': <int16 -3>}");
  daemon->EmitPropertiesChanged("/org/bluez/hci0/dev_gone", kDeviceInterface,
                                "{'RSSI': <int16 -3>}");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(daemon->TakeCalls(), ::testing::SizeIs(2));
}

TEST_F(DiscoveryStream, IgnoresChangesOfOtherInterfacesOfADevice) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  daemon->EmitPropertiesChanged(kDevicePath, "org.bluez.Battery1",
                                "{'Percentage': <byte 7>}");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, SendsNothingWhenADeviceGoes) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  daemon->Withdraw(kDevicePath);
  Settle();
  EXPECT_THAT(host->records(), ::testing::SizeIs(1));
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, IgnoresSignalsWithAnotherBody) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  host->Listen(kState);
  const struct {
    const char* path;
    const char* interface;
    const char* signal;
    const char* type;
    const char* body;
  } signals[] = {
      {"/", kObjectManagerInterface, "InterfacesAdded", "(s)", "('/a',)"},
      {"/", kObjectManagerInterface, "InterfacesAdded", "(o)", "('/a',)"},
      {"/", kObjectManagerInterface, "InterfacesAdded", "(sa{sa{sv}})",
       "('/a', {'org.bluez.Device1': {}})"},
      {"/", kObjectManagerInterface, "InterfacesAdded", "(oa{sv})",
       "('/a', {'org.bluez.Device1': <1>})"},
      {"/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}}s)",
       "('/a', {'org.bluez.Device1': {}}, 'more')"},
      {"/", kObjectManagerInterface, "InterfacesRemoved", "(i)", "(1,)"},
      {kDevicePath, kPropertiesInterface, "PropertiesChanged", "(s)",
       "('org.bluez.Device1',)"},
      {kAdapterPath, kPropertiesInterface, "PropertiesChanged", "(sa{sv})",
       "('org.bluez.Adapter1', {})"},
      {kDevicePath, kPropertiesInterface, "PropertiesChanged", "(ia{sv}as)",
       "(1, {}, [])"},
      {kDevicePath, kPropertiesInterface, "PropertiesChanged", "(sa{ss}as)",
       "('org.bluez.Device1', {}, [])"},
  };
  for (const auto& signal : signals) {
    daemon->Emit(signal.path, signal.interface, signal.signal, signal.type,
                 signal.body);
  }
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, IgnoresSignalsThatDoNotComeFromTheDaemonsRoot) {
  host->Listen(kDiscovery);
  host->Listen(kState);
  // From another object of the daemon.
  daemon->Emit("/org/bluez", kObjectManagerInterface, "InterfacesAdded",
               "(oa{sa{sv}})", "('/a', {'org.bluez.Device1': {}})");
  // From somebody else.
  g_autoptr(GVariant) body = g_variant_ref_sink(g_variant_new_parsed(
      "(objectpath '/a', {'org.bluez.Device1': @a{sv} {}})"));
  g_dbus_connection_emit_signal(bus->connection(), PluginBusName().c_str(), "/",
                                kObjectManagerInterface, "InterfacesAdded",
                                body, nullptr);
  g_autoptr(GVariant) change = g_variant_ref_sink(
      g_variant_new_parsed("('org.bluez.Adapter1', @a{sv} {}, @as [])"));
  g_dbus_connection_emit_signal(bus->connection(), PluginBusName().c_str(),
                                kAdapterPath, kPropertiesInterface,
                                "PropertiesChanged", change, nullptr);
  ASSERT_TRUE(
      g_dbus_connection_flush_sync(bus->connection(), nullptr, nullptr));
  g_variant_unref(bus->CallBus("org.freedesktop.DBus", "GetId", nullptr));
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(host->Events(kState), ElementsAre("12"));
}

TEST_F(DiscoveryStream, DoesNotReplayKnownDevicesOnListen) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DiscoveryStream, SendsNothingBeforeListen) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  EmitDeviceAdded(kFullDevice);
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface,
                                "{'RSSI': <int16 -3>}");
  Settle();
  EXPECT_THAT(host->records(), IsEmpty());
}

TEST_F(DiscoveryStream, SendsNothingAfterCancelButTheDevicesAreListed) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  EXPECT_EQ(host->Cancel(kDiscovery), "null");
  EmitDeviceAdded(kFullDevice);
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface,
                                "{'RSSI': <int16 -3>}");
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[{\"address\": \"AA:BB:CC:DD:EE:FF\", \"name\": \"chosen\", "
            "\"type\": 0, \"isConnected\": 1, \"bondState\": 12, \"rssi\": "
            "-70}]");
}

TEST_F(DiscoveryStream, SendsEachReportOnceAfterASecondListen) {
  host->Listen(kDiscovery);
  host->Listen(kDiscovery);
  EmitDeviceAdded(kFullDevice);
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
}

TEST_F(DiscoveryStream, CanBeListenedToAgainAfterCancel) {
  host->Listen(kDiscovery);
  host->Cancel(kDiscovery);
  host->Cancel(kDiscovery);
  host->Listen(kDiscovery);
  EmitDeviceAdded(kFullDevice);
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), ElementsAre(kFullDeviceEvent));
}

TEST_F(DiscoveryStream, KeepsTheOrderOfTheReports) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  host->Listen(kDiscovery);
  EmitDeviceAdded("{'Alias': <'1'>}");
  daemon->EmitPropertiesChanged(kDevicePath, kDeviceInterface, "{}");
  EmitDeviceAdded("{'Alias': <'2'>}");
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 3; }));
  EXPECT_THAT(
      host->Events(kDiscovery),
      ElementsAre(EventWithName("1"), kFullDeviceEvent, EventWithName("2")));
}

TEST_F(DiscoveryStream, NeitherStartsNorStopsDiscovery) {
  host->Listen(kDiscovery);
  host->Cancel(kDiscovery);
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(DebugStream, AnswersAndStaysSilent) {
  daemon->AddDevice(kDevicePath, kFullDevice);
  EXPECT_EQ(host->Listen(kDebug), "null");
  EXPECT_EQ(host->Listen(kDebug), "null");
  EXPECT_EQ(host->Cancel(kDebug), "null");
  EXPECT_EQ(host->Cancel(kDebug), "null");
  EXPECT_EQ(host->Listen(kDebug), "null");
  EmitDeviceAdded(kFullDevice);
  SetPower(false);
  ASSERT_TRUE(WaitUntil([&] { return host->Call("getState") == "10"; }));
  host->Call("getDiscoveredDevices");
  EXPECT_THAT(host->Events(kDebug), IsEmpty());
}

TEST_F(StreamsWithoutAdapter, AnswerAndSendNothing) {
  StartBus();
  StartDaemon();
  Register();
  for (const char* channel : {kDiscovery, kState, kDebug}) {
    EXPECT_EQ(host->Listen(channel), "null");
    EXPECT_EQ(host->Listen(channel), "null");
  }
  daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
  daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded", "(oa{sa{sv}})",
               "('/a', {'org.bluez.Device1': {}})");
  daemon->EmitPropertiesChanged(kAdapterPath, kAdapterInterface,
                                "{'Powered': <true>}");
  Settle();
  for (const char* channel : {kDiscovery, kState, kDebug}) {
    EXPECT_EQ(host->Cancel(channel), "null");
    EXPECT_THAT(host->Events(channel), IsEmpty());
  }
}

TEST_F(StreamsWithoutAdapter, AnswerWithoutABus) {
  UseNoSystemBus();
  Register();
  EXPECT_NE(TakeStandardError(), "");
  for (const char* channel : {kDiscovery, kState, kDebug}) {
    EXPECT_EQ(host->Listen(channel), "null");
    EXPECT_EQ(host->Cancel(channel), "null");
    EXPECT_THAT(host->Events(channel), IsEmpty());
  }
}

}  // namespace
}  // namespace lumso_test
