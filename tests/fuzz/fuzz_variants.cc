// Any values as what the daemon answers and signals. The first byte chooses
// which message carries the value; the rest is the value, in GVariant's text
// format or else as its serialised bytes.

#include <gio/gio.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/bluez_client.h"
#include "tests/fuzz/fake_bus.h"
#include "tests/fuzz/fuzz.h"

using lumso_bluetooth::BluezClient;
using lumso_bluetooth::DiscoveredDevice;
using lumso_bluetooth::GVariantPtr;
using lumso_fuzz::Check;
using lumso_fuzz::EmitSignal;
using lumso_fuzz::HasReply;
using lumso_fuzz::kDeviceAddress;
using lumso_fuzz::kDeviceInterface;
using lumso_fuzz::kDevicePath;
using lumso_fuzz::ParseText;
using lumso_fuzz::Reply;
using lumso_fuzz::ResetBus;
using lumso_fuzz::WatchesSignal;

namespace {

// What the first byte chooses: a reply, or the body of a signal.
struct Message {
  char choice;
  const char* name;
  const char* type;
};
constexpr Message kMessages[] = {
    {'o', "GetManagedObjects", "(a{oa{sa{sv}}})"},
    {'a', "GetAll", "(a{sv})"},
    {'g', "Get", "(v)"},
    {'i', "InterfacesAdded", "(oa{sa{sv}})"},
    {'r', "InterfacesRemoved", "(oas)"},
    {'p', "PropertiesChanged", "(sa{sv}as)"},
    // Bodies of a wrong type.
    {'I', "InterfacesAdded", "(sa{sa{sv}})"},
    {'P', "PropertiesChanged", "(sas)"},
    {'v', "PropertiesChanged", "(v)"},
};

GVariantPtr ReadValue(const char* type, std::string_view input) {
  // The parser takes text only.
  if (g_utf8_validate_len(input.data(), input.size(), nullptr)) {
    if (GVariantPtr value = ParseText(type, input)) return value;
  }
  // The copy is as aligned as the type may need.
  g_autoptr(GBytes) bytes = g_bytes_new(input.data(), input.size());
  return GVariantPtr(g_variant_ref_sink(
      g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE)));
}

// Counts the Device1 interfaces in an interface dictionary (a{sa{sv}}).
size_t CountDevices(GVariant* interfaces) {
  size_t count = 0;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, interfaces);
  const gchar* name = nullptr;
  while (g_variant_iter_next(&iterator, "{&sa{sv}}", &name, nullptr)) {
    if (g_str_equal(name, kDeviceInterface)) ++count;
  }
  return count;
}

size_t CountManagedDevices(GVariant* reply) {
  size_t count = 0;
  g_autoptr(GVariantIter) objects = nullptr;
  g_variant_get(reply, "(a{oa{sa{sv}}})", &objects);
  GVariant* interfaces = nullptr;
  while (g_variant_iter_next(objects, "{&o@a{sa{sv}}}", nullptr, &interfaces)) {
    count += CountDevices(GVariantPtr(interfaces).get());
  }
  return count;
}

// Returns the last value of type `type` under `key`, or null.
GVariantPtr LastValue(GVariant* properties, const char* key, const char* type) {
  GVariantPtr last;
  GVariantIter iterator;
  g_variant_iter_init(&iterator, properties);
  const gchar* name = nullptr;
  GVariant* raw = nullptr;
  while (g_variant_iter_next(&iterator, "{&sv}", &name, &raw)) {
    GVariantPtr value(raw);
    if (g_str_equal(name, key) &&
        g_variant_is_of_type(value.get(), G_VARIANT_TYPE(type))) {
      last = std::move(value);
    }
  }
  return last;
}

void CheckRecord(const DiscoveredDevice& device) {
  Check(g_variant_is_object_path(device.path.c_str()), "a record has a path");
  Check(device.rssi >= G_MININT16 && device.rssi <= G_MAXINT16,
        "a reading has 16 bits");
  for (const std::string& text : device.uuids) {
    Check(g_utf8_validate(text.c_str(), -1, nullptr), "a record holds text");
  }
  Check(g_utf8_validate(device.address.c_str(), -1, nullptr) &&
            g_utf8_validate(device.name.c_str(), -1, nullptr),
        "a record holds text");
}

