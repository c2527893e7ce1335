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
#include <cstring>
#include <filesystem>
#include <fstream>

#include "doctor/steps.h"

namespace lumso_doctor {

namespace {

constexpr char kFirstPidNamespace[] = "pid:[4026531836]";  // Fixed by Linux.
constexpr uint8_t kChannel = 1;
constexpr int kConnectMs = 25000;
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

enum class Namespace { kFirst, kOther, kUnknown };

// Bluetooth sockets exist in the first network namespace alone. Process 1 is in
// it unless it is a container's; only root may look at it.
Namespace NetworkNamespace(const Patient& patient) {
  const int error = patient.socket_error;
  if (error == 0 || error == EPROTONOSUPPORT) return Namespace::kFirst;
  const std::string own = LinkTarget(patient.root + "/proc/self/ns/net");
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

bool HasWord(GKeyFile* file, const char* group, const char* key,
             const char* word) {
  g_auto(GStrv) words =
      g_key_file_get_string_list(file, group, key, nullptr, nullptr);
  return words != nullptr && g_strv_contains(words, word);
}

// Looks at what a Flatpak application was granted.
Finding ExamineFlatpak(Finding finding, GKeyFile* info, Patient* patient) {
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
  if (!bus) patient->bus_spoilt = finding.step;
  if (!network || !sockets) patient->sockets_spoilt = finding.step;
  if (!bus) return Problem(std::move(finding), Trouble::kNoBus);
  if (!network || !sockets)
    return Problem(std::move(finding), Trouble::kNoSockets);
  return finding;
}

std::string Milliseconds(gint64 since) {
  return std::to_string((g_get_monotonic_time() - since) / 1000) + " ms";
}

int OpenSocket() {
  return socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM);
}

struct Connected {
  int error = 0;      // errno; 0 when connected.
  int waited_ms = 0;  // When no answer came in that time.
};

// Connects without blocking, so that nothing here can outlast the deadline.
Connected ConnectWithin(int fd, const sockaddr_rc& remote, int limit_ms) {
  const gint64 end = g_get_monotonic_time() + gint64{limit_ms} * 1000;
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) ==
      0) {
    return {};
  }
  if (errno != EINPROGRESS && errno != EINTR) return {errno};
  for (;;) {
    const gint64 left = (end - g_get_monotonic_time()) / 1000;
    if (left <= 0) return {ETIMEDOUT, limit_ms};
    pollfd wait = {fd, POLLOUT, 0};
    const int ready = poll(&wait, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return {errno};
    if (ready > 0) break;
  }
  int error = 0;
  socklen_t size = sizeof(error);
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return {errno};
  return {error};
}

// Opens channel 1 of the device and closes it; nothing without a socket. A
// channel that was let go of just now is busy for some milliseconds yet.
std::optional<Connected> OpenOnce(const Patient& patient) {
  sockaddr_rc remote = {};
  remote.rc_family = AF_BLUETOOTH;
  remote.rc_channel = kChannel;
  str2ba(patient.address.c_str(), &remote.rc_bdaddr);
  const gint64 closed_by = g_get_monotonic_time() + kClosingUs;
  for (;;) {
    const int fd = OpenSocket();
    if (fd < 0) return std::nullopt;
    const Connected result =
        ConnectWithin(fd, remote, TimeLeft(patient, kConnectMs));
    close(fd);
    if (result.error != EBUSY || g_get_monotonic_time() > closed_by) {
      return result;
    }
    g_usleep(kClosingUs / 50);
  }
}

std::optional<Trouble> TroubleOfConnect(int error) {
  switch (error) {
    case ECONNREFUSED:
      return Trouble::kRefused;
    case EHOSTDOWN:
      return Trouble::kHostDown;
    case EHOSTUNREACH:
      return Trouble::kNoRoute;
    case EBUSY:
      return Trouble::kBusy;
    case EACCES:
    case EBADE:
      return Trouble::kNotAuthenticated;
    case ETIMEDOUT:
      return Trouble::kNoAnswer;
    default:
      return std::nullopt;
  }
}

}  // namespace

Finding BeginStep(const char* step) {
  current_step = step;
  Finding finding;
  finding.step = step;
  return finding;
}

Finding Problem(Finding finding, Trouble trouble) {
  finding.verdict = Verdict::kProblem;
  finding.trouble = trouble;
  return finding;
}

Finding Problem(Finding finding, const std::string& reason) {
  finding.verdict = Verdict::kProblem;
  finding.saw.push_back(reason);
  return finding;
}

Finding CannotTell(Finding finding, const std::string& reason) {
  finding.verdict = Verdict::kCannotTell;
  finding.saw.push_back(reason);
  return finding;
}

bool IsController(const std::string& name) { return name.rfind("hci", 0) == 0; }

