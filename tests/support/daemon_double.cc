#include "tests/support/daemon_double.h"

namespace lumso_test {
namespace {

constexpr char kBusName[] = "org.bluez";
constexpr char kScriptInterface[] = "org.freedesktop.DBus.Mock";
constexpr int kScriptTimeoutMs = 20000;

// Returns a full reference.
GVariant* Parse(const std::string& type, const std::string& text) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariantType) expected = g_variant_type_new(type.c_str());
  GVariant* value =
      g_variant_parse(expected, text.c_str(), nullptr, nullptr, &error);
  if (value == nullptr) g_error("%s: %s", text.c_str(), error->message);
  return value;
}

}  // namespace

DaemonDouble::DaemonDouble(PrivateBus* bus)
    : bus_(bus), process_({"/usr/bin/python3", LUMSO_TEST_DAEMON}) {
  const std::string word = process_.ReadLine();
  if (word != "ready") g_error("the daemon said %s", word.c_str());
}

GVariant* DaemonDouble::Script(const std::string& path, const char* method,
                               GVariant* args) {
  g_autoptr(GError) error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      bus_->connection(), kBusName, path.c_str(), kScriptInterface, method,
      args, nullptr, G_DBUS_CALL_FLAGS_NONE, kScriptTimeoutMs, nullptr, &error);
  if (reply == nullptr) g_error("%s: %s", method, error->message);
  return reply;
}

void DaemonDouble::AddObject(const std::string& path,
                             const std::string& interface,
                             const std::string& properties) {
  g_autoptr(GVariant) values = Parse("a{sv}", properties);
  g_variant_unref(Script("/", "AddObject",
                         g_variant_new("(ss@a{sv}a(ssss))", path.c_str(),
                                       interface.c_str(), values, nullptr)));
}

void DaemonDouble::AddAdapter(const std::string& path,
                              const std::string& properties) {
  AddObject(path, kAdapterInterface, properties);
  OnCall(path, kAdapterInterface, "StartDiscovery", "", "", "");
  OnCall(path, kAdapterInterface, "StopDiscovery", "", "", "");
  OnCall(path, kAdapterInterface, "RemoveDevice", "o", "", "");
}

void DaemonDouble::AddDevice(const std::string& path,
                             const std::string& properties) {
  AddObject(path, kDeviceInterface, properties);
  OnCall(path, kDeviceInterface, "Pair", "", "", "");
}

void DaemonDouble::SetProperties(const std::string& path,
                                 const std::string& interface,
                                 const std::string& properties) {
  g_autoptr(GVariant) values = Parse("a{sv}", properties);
  g_variant_unref(Script(
      "/", "ReplaceProperties",
      g_variant_new("(os@a{sv})", path.c_str(), interface.c_str(), values)));
}

void DaemonDouble::RemoveObject(const std::string& path) {
  g_variant_unref(
      Script("/", "RemoveObject", g_variant_new("(s)", path.c_str())));
}

void DaemonDouble::Emit(const std::string& path, const std::string& interface,
                        const std::string& signal, const std::string& type,
                        const std::string& body) {
  g_autoptr(GVariant) tuple = Parse(type, body);
  GVariantBuilder arguments;
  g_variant_builder_init(&arguments, G_VARIANT_TYPE("av"));
  for (gsize i = 0; i < g_variant_n_children(tuple); i++) {
    g_autoptr(GVariant) argument = g_variant_get_child_value(tuple, i);
    g_variant_builder_add(&arguments, "v", argument);
  }
  const std::string signature = type.substr(1, type.size() - 2);
  g_autoptr(GVariant) details =
      g_variant_ref_sink(g_variant_new_parsed("{'path': <%s>}", path.c_str()));
  g_variant_unref(
      Script("/", "EmitSignalDetailed",
             g_variant_new("(sssav@a{sv})", interface.c_str(), signal.c_str(),
                           signature.c_str(), &arguments, details)));
}

void DaemonDouble::EmitPropertiesChanged(const std::string& path,
                                         const std::string& interface,
                                         const std::string& changed) {
  Emit(path, kPropertiesInterface, "PropertiesChanged", "(sa{sv}as)",
       "('" + interface + "', " + changed + ", [])");
}

void DaemonDouble::OnCall(const std::string& path, const std::string& interface,
                          const std::string& method, const std::string& in_type,
                          const std::string& out_type,
                          const std::string& code) {
  g_variant_unref(
      Script(path, "AddMethod",
             g_variant_new("(sssss)", interface.c_str(), method.c_str(),
                           in_type.c_str(), out_type.c_str(), code.c_str())));
}

void DaemonDouble::FailCall(const std::string& path,
                            const std::string& interface,
                            const std::string& method,
                            const std::string& in_type,
                            const std::string& error,
                            const std::string& message) {
  OnCall(path, interface, method, in_type, "",
         "raise dbus.exceptions.DBusException('" + message + "', name='" +
             error + "')");
}

void DaemonDouble::FailNextCall(const std::string& path,
                                const std::string& interface,
                                const std::string& method,
                                const std::string& code) {
  const std::string full_name = interface + "." + method;
  g_variant_unref(Script(
      "/", "FailNextCall",
      g_variant_new("(sss)", full_name.c_str(), path.c_str(), code.c_str())));
}

std::vector<std::string> DaemonDouble::TakeCalls() {
  g_autoptr(GVariant) reply = Script("/", "TakeCalls", nullptr);
  g_autoptr(GVariant) calls = g_variant_get_child_value(reply, 0);
  std::vector<std::string> texts;
  for (gsize i = 0; i < g_variant_n_children(calls); i++) {
    const gchar* text = nullptr;
    g_variant_get_child(calls, i, "&s", &text);
    texts.emplace_back(text);
  }
  return texts;
}

void DaemonDouble::Kill() {
  process_.Kill();
  if (!WaitUntil([this] { return !bus_->NameHasOwner(kBusName); })) {
    g_error("the bus still knows the daemon");
  }
}

}  // namespace lumso_test
