// The doctor's steps that ask the kernel and the process itself.

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "doctor/safe_text.h"
#include "doctor/steps.h"

namespace lumso_doctor {

namespace {

// Fixed by Linux, that of the network since 6.18.
constexpr char kFirstPidNamespace[] = "pid:[4026531836]";
constexpr char kFirstNetworkNamespace[] = "net:[4026531833]";
constexpr uint8_t kChannel = 1;
constexpr gint64 kClosingUs = 1000000;

bool Exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

std::string LinkTarget(const std::string& path) {
  std::error_code error;
  return std::filesystem::read_symlink(path, error).string();
}

std::string FirstLine(const std::string& path) {
  std::string line;
  std::ifstream stream(path);
  std::getline(stream, line);
  return line;
}

// The names in a folder that begin with `start`, sorted.
std::vector<std::string> Names(const std::string& folder, const char* start) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(folder, error);
  for (; entry != end(entry); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.rfind(start, 0) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string UserName() {
  const uid_t id = geteuid();
  const passwd* user = getpwuid(id);
  const std::string number = std::to_string(id);
  return user == nullptr ? number : std::string(user->pw_name) + " " + number;
}

struct Switch {
  std::string name;  // A controller's, or the machine's own switch.
  bool soft = false;
  bool hard = false;
};

std::vector<Switch> Switches(const Patient& patient) {
  std::vector<Switch> switches;
  const std::string folder = patient.root + "/sys/class/rfkill/";
  for (const std::string& entry : Names(folder, "rfkill")) {
    const std::string device = folder + entry;
    if (FirstLine(device + "/type") != "bluetooth") continue;
    switches.push_back({FirstLine(device + "/name"),
                        FirstLine(device + "/soft") == "1",
                        FirstLine(device + "/hard") == "1"});
  }
  return switches;
}

// A controller that is not blocked may be the one that matters; a switch of the
// machine itself is only that of the controller built in.
bool IsRadioBlocked(const std::vector<Switch>& switches) {
  bool blocked = false;
  for (const Switch& radio : switches) {
    const bool off = radio.soft || radio.hard;
    if (!off && IsController(radio.name)) return false;
    blocked |= off;
  }
  return blocked;
}

bool HasFixedNetworkNamespace(const Patient& patient) {
  unsigned major = 0;
  unsigned minor = 0;
  const std::string release =
      FirstLine(patient.root + "/proc/sys/kernel/osrelease");
  return std::sscanf(release.c_str(), "%u.%u", &major, &minor) == 2 &&
         (major > 6 || (major == 6 && minor >= 18));
}

enum class Namespace { kFirst, kOther, kUnknown };

// Bluetooth sockets exist in the first network namespace alone. Process 1 is in
// it unless it is a container's; only root may look at it.
Namespace NetworkNamespace(const Patient& patient) {
  const int error = patient.socket_error;
  if (error == 0 || error == EPROTONOSUPPORT) return Namespace::kFirst;
  const std::string own = LinkTarget(patient.root + "/proc/self/ns/net");
  if (own == kFirstNetworkNamespace) return Namespace::kFirst;
  if (!own.empty() && HasFixedNetworkNamespace(patient))
    return Namespace::kOther;
  const std::string first = LinkTarget(patient.root + "/proc/1/ns/net");
  if (!own.empty() && !first.empty()) {
    if (own != first) return Namespace::kOther;
    if (LinkTarget(patient.root + "/proc/self/ns/pid") == kFirstPidNamespace)
      return Namespace::kFirst;
  }
  // The kernel has Bluetooth and does not give it to this process.
  return error == EAFNOSUPPORT && Exists(patient.root + "/sys/module/bluetooth")
             ? Namespace::kOther
             : Namespace::kUnknown;
}

// Tells whether a line of modprobe's configuration keeps the module out.
bool KeepsOut(const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::string name;
  words >> command >> name;
  return name == "bluetooth" ? command == "blacklist" || command == "install"
                             : command == "alias" && name == "net-pf-31";
}

// Adds why the kernel may not have loaded its Bluetooth module: it is not
// there, or a line of its configuration keeps it out.
void LookForModule(const Patient& patient, Finding* finding) {
  const std::string folder =
      patient.root + "/lib/modules/" +
      FirstLine(patient.root + "/proc/sys/kernel/osrelease");
  bool there = false;
  bool known = false;
  for (const char* list : {"/modules.dep", "/modules.builtin"}) {
    std::ifstream stream(folder + list);
    known |= stream.good();
    for (std::string line; std::getline(stream, line);) {
      there |= line.substr(0, line.find(':')).find("/bluetooth.ko") !=
               std::string::npos;
    }
  }
  if (known) {
    finding->saw.push_back(there ? "this kernel's modules include bluetooth"
                                 : "this kernel's modules lack bluetooth");
  }
  for (const char* place :
       {"/etc/modprobe.d/", "/run/modprobe.d/", "/usr/lib/modprobe.d/"}) {
    for (const std::string& name : Names(patient.root + place, "")) {
      if (std::filesystem::path(name).extension() != ".conf") continue;
      const std::string where = place + name + ": ";
      std::ifstream stream(patient.root + place + name);
      for (std::string line; std::getline(stream, line);) {
        if (KeepsOut(line)) finding->saw.push_back(line.insert(0, where));
      }
    }
  }
}

bool HasWord(GKeyFile* file, const char* group, const char* key,
             const char* word) {
  g_auto(GStrv) words =
      g_key_file_get_string_list(file, group, key, nullptr, nullptr);
  return words != nullptr && g_strv_contains(words, word);
}

// Looks at what a Flatpak application was granted.
Finding ExamineFlatpak(Finding finding, GKeyFile* info) {
  bool bus = HasWord(info, "Context", "sockets", "system-bus");
  for (const char* name : {"org.bluez", "org.bluez.*"}) {
    for (const char* grant : {"talk", "own"})
      bus |= HasWord(info, "System Bus Policy", name, grant);
  }
  const bool network = HasWord(info, "Context", "shared", "network");
  const bool sockets = HasWord(info, "Context", "features", "bluetooth");
  finding.saw.push_back(std::string("a Flatpak sandbox, ") +
                        (bus ? "with" : "without") + " org.bluez, " +
                        (network ? "with" : "without") + " the network, " +
                        (sockets ? "with" : "without") + " Bluetooth sockets");
  if (!bus) finding.lost.push_back(Part::kBus);
  if (!network || !sockets) finding.lost.push_back(Part::kSockets);
  if (!bus) return Problem(std::move(finding), kBusWithheld);
  if (!network || !sockets) return Problem(std::move(finding), kNoSockets);
  return finding;
}

std::string Milliseconds(gint64 since) {
  return std::to_string((g_get_monotonic_time() - since) / 1000) + " ms";
}

int OpenSocket() {
  return socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM);
}

struct Connected {
  int error = 0;         // errno; 0 when connected.
  int waited_ms = 0;     // When no answer came in that time.
  std::string from;      // The address of this end, when it is known.
  int socket_error = 0;  // errno when there was no socket to connect.
};

// A socket that is connected knows the adapter that the kernel chose.
std::string LocalAddress(int fd) {
  sockaddr_rc local = {};
  socklen_t size = sizeof(local);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 ||
      local.rc_family != AF_BLUETOOTH) {
    return "";
  }
  char text[18];
  ba2str(&local.rc_bdaddr, text);
  return text;
}

// Connects without blocking, so that nothing here can outlast the deadline.
Connected ConnectWithin(int fd, const sockaddr_rc& remote, int limit_ms) {
  const gint64 end = g_get_monotonic_time() + gint64{limit_ms} * 1000;
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) ==
      0) {
    return {0, 0, LocalAddress(fd)};
  }
  if (errno != EINPROGRESS && errno != EINTR) return {errno, 0, ""};
  for (;;) {
    const gint64 left = (end - g_get_monotonic_time()) / 1000;
    if (left <= 0) return {ETIMEDOUT, limit_ms, ""};
    pollfd wait = {fd, POLLOUT, 0};
    const int ready = poll(&wait, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return {errno, 0, ""};
    if (ready > 0) break;
  }
  int error = 0;
  socklen_t size = sizeof(error);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
  return {error, 0, error == 0 ? LocalAddress(fd) : ""};
}

