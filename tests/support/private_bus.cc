#include "tests/support/private_bus.h"

#include <fcntl.h>
#include <glib/gstdio.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/support/captured_output.h"

namespace lumso_test {
namespace {

constexpr char kAddressVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr int kReplyTimeoutMs = 10000;

constexpr char kBusConfiguration[] = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=%s/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

// Runs in the child between fork and exec, so only calls that are safe there.
void PrepareChild(gpointer standard_error) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (standard_error != nullptr) {
    dup2(GPOINTER_TO_INT(standard_error), STDERR_FILENO);
  }
}

std::string WriteBusConfiguration(const std::string& folder) {
  const std::string path = folder + "/bus.conf";
  g_autofree gchar* text = g_strdup_printf(kBusConfiguration, folder.c_str());
  std::ofstream(path) << text;
  return path;
}

}  // namespace

bool WaitUntil(const std::function<bool()>& done, int seconds) {
  bool late = false;
  // The source also wakes the loop for conditions that change without it, such
  // as a byte written by another thread.
  const auto tick = [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; };
  const guint ticker = g_timeout_add(10, tick, nullptr);
  const gint64 deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
  bool held = done();
  while (!held && !late) {
    g_main_context_iteration(nullptr, TRUE);
    late = g_get_monotonic_time() > deadline;
    held = done();
  }
  g_source_remove(ticker);
  return held;
}

ChildProcess::ChildProcess(const std::vector<std::string>& command,
                           bool quiet) {
  std::vector<gchar*> arguments;
  for (const std::string& word : command) {
    arguments.push_back(const_cast<gchar*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  g_autoptr(GError) error = nullptr;
  if (!g_spawn_async_with_pipes(
          nullptr, arguments.data(), nullptr,
          static_cast<GSpawnFlags>(G_SPAWN_DO_NOT_REAP_CHILD |
                                   (quiet ? G_SPAWN_STDERR_TO_DEV_NULL : 0)),
          PrepareChild,
          quiet ? nullptr : GINT_TO_POINTER(OriginalStandardError()), &pid_,
          nullptr, &output_, nullptr, &error)) {
    g_error("cannot start %s: %s", arguments[0], error->message);
  }
}

ChildProcess::~ChildProcess() {
  Kill();
  close(output_);
}

std::string ChildProcess::ReadLine() {
  std::string line;
  for (;;) {
    pollfd ready = {output_, POLLIN, 0};
    char byte = 0;
    if (poll(&ready, 1, kReplyTimeoutMs) != 1 || read(output_, &byte, 1) != 1) {
      g_error("child process %d gave no line", static_cast<int>(pid_));
    }
    if (byte == '\n') return line;
    line += byte;
  }
}

void ChildProcess::Kill() {
  if (pid_ == 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  g_spawn_close_pid(pid_);
  pid_ = 0;
}

void ChildProcess::Terminate() { kill(pid_, SIGTERM); }

PrivateBus::PrivateBus() {
  g_autofree gchar* folder = g_dir_make_tmp("lumso-bus-XXXXXX", nullptr);
  if (folder == nullptr) g_error("no temporary folder");
  folder_ = folder;
  // Quiet: as root it complains about limits that it does not need.
  const std::vector<std::string> command = {
      "/usr/bin/dbus-daemon",
      "--nofork",
      "--nopidfile",
      "--nosyslog",
      "--print-address=1",
      "--config-file=" + WriteBusConfiguration(folder_)};
  daemon_ = std::make_unique<ChildProcess>(command, true);
  const std::string address = daemon_->ReadLine();
  g_setenv(kAddressVariable, address.c_str(), TRUE);
  g_autoptr(GError) error = nullptr;
  connection_ = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(
          G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (connection_ == nullptr) g_error("private bus: %s", error->message);
}

PrivateBus::~PrivateBus() {
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
  Kill();
  g_unlink((folder_ + "/bus").c_str());
  g_unlink((folder_ + "/bus.conf").c_str());
  g_rmdir(folder_.c_str());
}

void PrivateBus::Kill() { daemon_->Kill(); }

GVariant* PrivateBus::CallBus(const char* interface, const char* method,
                              GVariant* args) {
  g_autoptr(GError) error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", interface,
      method, args, nullptr, G_DBUS_CALL_FLAGS_NONE, kReplyTimeoutMs, nullptr,
      &error);
  if (reply == nullptr) g_error("%s: %s", method, error->message);
  return reply;
}

std::vector<std::string> PrivateBus::OtherConnections() {
  g_autoptr(GVariant) reply =
      CallBus("org.freedesktop.DBus", "ListNames", nullptr);
  g_autoptr(GVariant) names = g_variant_get_child_value(reply, 0);
  std::vector<std::string> others;
  for (gsize i = 0; i < g_variant_n_children(names); i++) {
    const gchar* name = nullptr;
    g_variant_get_child(names, i, "&s", &name);
    if (name[0] == ':' &&
        !g_str_equal(name, g_dbus_connection_get_unique_name(connection_))) {
      others.emplace_back(name);
    }
  }
  return others;
}

std::vector<std::string> PrivateBus::MatchRules(
    const std::string& unique_name) {
  g_autoptr(GVariant) reply =
      CallBus("org.freedesktop.DBus.Debug.Stats", "GetAllMatchRules", nullptr);
  g_autoptr(GVariant) all = g_variant_get_child_value(reply, 0);
  g_autoptr(GVariant) rules = g_variant_lookup_value(
      all, unique_name.c_str(), G_VARIANT_TYPE_STRING_ARRAY);
  std::vector<std::string> texts;
  for (gsize i = 0; rules != nullptr && i < g_variant_n_children(rules); i++) {
    const gchar* rule = nullptr;
    g_variant_get_child(rules, i, "&s", &rule);
    texts.emplace_back(rule);
  }
  return texts;
}

bool PrivateBus::NameHasOwner(const std::string& name) {
  g_autoptr(GVariant) reply = CallBus("org.freedesktop.DBus", "NameHasOwner",
                                      g_variant_new("(s)", name.c_str()));
  gboolean owned = FALSE;
  g_variant_get(reply, "(b)", &owned);
  return owned != FALSE;
}

void UseNoSystemBus() {
  g_setenv(kAddressVariable, "unix:path=/nonexistent/lumso-bus", TRUE);
}

}  // namespace lumso_test
