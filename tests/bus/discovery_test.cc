// Starting and stopping discovery, and the two device lists.

#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kStartCall[] =
    "org.bluez.Adapter1.StartDiscovery /org/bluez/hci0";
constexpr char kStopCall[] = "org.bluez.Adapter1.StopDiscovery /org/bluez/hci0";
constexpr char kListCall[] =
    "org.freedesktop.DBus.ObjectManager.GetManagedObjects /";

class Discovery : public ReadyTest {
 protected:
  // Returns when the plug-in knows that discovery runs or has ended, and
  // forgets the calls up to then.
  void WaitForDiscovering(bool on) {
    ASSERT_TRUE(WaitUntil([&] {
      return host->Call("isDiscovering") == (on ? "true" : "false");
    }));
    daemon->TakeCalls();
  }

  // What other programs ask of the daemon.
  void AskAsSomebodyElse(const char* interface, const char* method,
                         GVariant* arguments = nullptr) {
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus->connection(), "org.bluez", kAdapterPath, interface, method,
        arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(reply, nullptr) << method;
  }
  void StartAsSomebodyElse() {
    AskAsSomebodyElse(kAdapterInterface, "StartDiscovery");
    WaitForDiscovering(true);
  }
  void SwitchPower(bool on) {
    AskAsSomebodyElse(kPropertiesInterface, "Set",
                      g_variant_new("(ssv)", kAdapterInterface, "Powered",
                                    g_variant_new_boolean(on)));
    ASSERT_TRUE(WaitUntil(
        [&] { return host->Call("isOn") == (on ? "true" : "false"); }));
    daemon->TakeCalls();
  }
};

class DeviceLists : public ReadyTest {};

// The map of a device that is not connected and of no signal strength.
std::string DeviceMap(const std::string& address, bool bonded,
                      const std::string& name = "") {
  return "{\"address\": \"" + address + "\", \"name\": \"" + name +
         "\", \"type\": 0, \"isConnected\": 0, \"bondState\": " +
         (bonded ? "12" : "10") + ", \"rssi\": 0}";
}

TEST_F(Discovery, IsStartedOnTheAdapter) {
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStartCall));
}

TEST_F(Discovery, CountsAsRunningOnlyWhenTheDaemonSaysSo) {
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_EQ(host->Call("isDiscovering"), "false");
  WaitForDiscovering(true);
  EXPECT_EQ(host->Call("isDiscovering"), "true");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_EQ(host->Call("isDiscovering"), "true");
  WaitForDiscovering(false);
  EXPECT_EQ(host->Call("isDiscovering"), "false");
}

TEST_F(Discovery, OfSomebodyElseIsLeftAlone) {
  StartAsSomebodyElse();
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(Discovery, OfSomebodyElseGoesOnAfterOurs) {
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  StartAsSomebodyElse();
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  Settle();
  EXPECT_EQ(host->Call("isDiscovering"), "true");
  AskAsSomebodyElse(kAdapterInterface, "StopDiscovery");
  WaitForDiscovering(false);
}

TEST_F(Discovery, ThatCannotStartIsReported) {
  SwitchPower(false);
  EXPECT_EQ(host->Call("startDiscovery"), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: StartDiscovery failed: "
            "GDBus.Error:org.bluez.Error.NotReady: Resource Not Ready\n");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStartCall));
  // It was not started by us, so there is nothing to stop.
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(Discovery, ThatWasNeverStartedNeedsNoStop) {
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
}

TEST_F(Discovery, OfOursIsNotStartedAgainWhileItRuns) {
  host->Call("startDiscovery");
  WaitForDiscovering(true);
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStopCall));
}

TEST_F(Discovery, OfOursIsStartedAgainWhenTheDaemonHasEndedIt) {
  host->Call("startDiscovery");
  WaitForDiscovering(true);
  SwitchPower(false);
  EXPECT_EQ(host->Call("isDiscovering"), "false");
  SwitchPower(true);
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStartCall));
}