// Opens channel 1 of the device and closes it. A channel that was let go of
// just now is busy for some milliseconds yet.
Connected OpenOnce(const Patient& patient) {
  sockaddr_rc remote = {};
  remote.rc_family = AF_BLUETOOTH;
  remote.rc_channel = kChannel;
  str2ba(patient.address.c_str(), &remote.rc_bdaddr);
  const gint64 closed_by = g_get_monotonic_time() + kClosingUs;
  const int limit_ms = TimeFor(patient, patient.patience.connect);
  const Wait wait(patient, "an answer of " + patient.address, limit_ms);
  for (;;) {
    const int fd = OpenSocket();
    if (fd < 0) return {0, 0, "", errno};
    Connected result = ConnectWithin(fd, remote, TimeFor(patient, limit_ms));
    close(fd);
    if (result.error != EBUSY || g_get_monotonic_time() > closed_by) {
      return result;
    }
    g_usleep(kClosingUs / 50);
  }
}

const Trouble* TroubleOfConnect(int error) {
  switch (error) {
    case ECONNREFUSED:
      return &kRefused;
    case EHOSTDOWN:
      return &kHostDown;
    case EHOSTUNREACH:
      return &kNoRoute;
    case EBUSY:
      return &kBusy;
    case EACCES:
    case EBADE:
      return &kNotAuthenticated;
    case ETIMEDOUT:
      return &kNoAnswer;
    case ECONNRESET:
      return &kReset;
    case ECONNABORTED:
      return &kAborted;
    default:
      return nullptr;
  }
}

