#include "bluez_client.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>
#include <utility>

namespace lumso_bluetooth {
namespace {

constexpr char kBusName[] = "org.bluez";
constexpr char kObjectManagerPath[] = "/";
constexpr char kAgentManagerPath[] = "/org/bluez";
constexpr char kAgentPath[] = "/brel/lumso/lumso_bluetooth/agent";

constexpr char kObjectManagerInterface[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kAgentManagerInterface[] = "org.bluez.AgentManager1";

constexpr char kManagedObjectsType[] = "(a{oa{sa{sv}}})";
constexpr char kInterfacesAddedType[] = "(oa{sa{sv}})";
constexpr char kPropertiesChangedType[] = "(sa{sv}as)";
constexpr char kPropertiesType[] = "(a{sv})";
constexpr char kPropertyType[] = "(v)";

constexpr int kPairTimeoutMs = 60000;

constexpr char kAgentCapability[] = "NoInputNoOutput";
constexpr char kRejectedError[] = "org.bluez.Error.Rejected";
constexpr char kRejectedMessage[] =
    "lumso_bluetooth: device requested input we can't provide";
constexpr char kAgentIntrospection[] = R"(
<node>
  <interface name="org.bluez.Agent1">
    <method name="Release"/>
    <method name="RequestPinCode">
      <arg type="o" direction="in"/>
      <arg type="s" direction="out"/>
    </method>
    <method name="DisplayPinCode">
      <arg type="o" direction="in"/>
      <arg type="s" direction="in"/>
    </method>
    <method name="RequestPasskey">
      <arg type="o" direction="in"/>
      <arg type="u" direction="out"/>
    </method>
    <method name="DisplayPasskey">
      <arg type="o" direction="in"/>
      <arg type="u" direction="in"/>
      <arg type="q" direction="in"/>
    </method>
    <method name="RequestConfirmation">
      <arg type="o" direction="in"/>
      <arg type="u" direction="in"/>
    </method>
    <method name="RequestAuthorization">
      <arg type="o" direction="in"/>
    </method>
    <method name="AuthorizeService">
      <arg type="o" direction="in"/>
      <arg type="s" direction="in"/>
    </method>
    <method name="Cancel"/>
  </interface>
</node>)";

// Requests that the agent grants. It rejects the others that are described
// above; a method that is not described there is answered by GDBus.
constexpr const char* kGrantedRequests[] = {
    "RequestConfirmation",
    "AuthorizeService",
    "RequestAuthorization",
    "Release",
    "Cancel",
    "DisplayPasskey",
    "DisplayPinCode",
};

void Log(const std::string& text) {
  std::fprintf(stderr, "lumso_bluetooth: %s\n", text.c_str());
  std::fflush(stderr);
}

void LogFailure(const std::string& what, const GError* error) {
  Log(what + " failed: " + error->message);
}

// Messages are taken apart child by child, always through Child(): a format
// string would be checked anew for every entry, which costs more than all the
// rest of a walk.
GVariantPtr Child(GVariant* container, gsize index) {
  return GVariantPtr(g_variant_get_child_value(container, index));
}

// The text of a string or an object path, borrowed: it lives as long as
// `value`, which the message it was taken from need not keep.
const gchar* Text(GVariant* value) {
  return g_variant_get_string(value, nullptr);
}

// What is where in an entry of a dictionary.
constexpr gsize kEntryKey = 0;
constexpr gsize kEntryValue = 1;

// What is in the variant at `index`.
GVariantPtr Unboxed(GVariant* container, gsize index) {
  return GVariantPtr(g_variant_get_variant(Child(container, index).get()));
}

// Calls visit(child) for each child of `container`, in order.
template <typename Visitor>
void ForEachChild(GVariant* container, Visitor visit) {
  const gsize count = g_variant_n_children(container);
  for (gsize i = 0; i < count; ++i) visit(Child(container, i).get());
}

// ReadString() and its like take an entry of an a{sv} and leave `field` alone
// when its value has another type. A walk leaves unboxing to them: a record
// uses few of a device's properties, and most of the cost is the memory
// touched.
void ReadString(GVariant* entry, std::string* field) {
  const GVariantPtr value = Unboxed(entry, kEntryValue);
  if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)) {
    *field = Text(value.get());
  }
}

