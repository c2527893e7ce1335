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

// Makes `values` an av of the tuple's members.
void AddBoxed(GVariant* tuple, GVariantBuilder* values) {
  g_variant_builder_init(values, G_VARIANT_TYPE("av"));
  for (gsize i = 0; i < g_variant_n_children(tuple); i++) {
    g_autoptr(GVariant) value = g_variant_get_child_value(tuple, i);
    g_variant_builder_add(values, "v", value);
  }
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
  Add("AddAdapter", path, properties);
}

void DaemonDouble::AddDevice(const std::string& path,
                             const std::string& properties) {
  Add("AddDevice", path, properties);
}

void DaemonDouble::AddNearbyDevice(const std::string& path,
                                   const std::string& properties) {
  Add("AddNearbyDevice", path, properties);
}

void DaemonDouble::Add(const char* method, const std::string& path,
                       const std::string& properties) {
  g_autoptr(GVariant) values = Parse("a{sv}", properties);
  g_variant_unref(
      Script("/", method, g_variant_new("(s@a{sv})", path.c_str(), values)));
}

void DaemonDouble::ChangeProperties(const std::string& path,
                                    const std::string& interface,
                                    const std::string& changed,
                                    const std::string& cleared) {
  g_autoptr(GVariant) values = Parse("a{sv}", changed);
  g_autoptr(GVariant) names = Parse("as", cleared);
  g_variant_unref(Script("/", "ChangeProperties",
                         g_variant_new("(os@a{sv}@as)", path.c_str(),
                                       interface.c_str(), values, names)));
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

void DaemonDouble::Announce(const std::string& path) {
  g_variant_unref(Script("/", "Announce", g_variant_new("(s)", path.c_str())));
}

void DaemonDouble::Withdraw(const std::string& path) {
  g_variant_unref(Script("/", "Withdraw", g_variant_new("(s)", path.c_str())));
}

void DaemonDouble::Emit(const std::string& path, const std::string& interface,
                        const std::string& signal, const std::string& type,
                        const std::string& body) {
  g_autoptr(GVariant) tuple = Parse(type, body);
  GVariantBuilder arguments;
  AddBoxed(tuple, &arguments);
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

std::string DaemonDouble::AskAgent(const std::string& method,
                                   const std::string& type,
                                   const std::string& arguments) {
  g_autoptr(GVariant) tuple = Parse(type, arguments);
  GVariantBuilder values;
  AddBoxed(tuple, &values);
  const std::string signature = type.substr(1, type.size() - 2);
  GVariant* question =
      g_variant_new("(ssav)", method.c_str(), signature.c_str(), &values);
  std::string answer;
  const auto finish = +[](GObject* bus, GAsyncResult* result, gpointer data) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (reply == nullptr) g_error("AskAgent: %s", error->message);
    const gchar* text = nullptr;
    g_variant_get(reply, "(&s)", &text);
    *static_cast<std::string*>(data) = text;
  };
  g_dbus_connection_call(bus_->connection(), kBusName, "/", kScriptInterface,
                         "AskAgent", question, G_VARIANT_TYPE("(s)"),
                         G_DBUS_CALL_FLAGS_NONE, kScriptTimeoutMs, nullptr,
                         finish, &answer);
  if (!WaitUntil([&] { return !answer.empty(); },
                 2 * kScriptTimeoutMs / 1000)) {
    g_error("the agent did not answer %s", method.c_str());
  }
  return answer;
}

void DaemonDouble::Kill() {
  process_.Kill();
  WaitForEnd();
}

void DaemonDouble::Stop() {
  process_.Terminate();
  WaitForEnd();
}

void DaemonDouble::WaitForEnd() {
  if (!WaitUntil([this] { return !bus_->NameHasOwner(kBusName); })) {
    g_error("the bus still knows the daemon");
  }
}

}  // namespace lumso_test
