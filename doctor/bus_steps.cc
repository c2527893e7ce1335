// The doctor's steps that ask the system bus and the BlueZ daemon.

#include <bluetooth/bluetooth.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string_view>
#include <utility>

#include "doctor/steps.h"

namespace lumso_doctor {

namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kBluez[] = "org.bluez";
constexpr char kBluezPath[] = "/org/bluez";
constexpr char kSystemd[] = "org.freedesktop.systemd1";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kAdapterInterface[] = "org.bluez.Adapter1";
constexpr char kDeviceInterface[] = "org.bluez.Device1";
constexpr char kAgentManager[] = "org.bluez.AgentManager1";
constexpr char kOwnPath[] = "/brel/lumso/lumso_bluetooth/doctor";
constexpr char kOwnInterface[] = "brel.lumso.Doctor";
constexpr char kAccessDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
constexpr char kNoOwner[] = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr char kServiceUnknown[] = "org.freedesktop.DBus.Error.ServiceUnknown";
constexpr char kNoReply[] = "org.freedesktop.DBus.Error.NoReply";

constexpr int kBusMs = 5000;
constexpr int kDaemonMs = 8000;
constexpr gint64 kSettleUs = 300000;

struct BusCall {
  const char* name;
  const char* path;
  const char* interface;
  const char* method;
  GVariant* arguments;  // Taken; may be null.
  const char* reply_type;
  int limit_ms;
};

std::string NoAnswerWithin(int limit_ms) {
  return "no answer within " + std::to_string(limit_ms) + " ms";
}

// Starts nothing that does not run.
BusAnswer Ask(const Patient& patient, const BusCall& call) {
  BusAnswer answer;
  const int limit_ms = TimeLeft(patient, call.limit_ms);
  g_autoptr(GError) error = nullptr;
  answer.value.reset(g_dbus_connection_call_sync(
      patient.bus.get(), call.name, call.path, call.interface, call.method,
      call.arguments, G_VARIANT_TYPE(call.reply_type),
      G_DBUS_CALL_FLAGS_NO_AUTO_START, limit_ms, nullptr, &error));
  if (error == nullptr) return answer;
  g_autofree gchar* name = g_dbus_error_get_remote_error(error);
  answer.late = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
  g_dbus_error_strip_remote_error(error);
  if (name != nullptr) answer.error = name;
  answer.message = answer.late ? NoAnswerWithin(limit_ms) : error->message;
  return answer;
}

BusAnswer AskBus(const Patient& patient, const char* method,
                 GVariant* arguments, const char* reply_type) {
  return Ask(patient,
             {kBus, kBusPath, kBus, method, arguments, reply_type, kBusMs});
}

BusAnswer AskForObjects(const Patient& patient) {
  return Ask(patient,
             {kBluez, "/", "org.freedesktop.DBus.ObjectManager",
              "GetManagedObjects", nullptr, "(a{oa{sa{sv}}})", kDaemonMs});
}

// Runs the main loop until `done`, or for `limit_ms`.
void RunUntil(const bool& done, int limit_ms) {
  bool late = false;
  const guint timer = g_timeout_add(
      static_cast<guint>(limit_ms),
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_CONTINUE;
      },
      &late);
  while (!done && !late) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
}

// Outlives a doctor that no longer waits.
struct Connecting {
  BusAnswer answer;
  std::unique_ptr<GDBusConnection, ConnectionUnref> connection;
  bool done = false;
};
using ConnectingPtr = std::shared_ptr<Connecting>;

void OnConnected(GObject*, GAsyncResult* result, gpointer user_data) {
  const std::unique_ptr<ConnectingPtr> own(
      static_cast<ConnectingPtr*>(user_data));
  Connecting& connecting = **own;
  g_autoptr(GError) error = nullptr;
  connecting.connection.reset(
      g_dbus_connection_new_for_address_finish(result, &error));
  if (error != nullptr) {
    connecting.answer.message = error->message;
    connecting.answer.absent =
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_NOT_FOUND) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED);
  }
  connecting.done = true;
}

