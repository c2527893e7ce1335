// What the doctor looks at: one step after the other, each an entry of one
// table. Everything here runs on the main thread.

#ifndef LUMSO_BLUETOOTH_DOCTOR_STEPS_H_
#define LUMSO_BLUETOOTH_DOCTOR_STEPS_H_

#include <gio/gio.h>

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "doctor/troubles.h"

namespace lumso_doctor {

enum class Verdict { kOk, kProblem, kCannotTell };

// What steps need to have worked before them.
enum class Part { kAddress, kSockets, kRadio, kBus, kDaemon, kAdapter };

// What one step came to.
struct Finding {
  Verdict verdict = Verdict::kOk;
  // One fact each, the one that says most first.
  std::vector<std::string> saw;
  // How many of them are worth a line where all is well.
  size_t telling = 1;
  // A problem's, when it has one; without a problem, what the step makes
  // likely.
  const Trouble* trouble = nullptr;
  // What later steps need not try, since this one says why it does not work.
  std::vector<Part> lost = {};
};

// Turn a finding into one of these; a reason becomes its first fact.
Finding Problem(Finding finding, const Trouble& trouble);
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
  std::string message;   // Of the error.
  bool late = false;     // Nothing came in time.
  bool hurried = false;  // And the time was short, for want of more.
  bool absent = false;   // Nobody is there to ask.
  bool denied = false;   // The system keeps who is there from this process.
  gint64 took_ms = 0;
};

// How long a step waits at most, in milliseconds.
struct Patience {
  int bus = 5000;
  int daemon = 8000;
  int connect = 25000;
  int bond = 500;  // For a bond to show after a connection.
};

// What the steps know of the machine, and hand on to later ones.
struct Patient {
  std::string root;     // Goes before /sys, /proc and the like.
  std::string address;  // The device's; empty without one.
  Patience patience;
  gint64 deadline = 0;  // Monotonic time, in microseconds.
  // Told before something is done that others can notice; may be empty.
  std::function<void(const std::string& text)> announce;
  // Told, on a thread of its own, what is waited for once that has taken a
  // while; may be empty.
  std::function<void(const std::string& text)> wait;

  // What does not work, and the step that said so.
  std::map<Part, const char*> lost;

  std::vector<std::string> modules;  // The kernel's, before the first socket.
  bool own_namespace = false;  // The network's is the machine's, for certain.
  int socket_error = 0;        // Of making an RFCOMM socket; 0 when that works.
  std::vector<std::string> blocked;  // Radios, such as "hci0".
  std::unique_ptr<GDBusConnection, ConnectionUnref> bus;
  std::string daemon_owner;  // The daemon's unique name; empty without one.
  BusAnswer objects;         // Of GetManagedObjects.
  std::string adapter;       // The object path of the one that is taken.
  std::vector<std::string> powered;  // The adapters that are on, by name.
  std::vector<std::string> bonded;   // Those of the device's bonds.
  bool own_address = false;  // The device is an adapter of this machine.
  std::vector<std::string>
      services;      // Of the device, as the daemon knows them.
  std::string left;  // What the doctor leaves behind, and how to remove it.
};

struct Step {
  const char* name;
  bool needs_address;       // Looked at only when the device is named.
  std::vector<Part> needs;  // Otherwise it says what is missing.
  Finding (*look)(Patient* patient);
  std::vector<const Trouble*> troubles;  // All that it can find.
};

// In the order in which they are to be looked at.
const std::vector<Step>& Steps();

// Looks at what a step is about, if what it needs is there.
Finding Examine(const Step& step, Patient* patient);

// The steps' functions. Each returns within its own patience.
Finding ExamineProcess(Patient* patient);
Finding ExamineKernel(Patient* patient);
Finding ExamineRadio(Patient* patient);
Finding ExamineBus(Patient* patient);
Finding ExamineDaemon(Patient* patient);
Finding ExamineAdapter(Patient* patient);
Finding ExamineAgent(Patient* patient);
Finding ExamineGlib(Patient* patient);
Finding ExamineAddress(Patient* patient);
Finding ExamineDevice(Patient* patient);
Finding ExamineStream(Patient* patient);

// What the steps share.

// Milliseconds until the deadline; negative after it.
gint64 TimeLeft(const Patient& patient);

// The same, at most `most`, at least 1.
int TimeFor(const Patient& patient, int most);

// For as long as it lives, something is waited for, `limit_ms` at most. Says so
// when that takes longer than half a second.
class Wait {
 public:
  Wait(const Patient& patient, const std::string& what, int limit_ms);
  ~Wait();
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;

 private:
  struct Thread;
  std::unique_ptr<Thread> thread_;
};

// Tells whether the file of a controller, or a radio's name, is a controller's
// and not a connection's or that of the machine's own switch.
bool IsController(const std::string& name);

// The kernel's controllers, such as "hci0".
std::vector<std::string> Controllers(const Patient& patient);

// Tell whether this process is confined as a Flatpak's or a Snap's.
bool IsInFlatpak(const Patient& patient);
bool IsInSnap(const Patient& patient);

// Asks the daemon anew for its objects. Returns whether it answered.
bool RefreshObjects(Patient* patient);

// The adapters that hold a bond with the device now, by name.
std::vector<std::string> BondedAdapters(const Patient& patient);

// Tells whether the kernel may choose an adapter that held none.
bool MayPair(const Patient& patient);

// The name of the adapter with that address, or empty.
std::string AdapterOf(const Patient& patient, const std::string& address);

// Says how to remove the bond with the device that an adapter holds.
std::string HowToForget(const Patient& patient, const std::string& adapter);

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
