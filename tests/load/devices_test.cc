// Object trees that no daemon should have, very many devices, and changes that
// come faster than anybody takes them.

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "tests/load/load_test.h"

namespace lumso_test {
namespace {

// The longest name that a device can have, in bytes.
constexpr size_t kLongestName = 248;

// One device as the daemon has it and as the application sees it.
struct Device {
  std::string properties;  // Python
  std::string address;
  std::string name;
  int rssi = 0;
  bool paired = false;
  bool connected = false;
};

std::string AddressOf(size_t number) {
  char text[18];
  std::snprintf(text, sizeof(text), "AA:BB:CC:DD:%02X:%02X",
                static_cast<unsigned>(number / 256 % 256),
                static_cast<unsigned>(number % 256));
  return text;
}

// The bytes of `text` as a Python expression for the same text.
std::string Python(const std::string& text) {
  std::string digits;
  for (const char byte : text) {
    char pair[3];
    std::snprintf(pair, sizeof(pair), "%02x", static_cast<unsigned char>(byte));
    digits += pair;
  }
  return "bytes.fromhex('" + digits + "').decode()";
}

std::string DeviceMap(const Device& device) {
  return R"({"address": ")" + device.address + R"(", "name": ")" + device.name +
         R"(", "type": 0, "isConnected": )" + (device.connected ? "1" : "0") +
         R"(, "bondState": )" + (device.paired ? "12" : "10") +
         R"(, "rssi": )" + std::to_string(device.rssi) + "}";
}

// A value of each type of D-Bus.
constexpr const char* kValues[] = {
    "dbus.String('text')",
    "dbus.String('')",
    "dbus.Boolean(True)",
    "dbus.Byte(7)",
    "dbus.Int16(-7)",
    "dbus.UInt16(7)",
    "dbus.Int32(-7)",
    "dbus.UInt32(7)",
    "dbus.Int64(-7)",
    "dbus.UInt64(7)",
    "dbus.Double(7.5)",
    "dbus.ObjectPath('/a')",
    "dbus.Signature('a{sv}')",
    "dbus.Array([], signature='s')",
    "dbus.Array(['0000110a'], signature='s')",
    "dbus.Array([1, 2], signature='y')",
    "dbus.Array([['a']], signature='as')",
    "dbus.Dictionary({'k': dbus.Byte(1)}, signature='sv')",
    "dbus.Struct((dbus.Int16(1), 'a'))",
    "dbus.String('nested', variant_level=2)",
};

bool IsText(const std::string& value) {
  return value == "dbus.String('text')" || value == "dbus.String('')";
}

// The device `number` with one property of another value than it should have.
Device Wrong(const std::string& property, const std::string& value,
             size_t number) {
  Device device{"", AddressOf(number), "alias", -60, true, true};
  const std::pair<std::string, std::string> entries[] = {
      {"Name", "'name'"},
      {"Address", "'" + device.address + "'"},
      {"Alias", "'alias'"},
      {"RSSI", "dbus.Int16(-60)"},
      {"Paired", "True"},
      {"Connected", "True"},
      {"UUIDs", "dbus.Array(['1101'], signature='s')"},
  };
  for (const auto& [key, right] : entries) {
    device.properties +=
        "'" + key + "': " + (key == property ? value : right) + ", ";
  }
  const std::string text = value == "dbus.String('text')" ? "text" : "";
  if (property == "Address") device.address = text;
  // Only another name stands behind a wrong alias.
  if (property == "Alias") device.name = IsText(value) ? text : "name";
  if (property == "RSSI") device.rssi = value == "dbus.Int16(-7)" ? -7 : 0;
  if (property == "Paired") device.paired = value == "dbus.Boolean(True)";
  if (property == "Connected") device.connected = value == "dbus.Boolean(True)";
  return device;
}

// The device `number` without one property.
Device Without(const std::string& property, size_t number) {
  Device device{"", AddressOf(number), "alias", -60, true, true};
  if (property != "Address")
    device.properties += "'Address': '" + device.address + "', ";
  if (property != "Alias") device.properties += "'Alias': 'alias', ";
  if (property != "RSSI") device.properties += "'RSSI': dbus.Int16(-60), ";
  if (property != "Paired") device.properties += "'Paired': True, ";
  if (property != "Connected") device.properties += "'Connected': True, ";
  if (property == "Address") device.address = "";
  if (property == "Alias") device.name = "";
  if (property == "RSSI") device.rssi = 0;
  if (property == "Paired") device.paired = false;
  if (property == "Connected") device.connected = false;
  return device;
}