// Makes a connection of the doctor's own, whose agent is nobody else's. It is
// given up when the bus says nothing.
BusAnswer ConnectToBus(Patient* patient) {
  const auto connecting = std::make_shared<Connecting>();
  g_autoptr(GError) error = nullptr;
  g_autofree gchar* address =
      g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
  if (address == nullptr) {
    connecting->answer.message = error->message;
    return std::move(connecting->answer);
  }
  g_dbus_connection_new_for_address(
      address,
      static_cast<GDBusConnectionFlags>(
          G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, OnConnected,
      std::make_unique<ConnectingPtr>(connecting).release());
  const int limit_ms = TimeLeft(*patient, kBusMs);
  RunUntil(connecting->done, limit_ms);
  connecting->answer.late = !connecting->done;
  if (!connecting->done) connecting->answer.message = NoAnswerWithin(limit_ms);
  patient->bus = std::move(connecting->connection);
  return std::move(connecting->answer);
}

// Returns what is called `name` in `properties` (a{sv}); null when it is not
// there or of another type.
VariantPtr Property(GVariant* properties, const char* name, const char* type) {
  return VariantPtr(
      g_variant_lookup_value(properties, name, G_VARIANT_TYPE(type)));
}

std::string Text(GVariant* properties, const char* name) {
  const VariantPtr value = Property(properties, name, "s");
  return value == nullptr ? "" : g_variant_get_string(value.get(), nullptr);
}

bool IsSet(GVariant* properties, const char* name) {
  const VariantPtr value = Property(properties, name, "b");
  return value != nullptr && g_variant_get_boolean(value.get());
}

using Visitor =
    std::function<void(const std::string& path, GVariant* properties)>;

// Visits the objects with that interface in the daemon's order.
void ForEachObject(const Patient& patient, const char* interface,
                   const Visitor& visit) {
  const VariantPtr objects(
      g_variant_get_child_value(patient.objects.value.get(), 0));
  GVariantIter iterator;
  g_variant_iter_init(&iterator, objects.get());
  const gchar* path = nullptr;
  GVariant* interfaces = nullptr;
  while (g_variant_iter_loop(&iterator, "{&o@a{sa{sv}}}", &path, &interfaces)) {
    const VariantPtr properties(
        g_variant_lookup_value(interfaces, interface, G_VARIANT_TYPE_VARDICT));
    if (properties != nullptr) visit(path, properties.get());
  }
}

std::string LastName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// The daemon tells its version as that of the device that it says to be.
std::string DaemonVersion(const Patient& patient) {
  std::string version;
  ForEachObject(
      patient, kAdapterInterface,
      [&version](const std::string&, GVariant* properties) {
        unsigned number = 0;
        const std::string modalias = Text(properties, "Modalias");
        if (std::sscanf(modalias.c_str(), "usb:v1D6Bp0246d%4x", &number) == 1) {
          version =
              std::to_string(number >> 8) + "." + std::to_string(number & 0xff);
        }
      });
  return version;
}

// Says why the daemon does not run, as its service sees it.
Finding ExamineService(Finding finding, GVariant* unit, bool startable,
                       const Patient& patient) {
  const std::string load = Text(unit, "LoadState");
  const std::string active = Text(unit, "ActiveState");
  const std::string file = Text(unit, "UnitFileState");
  finding.saw.push_back("bluetooth.service: " + load + ", " + active +
                        (file.empty() ? "" : ", " + file));
  if (load == "masked" || active == "failed")
    return Problem(std::move(finding), Trouble::kDaemonFails);
  if (load == "not-found" || file == "disabled")
    return Problem(std::move(finding), Trouble::kNoDaemon);
  if (active != "inactive") {
    return CannotTell(std::move(finding), "its service is " + active +
                                              " and has no name on the bus");
  }
  // Nobody asks systemd for it before there is a controller.
  if (patient.controllers.empty() && patient.adapter_spoilt != nullptr) {
    return CannotTell(std::move(finding),
                      std::string("see ") + patient.adapter_spoilt);
  }
  if (patient.controllers.empty())
    return Problem(std::move(finding), Trouble::kDaemonSkipped);
  if (!startable) return Problem(std::move(finding), Trouble::kNoDaemon);
  return CannotTell(std::move(finding),
                    "the bus starts it at an application's first call; after "
                    "systemctl start bluetooth the doctor sees more");
}

Finding ExamineAbsentDaemon(Finding finding, Patient* patient) {
  const BusAnswer names =
      AskBus(*patient, "ListActivatableNames", nullptr, "(as)");
  bool startable = false;
  if (names.value != nullptr) {
    g_autofree const gchar** all = nullptr;
    g_variant_get(names.value.get(), "(^a&s)", &all);
    startable = g_strv_contains(all, kBluez);
  }
  finding.saw.push_back(std::string("it does not run, and the bus ") +
                        (startable ? "may start it" : "cannot start it"));
  const BusAnswer unit =
      Ask(*patient, {kSystemd, "/org/freedesktop/systemd1",
                     "org.freedesktop.systemd1.Manager", "LoadUnit",
                     g_variant_new("(s)", "bluetooth.service"), "(o)", kBusMs});
  if (unit.value == nullptr) {
    const bool absent = unit.error == kServiceUnknown || unit.error == kNoOwner;
    const std::string reason =
        absent ? "no systemd on the bus" : "systemd: " + unit.message;
    if (startable && !absent) return CannotTell(std::move(finding), reason);
    finding.saw.push_back(reason);
    return Problem(std::move(finding), Trouble::kNoDaemon);
  }
  const gchar* path = nullptr;
  g_variant_get(unit.value.get(), "(&o)", &path);
  const BusAnswer state =
      Ask(*patient, {kSystemd, path, kProperties, "GetAll",
                     g_variant_new("(s)", "org.freedesktop.systemd1.Unit"),
                     "(a{sv})", kBusMs});
  if (state.value == nullptr)
    return CannotTell(std::move(finding), "systemd: " + state.message);
  const VariantPtr properties(g_variant_get_child_value(state.value.get(), 0));
  return ExamineService(std::move(finding), properties.get(), startable,
                        *patient);
}

// The adapters that let devices pair with them, by their paths.
std::map<std::string, bool> Pairable(const Patient& patient) {
  std::map<std::string, bool> pairable;
  ForEachObject(patient, kAdapterInterface,
                [&pairable](const std::string& path, GVariant* properties) {
                  pairable[path] = IsSet(properties, "Pairable");
                });
  return pairable;
}

// A daemon lets devices pair while somebody has an agent, and no longer when
// the last one goes, also where that was set by hand: there it is set again.
// That happens some milliseconds after the daemon's answer.
void RestorePairable(const std::map<std::string, bool>& before,
                     Patient* patient) {
  const gint64 end = g_get_monotonic_time() + kSettleUs;
  while (g_get_monotonic_time() < end) {
    BusAnswer now = AskForObjects(*patient);
    if (now.value == nullptr) return;
    patient->objects = std::move(now);
    for (const auto& [path, pairable] : Pairable(*patient)) {
      const auto was = before.find(path);
      if (was == before.end() || !was->second || pairable) continue;
      Ask(*patient, {kBluez, path.c_str(), kProperties, "Set",
                     g_variant_new("(ssv)", kAdapterInterface, "Pairable",
                                   g_variant_new_boolean(TRUE)),
                     "()", kBusMs});
    }
    g_usleep(kSettleUs / 10);
  }
}

struct Device {
  std::string path;
  VariantPtr properties;
};

// The device's first record whose path begins with `start`.
Device FindDevice(const Patient& patient, const std::string& start) {
  Device found;
  ForEachObject(
      patient, kDeviceInterface,
      [&](const std::string& path, GVariant* properties) {
        const std::string address = Text(properties, "Address");
        if (found.properties == nullptr && path.rfind(start, 0) == 0 &&
            g_ascii_strcasecmp(address.c_str(), patient.address.c_str()) == 0)
          found = {path, VariantPtr(g_variant_ref(properties))};
      });
  return found;
}

void Note(GDBusConnection*, const gchar*, const gchar*, const gchar*,
          const gchar*, GVariant*, gpointer heard) {
  *static_cast<bool*>(heard) = true;
}

// Tells whether this GLib hands on a signal that pretends to be the daemon's:
// one that the doctor sends to itself. Empty when nothing came back.
std::optional<bool> TakesForgedSignals(const Patient& patient) {
  GDBusConnection* const bus = patient.bus.get();
  const auto listen = [bus](const char* sender, const char* signal,
                            bool* heard) {
    return g_dbus_connection_signal_subscribe(
        bus, sender, kOwnInterface, signal, kOwnPath, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, Note, heard, nullptr);
  };
  bool forged = false;
  bool own = false;
  const guint forged_id = listen(kBluez, "Forged", &forged);
  const guint own_id = listen(nullptr, "Own", &own);
  for (const char* signal : {"Forged", "Own"}) {
    g_dbus_connection_emit_signal(bus, g_dbus_connection_get_unique_name(bus),
                                  kOwnPath, kOwnInterface, signal, nullptr,
                                  nullptr);
  }
  RunUntil(own, TimeLeft(patient, kBusMs));
  g_dbus_connection_signal_unsubscribe(bus, forged_id);
  g_dbus_connection_signal_unsubscribe(bus, own_id);
  return own ? std::optional<bool>(forged) : std::nullopt;
}

}  // namespace