void ReadBoolean(GVariant* entry, bool* field) {
  const GVariantPtr value = Unboxed(entry, kEntryValue);
  if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_BOOLEAN)) {
    *field = g_variant_get_boolean(value.get());
  }
}

void ReadInt16(GVariant* entry, int32_t* field) {
  const GVariantPtr value = Unboxed(entry, kEntryValue);
  if (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT16)) {
    *field = g_variant_get_int16(value.get());
  }
}

void ReadStrings(GVariant* entry, std::vector<std::string>* field) {
  const GVariantPtr value = Unboxed(entry, kEntryValue);
  if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING_ARRAY)) return;
  field->reserve(g_variant_n_children(value.get()));
  ForEachChild(value.get(),
               [field](GVariant* text) { field->emplace_back(Text(text)); });
}

// Calls visit(key, entry) for each entry of `properties` (a{sv}), in order.
template <typename Visitor>
void ForEachProperty(GVariant* properties, Visitor visit) {
  ForEachChild(properties, [&visit](GVariant* entry) {
    const GVariantPtr key = Child(entry, kEntryKey);
    visit(std::string_view(Text(key.get())), entry);
  });
}

// Calls visit(properties) for each interface called `name` among `interfaces`
// (a{sa{sv}}).
template <typename Visitor>
void ForEachInterface(GVariant* interfaces, std::string_view name,
                      Visitor visit) {
  ForEachChild(interfaces, [name, &visit](GVariant* entry) {
    if (Text(Child(entry, kEntryKey).get()) == name) {
      visit(Child(entry, kEntryValue).get());
    }
  });
}

}  // namespace

BluezClient::~BluezClient() {
  if (connection_ != nullptr) {
    for (const guint subscription :
         {interfaces_added_subscription_, interfaces_removed_subscription_,
          properties_changed_subscription_}) {
      if (subscription != 0) {
        g_dbus_connection_signal_unsubscribe(connection_, subscription);
      }
    }
    UnregisterAgent();
    g_clear_object(&connection_);
  }
  g_clear_pointer(&agent_node_info_, g_dbus_node_info_unref);
  g_clear_pointer(&adapter_path_, g_free);
}

bool BluezClient::Initialize() {
  g_autoptr(GError) error = nullptr;
  connection_ = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (connection_ == nullptr) {
    if (error != nullptr) LogFailure("system bus connect", error);
    return false;
  }
  // The default would end the host process together with the bus.
  g_dbus_connection_set_exit_on_close(connection_, FALSE);

  if (!ResolveAdapter()) return false;
  RefreshAdapterProperties();
  Subscribe();
  RegisterAgent();
  return true;
}

GVariantPtr BluezClient::CallSync(const BusCall& call, const char* what) const {
  g_autoptr(GError) error = nullptr;
  GVariantPtr reply(g_dbus_connection_call_sync(
      connection_, kBusName, call.path, call.interface, call.method,
      call.arguments,
      call.reply_type != nullptr ? G_VARIANT_TYPE(call.reply_type) : nullptr,
      G_DBUS_CALL_FLAGS_NONE, call.timeout_ms, nullptr, &error));
  if (reply == nullptr && error != nullptr && what != nullptr) {
    LogFailure(what, error);
  }
  return reply;
}

GVariantPtr BluezClient::GetManagedObjects(const char* what) const {
  BusCall call{kObjectManagerPath, kObjectManagerInterface,
               "GetManagedObjects"};
  call.reply_type = kManagedObjectsType;
  return CallSync(call, what);
}

