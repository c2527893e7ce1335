// Processes that a case starts, and the message bus of its own that stands in
// for the system bus.

#ifndef LUMSO_BLUETOOTH_TESTS_SUPPORT_PRIVATE_BUS_H_
#define LUMSO_BLUETOOTH_TESTS_SUPPORT_PRIVATE_BUS_H_

#include <gio/gio.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace lumso_test {

// Runs the default GLib main context until `done` holds; false when it does not
// within `seconds`. The calling thread is the platform thread.
bool WaitUntil(const std::function<bool()>& done, int seconds = 10);

// A child that dies with the thread that started it, whatever ends that. Its
// standard output is a pipe to us; its standard error is the one the test
// program was started with, or nothing when it is to be quiet.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& command,
                        bool quiet = false);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Returns the next line of the child's standard output without its line end;
  // aborts the program when none comes within ten seconds.
  std::string ReadLine();

  // Ends the child with SIGKILL and reaps it. Does nothing the second time.
  void Kill();

  // Asks the child to end, with SIGTERM.
  void Terminate();

 private:
  GPid pid_ = 0;
  int output_ = -1;
};

// A dbus-daemon of the case's own. From construction on it is what
// DBUS_SYSTEM_BUS_ADDRESS names.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();

  // Ends the bus without a word to anybody, as a crash does.
  void Kill();

  // A connection beside the shared one that the plug-in uses; borrowed.
  GDBusConnection* connection() const { return connection_; }

  // Calls the bus itself and returns the reply, owned by the caller; a failure
  // ends the program.
  GVariant* CallBus(const char* interface, const char* method, GVariant* args);

  // The unique names on the bus other than connection()'s.
  std::vector<std::string> OtherConnections();

  // The match rules that `unique_name` holds on the bus.
  std::vector<std::string> MatchRules(const std::string& unique_name);

  bool NameHasOwner(const std::string& name);

 private:
  std::string folder_;
  std::unique_ptr<ChildProcess> daemon_;
  GDBusConnection* connection_ = nullptr;
};

// Lets DBUS_SYSTEM_BUS_ADDRESS name a socket that does not exist.
void UseNoSystemBus();

}  // namespace lumso_test

#endif  // LUMSO_BLUETOOTH_TESTS_SUPPORT_PRIVATE_BUS_H_
