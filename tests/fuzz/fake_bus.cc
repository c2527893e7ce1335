#include "tests/fuzz/fake_bus.h"

#include <functional>
#include <map>
#include <string>

#include "tests/fuzz/fuzz.h"

using lumso_bluetooth::GVariantPtr;
using lumso_fuzz::Check;

namespace {

constexpr char kObjects[] =
    "({'/org/bluez/hci0': {'org.bluez.Adapter1': "
    "{'Address': <'00:AA:BB:CC:DD:EE'>, 'Name': <'host'>}}, "
    "'/org/bluez/hci0/dev_00_11_22_33_44_55': {'org.bluez.Device1': "
    "{'Address': <'00:11:22:33:44:55'>, 'Paired': <true>}}},)";
constexpr char kProperties[] = "({'Powered': <true>, 'Discovering': <false>},)";
constexpr char kProperty[] = "(<true>,)";

struct Subscription {
  GDBusSignalCallback callback;
  gpointer user_data;
};

bool present = true;
std::map<std::string, GVariantPtr, std::less<>> replies;         // by method
std::map<std::string, Subscription, std::less<>> subscriptions;  // by signal

}  // namespace

namespace lumso_fuzz {

void ResetBus(bool is_present) {
  static const GVariantPtr objects = ParseText("(a{oa{sa{sv}}})", kObjects);
  static const GVariantPtr properties = ParseText("(a{sv})", kProperties);
  static const GVariantPtr property = ParseText("(v)", kProperty);
  present = is_present;
  replies["GetManagedObjects"].reset(g_variant_ref(objects.get()));
  replies["GetAll"].reset(g_variant_ref(properties.get()));
  replies["Get"].reset(g_variant_ref(property.get()));
}

bool HasReply(std::string_view method) { return replies.count(method) != 0; }

GVariantPtr& Reply(std::string_view method) {
  return replies.find(method)->second;
}

bool WatchesSignal(std::string_view signal) {
  return subscriptions.count(signal) != 0;
}

void EmitSignal(std::string_view signal, const char* path, GVariant* body) {
  const Subscription& subscription = subscriptions.find(signal)->second;
  subscription.callback(nullptr, ":1.1", path, "", "", body,
                        subscription.user_data);
}

GVariantPtr ParseText(const char* type, std::string_view text) {
  return GVariantPtr(g_variant_parse(G_VARIANT_TYPE(type), text.data(),
                                     text.data() + text.size(), nullptr,
                                     nullptr));
}

}  // namespace lumso_fuzz

extern "C" {

GDBusConnection* g_bus_get_sync(GBusType, GCancellable*, GError**) {
  if (!present) return nullptr;
  return static_cast<GDBusConnection*>(g_object_new(G_TYPE_OBJECT, nullptr));
}

void g_dbus_connection_set_exit_on_close(GDBusConnection*, gboolean) {}

gboolean g_dbus_connection_is_closed(GDBusConnection*) { return FALSE; }

guint g_dbus_connection_signal_subscribe(GDBusConnection*, const gchar*,
                                         const gchar*, const gchar* member,
                                         const gchar*, const gchar*,
                                         GDBusSignalFlags,
                                         GDBusSignalCallback callback,
                                         gpointer user_data, GDestroyNotify) {
  subscriptions[member] = {callback, user_data};
  return static_cast<guint>(subscriptions.size());
}

void g_dbus_connection_signal_unsubscribe(GDBusConnection*, guint) {
  subscriptions.clear();
}

// The agent answers nothing that is fuzzed here, and reading its description
// would cost more than everything else.
GDBusNodeInfo* g_dbus_node_info_new_for_xml(const gchar*, GError**) {
  return nullptr;
}

GVariant* g_dbus_connection_call_sync(GDBusConnection*, const gchar*,
                                      const gchar* path, const gchar*,
                                      const gchar* method, GVariant* arguments,
                                      const GVariantType* reply_type,
                                      GDBusCallFlags, gint, GCancellable*,
                                      GError**) {
  Check(g_variant_is_object_path(path), "calls go to an object path");
  if (arguments != nullptr) {
    g_autoptr(GVariant) owned = g_variant_ref_sink(arguments);
    Check(g_variant_is_of_type(owned, G_VARIANT_TYPE_TUPLE) &&
              g_variant_is_normal_form(owned),
          "calls carry a tuple that a message can hold");
  }
  const auto found = replies.find(method);
  if (found == replies.end()) {
    return g_variant_ref_sink(g_variant_new_tuple(nullptr, 0));
  }
  GVariant* reply = found->second.get();
  Check(reply_type != nullptr && g_variant_is_of_type(reply, reply_type),
        "a reply that is read has its type checked");
  return g_variant_ref(reply);
}

}  // extern "C"