GVariantPtr BluezClient::GetDeviceProperty(const std::string& path,
                                           const char* property) const {
  BusCall call{path.c_str(), kPropertiesInterface, "Get"};
  call.arguments = g_variant_new("(ss)", kDeviceInterface, property);
  call.reply_type = kPropertyType;
  const GVariantPtr reply = CallSync(call);
  return reply == nullptr ? nullptr : Unboxed(reply.get(), 0);
}

GVariantPtr BluezClient::GetAllProperties(const char* path,
                                          const char* interface) const {
  BusCall call{path, kPropertiesInterface, "GetAll"};
  call.arguments = g_variant_new("(s)", interface);
  call.reply_type = kPropertiesType;
  const GVariantPtr reply = CallSync(call);
  return reply == nullptr ? nullptr : Child(reply.get(), 0);
}

bool BluezClient::ResolveAdapter() {
  const GVariantPtr reply = GetManagedObjects("GetManagedObjects");
  if (reply == nullptr) return false;
  const GVariantPtr objects = Child(reply.get(), 0);
  const gsize count = g_variant_n_children(objects.get());
  for (gsize i = 0; i < count && adapter_path_ == nullptr; ++i) {
    const GVariantPtr object = Child(objects.get(), i);
    const GVariantPtr path = Child(object.get(), kEntryKey);
    ForEachInterface(Child(object.get(), kEntryValue).get(), kAdapterInterface,
                     [&](GVariant* properties) {
                       TakeAdapter(Text(path.get()), properties);
                     });
  }
  return adapter_path_ != nullptr;
}

void BluezClient::TakeAdapter(const char* path, GVariant* properties) {
  if (adapter_path_ != nullptr) return;  // an object that names it twice
  adapter_path_ = g_strdup(path);
  ForEachProperty(properties, [this](std::string_view key, GVariant* entry) {
    if (key == "Address") ReadString(entry, &adapter_address_);
    if (key == "Name") ReadString(entry, &adapter_name_);
  });
}

void BluezClient::RefreshAdapterProperties() {
  if (adapter_path_ == nullptr) return;
  const GVariantPtr properties =
      GetAllProperties(adapter_path_, kAdapterInterface);
  if (properties == nullptr) return;
  ForEachProperty(properties.get(),
                  [this](std::string_view key, GVariant* entry) {
                    if (key == "Powered") ReadBoolean(entry, &powered_);
                    if (key == "Discovering") ReadBoolean(entry, &discovering_);
                  });
}

void BluezClient::Subscribe() {
  // GLib logs a critical for each match rule that it cannot send.
  if (g_dbus_connection_is_closed(connection_)) return;
  const auto subscribe = [this](const char* interface, const char* signal,
                                const char* path, GDBusSignalCallback handler) {
    return g_dbus_connection_signal_subscribe(
        connection_, kBusName, interface, signal, path, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, handler, this, nullptr);
  };
  interfaces_added_subscription_ =
      subscribe(kObjectManagerInterface, "InterfacesAdded", kObjectManagerPath,
                OnInterfacesAdded);
  interfaces_removed_subscription_ =
      subscribe(kObjectManagerInterface, "InterfacesRemoved",
                kObjectManagerPath, OnInterfacesRemoved);
  properties_changed_subscription_ = subscribe(
      kPropertiesInterface, "PropertiesChanged", nullptr, OnPropertiesChanged);
}

void BluezClient::OnInterfacesAdded(GDBusConnection*, const gchar*,
                                    const gchar*, const gchar*, const gchar*,
                                    GVariant* parameters, gpointer user_data) {
  auto* self = static_cast<BluezClient*>(user_data);
  if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE(kInterfacesAddedType))) {
    return;
  }
  // The first report may end the client, and nothing keeps a sender from naming
  // the interface twice.
  const std::weak_ptr<Life> life = self->life_;
  const GVariantPtr path = Child(parameters, 0);
  ForEachInterface(
      Child(parameters, 1).get(), kDeviceInterface, [&](GVariant* properties) {
        if (life.expired()) return;
        self->ReportDevice(ParseDevice(Text(path.get()), properties));
      });
}

