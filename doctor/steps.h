// The doctor: what is wrong with Bluetooth on this machine. It goes through
// everything between an application and its bytes, step by step, and changes
// nothing.

#ifndef LUMSO_BLUETOOTH_DOCTOR_STEPS_H_
#define LUMSO_BLUETOOTH_DOCTOR_STEPS_H_

#include <gio/gio.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "doctor/troubles.h"

namespace lumso_doctor {

enum class Verdict { kOk, kProblem, kCannotTell };

// What one step came to.
struct Finding {
  const char* step = "";
  Verdict verdict = Verdict::kOk;
  std::vector<std::string> saw;
  // The problem's row, when it has one; without a problem, what the step makes
  // likely.
  std::optional<Trouble> trouble;
};

// The step that runs, or whose finding is printed.
inline std::atomic<const char*> current_step{"its beginning"};

Finding BeginStep(const char* step);

// Turn a finding into one of these; a problem without a row has a reason.
Finding Problem(Finding finding, Trouble trouble);
Finding Problem(Finding finding, const std::string& reason);
Finding CannotTell(Finding finding, const std::string& reason);

struct VariantUnref {
  void operator()(GVariant* value) const { g_variant_unref(value); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

struct ConnectionUnref {
  void operator()(GDBusConnection* connection) const {
    g_object_unref(connection);
  }
};

// What the bus answered: a value, or an error with its D-Bus name, which is
// empty when it did not come over the bus.
struct BusAnswer {
  VariantPtr value;
  std::string error;
  std::string message;  // Of the error.
  bool late = false;    // Nothing came in time.
  bool absent = false;  // Nobody is there to ask.
};

// What the steps know of the machine, and hand on to later ones.
struct Patient {
  std::string root;     // Goes before /sys, /proc and the like.
  std::string address;  // The device's; empty without one.
  // Told before something is done that others can notice; may be empty.
  std::function<void(const std::string& text)> announce;
  gint64 deadline = 0;  // Monotonic time, in microseconds.
  // The kernel's modules before the first socket, which may load them.
  std::vector<std::string> modules;
  // The errno of making an RFCOMM socket; 0 when that works.
  int socket_error = 0;
  std::vector<std::string> controllers;  // The kernel's, such as "hci0".

  // The step whose problem already explains that these do not work.
  const char* sockets_spoilt = nullptr;
  const char* bus_spoilt = nullptr;
  const char* daemon_spoilt = nullptr;
  const char* adapter_spoilt = nullptr;
  const char* address_spoilt = nullptr;

  std::vector<std::string> blocked;  // Radios, such as "hci0".
  std::unique_ptr<GDBusConnection, ConnectionUnref> bus;
  std::string daemon_owner;  // The daemon's unique name; empty without one.
  BusAnswer objects;         // Of GetManagedObjects.
  std::string adapter;       // The object path of the one that is taken.
  bool paired = false;       // The device with that adapter.
};

// Tells whether this process is confined as a Snap's.
bool IsInSnap(const Patient& patient);

// Tells a radio's name of a controller from one of the machine's own switch.
bool IsController(const std::string& name);

// Milliseconds until the deadline, at most `most`, at least 1.
int TimeLeft(const Patient& patient, int most);

// The steps, in the order in which they are to run. Each returns within its own
// time limit.
Finding ExamineProcess(Patient* patient);
Finding ExamineKernel(Patient* patient);
Finding ExamineRadio(Patient* patient);
Finding ExamineBus(Patient* patient);
Finding ExamineDaemon(Patient* patient);
Finding ExamineAdapter(Patient* patient);
Finding ExamineAgent(Patient* patient);
Finding ExamineGlib(Patient* patient);
Finding ExamineDevice(Patient* patient);
Finding ExamineStream(Patient* patient);

// Judges a version of GLib where it cannot be tried; for ExamineGlib.
Finding JudgeGlib(Finding finding, unsigned major, unsigned minor,
                  unsigned micro);

// How the names of the devices begin that the prober asks.
inline constexpr std::array<std::string_view, 5> kProbedNamePrefixes = {
    "VELKAN-", "VELK2N-", "DRU-Palent", "DRU-KX", "DRU-Ostavel",
};

// Tells whether the prober asks devices of this name.
bool IsProbedName(const std::string& name);

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_STEPS_H_
