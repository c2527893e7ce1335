// Looking a device up by its address, its bond state, pairing and unpairing.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kListCall[] =
    "org.freedesktop.DBus.ObjectManager.GetManagedObjects /";
constexpr char kOtherDevicePath[] = "/org/bluez/hci1/dev_AA_BB_CC_DD_EE_FF";
constexpr char kPairedDevice[] =
    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <true>}";
constexpr char kUnpairedDevice[] =
    "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': <false>}";

// The call that reads one property of a device.
std::string GetCall(const std::string& path, const std::string& property) {
  return "org.freedesktop.DBus.Properties.Get " + path +
         " (ss) org.bluez.Device1 " + property;
}

std::string PairCall(const std::string& path) {
  return "org.bluez.Device1.Pair " + path;
}

std::string RemoveCall(const std::string& path) {
  return "org.bluez.Adapter1.RemoveDevice /org/bluez/hci0 (o) " + path;
}

class Lookup : public ReadyTest {
 protected:
  std::string BondStateOf(const std::string& address) {
    return host->Call("getBondState", Address(address));
  }
};

class BondState : public Lookup {};
class Bonding : public ReadyTest {
 protected:
  std::string Bond(const std::string& address) {
    return host->Call("bondDevice", Address(address));
  }
};
class BondRemoval : public ReadyTest {
 protected:
  std::string Remove(const std::string& address) {
    return host->Call("removeDeviceBond", Address(address));
  }
};

TEST_F(Lookup, FindsTheDaemonsOwnSpellingWithOneCall) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "12");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(GetCall(kDevicePath, "Address"),
                                               GetCall(kDevicePath, "Paired")));
}

TEST_F(Lookup, DoesNotReadWhatTheFirstCallAnswers) {
  daemon->AddDevice(kDevicePath, "{'Address': <7>, 'Paired': <true>}");
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "12");
}

TEST_F(Lookup, FindsOtherLetterCasesBySearching) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("aa:bb:cc:dd:ee:ff"), "12");
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre(GetCall("/org/bluez/hci0/dev_aa_bb_cc_dd_ee_ff", "Address"),
                  kListCall, GetCall(kDevicePath, "Paired")));
  EXPECT_EQ(BondStateOf("aA:Bb:CC:dd:Ee:fF"), "12");
}

TEST_F(Lookup, FindsDevicesOfAnotherAdapterBySearching) {
  daemon->AddDevice(kOtherDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "12");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(GetCall(kDevicePath, "Address"), kListCall,
                          GetCall(kOtherDevicePath, "Paired")));
}

TEST_F(Lookup, TakesTheFirstOfTwoDevicesInTheDaemonsOrder) {
  daemon->AddDevice("/org/bluez/hci1/dev_1",
                    "{'Address': <'aa:bb:cc:dd:ee:ff'>, 'Paired': <false>}");
  daemon->AddDevice("/org/bluez/hci2/dev_1", kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "10");
}

TEST_F(Lookup, PrefersTheChosenAdapter) {
  daemon->AddDevice(kOtherDevicePath, kUnpairedDevice);
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "12");
}

TEST_F(Lookup, DoesNotFindUnknownAddresses) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:F0"), "10");
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre(GetCall("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_F0", "Address"),
                  kListCall));
}

TEST_F(Lookup, ChecksNoLength) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE"), "10");
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF:00"), "10");
  EXPECT_EQ(BondStateOf(""), "10");
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre(
          GetCall("/org/bluez/hci0/dev_AA_BB_CC_DD_EE", "Address"), kListCall,
          GetCall("/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF_00", "Address"),
          kListCall, GetCall("/org/bluez/hci0/dev_", "Address"), kListCall));
}

TEST_F(Lookup, FindsUnderscoresByTheirPath) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA_BB_CC_DD_EE_FF"), "12");
}

// Such a path must not even reach the bus library, which would complain.
TEST_F(Lookup, OnlySearchesForAddressesThatNoPathCanHold) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  for (const char* address :
       {"AA-BB-CC-DD-EE-FF", "AA BB", "AA:BB:CC:DD:EE:FF/", "//", "../hci1",
        "AA.BB", "é", "AA:BB:CC:DD:EE:FF\n"}) {
    EXPECT_EQ(BondStateOf(address), "10") << address;
    EXPECT_THAT(daemon->TakeCalls(), ElementsAre(kListCall)) << address;
  }
}

TEST_F(Lookup, FindsAnOddAddressThatTheDaemonReports) {
  daemon->AddDevice("/org/bluez/hci0/dev_1",
                    "{'Address': <'AA-BB'>, 'Paired': <true>}");
  EXPECT_EQ(BondStateOf("aa-bb"), "12");
}