// Subscribed to and not reported: the application hears of a lost device from
// the prober alone.
void BluezClient::OnInterfacesRemoved(GDBusConnection*, const gchar*,
                                      const gchar*, const gchar*, const gchar*,
                                      GVariant*, gpointer) {}

// Signals carry only what changed, so the whole record is read again.
void BluezClient::OnPropertiesChanged(GDBusConnection*, const gchar*,
                                      const gchar* path, const gchar*,
                                      const gchar*, GVariant* parameters,
                                      gpointer user_data) {
  auto* self = static_cast<BluezClient*>(user_data);
  if (!g_variant_is_of_type(parameters,
                            G_VARIANT_TYPE(kPropertiesChangedType))) {
    return;
  }
  const GVariantPtr interface = Child(parameters, 0);
  if (g_str_equal(Text(interface.get()), kAdapterInterface)) {
    if (g_strcmp0(path, self->adapter_path_) != 0) return;
    self->RefreshAdapterProperties();
    self->ReportState();
  } else if (g_str_equal(Text(interface.get()), kDeviceInterface)) {
    const GVariantPtr properties =
        self->GetAllProperties(path, kDeviceInterface);
    if (properties == nullptr) return;
    self->ReportDevice(ParseDevice(path, properties.get()));
  }
}

// Both call a copy: the application may replace or clear the callable, or end
// this client, from within.
void BluezClient::ReportDevice(const DiscoveredDevice& device) const {
  const auto callable = on_device;
  if (callable) callable(device);
}

void BluezClient::ReportState() const {
  const auto callable = on_state_changed;
  if (callable) callable();
}

bool BluezClient::StartDiscovery() {
  if (adapter_path_ == nullptr) return false;
  if (discovering_) return true;
  if (CallSync({adapter_path_, kAdapterInterface, "StartDiscovery"},
               "StartDiscovery") == nullptr) {
    return false;
  }
  discovery_started_ = true;
  return true;
}

bool BluezClient::StopDiscovery() {
  if (adapter_path_ == nullptr) return false;
  if (!discovery_started_) return true;
  if (CallSync({adapter_path_, kAdapterInterface, "StopDiscovery"}) ==
      nullptr) {
    return false;
  }
  discovery_started_ = false;
  return true;
}

DiscoveredDevice BluezClient::ParseDevice(const std::string& path,
                                          GVariant* properties) {
  DiscoveredDevice device;
  device.path = path;
  ForEachProperty(properties, [&device](std::string_view key, GVariant* entry) {
    if (key == "Address") {
      ReadString(entry, &device.address);
    } else if (key == "Alias") {
      ReadString(entry, &device.name);
    } else if (key == "Name") {
      if (device.name.empty()) ReadString(entry, &device.name);
    } else if (key == "RSSI") {
      ReadInt16(entry, &device.rssi);
    } else if (key == "Paired") {
      ReadBoolean(entry, &device.paired);
    } else if (key == "Connected") {
      ReadBoolean(entry, &device.connected);
    } else if (key == "UUIDs") {
      ReadStrings(entry, &device.uuids);
    }
  });
  return device;
}

std::vector<DiscoveredDevice> BluezClient::GetKnownDevices() const {
  std::vector<DiscoveredDevice> devices;
  if (connection_ == nullptr) return devices;
  const GVariantPtr reply = GetManagedObjects();
  if (reply == nullptr) return devices;
  ForEachChild(Child(reply.get(), 0).get(), [&devices](GVariant* object) {
    const GVariantPtr path = Child(object, kEntryKey);
    ForEachInterface(
        Child(object, kEntryValue).get(), kDeviceInterface,
        [&](GVariant* properties) {
          devices.push_back(ParseDevice(Text(path.get()), properties));
        });
  });
  return devices;
}

std::vector<DiscoveredDevice> BluezClient::GetBondedDevices() const {
  std::vector<DiscoveredDevice> devices = GetKnownDevices();
  std::vector<DiscoveredDevice> bonded;
  bonded.reserve(devices.size());
  for (DiscoveredDevice& device : devices) {
    if (device.paired) bonded.push_back(std::move(device));
  }
  return bonded;
}