std::string Repeat(const std::string& text) {
  std::string repeated;
  while (repeated.size() + text.size() <= kLongestName) repeated += text;
  return repeated;
}

// Names of up to 248 bytes that somebody could give a device.
std::vector<std::string> OddNames() {
  std::string controls;
  for (char byte = 1; byte < 32; ++byte) controls += byte;
  controls += '\x7f';
  std::vector<std::string> names;
  for (const char* text :
       {"n", "\"", "'", "\\", "\n", "\r\n", "\t", "%s%n", "{}[]:,\"", "é", "€",
        "\xf0\x9f\x8e\xa7", "\xe2\x80\xae", "e\xcc\x81", "\xef\xbf\xbd",
        "\xf4\x8f\xbf\xbf"}) {
    names.push_back(Repeat(text));
  }
  names.push_back(Repeat(controls));
  names.push_back("");
  names.push_back(" ");
  return names;
}

class Devices : public LoadTest {
 protected:
  void SetUp() override {
    LoadTest::SetUp();
    RegisterReady();
  }

  // All kinds of devices, one each.
  static std::vector<Device> Kinds() {
    std::vector<Device> kinds;
    for (const char* property : {"Address", "Alias", "Name", "RSSI", "Paired",
                                 "Connected", "UUIDs", "Icon"}) {
      for (const char* value : kValues) {
        kinds.push_back(Wrong(property, value, kinds.size()));
      }
      kinds.push_back(Without(property, kinds.size()));
    }
    for (const std::string& name : OddNames()) {
      const std::string address = AddressOf(kinds.size());
      kinds.push_back({"'Address': '" + address + "', 'Alias': " + Python(name),
                       address, name});
    }
    kinds.push_back({});
    return kinds;
  }

  // Lets the daemon have `count` devices, which go through all kinds, and
  // returns what the list has to look like.
  std::string MakeTree(size_t count) {
    const std::vector<Device> kinds = Kinds();
    std::string code = "global tree\nkinds = [\n";
    for (const Device& kind : kinds) code += "  {" + kind.properties + "},\n";
    code +=
        "]\n"
        "tree = dbus.Dictionary(signature='oa{sa{sv}}')\n"
        "for i in range(" +
        std::to_string(count) +
        "):\n"
        "  tree[f'/org/bluez/hci0/dev_{i}'] = dbus.Dictionary({\n"
        "      'org.freedesktop.DBus.Properties': {},\n"
        "      'org.bluez.Device1': dbus.Dictionary(\n"
        "          kinds[i % len(kinds)], signature='sv'),\n"
        "      'org.bluez.Battery1': {'Alias': 'not this'}},\n"
        "      signature='sa{sv}')\n";
    RunInDaemon(code);
    daemon->OnCall("/", kObjectManagerInterface, "GetManagedObjects", "",
                   "a{oa{sa{sv}}}", "ret = tree");
    std::string list;
    for (size_t i = 0; i < count; ++i) {
      list += (i == 0 ? "" : ", ") + DeviceMap(kinds[i % kinds.size()]);
    }
    return "[" + list + "]";
  }

  // Tells where two long texts part.
  static std::string Difference(const std::string& a, const std::string& b) {
    size_t at = 0;
    while (at < a.size() && at < b.size() && a[at] == b[at]) ++at;
    const size_t from = at < 80 ? 0 : at - 80;
    return a.substr(from, 160) + "\n  differs from\n" + b.substr(from, 160);
  }
};

// ---------------------------------------------------------------------------

using ObjectTrees = Devices;

TEST_F(ObjectTrees, OfAllKindsAreListedExactly) {
  const size_t kinds = Kinds().size();
  const std::string expected = MakeTree(kinds);
  const std::string list = host->Call("getDiscoveredDevices");
  EXPECT_TRUE(list == expected) << Difference(list, expected);
  Note(std::to_string(kinds) + " kinds of devices");
}

TEST_F(ObjectTrees, OfFiveThousandDevicesAreListedExactly) {
  const std::string expected = MakeTree(5000);
  host->Observe([](const std::string&, FlValue*) {});
  size_t length = 0;
  const auto round = [&](int) {
    const std::string list = host->Call("getDiscoveredDevices");
    EXPECT_TRUE(list == expected) << Difference(list, expected);
    length = list.size();
  };
  ExpectFlat("list of 5,000 devices", LongOrShort(40, 3), round);
  Note("as text the list is " + std::to_string(length) + " bytes long");
}