// Adds what else is known of the device and may be why.
void Explain(const Patient& patient, const Trouble* trouble, Finding* finding) {
  const auto say = [finding](const std::string& text) {
    finding->saw.push_back(text);
  };
  if (trouble == &kRefused) {
    for (const std::string& service : patient.services)
      say("the daemon knows of its service " + service);
    if (!patient.bonded.empty()) {
      say("this machine holds a bond; if the device lost its own, that can "
          "look the same");
    }
  } else if (trouble == &kNotAuthenticated && patient.bonded.empty()) {
    say("it is not paired: pair it first");
  } else if (trouble == &kNoAnswer && patient.bonded.empty()) {
    say("it is not paired: somebody there may have been asked to agree");
  }
}

// A bond that was not there is told by the daemon a moment after the kernel's
// answer.
void LookForNewBond(Patient* patient, Finding* finding) {
  if (!MayPair(*patient) || patient->bus == nullptr) return;
  const auto leave = [&](const std::string& text) {
    patient->left = text;
    finding->saw.push_back(text);
    finding->telling = finding->saw.size();
  };
  const gint64 end =
      g_get_monotonic_time() + gint64{patient->patience.bond} * 1000;
  do {
    if (!RefreshObjects(patient)) {
      return leave("Whether this left a bond with " + patient->address +
                   " could not be asked; bluetoothctl info " +
                   patient->address + " shows it");
    }
    for (const std::string& adapter : BondedAdapters(*patient)) {
      const auto& before = patient->bonded;
      if (std::find(before.begin(), before.end(), adapter) != before.end())
        continue;
      return leave("This left a bond with " + patient->address +
                   " that was not there; " + HowToForget(*patient, adapter) +
                   " removes it");
    }
    g_usleep(20000);
  } while (g_get_monotonic_time() < end);
}

}  // namespace

bool IsController(const std::string& name) {
  return name.rfind("hci", 0) == 0 && name.find(':') == std::string::npos;
}

std::vector<std::string> Controllers(const Patient& patient) {
  std::vector<std::string> names =
      Names(patient.root + "/sys/class/bluetooth", "hci");
  const auto end = std::remove_if(
      names.begin(), names.end(),
      [](const std::string& name) { return !IsController(name); });
  names.erase(end, names.end());
  return names;
}

bool IsInFlatpak(const Patient& patient) {
  return Exists(patient.root + "/.flatpak-info");
}

// The environment says it of everything that a Snap's program has started, and
// not every Snap is confined.
bool IsInSnap(const Patient& patient) {
  const std::string profile =
      FirstLine(patient.root + "/proc/self/attr/current");
  return profile.rfind("snap.", 0) == 0 &&
         profile.find(" (enforce)") != std::string::npos;
}

Finding ExamineProcess(Patient* patient) {
  for (const char* module : {"bluetooth", "rfcomm"}) {
    if (Exists(patient->root + "/sys/module/" + module))
      patient->modules.push_back(module);
  }
  const int fd = OpenSocket();
  patient->socket_error = fd < 0 ? errno : 0;
  if (fd >= 0) close(fd);

  Finding finding;
  finding.saw.push_back("user " + Printable(UserName()));
  if (IsInFlatpak(*patient)) {
    g_autoptr(GKeyFile) info = g_key_file_new();
    g_key_file_load_from_file(info, (patient->root + "/.flatpak-info").c_str(),
                              G_KEY_FILE_NONE, nullptr);
    finding = ExamineFlatpak(std::move(finding), info);
    if (finding.verdict == Verdict::kProblem) return finding;
  } else if (IsInSnap(*patient)) {
    finding.saw.push_back("a Snap: its bluez interface must be connected");
  } else {
    finding.saw.push_back("no Flatpak or Snap sandbox");
  }

  switch (NetworkNamespace(*patient)) {
    case Namespace::kFirst:
      patient->own_namespace = true;
      finding.saw.push_back("the machine's own network namespace");
      return finding;
    case Namespace::kOther:
      finding.lost.push_back(Part::kSockets);
      finding.saw.insert(finding.saw.begin(),
                         "a network namespace of its own, or a service's "
                         "restriction: the kernel has no Bluetooth sockets "
                         "there");
      return Problem(std::move(finding), kNoSockets);
    case Namespace::kUnknown:
      break;
  }
  return CannotTell(std::move(finding),
                    "whether this is the machine's own network namespace "
                    "cannot be seen from here");
}