// The daemon answers before it says that it discovers.
TEST_F(Discovery, OfOursStaysOursWhenASecondStartFails) {
  host->Call("startDiscovery");
  EXPECT_EQ(host->Call("startDiscovery"), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: StartDiscovery failed: "
            "GDBus.Error:org.bluez.Error.InProgress: Operation already in "
            "progress\n");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kStartCall, kStartCall, kStopCall));
}

TEST_F(Discovery, IsStoppedOnce) {
  host->Call("startDiscovery");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStartCall, kStopCall));
}

TEST_F(Discovery, ThatCannotStopIsTriedAgainWithoutAWord) {
  host->Call("startDiscovery");
  daemon->FailCall(kAdapterPath, kAdapterInterface, "StopDiscovery", "",
                   "org.bluez.Error.Failed", "Busy");
  EXPECT_EQ(host->Call("cancelDiscovery"), "false");
  EXPECT_EQ(host->Call("cancelDiscovery"), "false");
  daemon->OnCall(kAdapterPath, kAdapterInterface, "StopDiscovery", "", "", "");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_EQ(host->Call("cancelDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(kStartCall, kStopCall, kStopCall, kStopCall));
}

TEST_F(Discovery, ThatTheDaemonHasEndedCannotBeStopped) {
  host->Call("startDiscovery");
  SwitchPower(false);
  EXPECT_EQ(host->Call("cancelDiscovery"), "false");
  SwitchPower(true);
  EXPECT_EQ(host->Call("cancelDiscovery"), "false");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStopCall));
}

TEST_F(Discovery, OfOursStaysOursWhenSomebodyElseIsFoundDiscovering) {
  host->Call("startDiscovery");
  SwitchPower(false);
  SwitchPower(true);
  StartAsSomebodyElse();
  EXPECT_EQ(host->Call("startDiscovery"), "true");
  EXPECT_THAT(daemon->TakeCalls(), IsEmpty());
  EXPECT_EQ(host->Call("cancelDiscovery"), "false");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kStopCall));
}

TEST_F(Discovery, OfOursIsNotStoppedAtDispose) {
  host->Call("startDiscovery");
  daemon->TakeCalls();
  host->Dispose();
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre("org.bluez.AgentManager1.UnregisterAgent /org/bluez "
                          "(o) /brel/lumso/lumso_bluetooth/agent"));
}

TEST_F(Discovery, StartWaitsForASlowDaemon) {
  daemon->OnCall(kAdapterPath, kAdapterInterface, "StartDiscovery", "", "",
                 "time.sleep(1)");
  EXPECT_EQ(host->Call("startDiscovery"), "true");
}

TEST_F(DeviceLists, AreEmptyWithoutDevices) {
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kListCall, kListCall));
}

TEST_F(DeviceLists, HoldTheDevicesOfAllAdaptersInTheDaemonsOrder) {
  daemon->AddAdapter("/org/bluez/hci1", "{}");
  daemon->AddDevice("/org/bluez/hci0/dev_3",
                    "{'Address': <'03'>, 'Paired': <true>}");
  daemon->AddDevice("/org/bluez/hci1/dev_2", "{'Address': <'02'>}");
  daemon->AddDevice("/org/bluez/hci0/dev_1",
                    "{'Address': <'01'>, 'Paired': <false>}");
  daemon->AddDevice("/org/bluez/hci1/dev_3",
                    "{'Address': <'03'>, 'Paired': <true>}");
  daemon->AddObject("/org/bluez/hci0/dev_3/player0", "org.bluez.MediaPlayer1",
                    "{'Name': <'p'>}");
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap("03", true, "03") + ", " +
                DeviceMap("01", false, "01") + ", " +
                DeviceMap("02", false, "02") + ", " +
                DeviceMap("03", true, "03") + "]");
  EXPECT_EQ(host->Call("getBondedDevices"),
            "[" + DeviceMap("03", true, "03") + ", " +
                DeviceMap("03", true, "03") + "]");
}

TEST_F(DeviceLists, HoldTheAddressWithDashesAsTheNameOfANamelessDevice) {
  daemon->AddDevice(kDevicePath, "{}");
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap(kDeviceAddress, false, "AA-BB-CC-DD-EE-FF") + "]");
}