TEST_F(ObjectTrees, WithAnAdapterOfWrongTypesGiveNeutralAnswers) {
  size_t adapters = 0;
  for (const char* value : kValues) {
    SCOPED_TRACE(value);
    EndPlugin();
    const std::string wrong(value);
    RunInDaemon(
        "objects['/org/bluez/hci0'].props['org.bluez.Adapter1'] =\\\n"
        "    dict.fromkeys(('Address', 'Name', 'Powered', 'Discovering'), " +
        wrong + ")");
    Register();
    const bool on = wrong == "dbus.Boolean(True)";
    const std::string text =
        wrong == "dbus.String('text')" ? "\"text\"" : "\"\"";
    EXPECT_EQ(host->Call("isAvailable"), "true");
    EXPECT_EQ(host->Call("getAddress"), text);
    EXPECT_EQ(host->Call("getName"), text);
    EXPECT_EQ(host->Call("getState"), on ? "12" : "10");
    EXPECT_EQ(host->Call("isDiscovering"), on ? "true" : "false");
    EXPECT_EQ(host->Call("getDiscoveredDevices"), "[]");
    ++adapters;
  }
  EXPECT_EQ(adapters, std::size(kValues));
}

// ---------------------------------------------------------------------------

class ChangeBurst : public Devices {
 protected:
  // Every tenth is a new device, whose record comes with the signal; the others
  // are changes, after each of which the record is asked for.
  void MakeBurst(int count) {
    RunInDaemon("count = " + std::to_string(count) + R"(
global burst
for i in range(count):
    self.AddObject(f'/org/bluez/hci0/dev_{i}', 'org.bluez.Device1', {
        'Address': dbus.String(str(i)), 'RSSI': dbus.Int16(-(i % 100))}, [])
def burst(connection, count, step):
    for n in range(count):
        i = n * step % count
        path = f'/org/bluez/hci0/dev_{i}'
        if n % 10 == 9:
            signal = dbus.lowlevel.SignalMessage(
                '/', 'org.freedesktop.DBus.ObjectManager', 'InterfacesAdded')
            signal.append(path, {'org.bluez.Device1': objects[path].props[
                'org.bluez.Device1']}, signature='oa{sa{sv}}')
        else:
            signal = dbus.lowlevel.SignalMessage(
                path, 'org.freedesktop.DBus.Properties', 'PropertiesChanged')
            signal.append('org.bluez.Device1', {}, [], signature='sa{sv}as')
        connection.send_message(signal)
)");
  }
};

TEST_F(ChangeBurst, ArrivesInFullAndInOrder) {
  const int count = LongOrShort(5000, 1000);
  // Has no divisor in common with either, so each device comes once.
  constexpr int kStep = 617;
  MakeBurst(count);
  std::vector<std::string> addresses;
  std::vector<int64_t> readings;
  host->Observe([&](const std::string& channel, FlValue* event) {
    ASSERT_EQ(channel, kDiscovery);
    FlValue* device = fl_value_lookup_string(event, "device");
    ASSERT_NE(device, nullptr);
    addresses.emplace_back(
        fl_value_get_string(fl_value_lookup_string(device, "address")));
    readings.push_back(
        fl_value_get_int(fl_value_lookup_string(device, "rssi")));
  });
  EXPECT_EQ(host->Listen(kDiscovery), "null");
  std::vector<std::string> expected;
  std::vector<int64_t> expected_readings;
  for (int n = 0; n < count; ++n) {
    const int i = n * kStep % count;
    expected.push_back(std::to_string(i));
    expected_readings.push_back(-(i % 100));
  }
  const auto round = [&](int number) {
    addresses.clear();
    readings.clear();
    RunInDaemon("burst(self.bus_name.get_bus(), " + std::to_string(count) +
                ", " + std::to_string(kStep) + ")");
    EXPECT_TRUE(
        WaitUntil([&] { return addresses.size() >= expected.size(); }, 60));
    DispatchQueued();
    EXPECT_EQ(addresses, expected);
    EXPECT_EQ(readings, expected_readings);
    daemon->TakeCalls();
    if (number == 0) Note(std::to_string(addresses.size()) + " in one burst");
  };
  // The bus library's queues keep the size of the longest one so far; a change
  // left behind would be blocks.
  Allowance allowance;
  allowance.bytes = 512 * 1024;
  ExpectFlat("bursts of changes", LongOrShort(12, 3), round, allowance);
}

}  // namespace
}  // namespace lumso_test