std::string BluezClient::FindDevicePath(const std::string& address) const {
  if (adapter_path_ == nullptr) return "";
  std::string candidate = std::string(adapter_path_) + "/dev_" + address;
  std::replace(candidate.begin(), candidate.end(), ':', '_');
  if (g_variant_is_object_path(candidate.c_str()) &&
      GetDeviceProperty(candidate, "Address") != nullptr) {
    return candidate;
  }
  for (const DiscoveredDevice& device : GetKnownDevices()) {
    if (g_ascii_strcasecmp(device.address.c_str(), address.c_str()) == 0) {
      return device.path;
    }
  }
  return "";
}

int BluezClient::GetBondState(const std::string& address) const {
  const std::string path = FindDevicePath(address);
  if (path.empty()) return StateCode(false);
  const GVariantPtr paired = GetDeviceProperty(path, "Paired");
  return StateCode(paired != nullptr &&
                   g_variant_is_of_type(paired.get(), G_VARIANT_TYPE_BOOLEAN) &&
                   g_variant_get_boolean(paired.get()));
}

bool BluezClient::PairDevice(const std::string& address) {
  const std::string path = FindDevicePath(address);
  if (path.empty()) {
    Log("pair: device not known yet (" + address + ")");
    return false;
  }
  BusCall call{path.c_str(), kDeviceInterface, "Pair"};
  call.timeout_ms = kPairTimeoutMs;
  return CallSync(call, "Pair()") != nullptr;
}

bool BluezClient::RemoveDevice(const std::string& address) {
  const std::string path = FindDevicePath(address);
  if (path.empty()) return true;
  // Always this client's adapter, which refuses a device of another one.
  return CallSync({adapter_path_, kAdapterInterface, "RemoveDevice",
                   g_variant_new("(o)", path.c_str())}) != nullptr;
}

bool BluezClient::RegisterAgent() {
  agent_node_info_ = g_dbus_node_info_new_for_xml(kAgentIntrospection, nullptr);
  if (agent_node_info_ == nullptr) return false;
  static const GDBusInterfaceVTable vtable = {
      AgentMethodCall, nullptr, nullptr, {nullptr}};
  agent_registration_id_ = g_dbus_connection_register_object(
      connection_, kAgentPath, agent_node_info_->interfaces[0], &vtable, this,
      nullptr, nullptr);
  if (agent_registration_id_ == 0) return false;
  if (CallSync({kAgentManagerPath, kAgentManagerInterface, "RegisterAgent",
                g_variant_new("(os)", kAgentPath, kAgentCapability)},
               "RegisterAgent") == nullptr) {
    return false;
  }
  CallSync({kAgentManagerPath, kAgentManagerInterface, "RequestDefaultAgent",
            g_variant_new("(o)", kAgentPath)});
  return true;
}

void BluezClient::UnregisterAgent() {
  if (agent_registration_id_ != 0) {
    g_dbus_connection_unregister_object(connection_, agent_registration_id_);
    agent_registration_id_ = 0;
  }
  // In every case. The daemon knows agents by connection and path, so this also
  // ends the agent of another client in this process.
  CallSync({kAgentManagerPath, kAgentManagerInterface, "UnregisterAgent",
            g_variant_new("(o)", kAgentPath)});
}

void BluezClient::AgentMethodCall(GDBusConnection*, const gchar*, const gchar*,
                                  const gchar*, const gchar* method, GVariant*,
                                  GDBusMethodInvocation* invocation, gpointer) {
  const bool granted = std::any_of(
      std::begin(kGrantedRequests), std::end(kGrantedRequests),
      [method](const char* name) { return g_str_equal(method, name); });
  if (granted) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
  } else {
    g_dbus_method_invocation_return_dbus_error(invocation, kRejectedError,
                                               kRejectedMessage);
  }
}

}  // namespace lumso_bluetooth