TEST_F(DeviceLists, HoldTheNewestDeviceFirst) {
  for (const char* number : {"1", "2", "3"}) {
    const std::string path = std::string("/org/bluez/hci0/dev_") + number;
    daemon->AddDevice(path, "{}");
    daemon->Announce(path);
  }
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap("3", false, "3") + ", " +
                DeviceMap("2", false, "2") + ", " + DeviceMap("1", false, "1") +
                "]");
}

TEST_F(DeviceLists, HoldEveryFieldOfADevice) {
  daemon->AddDevice(
      kDevicePath,
      "{'UUIDs': <['a', 'b']>, 'RSSI': <int16 -70>, 'Alias': <'chosen'>, "
      "'Name': <'plain'>, 'Connected': <true>, 'Paired': <true>, 'Address': "
      "<'AA:BB:CC:DD:EE:FF'>, 'Class': <uint32 5>, 'Adapter': <objectpath "
      "'/org/bluez/hci0'>, 'ManufacturerData': <{uint16 1: <[byte 1]>}>}");
  const std::string expected =
      "[{\"address\": \"AA:BB:CC:DD:EE:FF\", \"name\": \"chosen\", \"type\": "
      "0, \"isConnected\": 1, \"bondState\": 12, \"rssi\": -70}]";
  EXPECT_EQ(host->Call("getDiscoveredDevices"), expected);
  EXPECT_EQ(host->Call("getBondedDevices"), expected);
}

TEST_F(DeviceLists, TakePropertiesOfTheWrongTypeAsAbsent) {
  daemon->AddDevice("/org/bluez/hci0/dev_1",
                    "{'Address': <'01'>, 'Alias': <1>, 'Name': <true>, "
                    "'Paired': <1>, 'Connected': <'1'>, 'RSSI': <int64 -70>, "
                    "'UUIDs': <[objectpath '/a']>}");
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap("01", false) + "]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
}

TEST_F(DeviceLists, HoldDevicesThatHaveOtherInterfacesToo) {
  daemon->AddObject("/org/bluez/hci0/dev_1", "org.bluez.Battery1",
                    "{'Percentage': <byte 7>}");
  daemon->SetProperties("/org/bluez/hci0/dev_1", kDeviceInterface,
                        "{'Address': <'01'>}");
  daemon->SetProperties("/org/bluez/hci0/dev_1", "org.bluez.Input1",
                        "{'Address': <'unread'>}");
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap("01", false) + "]");
}

TEST_F(DeviceLists, AskTheDaemonEachTime) {
  daemon->AddDevice("/org/bluez/hci0/dev_1", "{'Address': <'01'>}");
  EXPECT_EQ(host->Call("getDiscoveredDevices"),
            "[" + DeviceMap("01", false, "01") + "]");
  daemon->RemoveObject("/org/bluez/hci0/dev_1");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
}

TEST_F(DeviceLists, AreEmptyWithoutAWordWhenTheDaemonRefuses) {
  daemon->AddDevice(kDevicePath,
                    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}");
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "no");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
}

TEST_F(DeviceLists, AreEmptyWhenTheDaemonAnswersAnotherType) {
  daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "", "as",
                 "ret = ['/org/bluez/hci0']");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[]");
}

TEST_F(DeviceLists, HoldAThousandDevices) {
  daemon->OnCall(
      "/", kObjectManagerInterface, "GetManagedObjects", "", "a{oa{sa{sv}}}",
      "ret = {f'/org/bluez/hci0/dev_{i}': {'org.bluez.Device1': {'Address': "
      "str(i), 'Paired': i % 2 == 1}} for i in range(1000)}");
  std::string all;
  std::string bonded;
  for (int i = 0; i < 1000; i++) {
    const std::string device = DeviceMap(std::to_string(i), i % 2 == 1);
    all += (i == 0 ? "" : ", ") + device;
    if (i % 2 == 1) bonded += (i == 1 ? "" : ", ") + device;
  }
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[" + all + "]");
  EXPECT_EQ(host->Call("getBondedDevices"), "[" + bonded + "]");
}

}  // namespace
}  // namespace lumso_test