bool IsProbedName(const std::string& name) {
  return std::any_of(kProbedNamePrefixes.begin(), kProbedNamePrefixes.end(),
                     [&name](std::string_view prefix) {
                       return name.compare(0, prefix.size(), prefix) == 0;
                     });
}

Finding ExamineBus(Patient* patient) {
  Finding finding = BeginStep("bus");
  if (patient->bus_spoilt != nullptr) {
    return CannotTell(std::move(finding),
                      std::string("not asked: see ") + patient->bus_spoilt);
  }
  patient->bus_spoilt = finding.step;
  const gint64 began = g_get_monotonic_time();
  BusAnswer answer = ConnectToBus(patient);
  if (patient->bus != nullptr) {
    answer =
        AskBus(*patient, "GetNameOwner", g_variant_new("(s)", kBluez), "(s)");
  }
  if (answer.late) {
    finding.saw.push_back(answer.message);
    return Problem(std::move(finding), Trouble::kBusSilent);
  }
  if (patient->bus == nullptr) {
    finding.saw.push_back(answer.message);
    return Problem(std::move(finding),
                   answer.absent ? Trouble::kNoBus : Trouble::kBusRefuses);
  }
  finding.saw.push_back(
      "answers after " +
      std::to_string((g_get_monotonic_time() - began) / 1000) + " ms");
  if (answer.value == nullptr && answer.error != kNoOwner)
    return Problem(std::move(finding), "GetNameOwner: " + answer.message);
  patient->bus_spoilt = nullptr;
  if (answer.value == nullptr) return finding;
  const gchar* owner = nullptr;
  g_variant_get(answer.value.get(), "(&s)", &owner);
  patient->daemon_owner = owner;

  patient->objects = AskForObjects(*patient);
  if (patient->objects.error == kAccessDenied) {
    finding.saw.push_back("org.bluez: " + patient->objects.message);
    patient->daemon_spoilt = finding.step;
    return Problem(std::move(finding),
                   IsInSnap(*patient) ? Trouble::kNoBus : Trouble::kDenied);
  }
  finding.saw.push_back("lets this user call org.bluez");
  return finding;
}

