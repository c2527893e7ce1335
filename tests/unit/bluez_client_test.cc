#include "bluez_client.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using lumso_bluetooth::BluezClient;
using lumso_bluetooth::DiscoveredDevice;
using lumso_bluetooth::GVariantPtr;

constexpr char kPath[] = "/org/bluez/hci0/dev_AA_BB_CC_DD_EE_FF";

// Parses the properties that `text` gives in GVariant's text format.
DiscoveredDevice Parse(const char* text) {
  const GVariantPtr properties(g_variant_parse(G_VARIANT_TYPE("a{sv}"), text,
                                               nullptr, nullptr, nullptr));
  EXPECT_NE(properties, nullptr) << text;
  return BluezClient::ParseDevice(kPath, properties.get());
}

TEST(ParseDevice, TakesEveryPropertyOfARecord) {
  const DiscoveredDevice device = Parse(
      "{'Address': <'AA:BB:CC:DD:EE:FF'>, 'Alias': <'lamp'>, 'RSSI': <int16 "
      "-61>, 'Paired': <true>, 'Connected': <true>, 'UUIDs': <['b', 'a', "
      "'c']>}");
  EXPECT_EQ(device.path, kPath);
  EXPECT_EQ(device.address, "AA:BB:CC:DD:EE:FF");
  EXPECT_EQ(device.name, "lamp");
  EXPECT_EQ(device.rssi, -61);
  EXPECT_TRUE(device.paired);
  EXPECT_TRUE(device.connected);
  EXPECT_EQ(device.uuids, (std::vector<std::string>{"b", "a", "c"}));
}

TEST(ParseDevice, LeavesTheDefaultsWhereNothingIsGiven) {
  const DiscoveredDevice device = Parse("{'Class': <uint32 7>}");
  EXPECT_EQ(device.path, kPath);
  EXPECT_EQ(device.address, "");
  EXPECT_EQ(device.name, "");
  EXPECT_EQ(device.rssi, 0);
  EXPECT_FALSE(device.paired);
  EXPECT_FALSE(device.connected);
  EXPECT_TRUE(device.uuids.empty());
}

TEST(ParseDevice, LeavesTheDefaultsWhereATypeIsWrong) {
  const DiscoveredDevice device = Parse(
      "{'Address': <objectpath '/a'>, 'Alias': <7>, 'RSSI': <-61>, 'Paired': "
      "<1>, 'Connected': <'true'>, 'UUIDs': <[objectpath '/b']>}");
  EXPECT_EQ(device.address, "");
  EXPECT_EQ(device.name, "");
  EXPECT_EQ(device.rssi, 0);
  EXPECT_FALSE(device.paired);
  EXPECT_FALSE(device.connected);
  EXPECT_TRUE(device.uuids.empty());
}

TEST(ParseDevice, PrefersTheAliasWhicheverComesFirst) {
  EXPECT_EQ(Parse("{'Alias': <'a'>, 'Name': <'n'>}").name, "a");
  EXPECT_EQ(Parse("{'Name': <'n'>, 'Alias': <'a'>}").name, "a");
  EXPECT_EQ(Parse("{'Name': <'n'>}").name, "n");
}

}  // namespace