Finding ExamineKernel(Patient* patient) {
  const int error = patient->socket_error;
  Finding finding;
  finding.saw.push_back(std::string("RFCOMM socket: ") +
                        (error == 0 ? "made" : std::strerror(error)));
  const auto& before = patient->modules;
  for (const char* module : {"bluetooth", "rfcomm"}) {
    const bool loaded = Exists(patient->root + "/sys/module/" + module);
    const bool was =
        std::find(before.begin(), before.end(), module) != before.end();
    finding.saw.push_back(std::string("module ") + module +
                          (!loaded ? " not loaded"
                           : was   ? " loaded"
                                   : " loaded when it was asked for"));
  }
  if (error != 0) finding.lost.push_back(Part::kSockets);
  switch (error) {
    case 0:
      break;
    case EAFNOSUPPORT: {
      LookForModule(*patient, &finding);
      // To ask for a socket has the module loaded, in any namespace. A sandbox
      // that hides the modules has no "kernel" there either.
      const std::string modules = patient->root + "/sys/module/";
      const bool has_none =
          Exists(modules + "kernel") && !Exists(modules + "bluetooth");
      return Problem(std::move(finding), patient->own_namespace || has_none
                                             ? kNoBluetooth
                                             : kNoSockets);
    }
    case EPROTONOSUPPORT:
      return Problem(std::move(finding), kNoRfcomm);
    case EPERM:
    case EACCES:
      return Problem(std::move(finding), kSocketsForbidden);
    default:
      return CannotTell(std::move(finding), "an error of its own kind");
  }
  const std::vector<std::string> controllers = Controllers(*patient);
  for (const std::string& name : controllers)
    finding.saw.push_back("controller " + name);
  if (!controllers.empty()) return finding;
  return CannotTell(std::move(finding),
                    "no controller in /sys/class/bluetooth: see adapter");
}

Finding ExamineRadio(Patient* patient) {
  Finding finding;
  const std::vector<Switch> switches = Switches(*patient);
  for (const Switch& radio : switches) {
    finding.saw.push_back(Printable(radio.name) +
                          (radio.soft ? " blocked by software" : "") +
                          (radio.soft && radio.hard ? " and" : "") +
                          (radio.hard ? " blocked by hardware" : "") +
                          (radio.soft || radio.hard ? "" : " not blocked"));
    if (radio.soft || radio.hard) patient->blocked.push_back(radio.name);
  }
  if (switches.empty()) finding.saw.push_back("none for Bluetooth");
  if (!IsRadioBlocked(switches)) return finding;
  finding.lost.push_back(Part::kRadio);
  return Problem(std::move(finding), kBlocked);
}

Finding ExamineAddress(Patient* patient) {
  Finding finding;
  finding.saw.push_back(Quoted(patient->address));
  if (bachk(patient->address.c_str()) == 0) return finding;
  finding.lost.push_back(Part::kAddress);
  return Problem(std::move(finding), kBadAddress);
}

Finding ExamineStream(Patient* patient) {
  if (patient->announce) {
    patient->announce("opening channel 1 of " + patient->address +
                      " once, and closing it" +
                      (patient->bonded.empty()
                           ? "; it is not paired, so that may begin a pairing"
                       : MayPair(*patient)
                           ? "; by an adapter that it is not paired with that "
                             "may begin a pairing"
                           : ""));
  }
  Finding finding;
  const gint64 began = g_get_monotonic_time();
  const Connected result = OpenOnce(*patient);
  if (result.socket_error != 0) {
    return CannotTell(
        std::move(finding),
        std::string("socket: ") + std::strerror(result.socket_error));
  }
  const bool late = result.waited_ms > 0;
  if (result.error == 0) {
    finding.saw.push_back("channel 1 opened after " + Milliseconds(began));
    const std::string adapter = AdapterOf(*patient, result.from);
    if (!adapter.empty()) finding.saw.push_back("by " + adapter);
  } else {
    finding.saw.push_back((late ? "no answer" : std::strerror(result.error)) +
                          (" after " + Milliseconds(began)));
  }
  LookForNewBond(patient, &finding);
  if (result.error == 0) return finding;
  if (late && result.waited_ms < patient->patience.connect)
    return CannotTell(std::move(finding), "no time was left to wait for it");
  const Trouble* trouble = TroubleOfConnect(result.error);
  if (trouble == nullptr)
    return Problem(std::move(finding), "an error of its own kind");
  if (patient->own_address &&
      (trouble == &kHostDown || trouble == &kNoRoute || trouble == &kNoAnswer))
    trouble = &kOwnAddress;
  Explain(*patient, trouble, &finding);
  return Problem(std::move(finding), *trouble);
}

}  // namespace lumso_doctor