Finding ExamineDaemon(Patient* patient) {
  Finding finding = BeginStep("daemon");
  for (const char* spoilt : {patient->bus_spoilt, patient->daemon_spoilt}) {
    if (spoilt != nullptr)
      return CannotTell(std::move(finding),
                        std::string("not asked: see ") + spoilt);
  }
  patient->daemon_spoilt = finding.step;
  if (patient->daemon_owner.empty())
    return ExamineAbsentDaemon(std::move(finding), patient);
  if (patient->objects.late) {
    finding.saw.push_back("it runs: " + patient->objects.message);
    return Problem(std::move(finding), Trouble::kDaemonHangs);
  }
  if (patient->objects.value == nullptr) {
    const std::string reason = "GetManagedObjects: " + patient->objects.message;
    if (patient->objects.error != kNoReply)
      return Problem(std::move(finding), reason);
    finding.saw.push_back(reason);
    return Problem(std::move(finding), Trouble::kDaemonFails);
  }
  patient->daemon_spoilt = nullptr;
  const std::string version = DaemonVersion(*patient);
  finding.saw.push_back("it runs and answers, " + (version.empty()
                                                       ? "version not told"
                                                       : "version " + version));
  return finding;
}

Finding ExamineAdapter(Patient* patient) {
  Finding finding = BeginStep("adapter");
  for (const char* spoilt : {patient->bus_spoilt, patient->daemon_spoilt}) {
    if (spoilt != nullptr)
      return CannotTell(std::move(finding),
                        std::string("not asked: see ") + spoilt);
  }
  VariantPtr taken;
  ForEachObject(
      *patient, kAdapterInterface,
      [&](const std::string& path, GVariant* properties) {
        finding.saw.push_back(
            LastName(path) + " " + Text(properties, "Address") +
            (IsSet(properties, "Powered") ? ", on" : ", off") +
            (IsSet(properties, "Discovering") ? ", discovering" : "") +
            (IsSet(properties, "Pairable") ? ", pairable" : ", not pairable"));
        if (taken != nullptr) return;
        taken.reset(g_variant_ref(properties));
        patient->adapter = path;
      });
  const char* const earlier = patient->adapter_spoilt;
  const std::string name = LastName(patient->adapter);
  if (taken != nullptr) {
    finding.saw.push_back("an application takes " + name +
                          ", the first that the daemon lists");
    if (IsSet(taken.get(), "Powered")) {
      patient->adapter_spoilt = nullptr;
      return finding;
    }
  } else {
    finding.saw.push_back("the daemon lists none");
  }
  if (earlier != nullptr)
    return CannotTell(std::move(finding), std::string("see ") + earlier);
  patient->adapter_spoilt = finding.step;
  if (taken == nullptr) return Problem(std::move(finding), Trouble::kNoAdapter);
  const auto& blocked = patient->blocked;
  const bool is_blocked = std::any_of(
      blocked.begin(), blocked.end(), [&name](const std::string& radio) {
        return radio == name || !IsController(radio);
      });
  return Problem(std::move(finding),
                 is_blocked ? Trouble::kBlocked : Trouble::kAdapterOff);
}

