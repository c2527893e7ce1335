#include <cstring>

#include "benchmarks/plain.h"

namespace lumso_bench {
namespace {

// The value of an entry of an a{sv}. Transfer full.
GVariant* Value(GVariant* entry) {
  g_autoptr(GVariant) boxed = g_variant_get_child_value(entry, 1);
  return g_variant_get_variant(boxed);
}

// Texts are part of the reply, which outlives them.
const char* Text(GVariant* entry) {
  g_autoptr(GVariant) value = Value(entry);
  return g_variant_get_string(value, nullptr);
}

int Number(GVariant* entry) {
  g_autoptr(GVariant) value = Value(entry);
  return g_variant_get_int16(value);
}

bool Flag(GVariant* entry) {
  g_autoptr(GVariant) value = Value(entry);
  return g_variant_get_boolean(value);
}

// The application's map of a device with these properties (a{sv}).
FlValue* DeviceMap(GVariant* properties) {
  const char* address = "";
  const char* name = "";
  const char* alias = nullptr;
  bool connected = false;
  bool paired = false;
  int rssi = 0;
  const gsize count = g_variant_n_children(properties);
  for (gsize i = 0; i < count; ++i) {
    g_autoptr(GVariant) entry = g_variant_get_child_value(properties, i);
    g_autoptr(GVariant) key_value = g_variant_get_child_value(entry, 0);
    const char* key = g_variant_get_string(key_value, nullptr);
    if (std::strcmp(key, "Address") == 0) {
      address = Text(entry);
    } else if (std::strcmp(key, "Alias") == 0) {
      alias = Text(entry);
    } else if (std::strcmp(key, "Name") == 0) {
      name = Text(entry);
    } else if (std::strcmp(key, "RSSI") == 0) {
      rssi = Number(entry);
    } else if (std::strcmp(key, "Paired") == 0) {
      paired = Flag(entry);
    } else if (std::strcmp(key, "Connected") == 0) {
      connected = Flag(entry);
    }
  }
  FlValue* map = fl_value_new_map();
  fl_value_set_string_take(map, "address", fl_value_new_string(address));
  fl_value_set_string_take(
      map, "name", fl_value_new_string(alias != nullptr ? alias : name));
  fl_value_set_string_take(map, "type", fl_value_new_int(0));
  fl_value_set_string_take(map, "isConnected", fl_value_new_int(connected));
  fl_value_set_string_take(map, "bondState",
                           fl_value_new_int(paired ? 12 : 10));
  fl_value_set_string_take(map, "rssi", fl_value_new_int(rssi));
  return map;
}

// Appends the map of each device among the objects (a{oa{sa{sv}}}).
void AppendDevices(FlValue* list, GVariant* objects) {
  const gsize count = g_variant_n_children(objects);
  for (gsize i = 0; i < count; ++i) {
    g_autoptr(GVariant) object = g_variant_get_child_value(objects, i);
    g_autoptr(GVariant) interfaces = g_variant_get_child_value(object, 1);
    const gsize interface_count = g_variant_n_children(interfaces);
    for (gsize j = 0; j < interface_count; ++j) {
      g_autoptr(GVariant) entry = g_variant_get_child_value(interfaces, j);
      g_autoptr(GVariant) name = g_variant_get_child_value(entry, 0);
      if (std::strcmp(g_variant_get_string(name, nullptr),
                      "org.bluez.Device1") == 0) {
        g_autoptr(GVariant) properties = g_variant_get_child_value(entry, 1);
        fl_value_append_take(list, DeviceMap(properties));
      }
    }
  }
}

}  // namespace

PlainList::PlainList(FlBinaryMessenger* messenger, GDBusConnection* bus) {
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  channel_ =
      fl_method_channel_new(messenger, kPlainMethods, FL_METHOD_CODEC(codec));
  fl_method_channel_set_method_call_handler(channel_, OnCall, bus, nullptr);
}

PlainList::~PlainList() {
  fl_method_channel_set_method_call_handler(channel_, nullptr, nullptr,
                                            nullptr);
  g_object_unref(channel_);
}

void PlainList::OnCall(FlMethodChannel*, FlMethodCall* call, gpointer bus) {
  g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      static_cast<GDBusConnection*>(bus), "org.bluez", "/",
      "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr,
      G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
      nullptr);
  g_autoptr(GVariant) objects = g_variant_get_child_value(reply, 0);
  g_autoptr(FlValue) list = fl_value_new_list();
  AppendDevices(list, objects);
  g_autoptr(FlMethodResponse) response =
      FL_METHOD_RESPONSE(fl_method_success_response_new(list));
  fl_method_call_respond(call, response, nullptr);
}

}  // namespace lumso_bench