TEST_F(Lookup, ReachesObjectsBelowADevice) {
  EXPECT_EQ(BondStateOf("AA/service"), "10");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(GetCall("/org/bluez/hci0/dev_AA/service", "Address"),
                          kListCall));
}

TEST_F(Lookup, UsesTheChosenAdapterAsPrefix) {
  daemon->AddAdapter("/org/bluez/hci1", "{'Powered': <true>}");
  EXPECT_EQ(BondStateOf("AA:BB"), "10");
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre(GetCall("/org/bluez/hci0/dev_AA_BB", "Address"), kListCall));
}

TEST_F(Lookup, IsRepeatedForEveryOperation) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "12");
  daemon->RemoveObject(kDevicePath);
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "10");
}

TEST_F(Lookup, FindsNothingWhenTheDaemonRefusesBothCalls) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  daemon->FailCall(kDevicePath, kPropertiesInterface, "Get", "ss",
                   "org.freedesktop.DBus.Error.AccessDenied", "no");
  daemon->FailCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "org.freedesktop.DBus.Error.AccessDenied", "no");
  EXPECT_EQ(BondStateOf("AA:BB:CC:DD:EE:FF"), "10");
}

TEST_F(BondState, IsTheSameUnderBothNames) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "12");
  EXPECT_EQ(host->Call("getDeviceBondState", Address(kDeviceAddress)), "12");
  daemon->SetProperties(kDevicePath, kDeviceInterface, kUnpairedDevice);
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "10");
  EXPECT_EQ(host->Call("getDeviceBondState", Address(kDeviceAddress)), "10");
}

TEST_F(BondState, IsTenWhenPairedHasAnotherType) {
  for (const char* paired :
       {"<'true'>", "<1>", "<byte 1>", "<[true]>", "<<true>>"}) {
    if (paired == std::string("<'true'>")) {
      daemon->AddDevice(kDevicePath, kPairedDevice);
    }
    daemon->SetProperties(
        kDevicePath, kDeviceInterface,
        std::string("{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Paired': ") + paired +
            "}");
    EXPECT_EQ(BondStateOf(kDeviceAddress), "10") << paired;
  }
}

TEST_F(BondState, IsTenWhenPairedIsAbsent) {
  daemon->AddDevice(kDevicePath, "{'Address': <'AA:BB:CC:DD:EE:FF'>}");
  EXPECT_EQ(BondStateOf(kDeviceAddress), "10");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(GetCall(kDevicePath, "Address"),
                                               GetCall(kDevicePath, "Paired")));
}

TEST_F(BondState, IsTenWhenPairedCannotBeRead) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  daemon->OnCall(kDevicePath, kPropertiesInterface, "Get", "ss", "v",
                 "if args[1] == 'Paired': raise dbus.exceptions.DBusException("
                 "'no', name='org.bluez.Error.Failed')\n"
                 "ret = self.props[args[0]][args[1]]");
  EXPECT_EQ(BondStateOf(kDeviceAddress), "10");
}

TEST_F(BondState, IsTenWhenTheReplyIsNoVariant) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  daemon->OnCall(kDevicePath, kPropertiesInterface, "Get", "ss", "b",
                 "ret = True");
  EXPECT_EQ(BondStateOf(kDeviceAddress), "10");
}

TEST_F(Bonding, PairsTheDevice) {
  daemon->AddDevice(kDevicePath, kUnpairedDevice);
  EXPECT_EQ(Bond(kDeviceAddress), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(GetCall(kDevicePath, "Address"),
                                               PairCall(kDevicePath)));
}

TEST_F(Bonding, PairsADeviceOfAnotherAdapterThere) {
  daemon->AddDevice(kOtherDevicePath, kUnpairedDevice);
  EXPECT_EQ(Bond("aa:bb:cc:dd:ee:ff"), "true");
  EXPECT_EQ(daemon->TakeCalls().back(), PairCall(kOtherDevicePath));
}

TEST_F(Bonding, SaysThatADeviceIsNotKnown) {
  for (const char* address : {"AA:BB:CC:DD:EE:FF", "aa-bb", ""}) {
    EXPECT_EQ(Bond(address), "false");
    EXPECT_EQ(TakeStandardError(),
              std::string("lumso_bluetooth: pair: device not known yet (") +
                  address + ")\n");
  }
  for (const std::string& call : daemon->TakeCalls()) {
    EXPECT_TRUE(call == kListCall ||
                call.rfind("org.freedesktop.DBus.Properties.Get ", 0) == 0)
        << call;
  }
}