void FuzzDevice(GVariant* properties) {
  const DiscoveredDevice device =
      BluezClient::ParseDevice(kDevicePath, properties);
  CheckRecord(device);
  const GVariantPtr address = LastValue(properties, "Address", "s");
  Check(device.address ==
            (address ? g_variant_get_string(address.get(), nullptr) : ""),
        "the address");
  const GVariantPtr alias = LastValue(properties, "Alias", "s");
  Check(!alias || *g_variant_get_string(alias.get(), nullptr) == '\0' ||
            device.name == g_variant_get_string(alias.get(), nullptr),
        "an alias is the name");
  const GVariantPtr rssi = LastValue(properties, "RSSI", "n");
  Check(device.rssi == (rssi ? g_variant_get_int16(rssi.get()) : 0),
        "the reading");
  const GVariantPtr paired = LastValue(properties, "Paired", "b");
  Check(device.paired ==
            (paired != nullptr && g_variant_get_boolean(paired.get())),
        "the bond");
  const GVariantPtr connected = LastValue(properties, "Connected", "b");
  Check(device.connected ==
            (connected != nullptr && g_variant_get_boolean(connected.get())),
        "the connection");
}

// Asks the client everything that a reply can matter to.
void FuzzQueries(BluezClient* client) {
  const std::vector<DiscoveredDevice> devices = client->GetKnownDevices();
  Check(devices.size() == CountManagedDevices(Reply("GetManagedObjects").get()),
        "one record for each device object");
  Check(client->GetBondedDevices().size() <= devices.size(),
        "bonded devices are known devices");
  std::vector<std::string> addresses = {kDeviceAddress, "", "/", "\xff"};
  for (const DiscoveredDevice& device : devices) {
    CheckRecord(device);
    if (addresses.size() < 16) addresses.push_back(device.address);
  }
  for (const std::string& address : addresses) {
    const std::string path = client->FindDevicePath(address);
    Check(path.empty() || g_variant_is_object_path(path.c_str()),
          "a device is found at a path or not at all");
    const int state = client->GetBondState(address);
    Check(state == 10 || state == 12, "the two bond states");
    client->RemoveDevice(address);
  }
}

// Sends a signal for `path` and returns how many records came of it.
size_t Emit(BluezClient* client, const char* signal, const char* path,
            GVariant* body) {
  size_t records = 0;
  client->on_device = [&](const DiscoveredDevice& device) {
    CheckRecord(device);
    ++records;
  };
  EmitSignal(signal, path, body);
  client->on_device = nullptr;
  return records;
}

void FuzzSignal(BluezClient* client, const Message& message, GVariant* body) {
  size_t expected = 0;
  if (message.choice == 'i') {
    g_autoptr(GVariant) interfaces = g_variant_get_child_value(body, 1);
    expected = CountDevices(interfaces);
  } else if (message.choice == 'p') {
    const gchar* interface = nullptr;
    g_variant_get_child(body, 0, "&s", &interface);
    expected = g_str_equal(interface, kDeviceInterface) ? 1 : 0;
  }
  Check(Emit(client, message.name, kDevicePath, body) == expected,
        "a record for each device that a signal names");
  Check(Emit(client, message.name, "/org/bluez/hci0", body) == expected,
        "a record for each device that a signal names");
}

void FuzzClient(const Message& message, GVariant* value) {
  BluezClient client;
  if (!client.Initialize()) {
    Check(client.adapter_path() == nullptr, "no start without an adapter");
    FuzzQueries(&client);
    return;
  }
  Check(g_variant_is_object_path(client.adapter_path()), "an adapter's path");
  FuzzQueries(&client);
  if (WatchesSignal(message.name)) {
    FuzzSignal(&client, message, value);
  } else {
    // Makes the client read the properties of a device and of the adapter.
    for (const char* body : {"('org.bluez.Device1', @a{sv} {}, @as [])",
                             "('org.bluez.Adapter1', @a{sv} {}, @as [])"}) {
      const GVariantPtr changed = ParseText("(sa{sv}as)", body);
      Emit(&client, "PropertiesChanged", client.adapter_path(), changed.get());
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  g_log_set_default_handler(lumso_fuzz::EndOnCritical, nullptr);
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  for (const Message& message : kMessages) {
    if (input.empty() || input.front() != message.choice) continue;
    const GVariantPtr value = ReadValue(message.type, input.substr(1));
    ResetBus(true);
    if (HasReply(message.name)) {
      Reply(message.name).reset(g_variant_ref(value.get()));
    }
    FuzzClient(message, value.get());
    if (message.choice == 'a') {
      FuzzDevice(GVariantPtr(g_variant_get_child_value(value.get(), 0)).get());
    }
  }
  return 0;
}