Finding ExamineAgent(Patient* patient) {
  Finding finding = BeginStep("agent");
  for (const char* spoilt : {patient->bus_spoilt, patient->daemon_spoilt}) {
    if (spoilt != nullptr)
      return CannotTell(std::move(finding),
                        std::string("not asked: see ") + spoilt);
  }
  const auto ask = [&](const char* method, GVariant* arguments) {
    return Ask(*patient, {kBluez, kBluezPath, kAgentManager, method, arguments,
                          "()", kBusMs});
  };
  BusAnswer now = AskForObjects(*patient);
  if (now.value != nullptr) patient->objects = std::move(now);
  const auto pairable = Pairable(*patient);
  const BusAnswer made =
      ask("RegisterAgent", g_variant_new("(os)", kOwnPath, "NoInputNoOutput"));
  if (made.value == nullptr) {
    // The daemon may come to it yet, and to this after it.
    if (made.late) {
      g_dbus_connection_call(
          patient->bus.get(), kBluez, kBluezPath, kAgentManager,
          "UnregisterAgent", g_variant_new("(o)", kOwnPath), nullptr,
          G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr, nullptr);
    }
    finding.saw.push_back("RegisterAgent: " + made.message);
    return Problem(std::move(finding), made.error == kAccessDenied
                                           ? Trouble::kDenied
                                           : Trouble::kAgentRefused);
  }
  ask("UnregisterAgent", g_variant_new("(o)", kOwnPath));
  RestorePairable(pairable, patient);
  finding.saw.push_back("one can be registered");
  finding.saw.push_back(
      "pairings that a device begins go to whoever asked last to be the "
      "default: the application, or a desktop's dialogue that came later");
  return finding;
}

