// lumso_doctor as a program, on a bus with a daemon: what others notice of it.

#include <gio/gio.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/bus_test.h"

namespace lumso_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kSecondPath[] = "/org/bluez/hci1";
constexpr int kEnds = 20;  // Points of the way at which it is ended.

struct SubprocessUnref {
  void operator()(GSubprocess* process) const { g_object_unref(process); }
};
using SubprocessPtr = std::unique_ptr<GSubprocess, SubprocessUnref>;

class DoctorCommand : public BusTest {
 protected:
  void SetUp() override {
    StartBus();
    StartDaemon();
    daemon->AddAdapter(kAdapterPath, "{'Powered': <true>}");
    daemon->AddAdapter(kSecondPath,
                       "{'Address': <'00:11:22:33:44:66'>, 'Powered': "
                       "<true>, 'Pairable': <false>}");
    daemon->AddDevice(kDevicePath, "{'Alias': <'\\u009b\\u202eScale'>}");
    shared_ = SharedBus();
    g_dbus_connection_signal_subscribe(
        shared_.get(), nullptr, nullptr, nullptr, nullptr, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, &signals_, nullptr);
  }

  static SubprocessPtr Start(const std::vector<const char*>& arguments) {
    std::vector<const char*> argv = {LUMSO_DOCTOR};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.push_back(nullptr);
    return SubprocessPtr(g_subprocess_newv(
        argv.data(),
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                      G_SUBPROCESS_FLAGS_STDERR_PIPE),
        nullptr));
  }

  static std::string OutputOf(GSubprocess* process) {
    g_autofree gchar* output = nullptr;
    EXPECT_TRUE(g_subprocess_communicate_utf8(process, nullptr, nullptr,
                                              &output, nullptr, nullptr));
    return output == nullptr ? "" : output;
  }

  // All that anybody can see: the daemon's objects and who is on the bus.
  std::string Seen() {
    return Ask(kBluez, "/", kObjectManagerInterface, "GetManagedObjects") +
           Ask(kBus, "/org/freedesktop/DBus", kBus, "ListNames");
  }

  // Returns when the bus knows that the doctor has left.
  void ExpectSame(const std::string& before) {
    EXPECT_TRUE(WaitUntil([&] { return Seen() == before; }))
        << before << "\nbecame\n"
        << Seen();
    // What was sent before that answer waits in the main loop.
    while (g_main_context_iteration(nullptr, FALSE)) continue;
    EXPECT_THAT(signals_, IsEmpty());
  }

 private:
  static constexpr char kBluez[] = "org.bluez";

  // Whoever comes to the bus or leaves it is told by its number.
  static void OnSignal(GDBusConnection*, const gchar* sender, const gchar* path,
                       const gchar*, const gchar* name, GVariant* values,
                       gpointer signals) {
    const std::string text = values == nullptr ? "" : Print(values);
    if (sender == std::string(kBus) && text.rfind("(':", 0) == 0) return;
    static_cast<std::vector<std::string>*>(signals)->push_back(
        std::string(path) + " " + name + text);
  }

  static std::string Print(GVariant* value) {
    g_autofree gchar* text = g_variant_print(value, FALSE);
    return text;
  }

  std::string Ask(const char* name, const char* path, const char* interface,
                  const char* method) {
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        shared_.get(), name, path, interface, method, nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    EXPECT_NE(reply, nullptr) << method;
    return reply == nullptr ? "" : Print(reply);
  }

  BusPtr shared_;
  std::vector<std::string> signals_;
};

TEST_F(DoctorCommand, IsNotNoticed) {
  const std::string before = Seen();
  daemon->TakeCalls();
  OutputOf(Start({}).get());
  EXPECT_THAT(
      daemon->TakeCalls(),
      ElementsAre("org.freedesktop.DBus.ObjectManager.GetManagedObjects /",
                  "org.bluez.AgentManager1.UnregisterAgent /org/bluez (o) "
                  "/brel/lumso/lumso_bluetooth/doctor"));
  ExpectSame(before);
}

TEST_F(DoctorCommand, IsNotNoticedWhereverItEnds) {
  const std::string before = Seen();
  const gint64 began = g_get_monotonic_time();
  OutputOf(Start({}).get());
  const gint64 whole = g_get_monotonic_time() - began;
  for (int part = 0; part < kEnds; ++part) {
    const SubprocessPtr doctor = Start({});
    g_usleep(static_cast<gulong>(whole * part / kEnds));
    g_subprocess_send_signal(doctor.get(), SIGINT);
    OutputOf(doctor.get());
  }
  ExpectSame(before);
}

TEST_F(DoctorCommand, PrintsNoNameThatATerminalObeys) {
  for (const std::vector<const char*>& arguments :
       {std::vector<const char*>{kDeviceAddress, "--verbose"},
        std::vector<const char*>{kDeviceAddress, "--json"}}) {
    const std::string output = OutputOf(Start(arguments).get());
    EXPECT_THAT(output, HasSubstr(R"(\u009b)"));
    EXPECT_THAT(output, HasSubstr(R"(\u202eScale)"));
    EXPECT_THAT(output, Not(HasSubstr("\u009b")));
    EXPECT_THAT(output, Not(HasSubstr("\u202e")));
  }
}

}  // namespace
}  // namespace lumso_test
