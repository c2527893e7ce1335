// What the prober puts on the discovery stream.

#include <climits>
#include <utility>

#include "tests/bus/prober_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kReport[] =
    R"({"device": {"address": "AA:BB:CC:DD:EE:FF", "name": "lamp", "type": 0, )"
    R"("isConnected": 0, "bondState": 10, "rssi": 0}})";

class ProberEventsTest : public ProberTest {
 protected:
  // Lets the daemon report a device that the prober does not select.
  void ReportDevice() {
    daemon->Emit("/", kObjectManagerInterface, "InterfacesAdded",
                 "(oa{sa{sv}})",
                 "('/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF', "
                 "{'org.bluez.Device1': {'Address': <'AA:BB:CC:DD:EE:FF'>, "
                 "'Alias': <'lamp'>}})");
  }
};

using RssiUpdate = ProberEventsTest;

TEST_F(RssiUpdate, HoldsTypeAddressAndReadingInThisOrder) {
  AddTarget(Reading(-61));
  RunCycle();
  EXPECT_THAT(TakeEvents(),
              ElementsAre(R"({"type": "rssiUpdate", )"
                          R"("address": "AA:BB:CC:00:00:00", "rssi": -61})"));
}

TEST_F(RssiUpdate, CarriesEvery32BitReading) {
  std::vector<std::string> expected;
  for (const int value : {0, 1, -1, 20, 127, -128, INT_MAX, INT_MIN}) {
    const std::string address = AddTarget(Reading(value));
    expected.push_back(Update(address, value));
  }
  RunCycle();
  EXPECT_EQ(TakeEvents(), expected);
}

TEST_F(RssiUpdate, CarriesTheAddressAsTheDaemonWritesIt) {
  air.AddDevice("AA:BB:CC:DD:EE:0F", Reading(-1));
  ListDevice("aa:bb:cc:dd:ee:0f", "VELKAN-1");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update("aa:bb:cc:dd:ee:0f", -1)));
}

TEST_F(RssiUpdate, ComesWithEachReadingThoughItIsTheSame) {
  const std::string address = AddTarget(Reading(-5));
  RunCycle();
  RunCycle();
  EXPECT_THAT(TakeEvents(),
              ElementsAre(Update(address, -5), Update(address, -5)));
}

TEST_F(RssiUpdate, ComesWhetherOrNotTheDiscoveryStreamIsListenedTo) {
  const std::string address = AddTarget(Reading(-5));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -5)));
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -5)));
  EXPECT_EQ(host->Cancel(kDiscovery), "null");
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Update(address, -5)));
}

using DeviceLost = ProberEventsTest;

TEST_F(DeviceLost, HoldsTypeAndAddressOnly) {
  AddTarget(HangUp);
  RunCycle();
  RunCycle();
  EXPECT_THAT(
      TakeEvents(),
      ElementsAre(R"({"type": "deviceLost", "address": "AA:BB:CC:00:00:00"})"));
  TakeLog();
}

TEST_F(DeviceLost, ComesWhileTheDiscoveryStreamIsCancelled) {
  const std::string address = AddTarget(HangUp);
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  EXPECT_EQ(host->Cancel(kDiscovery), "null");
  RunCycle();
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(Lost(address)));
  TakeLog();
}

using ProberStream = ProberEventsTest;

TEST_F(ProberStream, KeepsTheOrderOfTheProbes) {
  std::vector<std::string> expected;
  std::vector<std::string> addresses;
  for (int i = 0; i < 12; ++i) {
    addresses.push_back(AddTarget(i % 3 == 0 ? HangUp : Reading(-i)));
  }
  RunCycle();
  TakeEvents();
  RunCycle();
  for (int i = 0; i < 12; ++i) {
    const auto n = static_cast<size_t>(i);
    expected.push_back(i % 3 == 0 ? Lost(addresses[n])
                                  : Update(addresses[n], -i));
  }
  EXPECT_EQ(TakeEvents(), expected);
  TakeLog();
}

TEST_F(ProberStream, MixesWithDeviceReports) {
  const std::string address = AddTarget(Reading(-5));
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  ReportDevice();
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 1; }));
  RunCycle();
  ReportDevice();
  ASSERT_TRUE(WaitUntil([&] { return host->Events(kDiscovery).size() == 3; }));
  RunCycle();
  EXPECT_THAT(TakeEvents(), ElementsAre(kReport, Update(address, -5), kReport,
                                        Update(address, -5)));
}

TEST_F(ProberStream, LeavesTheOtherStreamsAlone) {
  AddTarget(Reading(-5));
  AddTarget(HangUp);
  EXPECT_EQ(host->Listen(kDebug), "null");
  RunCycle();
  RunCycle();
  EXPECT_THAT(host->Events(kDebug), IsEmpty());
  EXPECT_THAT(host->Events(kState), IsEmpty());
  EXPECT_EQ(TakeEvents().size(), 3U);
  TakeLog();
}

}  // namespace
}  // namespace lumso_test