int TimeLeft(const Patient& patient, int most) {
  const gint64 left = (patient.deadline - g_get_monotonic_time()) / 1000;
  return static_cast<int>(std::clamp<gint64>(left, 1, most));
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
  Finding finding = BeginStep("this process");
  finding.saw.push_back("user " + UserName());

  for (const char* module : {"bluetooth", "rfcomm"}) {
    if (Exists(patient->root + "/sys/module/" + module))
      patient->modules.push_back(module);
  }
  const int fd = OpenSocket();
  patient->socket_error = fd < 0 ? errno : 0;
  if (fd >= 0) close(fd);

  g_autoptr(GKeyFile) info = g_key_file_new();
  const std::string flatpak = patient->root + "/.flatpak-info";
  if (Exists(flatpak)) {
    g_key_file_load_from_file(info, flatpak.c_str(), G_KEY_FILE_NONE, nullptr);
    finding = ExamineFlatpak(std::move(finding), info, patient);
    if (finding.verdict == Verdict::kProblem) return finding;
  } else if (IsInSnap(*patient)) {
    finding.saw.push_back("a Snap: its bluez interface must be connected");
  } else {
    finding.saw.push_back("no Flatpak or Snap sandbox");
  }

  switch (NetworkNamespace(*patient)) {
    case Namespace::kFirst:
      finding.saw.push_back("the machine's own network namespace");
      return finding;
    case Namespace::kOther:
      finding.saw.push_back(
          "a network namespace of its own, or a service's restriction, in "
          "which the kernel has no Bluetooth sockets");
      patient->sockets_spoilt = finding.step;
      return Problem(std::move(finding), Trouble::kNoSockets);
    case Namespace::kUnknown:
      break;
  }
  return CannotTell(std::move(finding),
                    "whether this is the machine's own network namespace "
                    "cannot be seen from here");
}

Finding ExamineKernel(Patient* patient) {
  Finding finding = BeginStep("kernel");
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
  for (const std::string& name :
       Names(patient->root + "/sys/class/bluetooth", "hci")) {
    if (name.find(':') == std::string::npos)  // Or else a connection.
      patient->controllers.push_back(name);
  }
  if (patient->sockets_spoilt != nullptr) {
    return CannotTell(std::move(finding),
                      std::string("its sockets are not to be had here: see ") +
                          patient->sockets_spoilt);
  }
  const int error = patient->socket_error;
  finding.saw.push_back(std::string("RFCOMM socket: ") +
                        (error == 0 ? "made" : std::strerror(error)));
  if (error != 0) patient->sockets_spoilt = finding.step;
  switch (error) {
    case 0:
      break;
    case EAFNOSUPPORT:
      return Problem(std::move(finding), Trouble::kNoSockets);
    case EPROTONOSUPPORT:
      return Problem(std::move(finding), Trouble::kNoRfcomm);
    case EPERM:
    case EACCES:
      return Problem(std::move(finding), Trouble::kSocketsForbidden);
    default:
      return CannotTell(std::move(finding), "an error of its own kind");
  }
  for (const std::string& name : patient->controllers) {
    finding.saw.push_back("controller " + name);
  }
  if (!patient->controllers.empty()) return finding;
  return CannotTell(std::move(finding),
                    "no controller in /sys/class/bluetooth: see adapter");
}

Finding ExamineRadio(Patient* patient) {
  Finding finding = BeginStep("radio switch");
  const std::vector<Switch> switches = Switches(*patient);
  for (const Switch& radio : switches) {
    finding.saw.push_back(radio.name +
                          (radio.soft ? " blocked by software" : "") +
                          (radio.soft && radio.hard ? " and" : "") +
                          (radio.hard ? " blocked by hardware" : "") +
                          (radio.soft || radio.hard ? "" : " not blocked"));
    if (radio.soft || radio.hard) patient->blocked.push_back(radio.name);
  }
  if (switches.empty()) finding.saw.push_back("none for Bluetooth");
  if (!IsRadioBlocked(switches)) return finding;
  patient->adapter_spoilt = finding.step;
  return Problem(std::move(finding), Trouble::kBlocked);
}

Finding ExamineStream(Patient* patient) {
  Finding finding = BeginStep("stream");
  for (const char* spoilt :
       {patient->address_spoilt, patient->sockets_spoilt, patient->bus_spoilt,
        patient->daemon_spoilt, patient->adapter_spoilt}) {
    if (spoilt != nullptr)
      return CannotTell(std::move(finding),
                        std::string("not tried: see ") + spoilt);
  }
  if (patient->announce) {
    patient->announce(
        "opening channel 1 of " + patient->address + " once, and closing it" +
        (patient->paired ? ""
                         : "; it is not paired, so that may begin a pairing"));
  }
  const gint64 began = g_get_monotonic_time();
  const auto result = OpenOnce(*patient);
  if (!result) {
    return CannotTell(std::move(finding),
                      std::string("socket: ") + std::strerror(errno));
  }
  if (result->error == 0) {
    finding.saw.push_back("channel 1 opened after " + Milliseconds(began));
    return finding;
  }
  const bool late = result->waited_ms > 0;
  finding.saw.push_back((late ? "no answer" : std::strerror(result->error)) +
                        (" after " + Milliseconds(began)));
  if (late && result->waited_ms < kConnectMs)
    return CannotTell(std::move(finding), "no time was left to wait for it");
  const auto trouble = TroubleOfConnect(result->error);
  if (!trouble) return Problem(std::move(finding), "an error of its own kind");
  if (trouble == Trouble::kRefused && patient->paired) {
    finding.saw.push_back(
        "this machine holds a bond; if the device lost its own, that can look "
        "the same");
  } else if (trouble == Trouble::kNotAuthenticated && !patient->paired) {
    finding.saw.push_back("it is not paired: pair it first");
  } else if (trouble == Trouble::kNoAnswer && !patient->paired) {
    finding.saw.push_back(
        "it is not paired: somebody there may have been asked to agree");
  }
  return Problem(std::move(finding), *trouble);
}

}  // namespace lumso_doctor