// Since 2.78.5, 2.80.1 and 2.81, and in what distributions mended, a signal
// counts only when the owner of the name sent it (CVE-2024-34397).
Finding ExamineGlib(Patient* patient) {
  Finding finding = BeginStep("GLib");
  finding.saw.push_back("version " + std::to_string(glib_major_version) + "." +
                        std::to_string(glib_minor_version) + "." +
                        std::to_string(glib_micro_version));
  const auto takes_forged = patient->bus_spoilt == nullptr
                                ? TakesForgedSignals(*patient)
                                : std::nullopt;
  if (!takes_forged) {
    return JudgeGlib(std::move(finding), glib_major_version, glib_minor_version,
                     glib_micro_version);
  }
  if (*takes_forged) {
    return Problem(std::move(finding),
                   "it takes a signal with a forged sender for the daemon's "
                   "(CVE-2024-34397): update it");
  }
  finding.saw.push_back("it drops a signal with a forged sender");
  return finding;
}

Finding JudgeGlib(Finding finding, unsigned major, unsigned minor,
                  unsigned micro) {
  const bool fixed = major > 2 || (major == 2 && minor >= 81) ||
                     (major == 2 && minor == 80 && micro >= 1) ||
                     (major == 2 && minor == 78 && micro >= 5);
  if (fixed) return finding;
  return CannotTell(
      std::move(finding),
      "older than the fix of 2024 (2.78.5, 2.80.1) against signals with a "
      "forged sender; distributions carry it in older versions too, Debian 12 "
      "since 2.74.6-2+deb12u2, which the number does not show");
}

Finding ExamineDevice(Patient* patient) {
  Finding finding = BeginStep("device");
  finding.saw.push_back(patient->address);
  if (bachk(patient->address.c_str()) != 0) {
    patient->address_spoilt = finding.step;
    return Problem(std::move(finding), Trouble::kBadAddress);
  }
  for (const char* spoilt : {patient->bus_spoilt, patient->daemon_spoilt}) {
    if (spoilt != nullptr)
      return CannotTell(std::move(finding),
                        std::string("not asked for: see ") + spoilt);
  }
  const VariantPtr device =
      FindDevice(*patient, patient->adapter + "/").properties;
  if (device == nullptr) {
    const std::string elsewhere = FindDevice(*patient, "/").path;
    if (!elsewhere.empty()) {
      finding.saw.push_back(
          "known to " + LastName(elsewhere.substr(0, elsewhere.rfind('/'))) +
          ", which is not the adapter that an application takes");
    }
    finding.trouble = Trouble::kNotKnown;
    return CannotTell(std::move(finding),
                      "not known to the daemon, which matters only to pairing");
  }
  std::string name = Text(device.get(), "Alias");
  if (name.empty()) name = Text(device.get(), "Name");
  if (Text(device.get(), "AddressType") == "random") {
    finding.saw.push_back(
        "a Low Energy address: there is no channel 1 behind it");
  }
  patient->paired = IsSet(device.get(), "Paired");
  finding.saw.push_back("known as \"" + name + "\", which the prober " +
                        (IsProbedName(name) ? "asks" : "does not ask"));
  finding.saw.push_back(patient->paired ? "paired" : "not paired");
  finding.saw.push_back(IsSet(device.get(), "Connected") ? "connected"
                                                         : "not connected");
  const VariantPtr rssi = Property(device.get(), "RSSI", "n");
  finding.saw.push_back(
      rssi == nullptr
          ? "no signal strength: not seen by a running discovery"
          : "signal strength " +
                std::to_string(g_variant_get_int16(rssi.get())) + " dBm");
  return finding;
}

}  // namespace lumso_doctor