TEST_F(Bonding, SaysSoAtOnceThoughTheHostBuffersStandardError) {
  static char buffer[4096];
  setvbuf(stderr, buffer, _IOFBF, sizeof(buffer));
  EXPECT_EQ(Bond(kDeviceAddress), "false");
  struct stat written = {};
  EXPECT_EQ(fstat(STDERR_FILENO, &written), 0);
  setvbuf(stderr, nullptr, _IONBF, 0);
  const std::string text = TakeStandardError();
  EXPECT_EQ(written.st_size, static_cast<off_t>(text.size())) << text;
}

TEST_F(Bonding, SaysWhyTheDaemonRefused) {
  daemon->AddDevice(kDevicePath, kUnpairedDevice);
  daemon->FailCall(kDevicePath, kDeviceInterface, "Pair", "",
                   "org.bluez.Error.AuthenticationFailed",
                   "Authentication Failed");
  EXPECT_EQ(Bond(kDeviceAddress), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: Pair() failed: "
            "GDBus.Error:org.bluez.Error.AuthenticationFailed: Authentication "
            "Failed\n");
}

TEST_F(Bonding, TakesAPercentSignLiterally) {
  daemon->AddDevice(kDevicePath, kUnpairedDevice);
  daemon->FailCall(kDevicePath, kDeviceInterface, "Pair", "",
                   "org.bluez.Error.Failed", "100%s %n");
  EXPECT_EQ(Bond(kDeviceAddress), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: Pair() failed: "
            "GDBus.Error:org.bluez.Error.Failed: 100%s %n\n");
  EXPECT_EQ(Bond("%s%n"), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: pair: device not known yet (%s%n)\n");
}

TEST_F(Bonding, OfABondedDeviceIsUpToTheDaemon) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(Bond(kDeviceAddress), "false");
  EXPECT_EQ(TakeStandardError(),
            "lumso_bluetooth: Pair() failed: "
            "GDBus.Error:org.bluez.Error.AlreadyExists: Already Exists\n");
}

TEST_F(Bonding, WaitsForASlowDevice) {
  daemon->AddDevice(kDevicePath, kUnpairedDevice);
  daemon->OnCall(kDevicePath, kDeviceInterface, "Pair", "", "",
                 "time.sleep(2)");
  const gint64 start = g_get_monotonic_time();
  EXPECT_EQ(Bond(kDeviceAddress), "true");
  EXPECT_GE(g_get_monotonic_time() - start, 2 * G_TIME_SPAN_SECOND);
}

TEST_F(BondRemoval, RemovesTheDeviceFromTheAdapter) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(Remove(kDeviceAddress), "true");
  EXPECT_THAT(daemon->TakeCalls(), ElementsAre(GetCall(kDevicePath, "Address"),
                                               RemoveCall(kDevicePath)));
}

TEST_F(BondRemoval, EndsTheBond) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "12");
  EXPECT_EQ(Remove(kDeviceAddress), "true");
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "10");
  EXPECT_EQ(Remove(kDeviceAddress), "true");
}

TEST_F(BondRemoval, OfAnUnknownDeviceIsDone) {
  EXPECT_EQ(Remove(kDeviceAddress), "true");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(GetCall(kDevicePath, "Address"), kListCall));
  EXPECT_EQ(Remove("AA-BB"), "true");
  EXPECT_EQ(Remove(""), "true");
}

// Which has none of them to remove.
TEST_F(BondRemoval, AsksTheChosenAdapterForDevicesOfOthersToo) {
  daemon->AddAdapter("/org/bluez/hci1", "{'Powered': <true>}");
  daemon->AddDevice(kOtherDevicePath, kPairedDevice);
  EXPECT_EQ(Remove(kDeviceAddress), "false");
  EXPECT_THAT(daemon->TakeCalls(),
              ElementsAre(GetCall(kDevicePath, "Address"), kListCall,
                          RemoveCall(kOtherDevicePath)));
}

TEST_F(BondRemoval, WhileTheAdapterIsOffFailsWithoutAWord) {
  daemon->AddDevice(kDevicePath, kPairedDevice);
  daemon->ChangeProperties(kAdapterPath, kAdapterInterface,
                           "{'Powered': <false>}");
  EXPECT_EQ(Remove(kDeviceAddress), "false");
  EXPECT_EQ(host->Call("getBondState", Address(kDeviceAddress)), "12");
}

TEST_F(BondRemoval, OfAConnectedDeviceEndsItsConnection) {
  daemon->AddDevice(kDevicePath, "{'Connected': <true>, 'Paired': <true>}");
  host->Listen(kDiscovery);
  EXPECT_EQ(Remove(kDeviceAddress), "true");
  EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
  // It is told of, but there is nothing left to read.
  Settle();
  EXPECT_THAT(host->Events(kDiscovery), IsEmpty());
}

}  // namespace
}  // namespace lumso_test
